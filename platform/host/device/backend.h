// Room: the device: its two configurations, their language, the shell that applies them.
// Used by: transfer, system_manager, programs.
// May use: base, history, platform.
//
// The device behind the CLI shell and the system manager: it stores and changes its configurations.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ulmo {

enum class ConfigurationStore { running, startup };

// Every operation is atomic, for other processes and across a crash. An operation that throws has
// changed nothing, with one exception: save() to several files commits the startup configuration
// last, so earlier files may already have the new content. A ConfigurationError
// (configuration_text.h) means that the given text was refused; any other exception is a failure of
// the device.
class DeviceBackend {
  public:
    virtual ~DeviceBackend() = default;

    // The configuration as text: the running configuration in canonical form, the startup
    // configuration as it was stored. Throws std::runtime_error if there is no startup
    // configuration.
    virtual std::string show(ConfigurationStore which) = 0;

    // Writes the result of show() to a descriptor. Throws as show() does, and std::system_error if
    // the write fails.
    virtual void print(ConfigurationStore which, int descriptor);

    // Checks the whole text, then executes its statements on the running configuration in order.
    virtual void apply(std::string_view text) = 0;

    // Copies the running configuration to the startup configuration and to the files `copies`
    // (relative names are relative to the device's own directory). `before_commit`, if given, is
    // called when all files have been written to the disk and before any of them takes its name; if
    // it throws, nothing changes.
    virtual void save(const std::vector<std::filesystem::path> &copies,
                      const std::function<void()> &before_commit) = 0;
    void save() { save({}, {}); }

    // Starts the device: the startup configuration, or else the factory default, becomes the
    // running configuration.
    virtual void start() = 0;

    // Checks `text` and stores it as the startup configuration, octet for octet.
    virtual void store_startup(std::string_view text) = 0;
};

// The backend chosen by the setting `device_backend`. `embedded`, the default, keeps the
// configurations in state_dir(). Throws std::runtime_error for any other value, and what
// state_dir() throws.
std::unique_ptr<DeviceBackend> make_device_backend();

// Keeps the running configuration in running.cfg and the startup configuration in system.cfg of
// `directory`, mode 0600. The first use creates the running configuration: a copy of the startup
// configuration, or else a factory default that has only a host name. An invalid startup
// configuration is an error then, rather than overwritten by a later save. An operation waits at
// most `lock_wait` for others.
inline constexpr std::chrono::milliseconds device_lock_wait{10'000};
std::unique_ptr<DeviceBackend>
make_embedded_backend(const std::filesystem::path &directory,
                      std::chrono::milliseconds lock_wait = device_lock_wait);

// Reads a configuration file that an operator or a transfer supplies: a regular file; symbolic
// links are followed. Throws ConfigurationError (bad_file) if it does not exist, can't be read or
// exceeds the limit of a configuration.
std::string read_configuration_file(const std::filesystem::path &path);

} // namespace ulmo
