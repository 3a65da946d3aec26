#include "tests/unit/test_clock.h"

#include "base/timespec.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Duration = host_test::TestClock::Steady::duration;

std::atomic<bool> held = false;
std::atomic<bool> in_vain = false;
std::atomic<Duration> held_at;
std::atomic<unsigned> looks_in_vain = 0;
Duration held_from;
thread_local bool waits_by_it = false;
thread_local Duration last_look; // waits are counted from this time

Duration duration_of(const timespec &time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

int machine_clock(clockid_t clock, timespec *time) {
    return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
}

Duration machine_time() {
    timespec time{};
    machine_clock(CLOCK_MONOTONIC, &time);
    return duration_of(time);
}

int machine_ppoll(pollfd *descriptors, nfds_t count, const timespec *timeout,
                  const sigset_t *signals) {
    constexpr std::size_t signal_octets = 8;                    // of the kernel's set
    timespec left = timeout == nullptr ? timespec{} : *timeout; // the kernel overwrites it
    return static_cast<int>(::syscall(SYS_ppoll, descriptors, count,
                                      timeout == nullptr ? nullptr : &left, signals,
                                      signal_octets));
}

} // namespace

// These replace the C library's functions for every library of this process. Their C++ names
// differ, because the headers may define inline functions of the original names.
extern "C" {
int test_clock_gettime(clockid_t clock, timespec *time) __asm__("clock_gettime");
int test_poll(pollfd *descriptors, nfds_t count, int milliseconds) __asm__("poll");
int test_ppoll(pollfd *descriptors, nfds_t count, const timespec *timeout,
               const sigset_t *signals) __asm__("ppoll");
}

int test_clock_gettime(clockid_t clock, timespec *time) {
    if (!held || clock != CLOCK_MONOTONIC) {
        return machine_clock(clock, time);
    }
    last_look = held_at;
    *time = ulmo::timespec_of(last_look);
    return 0;
}

int test_ppoll(pollfd *descriptors, nfds_t count, const timespec *timeout,
               const sigset_t *signals) {
    if (!waits_by_it || timeout == nullptr) {
        return machine_ppoll(descriptors, count, timeout, signals);
    }
    constexpr timespec at_once{0, 0};
    constexpr timespec a_moment{0, 1'000'000};
    const Duration end = last_look + duration_of(*timeout);
    const Duration given_up = machine_time() + 60s; // fails instead of hanging
    for (;;) {
        const bool is_last = in_vain || held_at.load() >= end;
        const int ready =
            machine_ppoll(descriptors, count, is_last ? &at_once : &a_moment, signals);
        if (ready != 0) {
            return ready;
        }
        ++looks_in_vain;
        if (is_last || machine_time() > given_up) {
            EXPECT_TRUE(is_last) << "nothing arrived, and no thread moved the clock";
            held_at = std::max(held_at.load(), end);
            return 0;
        }
    }
}

int test_poll(pollfd *descriptors, nfds_t count, int milliseconds) {
    const timespec timeout =
        ulmo::timespec_of(std::chrono::milliseconds(std::max(milliseconds, 0)));
    return test_ppoll(descriptors, count, milliseconds < 0 ? nullptr : &timeout, nullptr);
}

namespace host_test {

TestClock::TestClock() {
    held_from = machine_time();
    held_at = held_from;
    in_vain = false;
    last_look = held_from;
    waits_by_it = true;
    held = true;
}

TestClock::~TestClock() {
    held = false;
    waits_by_it = false;
}

void TestClock::advance(Steady::duration time) {
    // The second look from now begins after this call. If it finds nothing, all that was sent
    // before the call has been handled.
    const unsigned looks = looks_in_vain;
    const Duration given_up = machine_time() + 1s; // that thread may have ended
    while (looks_in_vain - looks < 2 && machine_time() < given_up) {
        std::this_thread::yield();
    }
    held_at = held_at.load() + time;
}

void TestClock::hurry() {
    in_vain = true;
}

TestClock::Steady::duration TestClock::passed() const {
    return held_at.load() - held_from;
}

} // namespace host_test
