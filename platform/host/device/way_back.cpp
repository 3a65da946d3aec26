#include "platform/host/device/way_back.h"

#include "base/boot.h"
#include "base/folders.h"
#include "base/number.h"
#include "base/posix.h"
#include "base/replaced_file.h"
#include "base/state_file.h"
#include "platform/host/device/configuration_text.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace ulmo {
namespace {

// A file is a head, a blank line and the former configuration. The head has lines `key value`.
constexpr std::size_t head_limit = 8192;
constexpr std::size_t journal_limit = configuration_text_limit + head_limit;
constexpr std::string_view head_end = "\n\n";

std::filesystem::path journal_in(const std::filesystem::path &directory) {
    return directory / "way-back.journal";
}

std::filesystem::path waiting_in(const std::filesystem::path &directory) {
    return directory / "way-back.waiting";
}

// The value of the line that begins with the key; empty if there is none.
std::string_view value_of(std::string_view key, std::string_view head) {
    while (!head.empty()) {
        const std::string_view line = head.substr(0, head.find('\n'));
        head.remove_prefix(std::min(line.size() + 1, head.size()));
        if (line.starts_with(key) && line.substr(key.size()).starts_with(' ')) {
            return line.substr(key.size() + 1);
        }
    }
    return {};
}

// Splits the content of a file; empty if it is of another boot.
std::optional<std::pair<std::string_view, std::string_view>> parts(std::string_view content) {
    const std::size_t end = content.find(head_end);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view head = content.substr(0, end);
    if (value_of("boot", head) != boot_id()) {
        return std::nullopt;
    }
    return std::pair(head, content.substr(end + head_end.size()));
}

WaitingChange change_of(std::string_view head, std::string_view former) {
    const auto number = [head](std::string_view key) {
        return parsed_number<long long>(value_of(key, head), 0).value_or(0);
    };
    WaitingChange change;
    change.former = former;
    change.made = static_cast<std::time_t>(number("made"));
    change.limit = std::chrono::seconds(number("limit"));
    change.deadline = std::chrono::milliseconds(number("deadline"));
    change.startup_file = value_of("startup", head);
    change.startup_mark = value_of("mark", head);
    return change;
}

void remove_file(const std::filesystem::path &file) {
    if (::unlink(file.c_str()) != 0 && errno != ENOENT) {
        throw_errno("cannot remove", file.native());
    }
}

} // namespace

WayBack::WayBack(const std::filesystem::path &directory)
    : journal_(journal_in(directory)), waiting_(waiting_in(directory)) {}

void WayBack::tidy() {
    ReplacedFile::remove_leftover(journal_);
    ReplacedFile::remove_leftover(waiting_);
}

void WayBack::begin(std::string_view former) {
    replace_state_file(journal_, "boot " + boot_id() + std::string(head_end) + std::string(former));
}

void WayBack::end() {
    remove_file(journal_);
}

std::optional<std::string> WayBack::unfinished() const {
    const auto content = read_state_file(journal_, journal_limit);
    const auto both = content ? parts(*content) : std::nullopt;
    return both ? std::optional<std::string>(both->second) : std::nullopt;
}

bool WayBack::has_begun() const {
    return ::access(journal_.c_str(), F_OK) == 0;
}

void WayBack::wait(const WaitingChange &change) {
    std::string content = "boot " + boot_id();
    content += "\nmade " + std::to_string(static_cast<long long>(change.made));
    content += "\nlimit " + std::to_string(change.limit.count());
    content += "\ndeadline " + std::to_string(change.deadline.count());
    content += "\nstartup " + change.startup_file.string();
    content += "\nmark " + change.startup_mark;
    replace_state_file(waiting_, content + std::string(head_end) + change.former);
}

void WayBack::confirm() {
    remove_file(waiting_);
}

std::optional<WaitingChange> WayBack::waiting() const {
    const auto content = read_state_file(waiting_, journal_limit);
    const auto both = content ? parts(*content) : std::nullopt;
    return both ? std::optional(change_of(both->first, both->second)) : std::nullopt;
}

std::string mark_of(const std::filesystem::path &file) {
    struct stat status {};
    if (file.empty() || ::stat(file.c_str(), &status) != 0) {
        return {};
    }
    return std::to_string(status.st_ino) + '.' + std::to_string(status.st_size) + '.' +
           std::to_string(status.st_ctim.tv_sec) + '.' + std::to_string(status.st_ctim.tv_nsec);
}

std::optional<std::chrono::milliseconds> time_to_way_back(const std::filesystem::path &directory) {
    using std::chrono::milliseconds;
    const bool has_begun = WayBack(directory).has_begun();
    const UniqueFd waiting = open_state_file(waiting_in(directory), journal_limit);
    if ((!has_begun && !waiting) || is_locked(device_lock(directory))) {
        return std::nullopt;
    }
    if (has_begun) {
        return milliseconds{0};
    }
    std::string content(head_limit, '\0'); // the text can be long
    content.resize(static_cast<std::size_t>(check(
        ::pread(waiting.get(), content.data(), content.size(), 0), "cannot read the way back")));
    const auto both = parts(content);
    if (!both) {
        return std::nullopt;
    }
    const WaitingChange change = change_of(both->first, {});
    if (!change.startup_file.empty() && mark_of(change.startup_file) != change.startup_mark) {
        return milliseconds{0};
    }
    return std::max(change.deadline - time_since_boot(), milliseconds{0});
}

std::filesystem::path way_back_keeper() {
    return run_dir() / "way-back.keeper";
}

std::filesystem::path device_lock(const std::filesystem::path &directory) {
    return directory / "configuration.lock";
}

} // namespace ulmo
