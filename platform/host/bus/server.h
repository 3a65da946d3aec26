// Room: messages between processes of this switch.
// Used by: system_manager, agent.
// May use: base, history, platform.
//
// The serving side of a msgbus access point: what the system manager's daemon and the agent listen
// with.
#pragma once

#include "platform/host/bus/wire.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

namespace ulmo {

// One message that arrived. It may be kept to answer later: the sender waits as long as it lives
// and its own limit allows.
struct Incoming {
    std::unique_ptr<msgbus_message> message; // never null
    ucred peer;                              // who sent it, by the kernel's word
    UniqueFd connection;

    // Answers with the request's token, without waiting. Returns 0 or an errno value.
    int reply(uint32_t opcode, const void *payload, uint32_t length) const;
};

class MsgbusServer {
  public:
    using Handler = std::function<void(Incoming)>;

    // How many connections may stand open without having sent anything, and for how long.
    struct Limits {
        size_t pending = 64;
        std::chrono::milliseconds patience{5000};
    };

    // Serves the access point from here on. A socket that a dead server left is replaced. Throws
    // std::system_error, with EADDRINUSE when a living process serves it.
    explicit MsgbusServer(uint32_t sap, Limits limits);
    explicit MsgbusServer(uint32_t sap) : MsgbusServer(sap, Limits{}) {}
    // Takes the socket away and lets others serve.
    ~MsgbusServer();
    MsgbusServer(const MsgbusServer &) = delete;
    MsgbusServer &operator=(const MsgbusServer &) = delete;

    // Readable (poll(2)) whenever serve() has something to do.
    [[nodiscard]] int fd() const { return events_.get(); }

    // Hands over every message that had been sent when it was called, in order of arrival, and
    // never waits. Messages of untrusted users and malformed ones are dropped and logged. The
    // handler must not throw.
    void serve(const Handler &handler);

    // Every descriptor of the server that is no connection, for a child that must not keep the
    // access point alive.
    [[nodiscard]] std::vector<int> descriptors() const;

    [[nodiscard]] size_t pending() const { return pending_.size(); }

  private:
    using Clock = std::chrono::steady_clock;

    struct Pending {
        UniqueFd connection;
        ucred peer;
        Clock::time_point deadline;
    };

    // Whether there is nothing more to expect from the connection.
    bool take(Pending &from, const Handler &handler) const;
    void unwatch(const Pending &one) const;
    void take_pending(const Handler &handler);
    void accept_waiting(const Handler &handler);
    void log_refusal(const ucred &peer);
    void listen_to_newcomers(bool on);
    void set_timer();

    const uint32_t sap_;
    const Limits limits_;
    std::filesystem::path socket_path_;
    UniqueFd lock_;
    UniqueFd listener_;
    UniqueFd timer_;
    UniqueFd events_;
    bool listening_ = true;
    // of peers that are not trusted, in the interval that began at refusals_since_
    unsigned refusals_ = 0;
    Clock::time_point refusals_since_{};
    std::vector<Pending> pending_; // the oldest first
};

} // namespace ulmo
