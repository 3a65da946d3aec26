#include "config-copy/copies/local_transfer.h"

#include "base/posix.h"
#include "base/text.h"
#include "config-copy/copies/local_file.h"
#include "config-copy/failure.h"
#include "config-copy/interrupt.h"
#include "config-copy/own_program.h"

#include <poll.h>
#include <spawn.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <tuple>
#include <utility>

namespace config_copy {
namespace {

using namespace std::chrono_literals;

constexpr std::string_view program_name = "config-copy-receiver";
constexpr const char *was_ended = "it crashed or was killed";
constexpr auto pause_before_next_try = 200ms;

std::string not_started(const std::string &path, int error) {
    return path + " can't be started: " + std::strerror(error) +
           (error == EACCES ? "; it is for the members of the group config-copy: adduser "
                              "YOUR-NAME config-copy, and log in again"
                            : "");
}

std::string has_ended(const std::string &reason) {
    return std::string(program_name) + " has ended: " + reason;
}

// 160 bits.
std::string unguessable_name() {
    std::array<char, 20> octets{};
    ulmo::check(::getrandom(octets.data(), octets.size(), 0), "getrandom");
    return ulmo::in_hex({octets.data(), octets.size()});
}

receiver::Peer mapped(const ServerAddress &address) {
    receiver::Peer octets{};
    if (address.octets.size() == octets.size()) {
        std::copy(address.octets.begin(), address.octets.end(), octets.begin());
        return octets;
    }
    octets[10] = octets[11] = 0xFF; // RFC 4291, section 2.5.5.2
    std::copy(address.octets.begin(), address.octets.end(), octets.begin() + 12);
    return octets;
}

// Starts the program with one end of a connection as its standard input; returns the other end. It
// gets a process group of its own, so that Ctrl-C does not end it before the copy is cleaned up.
std::pair<pid_t, ulmo::UniqueFd> started_program() {
    std::array<int, 2> ends{};
    ulmo::check(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), "socketpair");
    ulmo::UniqueFd ours(ends[0]);
    const ulmo::UniqueFd theirs(ends[1]);
    std::string path = path_of_own_program(program_name);
    std::array<char *, 2> words{path.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, theirs.get(), STDIN_FILENO);
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    pid_t program = -1;
    const int error =
        ::posix_spawn(&program, path.c_str(), &actions, &attributes, words.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        throw Failure(ExitStatus::failed, not_started(path, error));
    }
    return {program, std::move(ours)};
}

} // namespace

LocalTransfers::LocalTransfers(std::chrono::seconds patience) {
    const auto until = std::chrono::steady_clock::now() + patience;
    for (;;) {
        std::tie(program_, socket_) = started_program();
        const auto first = receiver::receive_report(socket_.get());
        if (first && first->kind == receiver::Report::Kind::ready) {
            break;
        }
        stop();
        const std::string reason = first ? std::string(first->text.data()) : has_ended(was_ended);
        const bool is_in_use = first && first->error == EADDRINUSE;
        if (!is_in_use || std::chrono::steady_clock::now() >= until) {
            throw Failure(is_in_use ? ExitStatus::busy : ExitStatus::failed, reason);
        }
        pollfd interrupted{interrupt_descriptor(), POLLIN, 0};
        ::poll(&interrupted, 1, static_cast<int>(pause_before_next_try.count()));
        if (interrupting_signal() != 0) {
            throw Interrupted{};
        }
    }
    listener_ = std::thread([this] { listen(); });
}

LocalTransfers::~LocalTransfers() {
    stop();
}

void LocalTransfers::stop() {
    ::shutdown(socket_.get(), SHUT_RDWR); // ends the program and the listener
    if (listener_.joinable()) {
        listener_.join();
    }
    socket_.reset();
    while (::waitpid(program_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void LocalTransfers::listen() {
    std::string end = was_ended;
    try {
        while (const auto report = receiver::receive_report(socket_.get())) {
            const std::lock_guard lock(mutex_);
            const auto state = states_.find(report->id);
            if (report->kind == receiver::Report::Kind::failed) {
                end = report->text.data();
            } else if (state == states_.end()) { // withdrawn meanwhile
                continue;
            } else if (report->kind == receiver::Report::Kind::ended) {
                state->second.ended = *report;
            } else if (report->kind == receiver::Report::Kind::stranger) {
                state->second.stranger = report->text.data();
            }
            news_.notify_all();
        }
    } catch (const std::system_error &error) {
        end = error.what();
    }
    const std::lock_guard lock(mutex_);
    end_ = end;
    news_.notify_all();
}

LocalTransfer::LocalTransfer(LocalTransfers &transfers, int file, Direction direction,
                             const ServerAddress &peer)
    : transfers_(transfers), name_(unguessable_name()) {
    receiver::Order order{};
    order.kind = receiver::Order::Kind::serve;
    order.direction = direction;
    order.peer = mapped(peer);
    order.most = largest_local_file;
    receiver::put_text(order.name, name_);
    {
        const std::lock_guard lock(transfers_.mutex_);
        order.id = id_ = ++transfers_.last_id_;
        transfers_.states_[id_];
    }
    // Without the lock, which the listener needs to take reports.
    if (!receiver::send(transfers_.socket_.get(), order, file)) {
        std::unique_lock lock(transfers_.mutex_);
        transfers_.news_.wait(lock, [&] { return !transfers_.end_.empty(); }); // it comes now
        throw Failure(ExitStatus::failed, has_ended(transfers_.end_));
    }
}

LocalTransfer::~LocalTransfer() {
    {
        const std::lock_guard lock(transfers_.mutex_);
        transfers_.states_.erase(id_);
    }
    receiver::Order order{};
    order.kind = receiver::Order::Kind::withdraw;
    order.id = id_;
    try {
        receiver::send(transfers_.socket_.get(), order);
    } catch (const std::system_error &) {
        // The name stays known until the program ends.
    }
}

std::optional<std::uint64_t> LocalTransfer::octets_moved(std::chrono::milliseconds limit) {
    std::unique_lock lock(transfers_.mutex_);
    const auto &state = transfers_.states_.at(id_);
    const auto is_complete = [&] { return state.ended && state.ended->text[0] == '\0'; };
    transfers_.news_.wait_for(lock, limit,
                              [&] { return is_complete() || !transfers_.end_.empty(); });
    return is_complete() ? std::optional(state.ended->octets) : std::nullopt;
}

std::string LocalTransfer::trouble() {
    const std::lock_guard lock(transfers_.mutex_);
    const auto &state = transfers_.states_.at(id_);
    if (state.ended && state.ended->text[0] != '\0') {
        return std::string("on this machine: ") + state.ended->text.data();
    }
    if (!state.stranger.empty()) {
        return "the file was asked for by " + state.stranger +
               ", not by the agent's address: name the agent by the address from which the switch "
               "sends";
    }
    if (!transfers_.end_.empty()) {
        return has_ended(transfers_.end_);
    }
    return state.ended ? ""
                       : "no request of the switch has arrived at this machine: does a firewall "
                         "drop TFTP (UDP port 69), or does the switch reach this machine at "
                         "another address (--local-address)?";
}

} // namespace config_copy
