#include "base/settings.h"

#include "base/folders.h"
#include "base/number.h"
#include "base/ownership.h"
#include "base/posix.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "base/wwn_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <iterator>
#include <memory>
#include <mutex>
#include <system_error>
#include <tuple>

namespace ulmo {
namespace {

std::string lower(std::string_view text) {
    std::string result(text);
    for (char &c : result) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return result;
}

bool is_one_of(std::string_view word, std::string_view words) {
    while (!words.empty()) {
        const std::string_view next = words.substr(0, words.find(','));
        if (word == trimmed(next)) {
            return true;
        }
        words.remove_prefix(std::min(next.size() + 1, words.size()));
    }
    return false;
}

std::vector<std::string> words_of(std::string_view text) {
    constexpr std::string_view blanks = " \t";
    std::vector<std::string> words;
    while (!(text = trimmed(text)).empty()) {
        words.emplace_back(text.substr(0, text.find_first_of(blanks)));
        text.remove_prefix(words.back().size());
    }
    return words;
}

bool is_program(const std::string &path) {
    struct stat status {};
    return path.starts_with('/') && ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

bool is_private_file(const std::string &path) {
    struct stat status {};
    return path.starts_with('/') && ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_uid == owner_of(state_path()) && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

// The value in the form that the getters return; empty if it is not valid.
std::optional<std::string> accepted(const Setting &setting, std::string_view text) {
    std::string value(text);
    if (setting.kind != SettingKind::list && text == setting.fallback) {
        return value; // an empty value means not set
    }
    bool is_good = true;
    switch (setting.kind) {
    case SettingKind::number: {
        const auto number = parsed_number(text, setting.least, setting.most);
        is_good = number.has_value();
        value = std::to_string(number.value_or(0));
        break;
    }
    case SettingKind::yes_no: {
        const std::string word = lower(text);
        const bool is_yes = is_one_of(word, "yes, on, true");
        is_good = is_yes || is_one_of(word, "no, off, false");
        value = is_yes ? "yes" : "no";
        break;
    }
    case SettingKind::choice:
        is_good = is_one_of(text, setting.words);
        break;
    case SettingKind::list:
        is_good = setting.most == 0 || (text.size() >= static_cast<std::size_t>(setting.least) &&
                                        text.size() <= static_cast<std::size_t>(setting.most));
        break;
    case SettingKind::wwn: {
        const auto wwn = wwn_from_text(text);
        is_good = wwn && *wwn != Wwn{}; // reserved: no switch's name
        break;
    }
    case SettingKind::program:
        is_good = is_program(words_of(text).at(0)); // an empty value is the default
        break;
    case SettingKind::private_file:
        is_good = is_private_file(value);
        break;
    case SettingKind::text:
        break;
    }
    return is_good ? std::optional(std::move(value)) : std::nullopt;
}

std::string what_it_must_be(const Setting &setting) {
    const std::string range = std::to_string(setting.least) + " to " + std::to_string(setting.most);
    switch (setting.kind) {
    case SettingKind::number:
        return "must be a number from " + range;
    case SettingKind::yes_no:
        return "must be yes or no";
    case SettingKind::choice:
        return "must be one of " + std::string(setting.words);
    case SettingKind::list:
        return "must be " + range + " octets long";
    case SettingKind::wwn:
        return "must be a world-wide name, such as 20:00:00:00:00:00:00:01";
    case SettingKind::program:
        return "must begin with the absolute path of a program that exists and that this user may "
               "run";
    case SettingKind::private_file:
        return "must be the absolute path of a file that belongs to the agent's user, with mode "
               "0600";
    case SettingKind::text:
        break;
    }
    return "must have another value";
}

// At most one short line, whatever the file contains.
std::string shown(std::string_view text) {
    constexpr std::size_t longest = 60;
    return one_line(text, longest) + (text.size() > longest ? "..." : "");
}

// Identifies one version of the file's content.
using Stamp = std::tuple<std::string, dev_t, ino_t, off_t, time_t, long, time_t, long, uid_t>;

struct State {
    std::vector<std::string> values; // for kinds other than list: the last valid value
    bool is_default = true;
    std::string refusal; // why a getter must throw
};

struct Contents {
    Stamp stamp;
    std::string unreadable; // the reason, if the file can't be read
    std::array<State, std::size(all_settings)> states;
    std::vector<std::string> problems;
    bool lacks_file = false; // which may come without a change of the settings file
};

// The status of the file; empty if it does not exist. Throws std::runtime_error.
std::optional<struct stat> status_of(const std::filesystem::path &path) {
    // A worker's working directory is not the agent's, so a relative path would not find the file.
    if (path.is_relative()) {
        throw std::runtime_error("its path is not absolute");
    }
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        return status;
    }
    const int error = errno;
    // A dangling link exists but can't be read.
    if (error == ENOENT && ::lstat(path.c_str(), &status) != 0 && errno == ENOENT) {
        return std::nullopt;
    }
    throw_error(error);
}

Stamp stamp_of(const std::filesystem::path &path, const struct stat &status) {
    // The user id is included because another user may not be allowed to read the file.
    return {path.string(),         status.st_dev,          status.st_ino,
            status.st_size,        status.st_mtim.tv_sec,  status.st_mtim.tv_nsec,
            status.st_ctim.tv_sec, status.st_ctim.tv_nsec, ::geteuid()};
}

std::string text_of(const std::filesystem::path &path, Stamp &stamp) {
    // O_NONBLOCK: opening a FIFO must not block before its type is checked.
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        throw_errno();
    }
    if (S_ISDIR(status.st_mode)) {
        throw_error(EISDIR);
    }
    if (!S_ISREG(status.st_mode)) {
        throw std::runtime_error("it is not a regular file");
    }
    stamp = stamp_of(path, status);
    return read_whole(file.get(), {});
}

// Takes the setting from one line, or records what is wrong with it.
void take(Contents &contents, const Setting &setting, std::string_view text,
          const std::string &place) {
    State &state = contents.states[static_cast<std::size_t>(&setting - all_settings)];
    if (setting.kind != SettingKind::list || state.is_default) {
        state.values.clear();
    }
    state.is_default = false;
    state.refusal.clear();
    if (auto value = accepted(setting, text)) {
        if (setting.kind == SettingKind::list || !value->empty()) {
            state.values.push_back(*std::move(value));
        }
        return;
    }
    contents.lacks_file = contents.lacks_file || setting.kind == SettingKind::program ||
                          setting.kind == SettingKind::private_file;
    std::string problem = place + ": " + std::string(setting.name) + " = " +
                          (setting.is_secret ? "..." : shown(text)) + ": " +
                          what_it_must_be(setting) + "; ";
    if (!setting.fails.empty()) {
        problem += setting.fails;
        state.refusal = problem;
    } else if (setting.kind == SettingKind::list) {
        problem += "the line is ignored";
    } else {
        problem += setting.fallback.empty()
                       ? "it counts as not set"
                       : "the default " + std::string(setting.fallback) + " is used";
        state.values = {std::string(setting.fallback)};
        state.is_default = true;
    }
    contents.problems.push_back(std::move(problem));
}

void judge(Contents &contents, const std::filesystem::path &path, std::string_view text) {
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        const std::string_view words = trimmed(line);
        if (words.empty() || words.front() == '#') {
            continue;
        }
        const std::string place = path.string() + " line " + std::to_string(number);
        const auto equals = words.find('=');
        if (equals == std::string_view::npos) {
            contents.problems.push_back(place + ": no '='; the line is ignored");
            continue;
        }
        const std::string_view key = trimmed(words.substr(0, equals));
        const auto *const setting =
            std::find_if(std::begin(all_settings), std::end(all_settings),
                         [key](const Setting &each) { return each.name == key; });
        if (setting == std::end(all_settings)) {
            // The value is not shown: it may be a passphrase.
            contents.problems.push_back(place + ": " + shown(key) +
                                        ": unknown setting; the line is ignored");
            continue;
        }
        take(contents, *setting, trimmed(words.substr(equals + 1)), place);
    }
}

Contents read_contents(const std::filesystem::path &path) {
    Contents contents;
    for (std::size_t i = 0; i < std::size(all_settings); ++i) {
        if (const std::string_view fallback = all_settings[i].fallback; !fallback.empty()) {
            contents.states[i].values.emplace_back(fallback);
        }
    }
    const auto refuse = [&](const std::string &why) {
        contents.unreadable = path.string() + " can't be read: " + why + "; copies and saves fail";
        contents.problems = {contents.unreadable};
    };
    try {
        if (const auto status = status_of(path)) {
            contents.stamp = stamp_of(path, *status); // needed also if the file can't be read
            judge(contents, path, text_of(path, contents.stamp));
        }
    } catch (const std::system_error &error) {
        refuse(error.code().message());
    } catch (const std::exception &error) {
        refuse(error.what());
    }
    return contents;
}

// A file that was changed right after it was read may keep the same time stamp, so a file changed
// this recently is read again.
bool is_settled(const Stamp &stamp) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    constexpr std::int64_t age_ms = 100; // many ticks of the clock that stamps files
    const auto milliseconds = [](time_t seconds, long nanoseconds) {
        return std::int64_t{seconds} * 1000 + nanoseconds / 1'000'000;
    };
    return milliseconds(now.tv_sec, now.tv_nsec) -
               milliseconds(std::get<6>(stamp), std::get<7>(stamp)) >
           age_ms;
}

// The file as last read. Never destroyed: code that runs at process exit may still log.
struct Cache {
    std::mutex mutex;
    std::shared_ptr<const Contents> contents;
    bool was_settled = false;
    Stamp reported_stamp;
    std::vector<std::string> reported;
};

Cache &cache() {
    static auto *const instance = new Cache;
    return *instance;
}

std::atomic<SettingsListener> listener = nullptr;

// Whether `contents` still match the file.
bool is_current(const Contents &contents, const std::filesystem::path &path) {
    try {
        const auto status = status_of(path);
        return contents.unreadable.empty() &&
               contents.stamp == (status ? stamp_of(path, *status) : Stamp{});
    } catch (const std::runtime_error &) {
        return false;
    }
}

std::shared_ptr<const Contents> current() {
    const std::filesystem::path path = settings_file();
    std::vector<std::string> news;
    std::shared_ptr<const Contents> contents;
    {
        Cache &known = cache();
        const std::lock_guard lock(known.mutex);
        if (!known.contents || !known.was_settled || !is_current(*known.contents, path)) {
            auto fresh = std::make_shared<const Contents>(read_contents(path));
            known.was_settled =
                fresh->stamp == Stamp{} || (is_settled(fresh->stamp) && !fresh->lacks_file);
            known.contents = std::move(fresh);
            if (known.contents->stamp != known.reported_stamp ||
                known.contents->problems != known.reported) {
                news = known.contents->problems;
                known.reported_stamp = known.contents->stamp;
                known.reported = news;
            }
        }
        contents = known.contents;
    }
    // Outside the lock, because logging reads settings.
    if (const SettingsListener report = listener) {
        for (const std::string &problem : news) {
            report(problem);
        }
    }
    return contents;
}

const State &state_in(const Contents &contents, const Setting &setting) {
    const State &state = contents.states[static_cast<std::size_t>(&setting - all_settings)];
    if (!setting.fails.empty() && !contents.unreadable.empty()) {
        throw SettingsError(contents.unreadable);
    }
    if (!state.refusal.empty()) {
        throw SettingsError(state.refusal);
    }
    return state;
}

std::string only_value(const Setting &setting) {
    const auto values = setting_values(setting);
    return values.empty() ? "" : values.front();
}

} // namespace

std::vector<std::string> setting_values(const Setting &setting) {
    return state_in(*current(), setting).values;
}

std::optional<long> number_setting(NumberSetting name) {
    const std::string text = only_value(*name);
    return text.empty() ? std::nullopt : std::optional(std::stol(text));
}

std::string text_setting(TextSetting name) {
    return only_value(*name);
}

bool yes_no_setting(YesNoSetting name) {
    return only_value(*name) == "yes";
}

std::vector<std::string> program_setting(ProgramSetting name) {
    return words_of(only_value(*name));
}

std::vector<std::string> list_setting(ListSetting name) {
    return setting_values(*name);
}

bool is_default(const Setting &setting) {
    return current()->states[static_cast<std::size_t>(&setting - all_settings)].is_default;
}

void require_settings() {
    if (const auto contents = current(); !contents->unreadable.empty()) {
        throw SettingsError(contents->unreadable);
    }
}

std::vector<std::string> settings_problems() {
    return current()->problems;
}

void set_settings_listener(SettingsListener new_listener) {
    listener = new_listener;
}

} // namespace ulmo
