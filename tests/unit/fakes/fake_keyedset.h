// A real container, a sorted vector, that can be made to fail.
#ifndef TESTS_UNIT_FAKE_KEYEDSET_H
#define TESTS_UNIT_FAKE_KEYEDSET_H

#include <deque>
#include <optional>
#include <vector>

#include "fakes.h"
#include "platform/keyedset.h"

struct KeyedsetFake : FakeBase {
    struct Create {
        const keyedset *set;
        int first;
        int second;
        keyedset_compare compare;
        int fourth;
    };
    std::vector<Create> creates;
    std::vector<const keyedset *> destroys;

    // results of the next creations; any result other than KEYEDSET_CREATED creates nothing
    std::deque<int> create_results;
    std::optional<void *> next_add; // result of the next insertion, which then inserts nothing
    // the set whose find_fails_in-th search from now finds nothing
    const keyedset *failing = nullptr;
    int find_fails_in = 0;

    // Makes a search of `set` find nothing: 1 means the next search, 2 the one after it, and so on.
    void fail_find(const keyedset *set, int in) {
        failing = set;
        find_fails_in = in;
    }

    void reset() override;
    void verify() override;
};

extern KeyedsetFake fake_keyedset;

#endif
