#include "config-copy/snmp_session.h"

#include "config-copy/agent_address.h"
#include "config-copy/failure.h"
#include "config-copy/interrupt.h"
#include "config-copy/message_text.h"
#include "config-copy/outcome.h"

#include <net-snmp/library/large_fd_set.h>

#include <poll.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <new>
#include <sstream>
#include <utility>

namespace config_copy {
namespace {

std::mutex library;

Value value_of(const netsnmp_variable_list &variable) {
    switch (variable.type) {
    case ASN_INTEGER:
        return *variable.val.integer;
    case ASN_TIMETICKS:
    case ASN_GAUGE:
    case ASN_COUNTER:
        return static_cast<long>(static_cast<std::uint32_t>(*variable.val.integer));
    case ASN_OCTET_STR:
    case ASN_IPADDRESS:
        return std::string(reinterpret_cast<const char *>(variable.val.string), variable.val_len);
    default:
        return {};
    }
}

// "here AES", so that a protocol that nobody chose shows, too.
std::string protocol_in_use(const char *name) {
    return name == nullptr ? "" : std::string(", here ") + name;
}

// What a report says of our credentials, or nothing when it says nothing about them.
std::string words_of_report(int error, const netsnmp_session &session) {
    switch (error) {
    case SNMPERR_UNKNOWN_USER_NAME:
    case SNMPERR_USM_UNKNOWNSECURITYNAME:
        return "the agent does not know this SNMPv3 user: check -u";
    case SNMPERR_AUTHENTICATION_FAILURE:
    case SNMPERR_USM_AUTHENTICATIONFAILURE:
        return "the agent does not accept the user's authentication: check the passphrase (-A) and the protocol (-a" +
               protocol_in_use(
                   ::usm_lookup_auth_str(::sc_get_authtype(session.securityAuthProto, static_cast<u_int>(session.securityAuthProtoLen)))) +
               ')';
    case SNMPERR_DECRYPTION_ERR:
    case SNMPERR_USM_DECRYPTIONERROR:
        return "the agent can't decrypt the user's requests: check the passphrase (-X) and the protocol (-x" +
               protocol_in_use(
                   ::usm_lookup_priv_str(::sc_get_privtype(session.securityPrivProto, static_cast<u_int>(session.securityPrivProtoLen)))) +
               ')';
    case SNMPERR_UNSUPPORTED_SEC_LEVEL:
    case SNMPERR_USM_UNSUPPORTEDSECURITYLEVEL:
        return "the agent has no keys of this user for the security level " + std::string(name_of_level(security_level(session))) +
               ": choose another one with -l, or add the keys on the agent";
    case SNMPERR_UNKNOWN_ENG_ID:
    case SNMPERR_USM_UNKNOWNENGINEID:
        return "the agent has another engine id: check -e";
    case SNMPERR_NOT_IN_TIME_WINDOW:
    case SNMPERR_USM_NOTINTIMEWINDOW:
        return "the agent's engine time does not settle: does another agent have the same engine id?";
    default:
        return {};
    }
}

} // namespace

std::optional<long> number(const Value &value) {
    const long *found = std::get_if<long>(&value);
    return found == nullptr ? std::nullopt : std::optional(*found);
}

std::string octets(const Value &value) {
    const auto *found = std::get_if<std::string>(&value);
    return found == nullptr ? "" : *found;
}

int security_level(const netsnmp_session &session) {
    const int level =
        session.securityLevel > 0 ? session.securityLevel : ::netsnmp_ds_get_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_SECLEVEL);
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
    return level == SNMP_SEC_LEVEL_AUTHPRIV ? "authPriv" : level == SNMP_SEC_LEVEL_AUTHNOPRIV ? "authNoPriv" : "noAuthNoPriv";
}

namespace {

// A user of SNMPv3 needs a key for all that the security level promises. The library finds out no sooner than it sends.
void check_keys(const netsnmp_session &session) {
    const auto is_any_set = [](std::initializer_list<int> settings) {
        return std::any_of(settings.begin(), settings.end(),
                           [](int which) { return ::netsnmp_ds_get_string(NETSNMP_DS_LIBRARY_ID, which) != nullptr; });
    };
    const int level = security_level(session);
    const bool has_authentication = session.securityAuthKeyLen > 0 || session.securityAuthLocalKeyLen > 0 ||
                                    is_any_set({NETSNMP_DS_LIB_PASSPHRASE, NETSNMP_DS_LIB_AUTHPASSPHRASE, NETSNMP_DS_LIB_AUTHMASTERKEY,
                                                NETSNMP_DS_LIB_AUTHLOCALIZEDKEY});
    const bool has_privacy = session.securityPrivKeyLen > 0 || session.securityPrivLocalKeyLen > 0 ||
                             is_any_set({NETSNMP_DS_LIB_PASSPHRASE, NETSNMP_DS_LIB_PRIVPASSPHRASE, NETSNMP_DS_LIB_PRIVMASTERKEY,
                                         NETSNMP_DS_LIB_PRIVLOCALIZEDKEY});
    const auto missing = [&](const std::string &what) {
        return bad_usage("the security level " + std::string(name_of_level(level)) + " needs " + what);
    };
    if (level >= SNMP_SEC_LEVEL_AUTHNOPRIV && !has_authentication) {
        throw missing("an authentication passphrase: give -A PASSPHRASE with -a PROTOCOL, or defAuthPassphrase in snmp.conf");
    }
    if (level >= SNMP_SEC_LEVEL_AUTHPRIV && !has_privacy) {
        throw missing("a privacy passphrase: give -X PASSPHRASE with -x PROTOCOL, or defPrivPassphrase in snmp.conf");
    }
}

} // namespace

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

Session::Session(const netsnmp_session &defaults, const std::string &agent, bool is_verbose) : agent_(agent), is_verbose_(is_verbose) {
    open(defaults);
}

Session::~Session() {
    const std::lock_guard lock(library);
    ::snmp_sess_close(handle_);
}

// The library would look for the agent's engine id here and now, and wait for it: make_ready() does that without holding up the others.
void Session::open(const netsnmp_session &defaults) {
    std::string peer = reachable_address(agent_);
    const std::lock_guard lock(library);
    netsnmp_session settings = defaults;
    settings.peername = peer.data();
    settings.flags |= SNMP_FLAGS_DONT_PROBE;
    handle_ = ::snmp_sess_open(&settings);
    if (handle_ == nullptr) {
        int system_error = 0;
        int error = 0;
        char *text = nullptr;
        ::snmp_error(&settings, &system_error, &error, &text);
        const std::string reason(text == nullptr ? "" : text);
        std::free(text);
        const bool is_address = error == SNMPERR_BAD_ADDRESS || error == SNMPERR_NO_SOCKET || error == SNMPERR_BAD_SENDTO;
        throw Failure(is_address ? Ending::unreachable : Ending::usage, "no session with " + agent_ + ": " + reason);
    }
    session_ = ::snmp_sess_session(handle_);
    session_->flags |= SNMP_FLAGS_DONT_PROBE; // which opening takes away, so that the first request would look for the engine id
    timeout_ =
        std::max<Milliseconds>(std::chrono::duration_cast<Milliseconds>(std::chrono::microseconds(session_->timeout)), Milliseconds(1));
    attempts_ = session_->retries + 1;
    session_->retries = 0;
}

bool Session::is_version_1() const {
    return session_->version == SNMP_VERSION_1;
}

std::string Session::low_level() const {
    const int level = security_level(*session_);
    return session_->version == SNMP_VERSION_3 && level < SNMP_SEC_LEVEL_AUTHPRIV ? std::string(name_of_level(level)) : "";
}

void Session::begin_to_clean_up(Milliseconds most) {
    cleans_up_ = true;
    attempts_ = 1;
    timeout_ = std::min(timeout_, most);
}

// --- one request ---

// Called by the library, which holds the lock through us.
int Session::on_event(int operation, netsnmp_session *session, int, netsnmp_pdu *pdu, void *magic) {
    auto &pending = *static_cast<Pending *>(magic);
    if (operation == NETSNMP_CALLBACK_OP_SEC_ERROR) { // a report that names no user, as one about a user who is not known
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
        // The library itself repeats a request that the agent did not look at for its time, once.
        if (pending.report == SNMPERR_NOT_IN_TIME_WINDOW && !std::exchange(pending.repeated, true)) {
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
    Pdu pdu(::snmp_pdu_create(command));
    if (!pdu) {
        throw std::bad_alloc();
    }
    for (const auto &[name, value] : bindings) {
        if (const long *number = std::get_if<long>(&value)) {
            ::snmp_pdu_add_variable(pdu.get(), name.data(), name.size(), ASN_INTEGER, number, sizeof *number);
        } else if (const auto *octets = std::get_if<std::string>(&value)) {
            ::snmp_pdu_add_variable(pdu.get(), name.data(), name.size(), ASN_OCTET_STR, octets->data(), octets->size());
        } else {
            ::snmp_add_null_var(pdu.get(), name.data(), name.size());
        }
    }
    return pdu;
}

// Sends the request and returns the answer; nothing when none came. Throws the Failure that a report means.
Session::Pdu Session::exchange(Pdu pdu, bool reports_are_answers) {
    if (is_verbose_) {
        tell(words_of_request(*pdu));
    }
    pending_.emplace_back();
    Pending &pending = pending_.back();
    {
        const std::lock_guard lock(library);
        session_->timeout = std::chrono::microseconds(timeout_).count();
        if (::snmp_sess_async_send(handle_, pdu.get(), &Session::on_event, &pending) != 0) {
            static_cast<void>(pdu.release()); // the library's now
        } else {
            const int error = session_->s_snmp_errno;
            pending_.pop_back();
            if (error != SNMPERR_BAD_SENDTO) {
                const std::string words = words_of_report(error, *session_);
                throw Failure(Ending::usage,
                              "no request to " + agent_ + " can be made: " + (words.empty() ? ::snmp_api_errstring(error) : words));
            }
        }
    }
    if (pdu) { // not sent, for the network says so at once: it may come back
        if (is_verbose_) {
            tell("  not sent: the network refuses it");
        }
        if (cleans_up_) {
            return nullptr;
        }
        pause_for(timeout_);
        return nullptr;
    }
    await(pending); // leaves the record where it is when it throws, as the library may still point to it
    Pdu answer = std::move(pending.answer);
    const int report = pending.is_silent ? SNMPERR_SUCCESS : pending.report;
    const bool is_silent = pending.is_silent;
    pending_.pop_back();
    if (is_verbose_) {
        tell(is_silent                   ? "  no answer"
             : report != SNMPERR_SUCCESS ? std::string("  report: ") + ::snmp_api_errstring(report)
                                         : "  " + words_of_answer(*answer));
    }
    if (is_silent) {
        return nullptr;
    }
    answered_ = true;
    if (report != SNMPERR_SUCCESS && !reports_are_answers) {
        const std::string words = words_of_report(report, *session_);
        throw Failure(Ending::refused, agent_ + ": " + (words.empty() ? ::snmp_api_errstring(report) : words));
    }
    return answer;
}

void Session::await(Pending &pending) {
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
        const auto left = std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
        const bool has_input = wait_for_input(std::chrono::ceil<Milliseconds>(left));
        const std::lock_guard lock(library);
        if (has_input) {
            netsnmp_large_fd_set descriptors;
            ::netsnmp_large_fd_set_init(&descriptors, FD_SETSIZE);
            ::netsnmp_large_fd_setfd(::snmp_sess_transport(handle_)->sock, &descriptors);
            ::snmp_sess_read2(handle_, &descriptors);
            ::netsnmp_large_fd_set_cleanup(&descriptors);
        } else {
            ::snmp_sess_timeout(handle_);
        }
    }
}

bool Session::wait_for_input(Milliseconds time) const {
    std::array<pollfd, 2> waited{{{::snmp_sess_transport(handle_)->sock, POLLIN, 0}, {interrupt_descriptor(), POLLIN, 0}}};
    ::poll(waited.data(), cleans_up_ ? 1 : 2, static_cast<int>(time.count()));
    if (!cleans_up_ && interrupting_signal() != 0) {
        throw Interrupted{};
    }
    return waited[0].revents != 0;
}

// In one piece, as other sessions tell theirs at the same time.
void Session::tell(const std::string &text) const {
    std::cerr << "config-copy: " + agent_ + ": " + text + '\n' << std::flush;
}

// --- the way to the agent ---

void Session::make_ready() {
    if (is_ready_) {
        return;
    }
    if (session_->version == SNMP_VERSION_3 && session_->securityModel == SNMP_SEC_MODEL_USM) {
        check_keys(*session_);
        discover_engine();
    } else if (session_->version == SNMP_VERSION_3 && session_->contextEngineIDLen == 0) {
        discover_context_engine();
    }
    is_ready_ = true;
}

// An empty request without a user, as of RFC 3414, section 4: the report tells the engine id, and the library notes it.
void Session::discover_engine() {
    for (int attempt = 0; session_->securityEngineIDLen == 0; ++attempt) {
        if (attempt == attempts_) {
            give_up_silent();
        }
        Pdu probe = request(SNMP_MSG_GET, {});
        probe->version = SNMP_VERSION_3;
        probe->securityModel = SNMP_SEC_MODEL_USM;
        probe->securityLevel = SNMP_SEC_LEVEL_NOAUTH;
        probe->securityName = ::strdup("");
        exchange(std::move(probe), true);
    }
    discovered_ = answered_;
    answered_ = false;
    const std::lock_guard lock(library);
    if (const int error = ::usm_create_user_from_session(session_); error != SNMPERR_SUCCESS) {
        throw Failure(Ending::usage, "no SNMPv3 user can be made of the options and snmp.conf: check -u, -l, -A and -X");
    }
}

// Where the transport secures the messages nothing tells the engine, and the agent is asked: RFC 5343, section 3.2.
void Session::discover_context_engine() {
    constexpr std::array<unsigned char, 5> local_engine{0x80, 0, 0, 0, 6};
    for (int attempt = 0; attempt < attempts_; ++attempt) {
        Pdu probe = request(SNMP_MSG_GET, {{{1, 3, 6, 1, 6, 3, 10, 2, 1, 1, 0}, {}}}); // snmpEngineID
        probe->version = SNMP_VERSION_3;
        probe->contextEngineID = static_cast<unsigned char *>(::netsnmp_memdup(local_engine.data(), local_engine.size()));
        probe->contextEngineIDLen = local_engine.size();
        const Pdu answer = exchange(std::move(probe));
        const netsnmp_variable_list *engine = answer ? answer->variables : nullptr;
        if (engine != nullptr && engine->type == ASN_OCTET_STR && engine->val_len > 0) {
            session_->contextEngineID = static_cast<unsigned char *>(::netsnmp_memdup(engine->val.string, engine->val_len));
            session_->contextEngineIDLen = engine->val_len;
            return;
        }
    }
    give_up_silent();
}

// An agent says nothing to a request that it can't decrypt, but answers the same user's request without privacy, if only with a refusal.
void Session::check_privacy() {
    if (session_->version != SNMP_VERSION_3 || session_->securityLevel != SNMP_SEC_LEVEL_AUTHPRIV || answered_ || !discovered_) {
        return;
    }
    Pdu plain = request(SNMP_MSG_GET, {{{1, 3, 6, 1, 2, 1, 1, 3, 0}, {}}});
    plain->securityLevel = SNMP_SEC_LEVEL_AUTHNOPRIV;
    if (exchange(std::move(plain))) {
        throw Failure(Ending::refused, agent_ + ": " + words_of_report(SNMPERR_DECRYPTION_ERR, *session_));
    }
}

std::string Session::seconds_waited() const {
    std::ostringstream text;
    text << static_cast<double>((timeout_ * attempts_).count()) / 1000;
    return text.str();
}

void Session::give_up_silent() const {
    std::string text = "no answer from " + agent_ + " in " + seconds_waited() + " s: ";
    if (answered_) {
        text += "it answered before; is it still running?";
    } else if (discovered_) {
        text += "an agent is there, but does not answer this user's requests: check the context (-n) and the user's settings";
    } else {
        text += "check the address, whether the agent runs, and whether a firewall lets SNMP pass";
        text += session_->version == SNMP_VERSION_3 ? "" : "; a wrong community (-c) is not answered either";
    }
    throw Failure(Ending::unreachable, text);
}

Session::Pdu Session::ask_again_and_again(int command, const std::vector<Binding> &bindings) {
    make_ready();
    for (int attempt = 0; attempt < attempts_; ++attempt) {
        if (Pdu answer = exchange(request(command, bindings))) {
            return answer;
        }
    }
    check_privacy();
    give_up_silent();
}

// --- requests ---

std::vector<Value> Session::get(const std::vector<Oid> &names) {
    std::vector<Value> values;
    if (is_version_1() && names.size() > 1) { // which refuses the whole request for one that is not there
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
    const Pdu answer = ask_again_and_again(SNMP_MSG_GET, bindings);
    values.resize(names.size());
    if (answer->errstat == SNMP_ERR_NOSUCHNAME) {
        return values;
    }
    check_read(*answer);
    std::size_t i = 0;
    for (const netsnmp_variable_list *variable = answer->variables; variable != nullptr && i < values.size();
         variable = variable->next_variable) {
        values[i++] = value_of(*variable);
    }
    return values;
}

bool Session::has_object(const Oid &name) {
    const Pdu answer = ask_again_and_again(SNMP_MSG_GET, {{name, {}}});
    return answer->variables == nullptr || answer->variables->type != SNMP_NOSUCHOBJECT;
}

void Session::check_read(const netsnmp_pdu &answer) const {
    if (answer.errstat != SNMP_ERR_NOERROR) {
        const std::string level = low_level();
        throw Failure(Ending::refused, answer.errstat == SNMP_ERR_AUTHORIZATIONERROR && !level.empty()
                                           ? agent_ + ": " + words_of_low_level(level)
                                           : agent_ + " refuses a read with " + ::snmp_errstring(static_cast<int>(answer.errstat)) + ": " +
                                                 read_view_needed);
    }
}

// The first instance behind the name, whatever it is; nothing at the end of the agent's objects.
std::optional<Binding> Session::next(const Oid &name) {
    const Pdu answer = ask_again_and_again(SNMP_MSG_GETNEXT, {{name, {}}});
    const netsnmp_variable_list *variable = answer->variables;
    if (answer->errstat == SNMP_ERR_NOSUCHNAME || variable == nullptr || variable->type == SNMP_ENDOFMIBVIEW) {
        return std::nullopt;
    }
    check_read(*answer);
    return Binding{Oid(variable->name, variable->name + variable->name_length), value_of(*variable)};
}

std::vector<Binding> Session::instances(const Oid &name) {
    std::vector<Binding> found;
    for (auto at = next(name); at && at->name.size() == name.size() + 1 && std::equal(name.begin(), name.end(), at->name.begin());
         at = next(found.back().name)) {
        found.push_back(std::move(*at));
    }
    return found;
}

std::optional<SetResult> Session::set(const std::vector<Binding> &bindings) {
    make_ready();
    const Pdu answer = exchange(request(SNMP_MSG_SET, bindings));
    if (!answer) {
        return std::nullopt;
    }
    return SetResult{answer->errstat, static_cast<std::size_t>(std::max(answer->errindex, 0L))};
}

} // namespace config_copy
