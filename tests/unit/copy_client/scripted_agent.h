// An agent with a copy table on a local port, in a process of its own, that follows a script: it
// loses requests or answers, delays one, or refuses. It speaks SNMPv2c, and SNMPv3 with one user,
// and reports what it was asked to do.
#pragma once

#include "copy_client/session.h"

#include <gtest/gtest.h>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <map>
#include <new>
#include <optional>
#include <string>

namespace copy_client_test {

// Requests are counted from 1, without those with which an SNMPv3 manager discovers the engine.
struct Script {
    int loses_request = 0;  // the n-th is never carried out
    int loses_answer = 0;   // the n-th is carried out, and not answered
    int delays_request = 0; // the n-th is carried out after the next one, and not answered
    int falls_silent = 0;   // from the n-th on, nothing is carried out
    long making_status = SNMP_ERR_NOERROR;
    long making_index = 0; // the binding that making_status is about
    long activation_status = SNMP_ERR_NOERROR;
    int reads_until_end = 2; // of a running copy; -1: it never ends
    long end = COPY_STATE_SUCCESSFUL;
    long cause = 0;
    bool forgets_rows = false; // like a restarted agent: a row disappears once it runs
    std::string last_save;
};

// What the agent was asked to do.
struct Seen {
    std::atomic<int> requests;
    std::atomic<int> lost;
    std::atomic<int> made;    // rows
    std::atomic<int> copies;  // started copies
    std::atomic<int> removed; // rows
    std::atomic<int> rows;    // existing rows
};

inline constexpr const char *agent_user = "scripted";
inline constexpr const char *agent_auth = "authentication";
inline constexpr const char *agent_priv = "privacy-key";

class ScriptedAgent {
  public:
    explicit ScriptedAgent(const Script &script) {
        void *shared = ::mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        seen_ = new (shared) Seen{};
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe(ends.data()), 0);
        const pid_t parent = ::getpid();
        static std::uint8_t number = 0;
        ++number;
        process_ = ::fork();
        if (process_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() == parent) {
                serve(script, *seen_, number, ends[1]);
            }
            ::_exit(1);
        }
        ::close(ends[1]);
        EXPECT_EQ(::read(ends[0], &port_, sizeof port_), static_cast<ssize_t>(sizeof port_));
        ::close(ends[0]);
    }
    ScriptedAgent(const ScriptedAgent &) = delete;
    ScriptedAgent &operator=(const ScriptedAgent &) = delete;
    ~ScriptedAgent() {
        ::kill(process_, SIGKILL);
        ::waitpid(process_, nullptr, 0);
        ::munmap(seen_, sizeof *seen_);
    }

    std::uint16_t port() const { return port_; }
    std::string address() const { return "udp:127.0.0.1:" + std::to_string(port_); }
    const Seen &seen() const { return *seen_; }

  private:
    struct Row {
        long state = COPY_STATE_WAITING;
        int reads = 0;
        bool is_blocked = false; // a second createAndWait came
    };

    // The state of the agent's process.
    struct World {
        const Script &script;
        Seen &seen;
        std::map<oid, Row> rows;
        netsnmp_pdu *delayed = nullptr;
    };

    [[noreturn]] static void serve(const Script &script, Seen &seen, std::uint8_t number,
                                   int port) {
        copy_client::set_up_library("scripted");
        const std::array<unsigned char, 6> engine{0x80, 0, 0, 0, 5, number};
        ::set_exact_engineID(engine.data(), engine.size());
        ::set_enginetime(engine.data(), engine.size(), 1, 0, TRUE);
        std::string user =
            std::string(agent_user) + " SHA-256 " + agent_auth + " AES " + agent_priv;
        ::usm_parse_create_usmUser("createUser", user.data());

        World world{script, seen, {}};
        netsnmp_session session{};
        ::snmp_sess_init(&session);
        session.peername = SNMP_DEFAULT_PEERNAME;
        session.version = SNMP_DEFAULT_VERSION;
        session.community_len = SNMP_DEFAULT_COMMUNITY_LEN;
        session.retries = SNMP_DEFAULT_RETRIES;
        session.timeout = SNMP_DEFAULT_TIMEOUT;
        session.callback = on_request;
        session.callback_magic = &world;
        session.authenticator = nullptr;
        session.isAuthoritative = SNMP_SESS_UNKNOWNAUTH;
        netsnmp_transport *transport = ::netsnmp_tdomain_transport("udp:127.0.0.1:0", 1, "snmp");
        sockaddr_in own{};
        socklen_t length = sizeof own;
        if (transport == nullptr || ::snmp_add(&session, transport, nullptr, nullptr) == nullptr ||
            ::getsockname(transport->sock, reinterpret_cast<sockaddr *>(&own), &length) != 0) {
            ::_exit(1);
        }
        const std::uint16_t bound = ntohs(own.sin_port);
        if (::write(port, &bound, sizeof bound) != static_cast<ssize_t>(sizeof bound)) {
            ::_exit(1);
        }
        for (;;) {
            int count = 0;
            int block = 1;
            fd_set descriptors;
            FD_ZERO(&descriptors);
            timeval time{};
            ::snmp_select_info(&count, &descriptors, &time, &block);
            if (::select(count, &descriptors, nullptr, nullptr, block != 0 ? nullptr : &time) > 0) {
                ::snmp_read(&descriptors);
            } else {
                ::snmp_timeout();
            }
        }
    }

    static int on_request(int operation, netsnmp_session *session, int, netsnmp_pdu *pdu,
                          void *magic) {
        auto &world = *static_cast<World *>(magic);
        if (operation != NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE ||
            (pdu->command != SNMP_MSG_GET && pdu->command != SNMP_MSG_SET)) {
            return 1;
        }
        const int number = ++world.seen.requests;
        const Script &script = world.script;
        if (number == script.loses_request ||
            (script.falls_silent != 0 && number >= script.falls_silent)) {
            ++world.seen.lost;
            return 1;
        }
        if (number == script.delays_request) {
            world.delayed = ::snmp_clone_pdu(pdu);
            ++world.seen.lost;
            return 1;
        }
        netsnmp_pdu *answer = ::snmp_clone_pdu(pdu);
        answer->command = SNMP_MSG_RESPONSE;
        carry_out(world, *answer, pdu->command == SNMP_MSG_SET);
        if (world.delayed != nullptr) {
            carry_out(world, *world.delayed, world.delayed->command == SNMP_MSG_SET);
            ::snmp_free_pdu(world.delayed);
            world.delayed = nullptr;
        }
        world.seen.rows = static_cast<int>(world.rows.size());
        world.seen.lost += number == script.loses_answer ? 1 : 0;
        if (number == script.loses_answer || ::snmp_send(session, answer) == 0) {
            ::snmp_free_pdu(answer);
        }
        return 1;
    }

    static void carry_out(World &world, netsnmp_pdu &pdu, bool is_set) {
        pdu.errstat = SNMP_ERR_NOERROR;
        pdu.errindex = 0;
        if (is_set) {
            write(world, pdu);
            return;
        }
        for (auto *variable = pdu.variables; variable != nullptr;
             variable = variable->next_variable) {
            read(world, *variable);
        }
    }

    static void read(World &world, netsnmp_variable_list &variable) {
        const copy_client::Oid name(variable.name, variable.name + variable.name_length);
        const copy_client::Oid column(name.begin(), name.end() - 1);
        const auto row = world.rows.find(name.back());
        std::optional<long> value;
        if (column.size() > 1 && column.front() == 1 && name.size() > 8 && name[6] == 8072) {
            ::snmp_set_var_typed_value(&variable, ASN_OCTET_STR, world.script.last_save.data(),
                                       world.script.last_save.size());
            return;
        }
        if (row != world.rows.end()) {
            if (column == copy_client::copy_column(CC_COLUMN_ENTRY_ROW_STATUS)) {
                value = row->second.state == COPY_STATE_WAITING ? ROW_STATUS_NOT_IN_SERVICE
                                                                : ROW_STATUS_ACTIVE;
            } else if (column == copy_client::copy_column(CC_COLUMN_STATE)) {
                value = state(world, row->second);
            } else if (column == copy_client::copy_column(CC_COLUMN_FAIL_CAUSE)) {
                value = world.script.cause;
            }
        }
        if (value) {
            ::snmp_set_var_typed_integer(&variable, ASN_INTEGER, *value);
        } else {
            ::snmp_set_var_typed_value(&variable, SNMP_NOSUCHINSTANCE, nullptr, 0);
        }
    }

    static long state(const World &world, Row &row) {
        if (row.state == COPY_STATE_RUNNING && ++row.reads == world.script.reads_until_end) {
            row.state = world.script.end;
        }
        return row.state;
    }

    static void write(World &world, netsnmp_pdu &pdu) {
        const netsnmp_variable_list &first = *pdu.variables;
        const oid index = first.name[first.name_length - 1];
        const auto row = world.rows.find(index);
        const bool is_there = row != world.rows.end();
        const auto refuse = [&](long status, long at = 1) {
            pdu.errstat = status;
            pdu.errindex = at;
        };
        switch (*first.val.integer) {
        case ROW_STATUS_CREATE_AND_WAIT:
            if (world.script.making_status != SNMP_ERR_NOERROR) {
                refuse(world.script.making_status, world.script.making_index);
            } else if (is_there) {
                row->second.is_blocked = true;
                refuse(SNMP_ERR_INCONSISTENTVALUE);
            } else {
                world.rows[index];
                ++world.seen.made;
            }
            break;
        case ROW_STATUS_ACTIVE:
            if (!is_there || row->second.is_blocked || row->second.state != COPY_STATE_WAITING) {
                refuse(SNMP_ERR_GENERR);
            } else if (world.script.activation_status != SNMP_ERR_NOERROR) {
                refuse(world.script.activation_status);
            } else {
                row->second.state = COPY_STATE_RUNNING;
                ++world.seen.copies;
                if (world.script.forgets_rows) {
                    world.rows.clear();
                }
            }
            break;
        default: // destroy
            if (is_there && row->second.is_blocked) {
                refuse(SNMP_ERR_GENERR);
            } else if (is_there) {
                world.rows.erase(row);
                ++world.seen.removed;
            }
        }
    }

    pid_t process_ = -1;
    Seen *seen_ = nullptr;
    std::uint16_t port_ = 0;
};

} // namespace copy_client_test
