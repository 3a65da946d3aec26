#include "config-copy/agents/agent_session.h"

#include "config-copy/agents/agent_address.h"
#include "config-copy/interrupt.h"
#include "config-copy/output/outcome.h"

#include <iostream>

namespace config_copy {
namespace {

// What the agent says about our credentials; empty if it says nothing about them.
std::string describe_credentials_error(TroubleKind kind, const std::string &detail) {
    const std::string in_use = detail.empty() ? "" : ", here " + detail;
    switch (kind) {
    case TroubleKind::unknown_user:
        return "the agent does not know this SNMPv3 user: check -u";
    case TroubleKind::wrong_authentication:
        return "the agent does not accept the user's authentication: check the passphrase (-A) and "
               "the protocol (-a" +
               in_use + ')';
    case TroubleKind::wrong_privacy:
        return "the agent can't decrypt the user's requests: check the passphrase (-X) and the "
               "protocol (-x" +
               in_use + ')';
    case TroubleKind::level_without_keys:
        return "the agent has no keys of this user for the security level " + detail +
               ": choose another one with -l, or add the keys on the agent";
    case TroubleKind::other_engine:
        return "the agent's engine id is not the one that was given: check -e";
    case TroubleKind::unsettled_time:
        return "the agent's engine time does not settle: does another agent have the same engine "
               "id?";
    default:
        return {};
    }
}

std::string describe_error(TroubleKind kind, const Trouble &trouble) {
    const std::string words = describe_credentials_error(kind, trouble.detail);
    return words.empty() ? ::snmp_api_errstring(static_cast<int>(trouble.number)) : words;
}

std::string describe_silence(const Trouble &trouble) {
    switch (trouble.kind) {
    case TroubleKind::silent_now:
        return "it answered before, so check whether it still runs";
    case TroubleKind::silent_to_user:
        return "an agent is there, but does not answer this user's requests: check the context "
               "(-n) and the user's settings";
    default:
        return std::string(
                   "check the address, whether the agent runs, and whether a firewall lets SNMP "
                   "pass") +
               (trouble.number == SNMP_VERSION_3
                    ? ""
                    : "; a wrong community (-c) is not answered either");
    }
}

} // namespace

Session session_with(const netsnmp_session &defaults, const std::string &agent, bool is_verbose,
                     std::chrono::seconds limit) {
    const auto began = Clock::now();
    const std::string address = reachable_address(agent, limit);
    const auto took = std::chrono::floor<std::chrono::seconds>(Clock::now() - began);
    return session_at(defaults, {agent, address}, is_verbose, limit - took);
}

Session session_at(const netsnmp_session &defaults, const Peer &peer, bool is_verbose,
                   std::chrono::seconds limit) {
    Trace trace;
    if (is_verbose) { // one write: other sessions print at the same time
        trace = [agent = peer.name](const std::string &text) {
            std::cerr << "config-copy: " + agent + ": " + text + '\n' << std::flush;
        };
    }
    return {defaults, peer, interrupt_descriptor(), std::move(trace), Clock::now() + limit};
}

Failure failure_of(const Trouble &trouble, const std::string &agent) {
    const auto key_missing = [&](const char *what) {
        return bad_usage("the security level " + trouble.detail + " needs " + what);
    };
    switch (trouble.kind) {
    case TroubleKind::no_session:
        return bad_usage("no session with " + agent + ": " + trouble.detail);
    case TroubleKind::no_address:
        return {ExitStatus::unreachable, "no session with " + agent + ": " + trouble.detail};
    case TroubleKind::no_authentication_key:
        return key_missing("an authentication passphrase: give -A PASSPHRASE with -a PROTOCOL, or "
                           "defAuthPassphrase in snmp.conf");
    case TroubleKind::no_privacy_key:
        return key_missing("a privacy passphrase: give -X PASSPHRASE with -x PROTOCOL, or "
                           "defPrivPassphrase in snmp.conf");
    case TroubleKind::no_user:
        return bad_usage(
            "the options and snmp.conf do not make an SNMPv3 user: check -u, -l, -A and "
            "-X");
    case TroubleKind::no_message:
        return bad_usage("can't make a request to " + agent + ": " +
                         describe_error(kind_of_error(static_cast<int>(trouble.number)), trouble));
    case TroubleKind::silent:
    case TroubleKind::silent_to_user:
    case TroubleKind::silent_now:
        return {ExitStatus::unreachable, "no answer from " + agent + " in " + trouble.detail +
                                             " s: " + describe_silence(trouble)};
    case TroubleKind::read_refused:
        return {ExitStatus::refused,
                trouble.number == SNMP_ERR_AUTHORIZATIONERROR && !trouble.detail.empty()
                    ? agent + ": " + describe_low_level(trouble.detail)
                    : agent + " refuses a read with " +
                          ::snmp_errstring(static_cast<int>(trouble.number)) + ": " +
                          read_view_needed};
    case TroubleKind::making_refused:
        return {ExitStatus::refused,
                agent + ": " + describe_refusal(trouble.number, trouble.column, trouble.detail)};
    case TroubleKind::making_lost:
        return {ExitStatus::unreachable,
                agent + " answers, but the copy request can't be made: too many packets are lost"};
    case TroubleKind::activation_lost:
        return {ExitStatus::unreachable,
                agent + " answers, but the copy can't be started: too many packets are lost"};
    case TroubleKind::row_gone:
        return {
            ExitStatus::failed,
            agent +
                ": the request is gone, so the outcome is not known: the agent was restarted, or "
                "somebody removed it; `cmdshell -c \"show copies\"` on the switch may show it"};
    case TroubleKind::out_of_time:
        return {ExitStatus::unreachable,
                agent + " answers, but not all was asked in the time limit: raise it with "
                        "--time-limit, or see with --verbose what the agent answers"};
    case TroubleKind::wrong_answer:
        return {ExitStatus::unreachable,
                agent + " is broken: it answers a question for " + trouble.detail +
                    " with another object, or with a value that this object can't have; see the "
                    "answer with --verbose, and check which agent runs there"};
    case TroubleKind::names_not_rising:
        return {ExitStatus::unreachable,
                agent + " is broken: a walk of " + trouble.detail +
                    " comes back to where it was and would never end; restart or update the agent"};
    case TroubleKind::endless_table:
        return {ExitStatus::unreachable,
                agent + " has more than " + std::to_string(trouble.number) + " instances of " +
                    trouble.detail +
                    ", so it is broken or flooded with requests; copy requests "
                    "expire within 7 minutes, otherwise restart or update the agent"};
    case TroubleKind::too_many_octets:
        return {ExitStatus::unreachable,
                agent + " is broken: it sent more than " + std::to_string(trouble.number) +
                    " octets in answer to one request; check the address, and which agent runs "
                    "there"};
    case TroubleKind::no_free_index:
        return {ExitStatus::unreachable,
                agent + " is broken: it has a copy request at each of " +
                    std::to_string(trouble.number) +
                    " numbers that were chosen at random, so none can be made; restart or update "
                    "the agent"};
    default:
        return {ExitStatus::refused, agent + ": " + describe_error(trouble.kind, trouble)};
    }
}

} // namespace config_copy
