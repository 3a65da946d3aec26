#include "platform/host/agent/clock.h"

#include "base/posix.h"
#include "platform/agent_extension.h"
#include "platform/host/history/log.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <sys/timerfd.h>
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <limits>

namespace ulmo {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

nanoseconds clock_now(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

void move_start_time(milliseconds change) {
    const auto *start = static_cast<const timeval *>(netsnmp_get_agent_starttime());
    const auto moved = seconds(start->tv_sec) + microseconds(start->tv_usec) + change;
    const auto whole = std::chrono::floor<seconds>(moved);
    timeval moved_start{};
    moved_start.tv_sec = static_cast<time_t>(whole.count());
    moved_start.tv_usec = static_cast<suseconds_t>((moved - whole).count());
    // The agent derives the start on its monotonic clock from this and the present time: both have
    // moved by the same amount, so sysUpTime stays.
    netsnmp_set_agent_starttime(&moved_start);
}

void raise_callback(seconds change) {
    const auto size = static_cast<uint32_t>(change.count() < 0 ? -change.count() : change.count());
    agent_starttime_change argument{&size, change.count() < 0 ? AGENT_STARTTIME_SUBTRACTED
                                                              : AGENT_STARTTIME_ADDED};
    snmp_call_callbacks(SNMP_CALLBACK_LIBRARY, AGENT_CALLBACK_STARTTIME_CHANGE, &argument);
}

} // namespace

ClockReading read_clocks() {
    // The reading whose wall clock is closest to both neighbours, in case the process was
    // interrupted in between.
    ClockReading best{};
    auto smallest_gap = nanoseconds::max();
    for (int attempt = 0; attempt < 3; ++attempt) {
        const auto before = clock_now(CLOCK_BOOTTIME);
        const auto wall = clock_now(CLOCK_REALTIME);
        const auto gap = clock_now(CLOCK_BOOTTIME) - before;
        if (gap < smallest_gap) {
            smallest_gap = gap;
            best = ClockReading{wall, before + gap / 2};
        }
    }
    return best;
}

StartTimeKeeper::StartTimeKeeper(ClockReading now) : seen_(now.wall - now.running) {}

void StartTimeKeeper::observe(ClockReading now) {
    // Two readings never agree to the nanosecond: without rounding, a clock set by an hour would
    // sometimes be one second short of it.
    const auto change = std::chrono::round<milliseconds>(now.wall - now.running - seen_);
    if (change == milliseconds{0}) {
        return;
    }
    seen_ += change;
    unreported_ += change;
    move_start_time(change);
    const auto whole = duration_cast<seconds>(unreported_);
    if (whole != seconds{0}) {
        unreported_ -= whole;
        log_error("agent: the clock was set by %lld seconds",
                  static_cast<long long>(whole.count()));
        raise_callback(whole);
    }
}

ClockWatch::ClockWatch()
    : timer_(check(::timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC), "clock watch")),
      keeper_(read_clocks()) {
    arm();
}

void ClockWatch::arm() const {
    itimerspec never{};
    never.it_value.tv_sec = std::numeric_limits<time_t>::max();
    ::timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr);
}

void ClockWatch::handle_change() {
    uint64_t expirations = 0;
    if (::read(timer_.get(), &expirations, sizeof expirations) >= 0 || errno == ECANCELED) {
        arm();
        keeper_.observe(read_clocks());
    }
}

} // namespace ulmo
