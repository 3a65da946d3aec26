// An agent with a copy table on a local port, in a process of its own, that follows a script: it
// loses requests or answers, delays one, refuses, or lies. It speaks SNMPv2c, and SNMPv3 with one
// user, and reports what it was asked to do.
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
#include <optional>
#include <string>

namespace copy_client_test {

// How its answers lie.
enum class Lie {
    none,
    same_name,       // a walk stays where it is
    falling_name,    // a walk comes back to its beginning
    endless_table,   // there is always one more row
    long_name,       // an instance has a number too many
    every_index,     // every index is taken
    text_for_number, // all columns hold octets
    number_for_text, // the error table holds numbers
    long_text,       // the error table holds texts of 1,000 octets
    null,            // a NULL instead of a value
    unknown_state,   // the state is 17
    other_name,      // another name than the one asked for
    no_name,         // the answer is empty
    other_request,   // the answer belongs to another request
    flood,           // endless answers to another request
};

// Requests are counted from 1, without those with which an SNMPv3 manager discovers the engine.
struct Script {
    int loses_request = 0;  // the n-th is never carried out
    int loses_answer = 0;   // the n-th is carried out, and not answered
    int delays_request = 0; // the n-th is carried out after the next one, and not answered
    int falls_silent = 0;   // from the n-th on, nothing is carried out
    int silent_for = 0;     // so many requests; 0: for ever
    long making_status = SNMP_ERR_NOERROR;
    long making_index = 0; // the binding that making_status refers to
    long activation_status = SNMP_ERR_NOERROR;
    int reads_until_end = 2; // of a running copy; -1: it never ends
    long end = COPY_STATE_SUCCESSFUL;
    long cause = 0;
    bool forgets_rows = false; // like a restarted agent: a row disappears once it runs
    std::string last_save;     // what the agent says about its last save
    Lie lie = Lie::none;
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
        int socket = -1;
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
        world.socket = transport->sock;
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
            (pdu->command != SNMP_MSG_GET && pdu->command != SNMP_MSG_GETNEXT &&
             pdu->command != SNMP_MSG_SET)) {
            return 1;
        }
        const int number = ++world.seen.requests;
        const Script &script = world.script;
        if (number == script.loses_request ||
            (script.falls_silent != 0 && number >= script.falls_silent &&
             (script.silent_for == 0 || number < script.falls_silent + script.silent_for))) {
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
        carry_out(world, *answer, pdu->command);
        if (script.lie != Lie::none) {
            lie(script.lie, *answer, pdu->command);
        }
        if (script.lie == Lie::flood) {
            flood(world.socket, *pdu);
        }
        if (world.delayed != nullptr) {
            carry_out(world, *world.delayed, world.delayed->command);
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

    static void carry_out(World &world, netsnmp_pdu &pdu, int command) {
        pdu.errstat = SNMP_ERR_NOERROR;
        pdu.errindex = 0;
        if (command == SNMP_MSG_SET) {
            write(world, pdu);
            return;
        }
        for (auto *variable = pdu.variables; variable != nullptr;
             variable = variable->next_variable) {
            if (command != SNMP_MSG_GETNEXT || rise(world, *variable)) {
                read(world, *variable);
            }
        }
    }

    // Moves from a column or an instance to the next instance of the column. The last has no next.
    static bool rise(const World &world, netsnmp_variable_list &variable) {
        copy_client::Oid name(variable.name, variable.name + variable.name_length);
        const bool is_column = name.size() == copy_client::copy_column(1).size();
        const auto row = is_column ? world.rows.begin() : world.rows.upper_bound(name.back());
        if (row == world.rows.end()) {
            ::snmp_set_var_typed_value(&variable, SNMP_ENDOFMIBVIEW, nullptr, 0);
            return false;
        }
        name.resize(copy_client::copy_column(1).size());
        name.push_back(row->first);
        ::snmp_set_var_objid(&variable, name.data(), name.size());
        return true;
    }

    // Faster than the library reads: SNMPv2c answers to request 1, each with 200 bindings.
    [[noreturn]] static void flood(int socket, const netsnmp_pdu &pdu) {
        const auto wrapped = [](const std::string &tag, const std::string &octets) {
            return tag + '\x82' + static_cast<char>(octets.size() >> 8) +
                   static_cast<char>(octets.size() & 0xff) + octets;
        };
        std::string bindings;
        for (int i = 0; i < 200; ++i) {
            bindings += std::string("\x30\x05\x06\x01\x2b\x05\x00", 7);
        }
        const std::string zero("\x02\x01\x00", 3);
        const std::string answer =
            wrapped("\xa2", "\x02\x01\x01" + zero + zero + wrapped("\x30", bindings));
        const std::string message = wrapped("\x30", "\x02\x01\x01\x04\x06public" + answer);
        const auto &to = *static_cast<netsnmp_indexed_addr_pair *>(pdu.transport_data);
        const pid_t agent = ::getpid();
        for (int i = 0; i < 3 && ::fork() != 0; ++i) { // several, so that one always runs
        }
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (::getpid() == agent || ::getppid() == agent) {
            ::sendto(socket, message.data(), message.size(), 0, &to.remote_addr.sa,
                     sizeof to.remote_addr.sin);
        }
        ::_exit(1);
    }

    // About a SET it lies only in the request id.
    static void lie(Lie lie, netsnmp_pdu &pdu, int command) {
        netsnmp_variable_list &first = *pdu.variables;
        const auto name = [&first](const copy_client::Oid &other) {
            ::snmp_set_var_objid(&first, other.data(), other.size());
        };
        const auto text = [&first](std::size_t length) {
            const std::string octets(length, 'x');
            ::snmp_set_var_typed_value(&first, ASN_OCTET_STR, octets.data(), octets.size());
        };
        const auto number = [&first](long value) {
            ::snmp_set_var_typed_integer(&first, ASN_INTEGER, value);
        };
        if (lie == Lie::other_request) {
            --pdu.reqid; // an earlier request's: the manager's ids rise
        } else if (command == SNMP_MSG_SET) {
            return;
        }
        copy_client::Oid asked(first.name, first.name + first.name_length);
        if (command == SNMP_MSG_GETNEXT) { // there is one row
            const bool is_column = asked.size() == copy_client::copy_column(1).size();
            if (is_column) {
                asked.push_back(1);
            } else if (lie == Lie::falling_name) {
                asked.back() = 1;
            } else if (lie == Lie::endless_table) {
                ++asked.back();
            } else if (lie != Lie::same_name) {
                ++asked[asked.size() - 2];
            }
            if (lie == Lie::falling_name && is_column) {
                asked.back() = 2;
            } else if (lie == Lie::long_name) {
                asked.push_back(1);
            }
            name(asked);
            number(COPY_STATE_WAITING);
        }
        switch (lie) {
        case Lie::every_index:
        case Lie::number_for_text:
            number(1);
            break;
        case Lie::text_for_number:
            text(1);
            break;
        case Lie::long_text:
            text(1000);
            break;
        case Lie::null:
            ::snmp_set_var_typed_value(&first, ASN_NULL, nullptr, 0);
            break;
        case Lie::unknown_state:
            if (first.type == ASN_INTEGER) {
                number(17);
            }
            break;
        case Lie::other_name:
            name(copy_client::copy_cell(CC_COLUMN_STATE, 4711));
            break;
        case Lie::no_name:
            ::snmp_free_varbind(pdu.variables);
            pdu.variables = nullptr;
            break;
        default:
            break;
        }
    }

    static void read(World &world, netsnmp_variable_list &variable) {
        const copy_client::Oid name(variable.name, variable.name + variable.name_length);
        const copy_client::Oid column(name.begin(), name.end() - 1);
        const auto row = world.rows.find(name.back());
        std::optional<long> value;
        if (name.size() > 8 && name[6] == 8072) {
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
