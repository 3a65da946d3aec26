#include "platform/host/system_manager/member_save.h"

#include "platform/copy_table.h"
#include "platform/host/history/log.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

namespace ulmo {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;
using namespace std::chrono_literals;
using Oid = std::vector<oid>;

Oid copy_entry(oid column, oid index) {
    return {CC_COPY_COLUMN_OID(column), index};
}

// nsExtendOutputFull (NET-SNMP-EXTEND-MIB) of the member's `extend last-save`.
Oid last_save_output() {
    constexpr std::string_view name = "last-save";
    Oid object{1, 3, 6, 1, 4, 1, 8072, 1, 3, 2, 3, 1, 2, name.size()};
    object.insert(object.end(), name.begin(), name.end());
    return object;
}

const Oid system_up_time{1, 3, 6, 1, 2, 1, 1, 3, 0};

oid random_index() {
    std::random_device source;
    return std::uniform_int_distribution<oid>(1, CC_INDEX_MAX)(source);
}

// Thrown where a save ends before its time. Kept apart from the errors of the program.
struct Outcome {
    std::string words;
};

struct FreePdu {
    void operator()(netsnmp_pdu *pdu) const { ::snmp_free_pdu(pdu); }
};
using Pdu = std::unique_ptr<netsnmp_pdu, FreePdu>;

Pdu new_pdu(int command) {
    Pdu pdu(::snmp_pdu_create(command));
    if (!pdu) {
        throw std::bad_alloc();
    }
    return pdu;
}

Pdu get_request(std::initializer_list<Oid> objects) {
    Pdu pdu = new_pdu(SNMP_MSG_GET);
    for (const Oid &object : objects) {
        ::snmp_add_null_var(pdu.get(), object.data(), object.size());
    }
    return pdu;
}

Pdu set_request(std::initializer_list<std::pair<Oid, long>> values) {
    Pdu pdu = new_pdu(SNMP_MSG_SET);
    for (const auto &[object, value] : values) {
        ::snmp_pdu_add_variable(pdu.get(), object.data(), object.size(), ASN_INTEGER, &value, sizeof value);
    }
    return pdu;
}

std::optional<long> integer_of(const netsnmp_variable_list *variable) {
    if (variable == nullptr || variable->type != ASN_INTEGER) {
        return std::nullopt;
    }
    return *variable->val.integer;
}

// The library must read no user's configuration, load no MIB modules, keep nothing on this machine and print nothing.
void set_up_library() {
    ::setenv("MIBS", "", 1);
    ::setenv("MIBDIRS", "", 1);
    ::netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
    ::netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    ::netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    ::set_persistent_directory("/dev/null"); // it makes folders for certificates in it even so
    ::init_snmp("wardend");
}

std::string peer_name(const FabricMember &member) {
    char address[INET6_ADDRSTRLEN] = "";
    ip_addr_to_str(&member.address, address, sizeof address);
    const std::string port = ':' + std::to_string(member.port);
    return member.address.type == INET_ADDRESS_IPV6 ? "udp6:[" + std::string(address) + ']' + port : "udp:" + std::string(address) + port;
}

void make_key(std::span<const oid> hash, const std::string &passphrase, u_char *key, std::size_t &length) {
    if (::generate_Ku(hash.data(), static_cast<u_int>(hash.size()), reinterpret_cast<const u_char *>(passphrase.data()), passphrase.size(),
                      key, &length) != SNMPERR_SUCCESS) {
        throw std::runtime_error("no key can be made of a passphrase");
    }
}

// One request at a time with one member. The library repeats none: what is lost stays lost.
class Session {
  public:
    explicit Session(const FabricMember &member) : peer_(peer_name(member)), user_(member.user) {
        ::snmp_sess_init(&settings_);
        settings_.version = SNMP_VERSION_3;
        settings_.peername = peer_.data();
        settings_.retries = 0;
        settings_.securityName = user_.data();
        settings_.securityNameLen = user_.size();
        settings_.securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
        settings_.securityAuthProto =
            ::sc_get_auth_oid(::usm_lookup_auth_type(member.auth_protocol.c_str()), &settings_.securityAuthProtoLen);
        settings_.securityPrivProto =
            ::sc_get_priv_oid(::usm_lookup_priv_type(member.priv_protocol.c_str()), &settings_.securityPrivProtoLen);
        settings_.securityAuthKeyLen = USM_AUTH_KU_LEN;
        settings_.securityPrivKeyLen = USM_PRIV_KU_LEN;
        const std::span<const oid> hash(settings_.securityAuthProto, settings_.securityAuthProtoLen);
        make_key(hash, member.auth_passphrase, settings_.securityAuthKey, settings_.securityAuthKeyLen);
        make_key(hash, member.priv_passphrase, settings_.securityPrivKey, settings_.securityPrivKeyLen);
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session() {
        if (handle_ != nullptr) {
            ::snmp_sess_close(handle_);
        }
    }

    // Finds the member's engine id, unless that is known. False when the member did not answer in time.
    bool open(Milliseconds timeout) {
        if (handle_ == nullptr) {
            settings_.timeout = std::chrono::microseconds(timeout).count();
            handle_ = ::snmp_sess_open(&settings_);
            if (handle_ == nullptr) {
                give_up_for_good(settings_.s_snmp_errno);
            }
        }
        return handle_ != nullptr;
    }

    // The answer, or nothing when none came in time. Throws the outcome when the member takes no request of ours at all.
    Pdu ask(Pdu request, Milliseconds timeout) {
        ::snmp_sess_session(handle_)->timeout = std::chrono::microseconds(timeout).count();
        netsnmp_pdu *answer = nullptr;
        const int status = ::snmp_sess_synch_response(handle_, request.release(), &answer);
        Pdu owned(answer);
        if (status == STAT_SUCCESS && owned && owned->command == SNMP_MSG_RESPONSE) {
            return owned;
        }
        int library_error = SNMPERR_TIMEOUT;
        if (status == STAT_ERROR) {
            int system_error = 0;
            char *text = nullptr;
            ::snmp_sess_error(handle_, &system_error, &library_error, &text);
            std::free(text);
            give_up_for_good(library_error);
        }
        return nullptr;
    }

  private:
    void give_up_for_good(int library_error) const {
        log_debug("asking %s: %s", peer_.c_str(), ::snmp_api_errstring(library_error));
        if (std::string words = words_of_library_error(library_error); !words.empty()) {
            throw Outcome{std::move(words)};
        }
    }

    std::string peer_;
    std::string user_;
    netsnmp_session settings_{};
    void *handle_ = nullptr;
};

class Save {
  public:
    Save(const FabricMember &member, std::chrono::seconds limit, bool (*is_stopped)())
        : session_(member), limit_(limit), is_stopped_(is_stopped),
          // A lost datagram costs one request's time; the last part of the limit is kept for taking the row away.
          request_time_(std::clamp<Milliseconds>(Milliseconds(limit) / 5, 200ms, 1s)), limit_end_(Clock::now() + limit),
          end_(limit_end_ - std::min<Milliseconds>(Milliseconds(limit) / 4, 500ms)) {}

    std::string run() {
        std::string words;
        try {
            begin();
            activate();
            words = outcome();
        } catch (const Outcome &outcome) {
            words = outcome.words;
        }
        take_rows_away();
        return words;
    }

  private:
    // --- time ---

    Milliseconds time_left() const { return std::chrono::duration_cast<Milliseconds>(end_ - Clock::now()); }

    // Throws when there is nothing more to be done.
    void check_time() const {
        if (is_stopped_()) {
            throw Outcome{std::string(save_given_up)};
        }
        if (time_left() <= 0ms) {
            // The last request may have been cut short by the limit, so that its silence alone tells nothing.
            const bool is_silent = Clock::now() - last_answer_ > 2 * request_time_;
            throw Outcome{(is_silent ? "no answer in " : "not saved in ") + std::to_string(limit_.count()) + " s"};
        }
    }

    void wait(Milliseconds time) const {
        const auto ended = Clock::now() + std::min(time, time_left());
        for (auto rest = ended - Clock::now(); rest > 0ms && !is_stopped_(); rest = ended - Clock::now()) {
            const auto slice = std::chrono::duration_cast<std::chrono::nanoseconds>(std::min<Clock::duration>(rest, 100ms)).count();
            const timespec span{0, slice};
            ::nanosleep(&span, nullptr);
        }
    }

    // --- requests ---

    Pdu ask_once(Pdu request) {
        Pdu answer = session_.ask(std::move(request), std::clamp<Milliseconds>(time_left(), 1ms, request_time_));
        if (answer) {
            last_answer_ = Clock::now();
        }
        return answer;
    }

    // A GET does no harm when it is repeated.
    Pdu get(std::initializer_list<Oid> objects) {
        for (;;) {
            check_time();
            if (Pdu answer = ask_once(get_request(objects))) {
                if (answer->errstat != SNMP_ERR_NOERROR) {
                    throw Outcome{words_of_error_status(SaveStep::other, answer->errstat)};
                }
                return answer;
            }
        }
    }

    // The error status, or nothing when it is not known whether the SET was carried out. Never repeated: it may come late.
    std::optional<long> set(std::initializer_list<std::pair<Oid, long>> values) {
        check_time();
        const Pdu answer = ask_once(set_request(values));
        return answer ? std::optional(answer->errstat) : std::nullopt;
    }

    // --- the course of a save ---

    // Leaves a row of ours, filled in, at the member.
    void begin() {
        first_contact();
        for (;;) {
            // Each attempt has an index of its own: a second createAndWait that meets the late first one would block the row.
            row_ = random_index();
            if (integer_of(get({copy_entry(CC_COLUMN_ENTRY_ROW_STATUS, row_)})->variables)) {
                continue; // somebody else's
            }
            rows_.push_back(row_);
            const auto status = set({{copy_entry(CC_COLUMN_ENTRY_ROW_STATUS, row_), RS_CREATEANDWAIT},
                                     {copy_entry(CC_COLUMN_SOURCE_FILE_TYPE, row_), COPY_FILE_RUNNING},
                                     {copy_entry(CC_COLUMN_DEST_FILE_TYPE, row_), COPY_FILE_STARTUP}});
            if (status == SNMP_ERR_NOERROR) {
                return;
            }
            if (status == SNMP_ERR_INCONSISTENTVALUE) { // taken by somebody else since the GET
                rows_.pop_back();
            } else if (status) {
                throw Outcome{words_of_error_status(SaveStep::create, *status)};
            } else if (integer_of(get({copy_entry(CC_COLUMN_ENTRY_ROW_STATUS, row_)})->variables)) {
                return;
            }
        }
    }

    // An agent says nothing to a request that it can't decrypt. But it answers the same user's request without privacy, if only with a
    // refusal: so silence to the one and answers to the other mean that the key is wrong, unless four datagrams in a row were lost.
    void first_contact() {
        constexpr int enough = 4;
        int unreadable = 0;
        while (unreadable < enough && time_left() > 0ms) {
            check_time();
            if (!session_.open(std::min(time_left(), request_time_))) {
                continue;
            }
            if (ask_once(get_request({system_up_time}))) {
                return;
            }
            Pdu request = get_request({system_up_time});
            request->securityLevel = SNMP_SEC_LEVEL_AUTHNOPRIV;
            if (ask_once(std::move(request))) {
                ++unreadable;
            }
        }
        if (unreadable == 0) {
            check_time();
        }
        throw Outcome{"wrong privacy key"};
    }

    void activate() {
        bool is_sure = true; // that no earlier SET is under way
        for (;;) {
            const auto status = set({{copy_entry(CC_COLUMN_ENTRY_ROW_STATUS, row_), RS_ACTIVE}});
            if (status == SNMP_ERR_NOERROR) {
                return;
            }
            if (status && is_sure) {
                throw Outcome{words_of_error_status(SaveStep::activate, *status)};
            }
            if (state() != COPY_STATE_WAITING) {
                return; // it was carried out, and its answer was lost
            }
            if (status) {
                throw Outcome{words_of_error_status(SaveStep::activate, *status)};
            }
            is_sure = false;
        }
    }

    long state() {
        const auto state = integer_of(get({copy_entry(CC_COLUMN_STATE, row_)})->variables);
        if (!state) {
            throw Outcome{"its copy request is gone"}; // its agent began anew, or somebody destroyed the row
        }
        return *state;
    }

    std::string outcome() {
        Milliseconds pause = 50ms;
        for (;;) {
            const long now = state();
            if (now == COPY_STATE_SUCCESSFUL) {
                return "saved";
            }
            if (now == COPY_STATE_FAILED) {
                break;
            }
            wait(pause);
            pause = std::min<Milliseconds>(pause * 2, 500ms);
        }
        const auto cause = integer_of(get({copy_entry(CC_COLUMN_FAIL_CAUSE, row_)})->variables);
        return words_of_failure(cause.value_or(0), cause == COPY_FAIL_WARDEN_FAILED ? last_save() : "");
    }

    // What the member itself says; empty when that is not to be had.
    std::string last_save() {
        try {
            const Pdu answer = get({last_save_output()});
            const netsnmp_variable_list *text = answer->variables;
            if (text != nullptr && text->type == ASN_OCTET_STR) {
                return {text->val.string, text->val.string + text->val_len};
            }
        } catch (const Outcome &) { // the save failed either way, and why it did not answer this is of no interest
        }
        return {};
    }

    // Rows whose making was not answered may be there too. A destroy of what is not there is no error, and may be repeated.
    void take_rows_away() {
        const auto end = std::min(limit_end_, Clock::now() + 800ms);
        for (auto row = rows_.rbegin(); row != rows_.rend(); ++row) {
            try {
                for (auto left = end - Clock::now(); left > 0ms; left = end - Clock::now()) {
                    const auto timeout = std::max<Milliseconds>(std::chrono::duration_cast<Milliseconds>(left / 2), 50ms);
                    if (session_.ask(set_request({{copy_entry(CC_COLUMN_ENTRY_ROW_STATUS, *row), RS_DESTROY}}), timeout)) {
                        break;
                    }
                }
            } catch (const Outcome &) { // the row goes with its age
            }
        }
    }

    Session session_;
    std::chrono::seconds limit_;
    bool (*is_stopped_)();
    Milliseconds request_time_;
    Clock::time_point limit_end_;
    Clock::time_point end_; // of all but taking the rows away
    Clock::time_point last_answer_{};
    oid row_ = 0;
    std::vector<oid> rows_; // all that may be there
};

// The first line, as far as it is printable ASCII, without blanks at its ends.
std::string first_line(std::string_view text) {
    constexpr std::size_t longest = 80;
    std::string line;
    for (const char c : text.substr(0, text.find_first_of("\r\n"))) {
        if (c >= ' ' && c <= '~' && line.size() < longest && (c != ' ' || !line.empty())) {
            line += c;
        }
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

} // namespace

std::string words_of_error_status(SaveStep step, long status) {
    switch (status) {
    case SNMP_ERR_NOACCESS:
    case SNMP_ERR_AUTHORIZATIONERROR:
        return "not permitted";
    case SNMP_ERR_NOTWRITABLE:
    case SNMP_ERR_NOCREATION:
    case SNMP_ERR_NOSUCHNAME:
        return "no copy table there";
    case SNMP_ERR_GENERR:
    case SNMP_ERR_INCONSISTENTVALUE:
        if (step == SaveStep::activate) {
            return "another copy is in progress";
        }
        break;
    default:
        break;
    }
    return "refused with error status " + std::to_string(status);
}

std::string words_of_library_error(int error) {
    switch (error) {
    case SNMPERR_UNKNOWN_USER_NAME:
    case SNMPERR_AUTHENTICATION_FAILURE:
        return "authentication failed";
    case SNMPERR_DECRYPTION_ERR:
        return "wrong privacy key";
    case SNMPERR_UNSUPPORTED_SEC_LEVEL:
        return "its user has no privacy key";
    default:
        return {};
    }
}

std::string words_of_failure(long cause, std::string_view last_save) {
    if (cause == COPY_FAIL_WARDEN_REFUSED) {
        return "refused by its system manager";
    }
    if (cause != COPY_FAIL_WARDEN_FAILED) {
        return "failed with cause " + std::to_string(cause);
    }
    std::string reason = first_line(last_save);
    return reason.empty() || reason == "saved" ? "its system manager could not save" : reason;
}

std::string save_member(const FabricMember &member, std::chrono::seconds limit, bool (*is_stopped)()) {
    set_up_library();
    return Save(member, limit, is_stopped).run();
}

} // namespace ulmo
