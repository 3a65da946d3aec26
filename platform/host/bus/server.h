// Room: messages between processes of this switch.
// Used by: system_manager, agent.
// May use: base, history, platform.
//
// The server of a msgbus access point, used by the system manager's daemon and the agent.
#pragma once

#include "platform/host/bus/wire.h"

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace ulmo {

// A received message. It may be kept and answered later: the sender waits for as long as its own
// limit allows, unless it ends.
struct Incoming {
    std::unique_ptr<msgbus_message> message; // never null
    ucred peer;                              // the sender, as the kernel reports it
    UniqueFd connection;

    // Answers with the request's token. Does not block. Returns 0 or an errno value.
    int reply(uint32_t opcode, const void *payload, uint32_t length) const;
};

class MsgbusServer {
  public:
    using Handler = std::function<void(Incoming)>;

    // How many connections may be open without having sent anything, and for how long.
    struct Limits {
        size_t pending = 64;
        std::chrono::milliseconds timeout{5000};
    };

    // Serves the access point from here on, to the owner of the run directory and the superuser
    // only. A socket that a dead server left is replaced, and one that is deleted later is created
    // again within a second. Throws std::system_error, with EADDRINUSE when a living process serves
    // the access point.
    explicit MsgbusServer(uint32_t sap, Limits limits);
    explicit MsgbusServer(uint32_t sap) : MsgbusServer(sap, Limits{}) {}
    // Removes the socket and releases the access point.
    ~MsgbusServer();
    MsgbusServer(const MsgbusServer &) = delete;
    MsgbusServer &operator=(const MsgbusServer &) = delete;

    // Readable (poll(2)) whenever serve() has something to do.
    [[nodiscard]] int fd() const { return events_.get(); }

    // Passes each message sent before the call to the handler, in order of arrival. Does not block.
    // Messages that are malformed or come from untrusted users are dropped and logged. The handler
    // must not throw.
    void serve(const Handler &handler);

    // The descriptors of the server other than connections, for a child that must not keep the
    // access point alive.
    [[nodiscard]] std::vector<int> descriptors() const;

    [[nodiscard]] size_t pending() const { return pending_.size(); }

  private:
    using Clock = std::chrono::steady_clock;

    using FileIdentity = std::pair<dev_t, ino_t>;
    static std::optional<FileIdentity> identity_of(const std::filesystem::path &file);

    struct Pending {
        UniqueFd connection;
        ucred peer;
        Clock::time_point deadline;
    };

    // Returns whether the connection is finished.
    bool take(Pending &from, const Handler &handler) const;
    void unwatch(const Pending &one) const;
    void take_pending(const Handler &handler);
    void accept_waiting(const Handler &handler);
    void log_refusal(const ucred &peer);
    void listen_to_newcomers(bool on);
    void set_timer();
    void open();
    void open_again();
    [[nodiscard]] bool is_in_place() const;

    const uint32_t sap_;
    const Limits limits_;
    std::filesystem::path socket_path_;
    std::filesystem::path lock_path_;
    UniqueFd lock_;
    UniqueFd listener_;
    std::optional<FileIdentity> locked_; // the file that lock_ stands for
    std::optional<FileIdentity> socket_; // the file that was made last
    UniqueFd timer_;
    UniqueFd events_;
    bool listening_ = true;
    bool is_lost_ = false; // the socket has gone, and can't be created again for now
    // of untrusted peers, in the interval that began at refusals_since_
    unsigned refusals_ = 0;
    Clock::time_point refusals_since_{};
    std::vector<Pending> pending_; // the oldest first
};

} // namespace ulmo
