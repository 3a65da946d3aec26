// What a kind of device does by itself. Device (device.h) makes whole operations of it.
//
// To add a kind: a class in a source of its own, a line in the table of device.cpp, its word in the
// setting `device_backend`, and a fixture for the tests that every kind passes. docs/devices.md
// says more.
#pragma once

#include "platform/host/device/configuration_text.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ulmo {

// Device calls these functions under its lock, which other processes respect. A ConfigurationError
// (configuration_text.h) means that the given text was refused; any other exception is a failure of
// the device.
class DeviceBackend {
  public:
    virtual ~DeviceBackend() = default;

    // Whether apply() and replace() check the text, and change nothing if they throw. If not,
    // Device calls check_and_show() before them and verify() after them, and has the former
    // configuration replaced if one of them throws.
    [[nodiscard]] virtual bool is_atomic() const = 0;

    // The whole running configuration, as replace() takes it back. An empty text is a failure.
    virtual std::string show_running() = 0;

    // The file with the startup configuration; empty if no file holds exactly this text.
    [[nodiscard]] virtual std::filesystem::path startup_file() const = 0;
    // Its text, octet for octet; nullopt if there is no startup configuration. By default, the
    // content of startup_file().
    virtual std::optional<std::string> show_startup();

    // Throws ConfigurationError if apply() would refuse the text. Changes nothing.
    virtual void check(std::string_view text) = 0;
    // check(), and then show_running(). A kind that can do both at the same time saves time here.
    virtual std::string check_and_show(std::string_view text);
    // Executes the statements of the text on the running configuration, in order.
    virtual void apply(std::string_view text) = 0;
    // Whether replace() can work at all. If not, there is no way back from a change.
    [[nodiscard]] virtual bool can_replace() const { return true; }
    // Makes the text the running configuration: what it does not name is removed.
    virtual void replace(std::string_view text) = 0;
    // Throws if what apply() or replace() was given is not in force now.
    virtual void verify(std::string_view /*text*/) {}

    // Makes the running configuration the startup configuration: at any instant there is the old
    // one or the new one. Calls `before_commit` once, when all that can fail has been done as far
    // as possible; if it throws, nothing changes.
    virtual void save(const std::function<void()> &before_commit) = 0;
    // A file that changes whenever a program stores a startup configuration, as a sign to compare
    // it; empty if there is none. By default startup_file().
    [[nodiscard]] virtual std::filesystem::path startup_trace() const { return startup_file(); }
    // Whether the startup configuration is the running configuration. By default, whether both
    // texts are the same.
    virtual bool is_saved();
    // Checks the text and makes it the startup configuration, octet for octet.
    virtual void store_startup(std::string_view text) = 0;

    // Removes what a killed process has left, but for configurations that Device removes.
    virtual void tidy() {}

    // Whether there is a running configuration. A device that starts by itself always has one.
    virtual bool is_started() { return true; }
    // Makes the startup configuration, or else the factory default, the running configuration.
    // False if the device starts by itself, and nothing has been done.
    virtual bool start() { return false; }

    // Whether a save has begun and not ended, so that mend_startup() may have something to do.
    [[nodiscard]] virtual bool has_begun_save() const { return false; }
    // Makes the startup configuration the former one again if a save has left a part of a file.
    // Returns whether it had. Only while nothing of the device runs.
    virtual bool mend_startup() { return false; }

    // Ends everything that only speeds up an operation: called at the end of each one, while the
    // lock is still held.
    virtual void rest() {}
};

// Keeps the running configuration in running.cfg and the startup configuration in system.cfg of
// `directory`, mode 0600. The factory default has only a host name. An invalid startup
// configuration is an error at the start, rather than overwritten by a later save.
std::unique_ptr<DeviceBackend> make_embedded_backend(const std::filesystem::path &directory);

// A device that the programs of the settings `command_...` show and change. A program that needs
// its text in a file finds it in `directory`. Throws SettingsError.
std::unique_ptr<DeviceBackend> make_command_backend(const std::filesystem::path &directory);

// FRRouting on this machine, as the settings `frr_...` say. Keeps files of its own in `directory`
// while it works.
std::unique_ptr<DeviceBackend> make_frr_backend(const std::filesystem::path &directory);

} // namespace ulmo
