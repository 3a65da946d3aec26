#include "platform/host/history/log.h"

#include "base/settings.h"
#include "base/status_text.h"
#include "base/text.h"
#include "platform/evtrace.h"
#include "platform/utilities.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

namespace ulmo {
namespace {

using Message = std::array<char, 512>;

bool is_daemon = false;
bool stamps_lines = false;

enum class Reader { developer, operator_too };

// Prints the message as one line whatever it contains: parts of it may come from a stranger.
void print_line(const Message &text, std::size_t length) {
    std::string line;
    if (stamps_lines) {
        std::array<char, sizeof "2026-01-01T00:00:00Z "> stamp{};
        const std::time_t now = std::time(nullptr);
        std::tm utc{};
        line.assign(stamp.data(), std::strftime(stamp.data(), stamp.size(), "%Y-%m-%dT%H:%M:%SZ ",
                                                ::gmtime_r(&now, &utc)));
    }
    std::string_view message(text.data(), length);
    message = message.substr(0, message.find_last_not_of('\n') + 1);
    line += one_line(message) + '\n';
    std::fwrite(line.data(), 1, line.size(), stderr); // unbuffered: one write(2)
}

__attribute__((format(printf, 3, 0))) void record(uint32_t subtype, Reader reader,
                                                  const char *format, va_list arguments) {
    const int saved_errno = errno;
    const bool is_recorded = evtrace_hist_event_subtype_check(host_module_id, subtype) == 0;
    const bool is_printed = is_daemon && reader == Reader::operator_too;
    if (is_recorded || is_printed) {
        Message text;
        const int wanted = std::vsnprintf(text.data(), text.size(), format, arguments);
        const auto length =
            wanted < 0 ? 0 : std::min(static_cast<std::size_t>(wanted), text.size() - 1);
        if (is_recorded && length > 0) {
            evtrace_hist_event(host_module_id, subtype, static_cast<uint32_t>(length), text.data());
        }
        if (is_printed) {
            print_line(text, length);
        }
    }
    errno = saved_errno;
}

// Makes every process of the platform log problems with the settings.
[[maybe_unused]] const bool logs_settings_problems = [] {
    set_settings_listener(
        [](const std::string &problem) { log_error("settings: %s", problem.c_str()); });
    return true;
}();

} // namespace

void log_error(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    record(EVTRACE_ERROR, Reader::operator_too, format, arguments);
    va_end(arguments);
}

void log_debug(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    record(EVTRACE_DEBUG, Reader::developer, format, arguments);
    va_end(arguments);
}

void log_notice(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    record(EVTRACE_DEBUG, Reader::operator_too, format, arguments);
    va_end(arguments);
}

void log_to_standard_error() {
    is_daemon = true;
    stamps_lines = std::getenv("JOURNAL_STREAM") == nullptr;
}

} // namespace ulmo

void log_set_error(uint32_t code, uint32_t facility) {
    ulmo::StatusBuffer buffer;
    ulmo::log_error("request refused: %s, facility %u", ulmo::text_with_code(code, buffer),
                    facility);
}
