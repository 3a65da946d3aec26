#include "platform/host/bus/server.h"

#include "base/folders.h"
#include "base/ownership.h"
#include "base/posix.h"
#include "base/timespec.h"
#include "platform/host/history/log.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

namespace ulmo {
namespace {

constexpr int backlog = 128;
// One round takes everything that fits into the listener's queue, so that a client that sends
// faster than the server reads can't occupy it for ever.
constexpr int round_limit = 2 * backlog;
// How often the server looks whether its socket is still there and, when the process is short of
// descriptors, whether new connections can be taken.
constexpr std::chrono::seconds rhythm{1};

// The kernel releases the lock when its holder ends, so the lock distinguishes a living server from
// a socket file left behind.
UniqueFd locked(const std::filesystem::path &path) {
    const ActingAsOwner owner(run_dir());
    constexpr std::string_view what = "lock of the access point";
    UniqueFd lock(
        check(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600), what));
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        throw_error(errno == EWOULDBLOCK ? EADDRINUSE : errno, what);
    }
    return lock;
}

void watch(int events, int descriptor) {
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    check(::epoll_ctl(events, EPOLL_CTL_ADD, descriptor, &wanted), "watch of the access point");
}

} // namespace

int Incoming::reply(uint32_t opcode, const void *payload, uint32_t length) const {
    return send_packet(connection.get(), opcode, message->token, payload, length);
}

MsgbusServer::MsgbusServer(uint32_t sap, Limits limits)
    : sap_(sap), limits_(limits), socket_path_(sap_path(sap)),
      lock_path_(msgbus_dir() / (std::to_string(sap) + ".lock")),
      timer_(check(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timer")),
      events_(check(::epoll_create1(EPOLL_CLOEXEC), "event set")) {
    open();
    watch(events_.get(), timer_.get());
    set_timer();
}

MsgbusServer::~MsgbusServer() {
    const ActingAsOwner owner(run_path()); // the owner may have put another folder there
    if (is_in_place()) {
        ::unlink(socket_path_.c_str());
    }
}

// Makes the socket, in place of what stands there.
void MsgbusServer::open() {
    const auto folder = msgbus_dir();
    const ActingAsOwner owner(run_dir());
    ::chmod(folder.c_str(), 0700); // one that was made by others, or long ago
    if (!lock_ || identity_of(lock_path_) != locked_) {
        lock_ = locked(lock_path_);
        locked_ = identity_of(lock_path_);
    }
    if (::unlink(socket_path_.c_str()) != 0 && errno != ENOENT) {
        throw_errno(socket_path_.native());
    }
    const SocketAddress address(socket_path_);
    UniqueFd listener = make_bus_socket();
    check(::bind(listener.get(), address.get(), address.length()), "bind of the access point");
    // Whoever is not trusted can't even knock: a full queue would keep those out who are.
    check(::chmod(socket_path_.c_str(), 0600), "mode of the access point");
    check(::listen(listener.get(), backlog), "listen on the access point");
    watch(events_.get(), listener.get());
    if (listener_) {
        // Closing alone does not end the watch as long as a forked child holds a copy.
        ::epoll_ctl(events_.get(), EPOLL_CTL_DEL, listener_.get(), nullptr);
    }
    listener_ = std::move(listener);
    listening_ = true;
    socket_ = identity_of(socket_path_);
}

std::optional<MsgbusServer::FileIdentity>
MsgbusServer::identity_of(const std::filesystem::path &file) {
    struct stat status {};
    return ::lstat(file.c_str(), &status) == 0
               ? std::optional(FileIdentity{status.st_dev, status.st_ino})
               : std::nullopt;
}

// One that could not be made is in place neither.
bool MsgbusServer::is_in_place() const {
    return socket_ && identity_of(socket_path_) == socket_;
}

void MsgbusServer::open_again() {
    const auto failed = [this](const char *why) {
        if (!std::exchange(is_lost_, true)) {
            log_error("msgbus: access point %u: the socket is gone and can't be created again: %s",
                      sap_, why);
        }
    };
    quietly(
        [this] {
            open();
            is_lost_ = false;
            log_error("msgbus: access point %u: the socket was gone and is there again", sap_);
        },
        failed);
}

std::vector<int> MsgbusServer::descriptors() const {
    return {lock_.get(), listener_.get(), timer_.get(), events_.get()};
}

void MsgbusServer::serve(const Handler &handler) {
    take_pending(handler);
    accept_waiting(handler);
    if (!is_in_place()) {
        open_again();
    }
    set_timer();
}

bool MsgbusServer::take(Pending &from, const Handler &handler) const {
    std::unique_ptr<msgbus_message> message;
    const Receipt receipt = receive_packet(from.connection.get(), message);
    if (receipt == Receipt::none) {
        return false;
    }
    unwatch(from);
    if (receipt == Receipt::malformed) {
        log_error("msgbus: access point %u: malformed message of process %d dropped", sap_,
                  from.peer.pid);
    } else if (receipt == Receipt::message) {
        handler(Incoming{std::move(message), from.peer, std::move(from.connection)});
    }
    return true;
}

void MsgbusServer::take_pending(const Handler &handler) {
    const auto now = Clock::now();
    for (auto &one : std::exchange(pending_, {})) {
        if (take(one, handler)) {
            continue;
        }
        if (one.deadline <= now) {
            log_error("msgbus: access point %u: process %d connected and sent nothing, dropped",
                      sap_, one.peer.pid);
            unwatch(one);
        } else {
            pending_.push_back(std::move(one));
        }
    }
}

// To be called before the connection is closed or handed over: while a forked child holds a copy of
// the descriptor, closing it does not end the watch.
void MsgbusServer::unwatch(const Pending &one) const {
    // a new connection is not watched yet
    ::epoll_ctl(events_.get(), EPOLL_CTL_DEL, one.connection.get(), nullptr);
}

void MsgbusServer::accept_waiting(const Handler &handler) {
    listen_to_newcomers(true);
    for (int round = 0; round < round_limit; ++round) {
        UniqueFd connection(
            ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!connection) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno != EAGAIN) {
                log_error("msgbus: access point %u: accept failed, errno %d", sap_, errno);
                listen_to_newcomers(false);
            }
            return;
        }
        Pending newcomer{std::move(connection), {}, Clock::now() + limits_.timeout};
        newcomer.peer = peer_of(newcomer.connection.get());
        if (!is_trusted(newcomer.peer)) {
            log_refusal(newcomer.peer);
            continue;
        }
        if (take(newcomer, handler)) {
            continue;
        }
        if (pending_.size() >= limits_.pending) {
            log_error("msgbus: access point %u: too many silent connections, process %d dropped",
                      sap_, pending_.front().peer.pid);
            unwatch(pending_.front());
            pending_.erase(pending_.begin());
        }
        watch(events_.get(), newcomer.connection.get());
        pending_.push_back(std::move(newcomer));
    }
}

void MsgbusServer::log_refusal(const ucred &peer) {
    constexpr std::chrono::seconds interval{1};
    if (const auto now = Clock::now(); now - refusals_since_ >= interval) {
        refusals_since_ = now;
        refusals_ = 0;
    }
    constexpr unsigned logged_in_interval = 10; // so that refused connections can't fill the log
    ++refusals_;
    if (refusals_ <= logged_in_interval) {
        log_error("msgbus: access point %u: process %d of user %u refused%s", sap_, peer.pid,
                  peer.uid,
                  refusals_ == logged_in_interval ? "; there may be more within this second" : "");
    }
}

void MsgbusServer::listen_to_newcomers(bool on) {
    if (on == listening_) {
        return;
    }
    epoll_event wanted{};
    wanted.events = on ? EPOLLIN : 0U;
    ::epoll_ctl(events_.get(), EPOLL_CTL_MOD, listener_.get(), &wanted);
    listening_ = on;
}

void MsgbusServer::set_timer() {
    itimerspec setting{};
    auto wake_up = Clock::now() + rhythm;
    if (!pending_.empty()) {
        wake_up = std::min(wake_up, pending_.front().deadline);
    }
    // Deadlines in the past fire at once; a setting of zero would disarm the timer.
    const auto left =
        std::max<Clock::duration>(wake_up - Clock::now(), std::chrono::nanoseconds{1});
    setting.it_value = timespec_of(left);
    ::timerfd_settime(timer_.get(), 0, &setting, nullptr); // also clears the last expiry
}

} // namespace ulmo
