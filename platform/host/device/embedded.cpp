// The embedded kind of device: two texts in the state directory.
#include "platform/host/device/backend.h"

#include "base/replaced_file.h"
#include "base/state_file.h"
#include "platform/host/device/configuration_text.h"
#include "platform/system_manager.h"

#include <optional>
#include <stdexcept>

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

class EmbeddedBackend final : public DeviceBackend {
  public:
    explicit EmbeddedBackend(const std::filesystem::path &directory)
        : running_file_(directory / "running.cfg"), startup_file_(directory / WARDEN_STARTUP_FILE) {
    }

    [[nodiscard]] bool is_atomic() const override { return true; }

    std::string show_running() override { return to_text(running()); }

    [[nodiscard]] std::filesystem::path startup_file() const override { return startup_file_; }

    void check(std::string_view text) override {
        Configuration configuration = running();
        merge(configuration, text);
        bounded_text(configuration);
    }

    void apply(std::string_view text) override {
        Configuration configuration = running();
        const std::string before = to_text(configuration);
        merge(configuration, text);
        store_running(before, bounded_text(configuration));
    }

    void replace(std::string_view text) override {
        Configuration configuration;
        merge(configuration, text);
        store_running(to_text(running()), bounded_text(configuration));
    }

    void save(const std::function<void()> &before_commit) override {
        ReplacedFile file(startup_file_, to_text(running()));
        before_commit();
        file.commit();
    }

    void store_startup(std::string_view text) override {
        Configuration configuration;
        merge(configuration, text);
        // a configuration that could never become the running one is refused
        bounded_text(configuration);
        replace_state_file(startup_file_, text);
    }

    bool is_started() override {
        return static_cast<bool>(open_state_file(running_file_, configuration_text_limit));
    }

    bool start() override {
        replace_state_file(running_file_, bounded_text(initial()));
        return true;
    }

  private:
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

    void store_running(const std::string &before, const std::string &after) const {
        if (after != before) {
            replace_state_file(running_file_, after);
        }
    }

    [[nodiscard]] Configuration running() const {
        return parsed(stored(running_file_).value(), running_file_);
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
};

} // namespace

std::unique_ptr<DeviceBackend> make_embedded_backend(const std::filesystem::path &directory) {
    return std::make_unique<EmbeddedBackend>(directory);
}

} // namespace ulmo
