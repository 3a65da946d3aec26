#include "platform/host/device/backend.h"

#include "base/folders.h"
#include "base/posix.h"
#include "base/replaced_file.h"
#include "base/settings.h"
#include "base/state_file.h"
#include "platform/host/device/configuration_text.h"
#include "platform/system_manager.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>

namespace ulmo {
namespace {

// The canonical form, if it is within the limit of a device.
std::string bounded_text(const Configuration &configuration) {
    std::string text = to_text(configuration);
    if (text.size() > configuration_canonical_limit) {
        throw std::runtime_error("the configuration would be larger than " +
                                 std::to_string(configuration_canonical_limit) + " octets");
    }
    return text;
}

// A unique name of each file, whichever links lead to its directory. The last component is not
// resolved: if it is a link, the link itself is replaced.
std::filesystem::path resolved(const std::filesystem::path &path) {
    return std::filesystem::weakly_canonical(path.parent_path()) / path.filename();
}

constexpr const char *no_startup = "there is no startup configuration";

constexpr std::string_view output = "the output";

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

class EmbeddedBackend final : public DeviceBackend {
  public:
    EmbeddedBackend(const std::filesystem::path &directory, std::chrono::milliseconds lock_wait)
        : running_file_(directory / "running.cfg"), startup_file_(directory / WARDEN_STARTUP_FILE),
          lock_file_(directory / "configuration.lock"), lock_wait_(lock_wait) {}

    std::string show(ConfigurationStore which) override {
        {
            const auto lock = locked(FileLock::Mode::shared);
            const auto text =
                stored(which == ConfigurationStore::running ? running_file_ : startup_file_);
            if (which == ConfigurationStore::startup) {
                if (!text) {
                    throw std::runtime_error(no_startup);
                }
                return *text;
            }
            if (text) {
                return to_text(parsed(*text, running_file_));
            }
        }
        const auto lock = locked(FileLock::Mode::exclusive);
        return to_text(running());
    }

    void print(ConfigurationStore which, int descriptor) override {
        if (which == ConfigurationStore::running) {
            DeviceBackend::print(which, descriptor);
            return;
        }
        UniqueFd file;
        {
            const auto lock = locked(FileLock::Mode::shared);
            file = open_state_file(startup_file_, configuration_text_limit);
        }
        if (!file) {
            throw std::runtime_error(no_startup);
        }
        // the open file keeps its content even if its name is replaced
        copy_output(file, descriptor);
    }

    void apply(std::string_view text) override {
        const auto lock = locked(FileLock::Mode::exclusive);
        Configuration configuration = running();
        const std::string before = to_text(configuration);
        merge(configuration, text);
        const std::string after = bounded_text(configuration);
        if (after != before) {
            replace_state_file(running_file_, after);
        }
    }

    void save(const std::vector<std::filesystem::path> &copies,
              const std::function<void()> &before_commit) override {
        const auto lock = locked(FileLock::Mode::exclusive);
        const std::string text = to_text(running());
        std::set<std::filesystem::path> paths; // a file may be named twice
        for (const std::filesystem::path &copy : copies) {
            paths.insert(resolved(startup_file_.parent_path() / copy));
        }
        paths.erase(resolved(startup_file_));
        std::vector<ReplacedFile> files;
        files.reserve(paths.size() + 1);
        for (const std::filesystem::path &path : paths) {
            files.emplace_back(path, text);
        }
        files.emplace_back(startup_file_, text);
        if (before_commit) {
            before_commit();
        }
        for (ReplacedFile &file : files) {
            file.commit();
        }
    }

    void start() override {
        const auto lock = locked(FileLock::Mode::exclusive);
        replace_state_file(running_file_, bounded_text(initial()));
    }

    void store_startup(std::string_view text) override {
        const auto lock = locked(FileLock::Mode::exclusive);
        Configuration configuration;
        merge(configuration, text);
        // a configuration that could never become the running one is refused
        bounded_text(configuration);
        replace_state_file(startup_file_, text);
    }

  private:
    [[nodiscard]] FileLock locked(FileLock::Mode mode) const {
        return {lock_file_, mode, lock_wait_};
    }

    static std::optional<std::string> stored(const std::filesystem::path &file) {
        return read_state_file(file, configuration_text_limit);
    }

    // An invalid stored text is a failure of the device, unlike an invalid text from the caller.
    static Configuration parsed(std::string_view text, const std::filesystem::path &file) {
        Configuration configuration;
        try {
            merge(configuration, text);
        } catch (const ConfigurationError &error) {
            throw std::runtime_error(file.string() + " is not valid: " + error.what());
        }
        return configuration;
    }

    // The running configuration, created if it does not exist. Needs the exclusive lock.
    [[nodiscard]] Configuration running() const {
        if (const auto text = stored(running_file_)) {
            return parsed(*text, running_file_);
        }
        Configuration configuration = initial();
        replace_state_file(running_file_, bounded_text(configuration));
        return configuration;
    }

    // The configuration that the device runs after a start.
    [[nodiscard]] Configuration initial() const {
        Configuration configuration;
        if (const auto text = stored(startup_file_)) {
            configuration = parsed(*text, startup_file_);
        } else {
            configuration.hostname = "switch";
        }
        return configuration;
    }

    std::filesystem::path running_file_;
    std::filesystem::path startup_file_;
    std::filesystem::path lock_file_;
    std::chrono::milliseconds lock_wait_;
};

} // namespace

void DeviceBackend::print(ConfigurationStore which, int descriptor) {
    write_whole(descriptor, show(which), output);
}

std::unique_ptr<DeviceBackend> make_embedded_backend(const std::filesystem::path &directory,
                                                     std::chrono::milliseconds lock_wait) {
    return std::make_unique<EmbeddedBackend>(directory, lock_wait);
}

std::unique_ptr<DeviceBackend> make_device_backend() {
    static_cast<void>(text_setting("device_backend")); // embedded is the only one
    return make_embedded_backend(state_dir());
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
