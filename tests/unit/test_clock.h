// A clock that only the test moves. While an object exists, the steady clock of this process stands
// still, and a poll() or ppoll() of the thread that made the object waits for its descriptors or
// for that clock, however long the machine takes. So nothing is late because the machine is busy.
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

    // For other threads. Waits until the thread that made the object has handled all that arrived
    // and waits again, then moves the clock on.
    void advance(Steady::duration time);
    // Says that nothing more will arrive. From now on a wait without result ends at once, and moves
    // the clock to its end.
    void hurry();
    // How far the clock has moved.
    [[nodiscard]] Steady::duration passed() const;
};

} // namespace host_test
