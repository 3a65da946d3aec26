// Room: a manager's side of the copy table: requests to one agent, and the life of one row.
// Used by: system_manager, config-copy.
// May use: base, platform.
//
// Requests to one agent. Many sessions work side by side, each in a thread of its own: the Net-SNMP
// library knows nothing of threads, so one lock guards every call of it, and none is held while an
// answer is awaited. What the library knows of a user and of an engine's time it knows by the
// engine id, for all sessions: two agents with the same one disturb each other.
#pragma once

#include "copy_client/copy_table.h"
#include "copy_client/trouble.h"
#include "copy_client/waiting.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace copy_client {

using Clock = std::chrono::steady_clock;

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

struct Peer {
    std::string name;    // what the session's user calls it
    std::string address; // as of snmpcmd(1), with no name that would have to be looked up
};

// Takes each message in words; several threads may call it at a time. No password is told.
using Tell = std::function<void(const std::string &words)>;

// Sets the library up for a program that says all to its sessions: it reads no user's
// configuration, loads no MIB modules, keeps nothing on this machine and prints nothing. To be
// called before there are threads.
void set_up_library(const char *program);

class Session {
  public:
    // `settings` is all but the peer: its timeout and its retries hold for each request, and what
    // it leaves open the library's own settings say. It must outlive the session. A request ends
    // with Stopped when the descriptor `stop` (-1: never) becomes readable. Throws Trouble.
    Session(const netsnmp_session &settings, Peer peer, int stop, Tell tell = {});
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session();

    // With a deadline, silence is no trouble before it comes. Afterwards nothing more is asked.
    void set_deadline(Clock::time_point deadline) { deadline_ = deadline; }

    // From now on `stop` is no reason to end; requests wait for an answer once, and no longer than
    // `most`.
    void begin_to_clean_up(Milliseconds most);

    // They wait for an answer, and throw Trouble when none comes or the agent takes no request of
    // ours, or Stopped.

    // The values in the order of the names; a read does no harm when it is repeated, so it is.
    std::vector<Value> get(const std::vector<Oid> &names);

    // Whether the agent has objects at the name that this user may read, be there an instance or
    // not. Agents of SNMPv1 do not tell: then it is true.
    bool has_object(const Oid &name);

    // The instances whose names are this one and one number more, as those of a column are.
    std::vector<Binding> instances(const Oid &name);

    // Sends the SET once: one that is repeated may come twice. Nothing when it is not known whether
    // it was carried out.
    std::optional<SetResult> set(const std::vector<Binding> &bindings);

    // Lets time pass, or throws Stopped.
    void pause(Milliseconds time) const;

    [[nodiscard]] const std::string &agent() const { return peer_.name; }

    // The name of the security level if the user could have a higher one; otherwise empty.
    [[nodiscard]] std::string low_level() const;

  private:
    struct FreePdu {
        void operator()(netsnmp_pdu *pdu) const;
    };
    using Pdu = std::unique_ptr<netsnmp_pdu, FreePdu>;
    struct Pending;

    void make_ready();
    void discover_engine();
    void discover_context_engine();
    void check_privacy();
    [[nodiscard]] Pdu request(int command, const std::vector<Binding> &bindings) const;
    Pdu exchange(Pdu pdu, bool reports_are_answers = false);
    bool send(Pdu pdu, Pending &pending);
    void await(Pending &pending);
    template <typename Ask> void ask_again_and_again(Ask ask);
    Pdu answer_to(int command, const std::vector<Binding> &bindings);
    std::optional<Binding> next(const Oid &name);
    void check_read(const netsnmp_pdu &answer) const;
    [[nodiscard]] Milliseconds time_left() const;
    [[nodiscard]] Trouble silence() const;
    [[nodiscard]] std::string detail_of(TroubleKind kind) const;
    [[nodiscard]] bool is_usm() const;

    static int on_event(int operation, netsnmp_session *session, int request, netsnmp_pdu *pdu,
                        void *pending);

    Peer peer_;
    int stop_;
    Tell tell_;
    void *handle_ = nullptr;
    netsnmp_session *session_ = nullptr; // the library's, of handle_
    std::list<Pending> pending_;         // those that were given up may be answered yet
    Milliseconds timeout_{};
    int attempts_ = 1;
    Clock::time_point deadline_ = Clock::time_point::max();
    int unanswered_ = 0;        // requests since the last answer
    bool has_answered_ = false; // to a request of the user
    bool is_ready_ = false;
    bool cleans_up_ = false;
    bool is_found_ = false; // its engine id was asked for and told
};

} // namespace copy_client
