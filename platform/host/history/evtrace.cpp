// What the debug history and the debug print want, as the settings say, and the call that feeds
// both.
#include "platform/evtrace.h"

#include "base/c_boundary.h"
#include "base/settings.h"
#include "platform/host/history/history.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <limits>
#include <string_view>

namespace ulmo {
namespace {

enum class Wanted { none, errors, all };

bool wants(Wanted wanted, std::uint32_t subtype) {
    return wanted == Wanted::all || (wanted == Wanted::errors && subtype == EVTRACE_ERROR);
}

Wanted wanted_by(std::string_view word) {
    return word == "all" ? Wanted::all : word == "errors" ? Wanted::errors : Wanted::none;
}

// Each log call consults the switches, so the settings file is checked at most once a second.
class Switches {
  public:
    Wanted history() {
        refresh();
        return history_.load(std::memory_order_relaxed);
    }
    Wanted print() {
        refresh();
        return print_.load(std::memory_order_relaxed);
    }
    std::size_t limit() { // as of the last call of history()
        return limit_.load(std::memory_order_relaxed);
    }

  private:
    void refresh() {
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
        const std::int64_t now_ms = std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
        if (now_ms < next_ms_.load(std::memory_order_relaxed)) {
            return;
        }
        next_ms_.store(now_ms + 1000, std::memory_order_relaxed);
        history_.store(wanted_by(text_setting("history")), std::memory_order_relaxed);
        print_.store(wanted_by(text_setting("debug_print")), std::memory_order_relaxed);
        limit_.store(static_cast<std::size_t>(number_setting("history_kilobytes").value()) * 1024,
                     std::memory_order_relaxed);
    }

    std::atomic<std::int64_t> next_ms_ = 0;
    // until the settings are known, their own problems must reach the log
    std::atomic<Wanted> history_ = Wanted::errors;
    std::atomic<Wanted> print_ = Wanted::none;
    std::atomic<std::size_t> limit_ = std::numeric_limits<std::size_t>::max();
};

Switches log_switches;

// A log call has no side effect on its caller: errno is kept and no exception leaves it.
template <typename Call> auto unnoticed(Call call) noexcept {
    const int saved = errno;
    const auto result = result_or(decltype(call()){}, call);
    errno = saved;
    return result;
}

} // namespace
} // namespace ulmo

int evtrace_hist_event_subtype_check(uint32_t /*module_id*/, uint32_t subtype) {
    return ulmo::unnoticed(
        [=] { return ulmo::wants(ulmo::log_switches.history(), subtype) ? 0 : 1; });
}

void evtrace_hist_event(uint32_t /*module_id*/, uint32_t subtype, uint32_t length,
                        const char *text) {
    ulmo::unnoticed([=] {
        if (text != nullptr && ulmo::wants(ulmo::log_switches.history(), subtype)) {
            ulmo::append_to_history(ulmo::history_line(subtype, {text, length}),
                                    ulmo::log_switches.limit());
        }
        return true;
    });
}

int evtrace_chk_int(uint32_t subtype, int32_t /*second*/, int32_t /*third*/, int32_t /*fourth*/) {
    return ulmo::unnoticed(
        [=] { return ulmo::wants(ulmo::log_switches.print(), subtype) ? 1 : 0; });
}

void dbgprint(const char *format, ...) {
    const int saved = errno;
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    errno = saved;
}
