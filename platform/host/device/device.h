// Room: the device: its two configurations, their language, the shell that applies them.
// Used by: transfer, system_manager, programs.
// May use: base, history, platform.
//
// The device behind the CLI shell and the system manager: it stores and changes its configurations.
#pragma once

#include "base/boot.h"
#include "base/state_file.h"
#include "platform/host/device/way_back.h"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ulmo {

class DeviceBackend;

enum class ConfigurationStore { running, startup };

// The first line of a text that replaces the running configuration, instead of being merged into
// it.
inline constexpr std::string_view replace_line = "configuration replace";

inline constexpr std::chrono::milliseconds device_lock_wait{10'000};

// Under which conditions a change of the running configuration stays.
struct Confirmation {
    // How long a change waits for a save; 0: it need not be saved.
    std::function<std::chrono::seconds()> limit = [] { return std::chrono::seconds{0}; };
    std::function<std::chrono::milliseconds()> clock = time_since_boot;
};

// A change that waits for a save.
struct PendingChange {
    std::time_t made;
    std::chrono::seconds limit;
    std::chrono::milliseconds left; // 0 or less: the configuration before it comes back now
};

// Every operation is atomic, for other processes and across a crash. An operation that throws has
// changed nothing, with one exception: save() to several files commits the startup configuration
// last, so earlier files may already have the new content. A ConfigurationError
// (configuration_text.h) means that the given text was refused; any other exception is a failure of
// the device. The first use starts a device that has no running configuration.
class Device {
  public:
    // `directory` holds the lock, and the files of a relative name. An operation waits at most
    // `lock_wait` for others.
    Device(std::unique_ptr<DeviceBackend> backend, std::filesystem::path directory,
           std::chrono::milliseconds lock_wait = device_lock_wait, Confirmation confirmation = {});
    ~Device();

    // The configuration as text: the running configuration in canonical form, the startup
    // configuration as it was stored. Throws std::runtime_error if there is no startup
    // configuration.
    std::string show(ConfigurationStore which);

    // Writes the result of show() to a descriptor. Throws as show() does, and std::system_error if
    // the write fails.
    void print(ConfigurationStore which, int descriptor);

    // Checks the whole text, then executes its statements on the running configuration in order.
    // If its first line is replace_line, the rest becomes the running configuration instead.
    // With a limit for the confirmation, the configuration before it comes back after that time
    // unless save() is called: look_back() does it. So the change is refused unless a process holds
    // way_back_keeper(), to show that it calls look_back(). If another change waits already, the
    // configuration before that one is kept, and the time begins again.
    void apply(std::string_view text);

    // Reads a text to apply(). The name system.cfg in the directory stands for the startup
    // configuration, wherever the device keeps it; any other name is read_configuration_file()'s.
    // Throws ConfigurationError (bad_file) if there is none.
    std::string read(const std::filesystem::path &file);

    // Copies the running configuration to the startup configuration and to the files `copies`,
    // which confirms a change that waits.
    // `before_commit`, if given, is called when all files have been written to the disk and before
    // any of them takes its name; if it throws, nothing changes.
    void save(const std::vector<std::filesystem::path> &copies,
              const std::function<void()> &before_commit);
    void save() { save({}, {}); }

    // Starts the device: the startup configuration, or else the factory default, becomes the
    // running configuration. No change waits afterwards. False if the device starts by itself, and
    // nothing has been done with it.
    bool start();

    // Undoes a change whose process has died, as all functions above do; and a change that has
    // waited for too long. Call it when time_to_way_back() says so.
    void look_back();

    // The change that waits for a save, if there is one.
    std::optional<PendingChange> pending();

    // Makes the startup configuration whole if a save was cut off, for a device that loads it by
    // itself: call it before that. Returns whether it was not whole.
    bool mend_startup();

    // Checks `text` and stores it as the startup configuration, octet for octet.
    void store_startup(std::string_view text);

  private:
    struct Rest {
        void operator()(DeviceBackend *backend) const;
    };
    // The lock of an operation. The backend rests before it is freed.
    struct Turn {
        FileLock lock;
        std::unique_ptr<DeviceBackend, Rest> at_work;
    };

    [[nodiscard]] Turn locked(FileLock::Mode mode) const;
    [[nodiscard]] Turn started(); // the exclusive lock of a started device
    std::string running();
    void change(std::string_view text, bool is_whole);
    void undo(const std::string &former, const std::string &reason);
    void replace_exactly(const std::string &former);
    void put_back(const std::string &former, const std::string &why);
    void finish();
    std::optional<WaitingChange> waiting();
    void wait(const std::string &former, std::chrono::seconds limit);
    std::string startup_mark();

    std::unique_ptr<DeviceBackend> backend_;
    std::filesystem::path directory_;
    std::chrono::milliseconds lock_wait_;
    Confirmation confirmation_;
    WayBack way_back_;
};

// The device that the setting `device_backend` names, with state_dir() as its directory. Throws
// what text_setting() and state_dir() throw.
std::unique_ptr<Device> make_device();

// Reads a configuration file that an operator or a transfer supplies: a regular file; symbolic
// links are followed. Throws ConfigurationError (bad_file) if it does not exist, can't be read or
// exceeds the limit of a configuration.
std::string read_configuration_file(const std::filesystem::path &path);

} // namespace ulmo
