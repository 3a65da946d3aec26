// The former running configuration, kept in files of the state directory: as a journal while a
// change is being made, and after a change under the setting `confirm_limit` until the change has
// been saved. Both are for the running boot only: after it, the startup configuration is in force.
#pragma once

#include <chrono>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace ulmo {

// A change that is undone unless the running configuration is saved in time.
struct WaitingChange {
    std::string former; // the configuration before it
    std::time_t made = 0;
    std::chrono::seconds limit{};
    std::chrono::milliseconds deadline{}; // time_since_boot()
    // DeviceBackend::startup_trace(), and how it was at the change: only a startup configuration
    // that was stored after the change can confirm it.
    std::filesystem::path startup_file;
    std::string startup_mark;
};

// To be used under the device's exclusive lock. Everything is on the disk when a function returns.
// All throw std::system_error.
class WayBack {
  public:
    explicit WayBack(const std::filesystem::path &directory);

    // Removes what a killed process has left.
    void tidy();

    // A change begins, and ends: all of it was done, or nothing.
    void begin(std::string_view former);
    void end();
    // The configuration before a change that has begun and not ended: as this lock is held, the
    // process that made the change has died, or could not undo it.
    [[nodiscard]] std::optional<std::string> unfinished() const;
    // The same at less cost, and without the lock.
    [[nodiscard]] bool has_begun() const;

    void wait(const WaitingChange &change);
    void confirm();
    [[nodiscard]] std::optional<WaitingChange> waiting() const;

  private:
    std::filesystem::path journal_;
    std::filesystem::path waiting_;
};

// Tells two contents of a file apart; empty if there is no such file.
std::string mark_of(const std::filesystem::path &file);

// When a way back must be looked after next: at once (0) if a change has not ended and its writer
// is gone, if the time of a waiting change is over, or if the startup configuration was replaced
// meanwhile; nothing if nothing waits, or while the device is in use. Does not wait for the lock.
std::optional<std::chrono::milliseconds> time_to_way_back(const std::filesystem::path &directory);

// The lock that the system manager holds to show that it looks after the way back. It is in the run
// directory: a file that is open for writing would keep the state directory from becoming
// read-only. Throws as run_dir() does.
std::filesystem::path way_back_keeper();

// The lock of all operations on the device.
std::filesystem::path device_lock(const std::filesystem::path &directory);

} // namespace ulmo
