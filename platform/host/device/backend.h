// Room: the device: its two configurations, their language, the shell that applies them.
// Used by: system_manager, programs.
// May use: base, history, platform.
//
// The device behind the CLI shell and the system manager: who keeps and changes its configurations.
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

// Every operation is seen whole or not at all, by other processes and after a crash. Operations
// that throw have changed nothing (but for save() to several files, whose last one is the startup
// configuration: an earlier one may have got its new content). ConfigurationError
// (configuration_text.h) says that a text given was refused; every other exception is a failure of
// the device.
class DeviceBackend {
  public:
    virtual ~DeviceBackend() = default;

    // The configuration as text. The running configuration is in canonical form; the startup
    // configuration is as it was stored. Throws std::runtime_error when there is no startup
    // configuration.
    virtual std::string show(ConfigurationStore which) = 0;

    // Writes what show() returns to a descriptor. Throws as it does, and std::system_error when it
    // can't be written.
    virtual void print(ConfigurationStore which, int descriptor);

    // Executes the statements of `text` on the running configuration, in order, after the whole
    // text has been checked.
    virtual void apply(std::string_view text) = 0;

    // Makes the running configuration the startup configuration, and the content of the files
    // `copies` as well (relative names are names in the device's own directory). `before_commit`,
    // where there is one, is called when all of it lies prepared on the disk and nothing has
    // changed yet; if it throws, nothing changes.
    virtual void save(const std::vector<std::filesystem::path> &copies,
                      const std::function<void()> &before_commit) = 0;
    void save() { save({}, {}); }

    // The device starts: the startup configuration, or else the factory default, becomes the
    // running configuration.
    virtual void start() = 0;

    // Makes `text` the startup configuration, octet for octet, after it has been checked.
    virtual void store_startup(std::string_view text) = 0;
};

// The backend of the setting `device_backend`: `embedded` (the default) keeps the configurations in
// state_dir(). Throws std::runtime_error for any other value, and what state_dir() throws.
std::unique_ptr<DeviceBackend> make_device_backend();

// Keeps the running configuration in running.cfg and the startup configuration in system.cfg of
// `directory`, mode 0600. Its first use makes the running configuration: a copy of the startup
// configuration, or else a factory default that holds a host name only. A startup configuration
// that is not valid is an error then, not overwritten later by a save. An operation waits at most
// `lock_wait` for others.
inline constexpr std::chrono::milliseconds device_lock_wait{10'000};
std::unique_ptr<DeviceBackend>
make_embedded_backend(const std::filesystem::path &directory,
                      std::chrono::milliseconds lock_wait = device_lock_wait);

// The text of a configuration file that an operator or a transfer supplies: a regular file, links
// are followed. Throws ConfigurationError (bad_file) when it is not there, can't be read or is
// larger than a configuration may be.
std::string read_configuration_file(const std::filesystem::path &path);

} // namespace ulmo
