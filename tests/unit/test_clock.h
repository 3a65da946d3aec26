// Time in a test's hands. While an object lives, the steady clock of this process stands still, and
// a poll() or ppoll() of the thread that made the object waits for its descriptors or for that
// clock, however long the machine takes: so nothing is late because the machine is busy.
#pragma once

#include <chrono>

namespace host_test {

class TestClock {
  public:
    using Steady = std::chrono::steady_clock;

    TestClock();
    ~TestClock();
    TestClock(const TestClock &) = delete;
    TestClock &operator=(const TestClock &) = delete;

    // Moves the clock on, once the thread that made the object has taken what came and waits again.
    // For other threads to call.
    void advance(Steady::duration time);
    // From now on nothing will come any more: a wait in vain moves the clock to its end, at once.
    void hurry();
    // How far the clock has moved.
    [[nodiscard]] Steady::duration passed() const;
};

} // namespace host_test
