// The base of every fake, and of every test of the module.
#ifndef TESTS_UNIT_FAKES_H
#define TESTS_UNIT_FAKES_H

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

// A record of calls that a test must read: a fake's verify() fails if any are left.
template <class Call> struct Calls {
    std::vector<Call> items;
    // The calls so far, oldest first. Empties the record.
    std::vector<Call> take() { return std::exchange(items, {}); }
};

// One faked service: a record of the calls, and knobs for the answers. Each fake is one object of
// static storage. Its constructor adds it to the list that ModuleTest goes through.
struct FakeBase {
    FakeBase();
    virtual ~FakeBase();
    FakeBase(const FakeBase &) = delete;
    FakeBase &operator=(const FakeBase &) = delete;

    // Clears every record and resets every knob.
    virtual void reset() = 0;
    // Reports what must not be left over at the end of a test.
    virtual void verify() {}

  protected:
    // Fails the running test: the module made a call that the test did not expect.
    static void unexpected(const std::string &what) {
        ADD_FAILURE() << "unexpected call: " << what;
    }
};

// Every test starts and ends with reset fakes and empty tables in the module.
class ModuleTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

#endif
