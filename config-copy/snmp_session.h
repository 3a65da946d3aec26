// Requests to one agent. Many sessions work side by side, each in a thread of its own: the Net-SNMP library knows nothing of threads, so
// one lock guards every call of it, and none is held while an answer is awaited.
#pragma once

#include "config-copy/copy_table.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <chrono>
#include <initializer_list>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace config_copy {

using Milliseconds = std::chrono::milliseconds;

// A value as the copy table has them: a number, octets, or nothing where there is no such instance.
using Value = std::variant<std::monostate, long, std::string>;

// What is no number is nothing, what are no octets is empty.
std::optional<long> number(const Value &value);
std::string octets(const Value &value);

struct Binding {
    Oid name;
    Value value;
};

// SNMP_SEC_LEVEL_… of SNMPv3 that requests of such a session have, and its name.
int security_level(const netsnmp_session &session);
std::string_view name_of_level(int level);

// The user of SNMPv3 that requests of such a session name; empty in other versions.
std::string security_name(const netsnmp_session &session);

// An agent's answer to a SET.
struct SetResult {
    long status = 0;    // SNMP_ERR_… of RFC 3416
    std::size_t at = 0; // which binding it is about, from 1; 0 for none
};

class Session {
  public:
    // `defaults` is what the command line and snmp.conf say, without the agent; it must outlive the session. Throws a Failure when the
    // agent's name is not known or a session can't be made of the settings. A verbose one tells each message on standard error.
    Session(const netsnmp_session &defaults, const std::string &agent, bool is_verbose);
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session();

    // They wait for an answer as long as the settings say, and throw: a Failure when the agent does not answer (unreachable) or takes
    // no request of ours (refused), Interrupted when the user wants to end.

    // The values in the order of the names; a read does no harm when it is repeated, so it is.
    std::vector<Value> get(const std::vector<Oid> &names);

    // Whether the agent has objects at the name that this user may read, be there an instance or not. Agents of SNMPv1 do not tell: then it
    // is true.
    bool has_object(const Oid &name);

    // The instances whose names are this one and one number more, as those of a column are.
    std::vector<Binding> instances(const Oid &name);

    // Sends the SET once: one that is repeated may come twice. Nothing when it is not known whether it was carried out.
    std::optional<SetResult> set(const std::vector<Binding> &bindings);

    // From now on an interruption is no reason to end; requests wait for an answer once, and no longer than `most`.
    void begin_to_clean_up(Milliseconds most);

    const std::string &agent() const { return agent_; }
    bool is_version_1() const;

    // The name of the security level if the user could have a higher one; otherwise empty.
    std::string low_level() const;

  private:
    struct FreePdu {
        void operator()(netsnmp_pdu *pdu) const;
    };
    using Pdu = std::unique_ptr<netsnmp_pdu, FreePdu>;
    struct Pending;

    void open(const netsnmp_session &defaults);
    void make_ready();
    void discover_engine();
    void discover_context_engine();
    void check_privacy();
    Pdu request(int command, const std::vector<Binding> &bindings) const;
    Pdu exchange(Pdu pdu, bool reports_are_answers = false);
    void await(Pending &pending);
    bool wait_for_input(Milliseconds time) const;
    Pdu ask_again_and_again(int command, const std::vector<Binding> &bindings);
    std::optional<Binding> next(const Oid &name);
    void check_read(const netsnmp_pdu &answer) const;
    [[noreturn]] void give_up_silent() const;
    std::string seconds_waited() const;

    static int on_event(int operation, netsnmp_session *session, int request, netsnmp_pdu *pdu, void *pending);

    void tell(const std::string &text) const;

    std::string agent_;
    bool is_verbose_;
    void *handle_ = nullptr;
    netsnmp_session *session_ = nullptr; // the library's, of handle_
    std::list<Pending> pending_;         // those that were given up may be answered yet
    Milliseconds timeout_{};
    int attempts_ = 1;
    bool is_ready_ = false;
    bool answered_ = false;
    bool discovered_ = false;
    bool cleans_up_ = false;
};

} // namespace config_copy
