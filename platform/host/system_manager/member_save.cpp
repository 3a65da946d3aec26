#include "platform/host/system_manager/member_save.h"

#include "base/address_text.h"
#include "base/text.h"
#include "copy_client/copy_row.h"
#include "copy_client/user.h"

#include <algorithm>

namespace ulmo {
namespace {

using namespace copy_client;
using namespace std::chrono_literals;

// nsExtendOutputFull (NET-SNMP-EXTEND-MIB) of the member's `extend last-save`.
Oid last_save_output() {
    constexpr std::string_view name = "last-save";
    Oid object{1, 3, 6, 1, 4, 1, 8072, 1, 3, 2, 3, 1, 2, name.size()};
    object.insert(object.end(), name.begin(), name.end());
    return object;
}

Peer peer_of(const FabricMember &member) {
    const std::string address = address_text(member.address);
    const bool is_ipv6 = member.address.type == INET_ADDRESS_IPV6;
    return {wwn_to_text(member.wwn), (is_ipv6 ? "udp6:[" + address + ']' : "udp:" + address) + ':' +
                                         std::to_string(member.port)};
}

constexpr Milliseconds cleaning_time = 800ms;

// The member's own text about its last save; empty if it does not answer.
std::string last_save(Session &session) {
    try {
        return octets(session.get({last_save_output()}).front());
    } catch (const Trouble &) {
        // The save has failed in any case; why there is no text does not matter.
        return {};
    }
}

std::string save(Session &session, CopyRow &row, std::chrono::seconds limit) {
    try {
        row.make({{CC_COLUMN_SOURCE_FILE_TYPE, COPY_FILE_RUNNING},
                  {CC_COLUMN_DEST_FILE_TYPE, COPY_FILE_STARTUP}});
        if (const long status = row.activate(); status != SNMP_ERR_NOERROR) {
            return describe_refused_start(status);
        }
        const CopyState end = row.await_end([] {});
        if (end.state == COPY_STATE_SUCCESSFUL) {
            return "saved";
        }
        return describe_failure(end.cause,
                                end.cause == COPY_FAIL_WARDEN_FAILED ? last_save(session) : "");
    } catch (const Stopped &) {
        return std::string(save_given_up);
    } catch (const Trouble &trouble) {
        return describe_trouble(trouble, limit);
    }
}

std::string describe_status(long status) {
    switch (status) {
    case SNMP_ERR_NOACCESS:
    case SNMP_ERR_AUTHORIZATIONERROR:
        return "not permitted";
    case SNMP_ERR_NOTWRITABLE:
    case SNMP_ERR_NOCREATION:
    case SNMP_ERR_NOSUCHNAME:
        return "no copy table there";
    default:
        return "refused with error status " + std::to_string(status);
    }
}

std::string first_line(std::string_view text) {
    constexpr std::size_t longest = 80;
    return one_line(trimmed(text.substr(0, text.find_first_of("\r\n"))), longest);
}

} // namespace

std::string save_member(const FabricMember &member, std::chrono::seconds limit, int stop) {
    const auto began = Clock::now();
    // A lost packet costs the time of one request; the last part of the limit is reserved for
    // destroying the row.
    const auto request_time = std::clamp<Milliseconds>(Milliseconds(limit) / 6, 150ms, 1s);
    // A member that does not answer gets four requests; then a wrong privacy key is looked for.
    constexpr int attempts = 4;
    const User user{member.user, member.auth_protocol, member.auth_passphrase, member.priv_protocol,
                    member.priv_passphrase};
    netsnmp_session settings{};
    ::snmp_sess_init(&settings);
    settings.timeout = static_cast<long>(std::chrono::microseconds(request_time).count());
    settings.retries = attempts - 1;
    set_user(settings, user);
    try {
        Session session(settings, peer_of(member), stop);
        session.set_deadline(began + limit -
                             std::min<Milliseconds>(Milliseconds(limit) / 4, 500ms));
        CopyRow row(session);
        std::string words = save(session, row, limit);
        session.begin_to_clean_up(cleaning_time / 3); // enough for three removals
        session.set_deadline(
            std::min<Clock::time_point>(began + limit, Clock::now() + cleaning_time));
        row.destroy();
        return words;
    } catch (const Trouble &trouble) { // while the session is set up
        return describe_trouble(trouble, limit);
    }
}

std::string describe_trouble(const Trouble &trouble, std::chrono::seconds limit) {
    const std::string time = std::to_string(limit.count()) + " s";
    switch (trouble.kind) {
    case TroubleKind::unknown_user:
    case TroubleKind::wrong_authentication:
        return "authentication failed";
    case TroubleKind::wrong_privacy:
        return "wrong privacy key";
    case TroubleKind::level_without_keys:
        return "its user has no privacy key";
    case TroubleKind::other_engine:
    case TroubleKind::unsettled_time:
        return "its engine id is not its own"; // another switch uses it, too
    case TroubleKind::silent:
    case TroubleKind::silent_to_user:
    case TroubleKind::silent_now:
        return "no answer in " + time;
    case TroubleKind::out_of_time:
        return "not saved in " + time;
    case TroubleKind::read_refused:
    case TroubleKind::making_refused:
        return describe_status(trouble.number);
    case TroubleKind::making_lost:
    case TroubleKind::activation_lost:
        return "too many packets are lost";
    case TroubleKind::wrong_answer:
    case TroubleKind::names_not_rising:
    case TroubleKind::endless_table:
    case TroubleKind::too_many_octets:
    case TroubleKind::no_free_index:
        return "its agent answers wrongly";
    case TroubleKind::row_gone:
        return "its copy request is gone"; // the agent was restarted, or somebody destroyed the row
    case TroubleKind::no_message:
    case TroubleKind::other_report:
        return std::string("can't be asked: ") +
               ::snmp_api_errstring(static_cast<int>(trouble.number));
    default:
        return "can't be asked: " + trouble.detail;
    }
}

std::string describe_refused_start(long status) {
    return status == SNMP_ERR_GENERR || status == SNMP_ERR_INCONSISTENTVALUE
               ? "another copy is in progress"
               : describe_status(status);
}

std::string describe_failure(std::int64_t cause, std::string_view last_save) {
    if (cause == COPY_FAIL_WARDEN_REFUSED) {
        return "refused by its system manager";
    }
    if (cause != COPY_FAIL_WARDEN_FAILED) {
        return "failed with cause " + std::to_string(cause);
    }
    // A failure that the member has not recorded: its system manager does not run, for instance.
    // Its last save then went well, or there was none, which cmdshell reports as an error.
    std::string reason = first_line(last_save);
    return reason.empty() || reason == "saved" || reason.starts_with("cmdshell: ")
               ? "its system manager could not save"
               : reason;
}

} // namespace ulmo
