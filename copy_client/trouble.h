// Why a session can't go on. The words for it are its users' business.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace copy_client {

enum class TroubleKind {
    // Nothing can be sent: the settings or the address are wrong.
    no_session,            // detail: the library's text
    no_address,            // no session either, for the address; detail: the library's text
    no_authentication_key, // the security level needs one; detail: the level's name
    no_privacy_key,        // likewise
    no_user,               // no SNMPv3 user can be made of the settings
    no_message,            // number: SNMPERR_… of the library

    // The agent takes no request of ours.
    unknown_user,
    wrong_authentication, // detail: the protocol in use
    wrong_privacy,        // detail: the protocol in use
    level_without_keys,   // the agent has no keys of the user for the level; detail: its name
    other_engine,         // the agent has another engine id than the settings say
    unsettled_time,       // the agent's engine time is another one each time
    other_report,         // number: SNMPERR_… of the library
    read_refused,         // number: SNMP_ERR_…

    // The agent does not answer. number: SNMP_VERSION_…; detail: for how many seconds.
    silent,
    silent_to_user, // it answers a request without a user
    silent_now,     // it answered before

    out_of_time, // the deadline has come, and the agent answers

    // Of a row.
    making_refused,  // number: SNMP_ERR_…; column: which one the agent does not take
    making_lost,     // too many packets are lost
    activation_lost, // likewise
    row_gone,        // the agent began anew, or somebody removed it
};

struct Trouble : std::exception {
    explicit Trouble(TroubleKind what, long error = 0, std::string text = {},
                     unsigned long where = 0)
        : kind(what), number(error), detail(std::move(text)), column(where) {}
    [[nodiscard]] const char *what() const noexcept override { return "trouble with an agent"; }

    TroubleKind kind;
    long number;
    std::string detail;
    unsigned long column;
};

// What SNMPERR_… of the library says of our credentials; other_report when it says nothing of
// them.
TroubleKind kind_of_error(int error);

} // namespace copy_client
