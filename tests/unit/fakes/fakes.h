// What every fake and every test of the module is built on.
#ifndef TESTS_UNIT_FAKES_H
#define TESTS_UNIT_FAKES_H

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

// Calls that no test may leave unread: a fake's verify() fails when some are left.
template <class Call> struct Calls {
    std::vector<Call> items;
    // The calls so far, oldest first; the record is empty afterwards.
    std::vector<Call> take() { return std::exchange(items, {}); }
};

// One faked service: a record of what was asked of it, and knobs for what it answers. Each fake is
// one object of static storage; being constructed puts it into the list that ModuleTest goes
// through.
struct FakeBase {
    FakeBase();
    virtual ~FakeBase();
    FakeBase(const FakeBase &) = delete;
    FakeBase &operator=(const FakeBase &) = delete;

    // Forgets every record and puts every knob back.
    virtual void reset() = 0;
    // Reports as test failures what must not be left over at the end of a test.
    virtual void verify() {}

  protected:
    // Fails the running test: the module asked for something that the test did not foresee.
    static void unexpected(const std::string &what) {
        ADD_FAILURE() << "unexpected call: " << what;
    }
};

// Every test begins and ends with idle fakes and with empty tables in the module.
class ModuleTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

#endif
