// The kind of device that programs of the administrator show and change.
#include "platform/host/device/backend.h"

#include "base/program_run.h"
#include "base/settings.h"
#include "platform/host/device/configuration_text.h"
#include "platform/host/device/named_text.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <utility>

namespace ulmo {
namespace {

// What a program of the settings does.
struct Task {
    ProgramSetting program;
    const char *what;
    bool judges = false; // refuses a bad text with an exit status and a reason
};

constexpr Task show_running_task{"command_show_running", "show its running configuration"};
constexpr Task show_startup_task{"command_show_startup", "show its startup configuration"};
constexpr Task check_task{"command_check", "check a configuration", true};
constexpr Task apply_task{"command_apply", "apply a configuration", true};
constexpr Task replace_task{"command_replace", "replace its configuration", true};
constexpr Task verify_task{"command_verify", "verify a configuration", true};
constexpr Task save_task{"command_save", "save its configuration"};
constexpr Task store_task{"command_store_startup", "take a startup configuration", true};

// The number of the first line with a control character other than a tab, or 0.
std::size_t line_with_control_character(std::string_view text) {
    std::size_t line = 1;
    for (const char c : text) {
        const auto octet = static_cast<unsigned char>(c);
        line += c == '\n' ? 1 : 0;
        if ((octet < ' ' && c != '\n' && c != '\r' && c != '\t') || c == '\x7f') {
            return line;
        }
    }
    return 0;
}

constexpr std::string_view control_character = " has a control character: this is not text";

// In the place of this argument, a program gets the name of a file with its text.
constexpr std::string_view text_file_word = "{}";

class CommandBackend final : public DeviceBackend {
  public:
    explicit CommandBackend(std::filesystem::path directory) : directory_(std::move(directory)) {
        for (const Task *task : {&show_running_task, &show_startup_task, &check_task, &apply_task,
                                 &replace_task, &verify_task, &save_task, &store_task}) {
            program_setting(task->program); // nothing works with a bad one
        }
    }

    [[nodiscard]] bool is_atomic() const override { return false; }

    std::string show_running() override { return shown(show_running_task); }

    [[nodiscard]] std::filesystem::path startup_file() const override { return {}; }

    std::optional<std::string> show_startup() override {
        std::string text = shown(show_startup_task);
        return text.empty() ? std::nullopt : std::optional(std::move(text));
    }

    void check(std::string_view text) override {
        if (const std::size_t line = line_with_control_character(text); line != 0) {
            throw ConfigurationError(ConfigurationError::Kind::bad_file,
                                     "line " + std::to_string(line) +
                                         std::string(control_character));
        }
        if (is_set(check_task)) {
            run(check_task, text);
        }
    }

    void apply(std::string_view text) override { run(apply_task, text); }

    [[nodiscard]] bool can_replace() const override { return is_set(replace_task); }

    void replace(std::string_view text) override { run(replace_task, text); }

    void verify(std::string_view text) override {
        if (is_set(verify_task)) {
            run(verify_task, text);
        }
    }

    void save(const std::function<void()> &before_commit) override {
        require(save_task);
        before_commit();
        run(save_task);
    }

    void store_startup(std::string_view text) override {
        require(store_task);
        check(text);
        run(store_task, text);
    }

  private:
    static std::string name_of(const Task &task) { return std::string((*task.program).name); }

    static void require(const Task &task) {
        if (!is_set(task)) {
            throw std::runtime_error(name_of(task) + " is not set: this device can't " + task.what);
        }
    }

    static bool is_set(const Task &task) { return !program_setting(task.program).empty(); }

    // Runs the program of the task and returns what it prints.
    [[nodiscard]] std::string output_of(const Task &task, std::string_view text = {}) const {
        require(task);
        ProgramCall call{.words = program_setting(task.program),
                         .input = text,
                         .time_limit = std::chrono::seconds(*number_setting("device_time_limit")),
                         .output_limit = configuration_text_limit,
                         .as_owner_of = directory_};
        std::optional<NamedText> file;
        if (std::find(call.words.begin(), call.words.end(), text_file_word) != call.words.end()) {
            file.emplace(directory_ / "device.input", text);
            std::replace(call.words.begin(), call.words.end(), std::string(text_file_word),
                         file->name());
            call.input = {};
        }
        ProgramEnd end = run_program(call);
        if (end.is_success()) {
            return std::move(end.output);
        }
        const std::string reason = failure_of(call, end);
        if (!task.judges || end.exit_status < 0) {
            throw std::runtime_error(name_of(task) + ": " + reason);
        }
        throw ConfigurationError(ConfigurationError::Kind::bad_line,
                                 end.complaint.empty() ? name_of(task) + ": " + reason : reason);
    }

    void run(const Task &task, std::string_view text = {}) const {
        static_cast<void>(output_of(task, text));
    }

    [[nodiscard]] std::string shown(const Task &task) const {
        std::string text = output_of(task);
        if (const std::size_t line = line_with_control_character(text); line != 0) {
            throw std::runtime_error(name_of(task) + ": line " + std::to_string(line) +
                                     " of what it printed" + std::string(control_character));
        }
        return text;
    }

    std::filesystem::path directory_;
};

} // namespace

std::unique_ptr<DeviceBackend> make_command_backend(const std::filesystem::path &directory) {
    return std::make_unique<CommandBackend>(directory);
}

} // namespace ulmo
