#include "copy_client/session.h"

#include "copy_client/answer.h"
#include "copy_client/message_text.h"

#include <net-snmp/library/large_fd_set.h>

#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <new>
#include <sstream>
#include <utility>

namespace copy_client {
namespace {

std::mutex library;

// An SNMPv3 user needs a key for everything that the security level includes. The library would
// notice a missing one only when it sends.
void check_keys(const netsnmp_session &session) {
    const auto is_any_set = [](std::initializer_list<int> settings) {
        return std::any_of(settings.begin(), settings.end(), [](int which) {
            return ::netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, which) != nullptr;
        });
    };
    const int level = security_level(session);
    const bool has_authentication =
        session.securityAuthKeyLen > 0 || session.securityAuthLocalKeyLen > 0 ||
        is_any_set({NETSNMP_DS_LIB_PASSPHRASE, NETSNMP_DS_LIB_AUTHPASSPHRASE,
                    NETSNMP_DS_LIB_AUTHMASTERKEY, NETSNMP_DS_LIB_AUTHLOCALIZEDKEY});
    const bool has_privacy =
        session.securityPrivKeyLen > 0 || session.securityPrivLocalKeyLen > 0 ||
        is_any_set({NETSNMP_DS_LIB_PASSPHRASE, NETSNMP_DS_LIB_PRIVPASSPHRASE,
                    NETSNMP_DS_LIB_PRIVMASTERKEY, NETSNMP_DS_LIB_PRIVLOCALIZEDKEY});
    const std::string name(name_of_level(level));
    if (level >= SNMP_SEC_LEVEL_AUTHNOPRIV && !has_authentication) {
        throw Trouble(TroubleKind::no_authentication_key, 0, name);
    }
    if (level >= SNMP_SEC_LEVEL_AUTHPRIV && !has_privacy) {
        throw Trouble(TroubleKind::no_privacy_key, 0, name);
    }
}

std::string text_of(const char *text) {
    return text == nullptr ? "" : text;
}

} // namespace

TroubleKind kind_of_error(int error) {
    switch (error) {
    case SNMPERR_UNKNOWN_USER_NAME:
    case SNMPERR_USM_UNKNOWNSECURITYNAME:
        return TroubleKind::unknown_user;
    case SNMPERR_AUTHENTICATION_FAILURE:
    case SNMPERR_USM_AUTHENTICATIONFAILURE:
        return TroubleKind::wrong_authentication;
    case SNMPERR_DECRYPTION_ERR:
    case SNMPERR_USM_DECRYPTIONERROR:
        return TroubleKind::wrong_privacy;
    case SNMPERR_UNSUPPORTED_SEC_LEVEL:
    case SNMPERR_USM_UNSUPPORTEDSECURITYLEVEL:
        return TroubleKind::level_without_keys;
    case SNMPERR_UNKNOWN_ENG_ID:
    case SNMPERR_USM_UNKNOWNENGINEID:
        return TroubleKind::other_engine;
    case SNMPERR_NOT_IN_TIME_WINDOW:
    case SNMPERR_USM_NOTINTIMEWINDOW:
        return TroubleKind::unsettled_time;
    default:
        return TroubleKind::other_report;
    }
}

std::optional<std::int64_t> number(const Value &value) {
    const auto *found = std::get_if<std::int64_t>(&value);
    return found == nullptr ? std::nullopt : std::optional(*found);
}

std::string octets(const Value &value) {
    const auto *found = std::get_if<std::string>(&value);
    return found == nullptr ? "" : *found;
}

int security_level(const netsnmp_session &session) {
    const int level = session.securityLevel > 0
                          ? session.securityLevel
                          : ::netsnmp_ds_get_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_SECLEVEL);
    return level > 0 ? level : SNMP_SEC_LEVEL_NOAUTH;
}

std::string security_name(const netsnmp_session &session) {
    if (session.version != SNMP_VERSION_3) {
        return {};
    }
    if (session.securityNameLen > 0) {
        return {session.securityName, session.securityNameLen};
    }
    const char *name = ::netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_SECNAME);
    return name == nullptr ? "" : name;
}

std::string_view name_of_level(int level) {
    return level == SNMP_SEC_LEVEL_AUTHPRIV     ? "authPriv"
           : level == SNMP_SEC_LEVEL_AUTHNOPRIV ? "authNoPriv"
                                                : "noAuthNoPriv";
}

void set_up_library(const char *program) {
    ::setenv("MIBS", "", 1);
    ::setenv("MIBDIRS", "", 1);
    ::netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
    ::netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    ::netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    // The library creates directories for certificates there even so.
    ::set_persistent_directory("/dev/null");
    ::init_snmp(program);
}

struct Session::Pending {
    bool ended = false;
    bool is_silent = false;
    bool repeated = false;
    int report = SNMPERR_SUCCESS;
    Pdu answer;
};

void Session::FreePdu::operator()(netsnmp_pdu *pdu) const {
    ::snmp_free_pdu(pdu);
}

// The library would ask for the agent's engine id here and wait for it. make_ready() does that
// without blocking other sessions.
Session::Session(const netsnmp_session &settings, Peer peer, int stop, Trace trace,
                 Clock::time_point deadline)
    : peer_(std::move(peer)), stop_(stop), trace_(std::move(trace)), deadline_(deadline) {
    const std::lock_guard lock(library);
    netsnmp_session opened = settings;
    opened.peername = peer_.address.data();
    opened.flags |= SNMP_FLAGS_DONT_PROBE;
    handle_ = ::snmp_sess_open(&opened);
    if (handle_ == nullptr) {
        int system_error = 0;
        int error = 0;
        char *text = nullptr;
        ::snmp_error(&opened, &system_error, &error, &text);
        const std::string reason = text_of(text);
        std::free(text);
        const bool is_address = error == SNMPERR_BAD_ADDRESS || error == SNMPERR_NO_SOCKET ||
                                error == SNMPERR_BAD_SENDTO;
        throw Trouble(is_address ? TroubleKind::no_address : TroubleKind::no_session, 0, reason);
    }
    session_ = ::snmp_sess_session(handle_);
    // Opening the session clears this flag, and the first request would then ask for the engine id.
    session_->flags |= SNMP_FLAGS_DONT_PROBE;
    timeout_ = std::max(
        std::chrono::duration_cast<Milliseconds>(std::chrono::microseconds(session_->timeout)),
        Milliseconds(1));
    attempts_ = session_->retries + 1;
    session_->retries = 0;
}

Session::~Session() {
    const std::lock_guard lock(library);
    ::snmp_sess_close(handle_);
}

bool Session::is_usm() const {
    return session_->version == SNMP_VERSION_3 && session_->securityModel == SNMP_SEC_MODEL_USM;
}

std::string Session::low_level() const {
    const int level = security_level(*session_);
    return session_->version == SNMP_VERSION_3 && level < SNMP_SEC_LEVEL_AUTHPRIV
               ? std::string(name_of_level(level))
               : "";
}

void Session::begin_to_clean_up(Milliseconds most) {
    cleans_up_ = true;
    stop_ = -1;
    timeout_ = std::min(timeout_, most);
}

void Session::pause(Milliseconds time) const {
    pause_for(std::min(time, time_left()), stop_);
}

Milliseconds Session::time_left() const {
    return deadline_ == Clock::time_point::max()
               ? Milliseconds::max()
               : std::max(std::chrono::ceil<Milliseconds>(deadline_ - Clock::now()),
                          Milliseconds(0));
}

Trouble silence_of(const netsnmp_session &settings, Milliseconds waited, TroubleKind kind) {
    std::ostringstream seconds;
    seconds << static_cast<double>(waited.count()) / 1000;
    return Trouble(kind, settings.version, seconds.str());
}

Trouble Session::silence() const {
    Milliseconds waited = timeout_ * attempts_;
    if (time_left() == Milliseconds(0)) { // the deadline cut it short
        const auto since = std::chrono::round<std::chrono::seconds>(Clock::now() - began_);
        waited = std::min<Milliseconds>(waited, std::max(since, std::chrono::seconds(1)));
    }
    return silence_of(*session_, waited,
                      has_answered_ ? TroubleKind::silent_now
                      : is_found_   ? TroubleKind::silent_to_user
                                    : TroubleKind::silent);
}

// Calls `ask` until it has an answer: as often as the settings say, or until the deadline.
template <typename Ask> void Session::ask_again_and_again(Ask ask) {
    do {
        for (int attempt = 0; attempt < attempts_; ++attempt) {
            if (ask()) {
                return;
            }
        }
        check_privacy();
    } while (waits_out_silence_); // exchange() ends the loop at the deadline
    throw silence();
}

// Called by the library while we hold its lock.
int Session::on_event(int operation, netsnmp_session *session, int, netsnmp_pdu *pdu, void *magic) {
    auto &pending = *static_cast<Pending *>(magic);
    // a report that names no user, such as one about an unknown user
    if (operation == NETSNMP_CALLBACK_OP_SEC_ERROR) {
        const bool is_report = pdu != nullptr && pdu->command == SNMP_MSG_REPORT;
        pending.report = is_report ? ::snmpv3_get_report_type(pdu) : session->s_snmp_errno;
        pending.ended = true;
        return 1;
    }
    if (operation != NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE) {
        pending.ended = pending.is_silent = true;
        return 1;
    }
    if (pdu->command == SNMP_MSG_REPORT) {
        pending.report = ::snmpv3_get_report_type(pdu);
        // If the agent did not process a request because of its time, the library itself repeats it
        // once.
        if (pending.report == SNMPERR_NOT_IN_TIME_WINDOW &&
            !std::exchange(pending.repeated, true)) {
            return 1;
        }
    } else {
        pending.report = SNMPERR_SUCCESS;
        pending.answer.reset(::snmp_clone_pdu(pdu));
    }
    pending.ended = true;
    return 1;
}

Session::Pdu Session::request(int command, const std::vector<Binding> &bindings) const {
    const std::lock_guard lock(library);
    Pdu pdu(::snmp_pdu_create(command));
    if (!pdu) {
        throw std::bad_alloc();
    }
    for (const auto &[name, value] : bindings) {
        if (const auto *number = std::get_if<std::int64_t>(&value)) {
            const auto native = static_cast<long>(*number);
            ::snmp_pdu_add_variable(pdu.get(), name.data(), name.size(), ASN_INTEGER, &native,
                                    sizeof native);
        } else if (const auto *octets = std::get_if<std::string>(&value)) {
            ::snmp_pdu_add_variable(pdu.get(), name.data(), name.size(), ASN_OCTET_STR,
                                    octets->data(), octets->size());
        } else {
            ::snmp_add_null_var(pdu.get(), name.data(), name.size());
        }
    }
    return pdu;
}

// Sends the request and returns the answer; empty if none came.
Session::Pdu Session::exchange(Pdu pdu, bool reports_are_answers) {
    if (time_left() == Milliseconds(0)) {
        // A single request may have been lost, or cut short by the deadline, so its silence means
        // nothing.
        throw has_answered_ && unanswered_ < 2 ? Trouble(TroubleKind::out_of_time) : silence();
    }
    if (trace_) {
        trace_(describe_request(*pdu));
    }
    Pending &pending = pending_.emplace_back();
    // The network refuses it at once; the route may come back.
    if (!send(std::move(pdu), pending)) {
        pending_.pop_back();
        if (trace_) {
            trace_("  not sent: the network refuses it");
        }
        if (!cleans_up_) {
            pause(timeout_);
        }
        return nullptr;
    }
    // If this throws, the record stays, because the library may still point to it.
    await(pending);
    Pending ended = std::move(pending);
    pending_.pop_back();
    if (trace_) {
        trace_(ended.is_silent ? "  no answer"
               : ended.report != SNMPERR_SUCCESS
                   ? std::string("  report: ") + ::snmp_api_errstring(ended.report)
                   : "  " + describe_answer(*ended.answer));
    }
    if (ended.is_silent) {
        ++unanswered_;
        return nullptr;
    }
    unanswered_ = 0;
    if (reports_are_answers) {
        is_found_ = true;
    } else {
        has_answered_ = true;
        if (ended.report != SNMPERR_SUCCESS) {
            const TroubleKind kind = kind_of_error(ended.report);
            throw Trouble(kind, ended.report, detail_of(kind));
        }
    }
    return std::move(ended.answer);
}

// Returns false if the network refuses the message.
bool Session::send(Pdu pdu, Pending &pending) {
    const std::lock_guard lock(library);
    session_->timeout =
        static_cast<long>(std::chrono::microseconds(std::min(timeout_, time_left())).count());
    if (::snmp_sess_async_send(handle_, pdu.get(), &Session::on_event, &pending) != 0) {
        static_cast<void>(pdu.release()); // now owned by the library
        return true;
    }
    const int error = session_->s_snmp_errno;
    if (error != SNMPERR_BAD_SENDTO) {
        pending_.pop_back();
        throw Trouble(TroubleKind::no_message, error, detail_of(kind_of_error(error)));
    }
    return false;
}

void Session::await(Pending &pending) {
    constexpr int most_octets = 1 << 20;
    constexpr int most_at_a_time = 1 << 16; // in one read of the library
    int taken = 0;
    while (!pending.ended) {
        timeval time{};
        {
            const std::lock_guard lock(library);
            netsnmp_large_fd_set descriptors;
            ::netsnmp_large_fd_set_init(&descriptors, FD_SETSIZE);
            int count = 0;
            int block = 1;
            ::snmp_sess_select_info2(handle_, &count, &descriptors, &time, &block);
            ::netsnmp_large_fd_set_cleanup(&descriptors);
        }
        const auto left =
            std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
        const int socket = ::snmp_sess_transport(handle_)->sock;
        const bool has_input = wait_for_input(socket, stop_, std::chrono::ceil<Milliseconds>(left));
        const std::lock_guard lock(library);
        if (has_input) {
            int waiting = 0;
            ::ioctl(socket, FIONREAD, &waiting);
            taken += std::min(waiting, most_at_a_time);
            if (taken > most_octets) {
                throw Trouble(TroubleKind::too_many_octets, most_octets);
            }
            netsnmp_large_fd_set descriptors;
            ::netsnmp_large_fd_set_init(&descriptors, FD_SETSIZE);
            ::netsnmp_large_fd_setfd(socket, &descriptors);
            ::snmp_sess_read2(handle_, &descriptors);
            ::netsnmp_large_fd_set_cleanup(&descriptors);
        }
        if (!pending.ended) { // also after input, which need not be our answer
            ::snmp_sess_timeout(handle_);
        }
    }
}

// The detail for an error message: the protocol in use, which may be a default, or the security
// level.
std::string Session::detail_of(TroubleKind kind) const {
    switch (kind) {
    case TroubleKind::wrong_authentication:
        return text_of(::usm_lookup_auth_str(::sc_get_authtype(
            session_->securityAuthProto, static_cast<u_int>(session_->securityAuthProtoLen))));
    case TroubleKind::wrong_privacy:
        return text_of(::usm_lookup_priv_str(::sc_get_privtype(
            session_->securityPrivProto, static_cast<u_int>(session_->securityPrivProtoLen))));
    case TroubleKind::level_without_keys:
        return std::string(name_of_level(security_level(*session_)));
    default:
        return {};
    }
}

void Session::make_ready() {
    if (is_ready_) {
        return;
    }
    if (is_usm()) {
        check_keys(*session_);
        discover_engine();
    } else if (session_->version == SNMP_VERSION_3 && session_->contextEngineIDLen == 0) {
        discover_context_engine();
    }
    is_ready_ = true;
}

// An empty request without a user (RFC 3414, section 4): the report carries the engine id, which
// the library stores.
void Session::discover_engine() {
    const auto is_known = [this] { return session_->securityEngineIDLen > 0; };
    if (!is_known()) {
        ask_again_and_again([&] {
            Pdu probe = request(SNMP_MSG_GET, {});
            probe->version = SNMP_VERSION_3;
            probe->securityModel = SNMP_SEC_MODEL_USM;
            probe->securityLevel = SNMP_SEC_LEVEL_NOAUTH;
            probe->securityName = ::strdup("");
            exchange(std::move(probe), true);
            return is_known();
        });
    }
    const std::lock_guard lock(library);
    if (::usm_create_user_from_session(session_) != SNMPERR_SUCCESS) {
        throw Trouble(TroubleKind::no_user);
    }
}

// If the transport secures the messages, nothing reveals the engine id, so ask the agent for it
// (RFC 5343, section 3.2).
void Session::discover_context_engine() {
    constexpr std::array<unsigned char, 5> local_engine{0x80, 0, 0, 0, 6};
    ask_again_and_again([&] {
        // snmpEngineID
        Pdu probe = request(SNMP_MSG_GET, {{{1, 3, 6, 1, 6, 3, 10, 2, 1, 1, 0}, {}}});
        probe->version = SNMP_VERSION_3;
        probe->contextEngineID = static_cast<unsigned char *>(
            ::netsnmp_memdup(local_engine.data(), local_engine.size()));
        probe->contextEngineIDLen = local_engine.size();
        const Pdu answer = exchange(std::move(probe));
        const netsnmp_variable_list *engine = answer ? answer->variables : nullptr;
        if (engine == nullptr || engine->type != ASN_OCTET_STR || engine->val_len == 0) {
            return false;
        }
        session_->contextEngineID =
            static_cast<unsigned char *>(::netsnmp_memdup(engine->val.string, engine->val_len));
        session_->contextEngineIDLen = engine->val_len;
        return true;
    });
}

// An agent does not answer a request that it can't decrypt, but it answers the same user's request
// without privacy, at least with a refusal.
void Session::check_privacy() {
    if (!is_usm() || session_->securityLevel != SNMP_SEC_LEVEL_AUTHPRIV || has_answered_ ||
        !is_found_) {
        return;
    }
    Pdu plain = request(SNMP_MSG_GET, {{{1, 3, 6, 1, 2, 1, 1, 3, 0}, {}}}); // sysUpTime
    plain->securityLevel = SNMP_SEC_LEVEL_AUTHNOPRIV;
    if (exchange(std::move(plain))) {
        throw Trouble(TroubleKind::wrong_privacy, 0, detail_of(TroubleKind::wrong_privacy));
    }
}

Session::Pdu Session::answer_to(int command, const std::vector<Binding> &bindings) {
    make_ready();
    Pdu answer;
    ask_again_and_again([&] {
        answer = exchange(request(command, bindings));
        return answer != nullptr;
    });
    return answer;
}

std::vector<Value> Session::get(const std::vector<Oid> &names) {
    std::vector<Value> values;
    // SNMPv1 refuses the whole request if one of the objects does not exist.
    if (session_->version == SNMP_VERSION_1 && names.size() > 1) {
        for (const Oid &name : names) {
            values.push_back(get({name}).front());
        }
        return values;
    }
    std::vector<Binding> bindings;
    bindings.reserve(names.size());
    for (const Oid &name : names) {
        bindings.push_back({name, {}});
    }
    const Pdu answer = answer_to(SNMP_MSG_GET, bindings);
    if (answer->errstat == SNMP_ERR_NOSUCHNAME) {
        return std::vector<Value>(names.size());
    }
    check_read(*answer);
    return values_of(*answer, names);
}

bool Session::has_object(const Oid &name) {
    const Pdu answer = answer_to(SNMP_MSG_GET, {{name, {}}});
    return answer->variables == nullptr || answer->variables->type != SNMP_NOSUCHOBJECT;
}

void Session::check_read(const netsnmp_pdu &answer) const {
    if (answer.errstat != SNMP_ERR_NOERROR) {
        throw Trouble(TroubleKind::read_refused, answer.errstat, low_level());
    }
}

std::vector<Binding> Session::instances(const Oid &name, std::size_t most) {
    std::vector<Binding> found;
    for (;;) {
        const Oid &last = found.empty() ? name : found.back().name;
        const Pdu answer = answer_to(SNMP_MSG_GETNEXT, {{last, {}}});
        if (answer->errstat == SNMP_ERR_NOSUCHNAME) {
            return found;
        }
        check_read(*answer);
        auto next = instance_of(*answer, name, last);
        if (!next) {
            return found;
        }
        if (found.size() == most) {
            throw Trouble(TroubleKind::endless_table, most_instances, describe_name(name));
        }
        found.push_back(std::move(*next));
    }
}

std::optional<SetResult> Session::set(const std::vector<Binding> &bindings) {
    make_ready();
    const Pdu answer = exchange(request(SNMP_MSG_SET, bindings));
    if (!answer) {
        return std::nullopt;
    }
    return SetResult{answer->errstat, static_cast<std::size_t>(std::max(answer->errindex, 0L))};
}

} // namespace copy_client
