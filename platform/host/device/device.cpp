#include "platform/host/device/device.h"

#include "base/c_boundary.h"
#include "base/folders.h"
#include "base/ownership.h"
#include "base/posix.h"
#include "base/reason.h"
#include "base/replaced_file.h"
#include "base/settings.h"
#include "base/state_file.h"
#include "base/text.h"
#include "platform/host/device/backend.h"
#include "platform/host/device/configuration_text.h"
#include "platform/host/history/copy_record.h"
#include "platform/host/history/log.h"
#include "platform/system_manager.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace ulmo {
namespace {

struct Kind {
    std::string_view name; // in the setting `device_backend`
    std::unique_ptr<DeviceBackend> (*make)(const std::filesystem::path &directory);
};

constexpr Kind kinds[] = {
    {"embedded", make_embedded_backend},
    {"command", make_command_backend},
    {"frr", make_frr_backend},
};

constexpr const char *no_startup = "there is no startup configuration";

constexpr std::string_view output = "the output";

// A unique name of each file, whichever links lead to its directory. The last component is not
// resolved: if it is a link, the link itself is replaced.
std::filesystem::path resolved(const std::filesystem::path &path) {
    return std::filesystem::weakly_canonical(path.parent_path()) / path.filename();
}

// Copies the rest of the file, in the kernel where possible; sendfile(2) does not support an output
// opened with O_APPEND.
void copy_output(const UniqueFd &file, int descriptor) {
    constexpr std::size_t most = 0x7ffff000; // sendfile(2)
    ssize_t count = 0;
    while ((count = ::sendfile(descriptor, file.get(), nullptr, most)) > 0) {
    }
    if (count < 0 && errno != EINVAL) {
        throw_errno("cannot write", output);
    }
    write_whole(descriptor, read_whole(file.get(), "the configuration"), output);
}

// Whether a line says something: it is not blank and no comment.
bool has_statement(std::string_view text) {
    while (!text.empty()) {
        const std::string_view line = trimmed(text.substr(0, text.find('\n')));
        if (!line.empty() && line.front() != '!' && line.front() != '#') {
            return true;
        }
        text.remove_prefix(std::min(text.find('\n'), text.size() - 1) + 1);
    }
    return false;
}

// What follows replace_line, if the text begins with it. The line itself stays as a blank one, so
// that the lines keep their numbers.
std::optional<std::string_view> replacement(std::string_view text) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view first = text.substr(0, end);
    if (!first.starts_with(replace_line) || !trimmed(first.substr(replace_line.size())).empty()) {
        return std::nullopt;
    }
    text.remove_prefix(end);
    if (!has_statement(text)) {
        throw ConfigurationError(ConfigurationError::Kind::bad_file,
                                 "nothing follows '" + std::string(replace_line) + "'");
    }
    return text;
}

// Removes the parts of configurations that killed processes have left: ReplacedFile had not renamed
// them. All of them are written under the lock of the device, whoever named the file.
void remove_unfinished_texts(const std::filesystem::path &directory) {
    const ActingAsOwner owner(directory);
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().native().ends_with(".cfg.new")) {
            ::unlink(entry.path().c_str());
        }
    }
}

// A running configuration as the device shows it.
std::string whole(std::string text) {
    if (text.empty()) {
        throw std::runtime_error("the device shows an empty running configuration");
    }
    return text;
}

// The device has done what it was told, and still does not run what it should.
class Differs : public std::runtime_error {
  public:
    Differs() : std::runtime_error("the device shows another one") {}
};

} // namespace

std::optional<std::string> DeviceBackend::show_startup() {
    return read_state_file(startup_file(), configuration_text_limit);
}

std::string DeviceBackend::check_and_show(std::string_view text) {
    check(text);
    return show_running();
}

bool DeviceBackend::is_saved() {
    return show_startup() == show_running();
}

Device::Device(std::unique_ptr<DeviceBackend> backend, std::filesystem::path directory,
               std::chrono::milliseconds lock_wait, Confirmation confirmation)
    : backend_(std::move(backend)), directory_(std::move(directory)), lock_wait_(lock_wait),
      confirmation_(std::move(confirmation)), way_back_(directory_) {}

Device::~Device() = default;

void Device::Rest::operator()(DeviceBackend *backend) const {
    backend->rest();
}

Device::Turn Device::locked(FileLock::Mode mode) const {
    return {FileLock(device_lock(directory_), mode, lock_wait_),
            std::unique_ptr<DeviceBackend, Rest>(backend_.get())};
}

Device::Turn Device::started() {
    Turn lock = locked(FileLock::Mode::exclusive);
    quietly([this] { remove_unfinished_texts(directory_); }, [](const char *) {});
    backend_->tidy();
    way_back_.tidy();
    if (!backend_->is_started()) {
        backend_->start();
    }
    finish();
    return lock;
}

// Undoes a change that did not end. As the lock is free, the process that made it has died, or
// could not undo it itself.
void Device::finish() {
    if (!way_back_.has_begun()) {
        return;
    }
    if (const auto former = way_back_.unfinished()) {
        put_back(*former, "a change of the running configuration did not end");
        if (const auto change = way_back_.waiting(); change && change->former == *former) {
            way_back_.confirm(); // nothing is left to undo
        }
    }
    way_back_.end();
}

// Needs a lock, and a started device.
std::string Device::running() {
    return whole(backend_->show_running());
}

std::string Device::show(ConfigurationStore which) {
    {
        const auto lock = locked(FileLock::Mode::shared);
        if (which == ConfigurationStore::startup) {
            if (auto text = backend_->show_startup()) {
                return *std::move(text);
            }
            throw std::runtime_error(no_startup);
        }
        if (backend_->is_started() && !way_back_.has_begun()) {
            return running();
        }
    }
    const auto lock = started();
    return running();
}

void Device::print(ConfigurationStore which, int descriptor) {
    const std::filesystem::path name = backend_->startup_file();
    if (which == ConfigurationStore::running || name.empty()) {
        write_whole(descriptor, show(which), output);
        return;
    }
    UniqueFd file;
    {
        const auto lock = locked(FileLock::Mode::shared);
        file = open_state_file(name, configuration_text_limit);
    }
    if (!file) {
        throw std::runtime_error(no_startup);
    }
    // the open file keeps its content even if its name is replaced
    copy_output(file, descriptor);
}

void Device::apply(std::string_view text) {
    const auto replacing = replacement(text);
    const std::string_view statements = replacing.value_or(text);
    auto limit = confirmation_.limit();
    const auto lock = started();
    const auto earlier = waiting();
    if (limit.count() == 0 && earlier) {
        limit = earlier->limit; // the setting has changed since
    }
    if (limit.count() == 0 && backend_->is_atomic()) {
        change(statements, replacing.has_value());
        return;
    }
    if (limit.count() != 0 && !is_locked(way_back_keeper())) {
        throw std::runtime_error("confirm_limit is set, and the system manager, which would undo "
                                 "the change, is not running");
    }
    if (limit.count() != 0 && !backend_->can_replace()) {
        throw std::runtime_error("confirm_limit is set, and this device can't replace its "
                                 "configuration, so it could not undo the change");
    }
    const std::string former =
        backend_->is_atomic() ? running() : whole(backend_->check_and_show(statements));
    if (backend_->can_replace()) {
        way_back_.begin(former);
    }
    try {
        change(statements, replacing.has_value());
        if (!backend_->is_atomic()) {
            backend_->verify(statements);
        }
        if (limit.count() != 0) {
            wait(earlier ? earlier->former : former, limit);
        }
    } catch (const std::exception &error) {
        undo(former, reason_of(error));
        way_back_.end();
        throw;
    }
    way_back_.end();
}

void Device::change(std::string_view text, bool is_whole) {
    if (is_whole) {
        backend_->replace(text);
    } else {
        backend_->apply(text);
    }
}

void Device::replace_exactly(const std::string &former) {
    if (backend_->show_running() != former) { // which may be empty half-way
        backend_->replace(former);
    }
    if (running() != former) {
        throw Differs();
    }
}

// After a change that failed for this reason. If it throws, finish() tries again.
void Device::undo(const std::string &former, const std::string &reason) {
    try {
        replace_exactly(former);
    } catch (const std::exception &error) {
        throw std::runtime_error(
            reason + "; the configuration before it could not be restored: " + reason_of(error));
    }
}

// Makes the former configuration the running one, and records it. Throws if the device does not
// work, so that it makes sense to try again later.
void Device::put_back(const std::string &former, const std::string &why) {
    WayBackRecord record{std::time(nullptr), why, {}};
    try {
        if (!backend_->can_replace()) { // since the change
            throw ConfigurationError(ConfigurationError::Kind::bad_file,
                                     "this device can't replace its configuration");
        }
        replace_exactly(former);
        log_error("the former configuration is in force again: %s", why.c_str());
    } catch (const ConfigurationError &error) {
        record.failure = error.what();
    } catch (const Differs &error) {
        record.failure = error.what();
    } catch (const std::exception &error) {
        throw std::runtime_error("the former configuration is not in force again yet (" + why +
                                 "): " + reason_of(error));
    }
    if (!record.failure.empty()) {
        log_error("the former configuration can't be brought back, and the running one stays as "
                  "it is: %s: %s",
                  why.c_str(), record.failure.c_str());
    }
    tell_line(line_of(record));
}

// The change that waits for a save, unless another program has saved it meanwhile.
std::optional<WaitingChange> Device::waiting() {
    auto change = way_back_.waiting();
    if (!change) {
        return change;
    }
    std::string mark = startup_mark();
    if (mark.empty() || mark == change->startup_mark) {
        return change;
    }
    bool is_saved = false;
    // The way back must not depend on it.
    log_failure("a change may have been saved", [&] { is_saved = backend_->is_saved(); });
    if (is_saved) {
        way_back_.confirm();
        log_notice("the change of %s is confirmed: the startup configuration is the running one",
                   time_text(change->made).c_str());
        return std::nullopt;
    }
    change->startup_mark = std::move(mark);
    way_back_.wait(*change);
    return change;
}

void Device::wait(const std::string &former, std::chrono::seconds limit) {
    if (running() == former) {
        way_back_.confirm(); // nothing to undo
        return;
    }
    way_back_.wait({former, std::time(nullptr), limit, confirmation_.clock() + limit,
                    backend_->startup_trace(), startup_mark()});
}

// Tells two startup configurations apart; empty if there is none, or it can't be read.
std::string Device::startup_mark() {
    const std::filesystem::path file = backend_->startup_trace();
    if (!file.empty()) {
        return mark_of(file);
    }
    std::optional<std::string> text;
    quietly([&] { text = backend_->show_startup(); }, [](const char *) {});
    return text ? std::to_string(std::hash<std::string>()(*text)) : "";
}

std::string Device::read(const std::filesystem::path &file) {
    if (file != directory_ / WARDEN_STARTUP_FILE) {
        return read_configuration_file(file);
    }
    const auto lock = locked(FileLock::Mode::shared);
    try {
        if (auto text = backend_->show_startup()) {
            return *std::move(text);
        }
    } catch (const std::system_error &error) {
        throw ConfigurationError(ConfigurationError::Kind::bad_file, error.what());
    }
    throw ConfigurationError(ConfigurationError::Kind::bad_file, no_startup);
}

void Device::save(const std::vector<std::filesystem::path> &copies,
                  const std::function<void()> &before_commit) {
    const auto lock = started();
    std::set<std::filesystem::path> paths; // a file may be named twice
    for (const std::filesystem::path &copy : copies) {
        paths.insert(resolved(directory_ / copy));
    }
    paths.erase(resolved(backend_->startup_file()));
    std::vector<ReplacedFile> files;
    if (!paths.empty()) {
        const std::string text = running();
        files.reserve(paths.size());
        for (const std::filesystem::path &path : paths) {
            files.emplace_back(path, text);
        }
    }
    backend_->save([&] {
        if (before_commit) {
            before_commit();
        }
        for (ReplacedFile &file : files) {
            file.commit();
        }
    });
    // If this fails, waiting() finds that the change was saved.
    log_failure("a saved change still waits for a save", [this] { way_back_.confirm(); });
}

bool Device::start() {
    const auto lock = locked(FileLock::Mode::exclusive);
    const bool is_done = backend_->start();
    way_back_.end();
    way_back_.confirm();
    return is_done;
}

void Device::look_back() {
    const auto lock = started();
    const auto change = waiting();
    if (change && confirmation_.clock() >= change->deadline) {
        put_back(change->former, "the change of " + time_text(change->made) +
                                     " was not saved within " +
                                     std::to_string(change->limit.count()) + " s");
        way_back_.confirm();
    }
}

std::optional<PendingChange> Device::pending() {
    const auto lock = started();
    const auto change = waiting();
    if (!change) {
        return std::nullopt;
    }
    return PendingChange{change->made, change->limit, change->deadline - confirmation_.clock()};
}

bool Device::mend_startup() {
    if (!backend_->has_begun_save()) {
        return false;
    }
    const auto lock = locked(FileLock::Mode::exclusive);
    return backend_->mend_startup();
}

void Device::store_startup(std::string_view text) {
    const auto lock = locked(FileLock::Mode::exclusive);
    backend_->store_startup(text);
}

std::unique_ptr<Device> make_device() {
    const std::string chosen = text_setting("device_backend");
    for (const Kind &kind : kinds) {
        if (kind.name == chosen) {
            Confirmation confirmation;
            confirmation.limit = [] {
                return std::chrono::seconds(number_setting("confirm_limit").value_or(0));
            };
            return std::make_unique<Device>(kind.make(state_dir()), state_dir(), device_lock_wait,
                                            std::move(confirmation));
        }
    }
    throw std::logic_error("no backend " + chosen); // the settings allow only those in the table
}

std::string read_configuration_file(const std::filesystem::path &path) {
    try {
        // O_NONBLOCK: opening a FIFO must not block before we see what it is.
        constexpr int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        const UniqueFd file(check(::open(path.c_str(), flags), "cannot open", path.native()));
        regular_file_status(file.get(), path.native(), configuration_text_limit);
        return read_whole(file.get(), path.native(), configuration_text_limit);
    } catch (const std::system_error &error) {
        throw ConfigurationError(ConfigurationError::Kind::bad_file, error.what());
    }
}

} // namespace ulmo
