// Why a session can't go on. Its callers put it into words.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace copy_client {

enum class TroubleKind {
    // Nothing can be sent: the settings or the address are wrong.
    no_session,            // detail: the library's text
    no_address,            // the same, because of the address; detail: the library's text
    no_authentication_key, // the security level needs one; detail: the level's name
    no_privacy_key,        // likewise
    no_user,               // the settings make no SNMPv3 user
    no_message,            // number: SNMPERR_… of the library

    // The agent does not accept our requests.
    unknown_user,
    wrong_authentication, // detail: the protocol in use
    wrong_privacy,        // detail: the protocol in use
    level_without_keys,   // the agent has no keys of the user for it; detail: the level's name
    other_engine,         // the agent's engine id differs from the one in the settings
    unsettled_time,       // the agent's engine time differs each time
    other_report,         // number: SNMPERR_… of the library
    read_refused,         // number: SNMP_ERR_…

    // The agent does not answer. number: SNMP_VERSION_…; detail: the seconds waited.
    silent,
    silent_to_user, // it answers a request without a user
    silent_now,     // it answered before

    out_of_time, // the deadline is over, and the agent answers

    // The agent is broken. detail: the requested object, where noted.
    wrong_answer,     // another object, or a value that the object can't have; detail
    names_not_rising, // a walk goes back; detail
    endless_table,    // more instances than number; detail
    too_many_octets,  // more than number in answer to one request
    no_free_index,    // number random indexes all have a row

    // About a row.
    making_refused,  // number: SNMP_ERR_…; column: the one that the agent refuses
    making_lost,     // too many packets are lost
    activation_lost, // likewise
    row_gone,        // the agent has restarted, or the row was removed
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

// What an SNMPERR_… code of the library says about our credentials; other_report if it says
// nothing about them.
TroubleKind kind_of_error(int error);

} // namespace copy_client
