// Room: a manager's side of the copy table: requests to one agent, and the life of one row.
// Used by: system_manager, config-copy.
// May use: base, platform.
//
// Requests to one agent. Many sessions may work at once, each in a thread of its own. The Net-SNMP
// library is not thread-safe, so one lock guards every call of it; the lock is not held while a
// session waits for an answer. The library stores users and engine times by engine id for all
// sessions together, so two agents with the same engine id disturb each other.
#pragma once

#include "copy_client/copy_table.h"
#include "copy_client/trouble.h"
#include "copy_client/waiting.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <chrono>
#include <cstdint>
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

// A value of the copy table: a number (TimeTicks do not fit into a long of 32 bits), octets, or
// std::monostate if there is no such instance.
using Value = std::variant<std::monostate, std::int64_t, std::string>;

// Empty if the value is not a number, or "" if it is not octets.
std::optional<std::int64_t> number(const Value &value);
std::string octets(const Value &value);

struct Binding {
    Oid name;
    Value value;
};

// The SNMPv3 security level (SNMP_SEC_LEVEL_…) of the session's requests, and its name.
int security_level(const netsnmp_session &session);
std::string_view name_of_level(int level);

// The SNMPv3 user of the session's requests; empty for other versions.
std::string security_name(const netsnmp_session &session);

// An agent's answer to a SET.
struct SetResult {
    long status = 0;    // SNMP_ERR_… of RFC 3416
    std::size_t at = 0; // the binding that the status is about, from 1; 0 for none
};

struct Peer {
    std::string name;    // the agent as the session's user names it
    std::string address; // as in snmpcmd(1), without a name that would need a look-up
};

// Receives each message as text; several threads may call it at once. Passwords are not shown.
using Trace = std::function<void(const std::string &text)>;

// Initialises the library for a program that gives its sessions all their settings: it reads no
// user configuration, loads no MIB modules, stores nothing on this machine and prints nothing. Call
// it before any thread is started.
void set_up_library(const char *program);

// More instances of an object than a switch can have: every request expires within 7 minutes.
inline constexpr std::size_t most_instances = 100'000;

// That an agent with these settings has been silent for so long.
Trouble silence_of(const netsnmp_session &settings, Milliseconds waited,
                   TroubleKind kind = TroubleKind::silent);

class Session {
  public:
    // `settings` holds everything except the peer. Its timeout and retries apply to each request;
    // the library's own settings apply where it leaves something open. It must outlive the session.
    // A request ends with Stopped when the descriptor `stop` (-1: never) becomes readable. Throws
    // Trouble.
    Session(const netsnmp_session &settings, Peer peer, int stop, Trace trace = {},
            Clock::time_point deadline = Clock::time_point::max());
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session();

    // Until this is called the deadline is the constructor's, and silence is not waited out.
    // Nothing is requested after the deadline. With `waits_out_silence`, silence until then is not
    // an error.
    void set_deadline(Clock::time_point deadline, bool waits_out_silence = true) {
        deadline_ = deadline;
        waits_out_silence_ = waits_out_silence;
    }

    // From now on `stop` is ignored, and no request waits for its answer longer than `most`.
    void begin_to_clean_up(Milliseconds most);

    // How long an answer is waited for.
    [[nodiscard]] Milliseconds timeout() const { return timeout_; }

    // How often a request is sent before its silence counts, at least 1.
    [[nodiscard]] int attempts() const { return attempts_; }

    // These wait for the answer. They throw Stopped, or Trouble if no answer comes, the agent does
    // not accept our requests, or its answer is invalid. They limit the memory that an agent can
    // make them use.

    // The values in the order of the names. A read is harmless, so it is repeated until it is
    // answered.
    std::vector<Value> get(const std::vector<Oid> &names);

    // Whether the agent has objects below the name that this user may read, with or without
    // instances. SNMPv1 agents do not tell, so this returns true for them.
    bool has_object(const Oid &name);

    // The instances whose names are this one plus one sub-identifier, as those of a column are.
    // Throws Trouble if there are more than `most`.
    std::vector<Binding> instances(const Oid &name, std::size_t most = most_instances);

    // Sends the SET once: a repeated one could be carried out twice. Empty if it is not known
    // whether it was carried out.
    std::optional<SetResult> set(const std::vector<Binding> &bindings);

    // Waits for that time, or throws Stopped.
    void pause(Milliseconds time) const;

    [[nodiscard]] const std::string &agent() const { return peer_.name; }
    [[nodiscard]] const std::string &address() const { return peer_.address; }

    // The name of an SNMPv3 security level below authPriv; otherwise empty.
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
    void check_read(const netsnmp_pdu &answer) const;
    [[nodiscard]] Milliseconds time_left() const;
    [[nodiscard]] Trouble silence() const;
    [[nodiscard]] std::string detail_of(TroubleKind kind) const;
    [[nodiscard]] bool is_usm() const;

    static int on_event(int operation, netsnmp_session *session, int request, netsnmp_pdu *pdu,
                        void *pending);

    Peer peer_;
    int stop_;
    Trace trace_;
    void *handle_ = nullptr;
    netsnmp_session *session_ = nullptr; // the library's, of handle_
    std::list<Pending> pending_;         // requests that were given up may still be answered
    Milliseconds timeout_{};
    int attempts_ = 1;
    Clock::time_point deadline_ = Clock::time_point::max();
    bool waits_out_silence_ = false;
    Clock::time_point began_ = Clock::now();
    int unanswered_ = 0;        // requests since the last answer
    bool has_answered_ = false; // to a request with the user's credentials
    bool is_ready_ = false;
    bool cleans_up_ = false;
    bool is_found_ = false; // the agent has reported its engine id
};

} // namespace copy_client
