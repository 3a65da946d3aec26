#include "platform/keyedset.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

namespace {

struct Row {
    std::int32_t index;
    int payload = 0;
};

unsigned comparisons = 0;

std::int8_t compare_rows(const void *a, const void *b) {
    ++comparisons;
    return static_cast<std::int8_t>(
        INTCMP(static_cast<const Row *>(b)->index, static_cast<const Row *>(a)->index));
}
std::int8_t compare_backwards(const void *a, const void *b) {
    return compare_rows(b, a);
}

class KeyedSet : public testing::Test {
  protected:
    ~KeyedSet() override { keyedset_destroy(&set); }

    void create(keyedset_compare compare = compare_rows) {
        ASSERT_EQ(keyedset_create(&set, 1, 1, compare, 1), KEYEDSET_CREATED);
    }
    void *add(Row &row) { return keyedset_add(&set, &row, &row); }
    [[nodiscard]] void *find(std::int32_t index) const {
        const Row key{index};
        return keyedset_find(&set, &key);
    }
    [[nodiscard]] void *next(std::int32_t index) const {
        const Row key{index};
        return keyedset_find_nextgreater(&set, &key);
    }
    void *remove(std::int32_t index) {
        const Row key{index};
        return keyedset_remove(&set, &key);
    }

    keyedset set{};
};

TEST_F(KeyedSet, AbsentContainerIsAcceptedEverywhere) {
    Row row{1};
    EXPECT_EQ(add(row), nullptr);
    EXPECT_EQ(find(1), nullptr);
    EXPECT_EQ(next(0), nullptr);
    EXPECT_EQ(remove(1), nullptr);
    EXPECT_EQ(keyedset_find_nth_obj(&set, 1), nullptr);
    EXPECT_EQ(keyedset_size(&set), 0U);
    keyedset_destroy(&set);
    keyedset_destroy(nullptr);
    EXPECT_EQ(keyedset_size(nullptr), 0U);
    EXPECT_EQ(keyedset_find(nullptr, &row), nullptr);
}

TEST_F(KeyedSet, KeepsTheOrderOfTheComparator) {
    create();
    Row rows[] = {{30}, {-5}, {10}, {2147483647}, {20}};
    for (Row &row : rows) {
        EXPECT_EQ(add(row), &row);
    }
    EXPECT_EQ(keyedset_size(&set), 5U);
    EXPECT_EQ(keyedset_find_nth_obj(&set, 0), nullptr);
    EXPECT_EQ(keyedset_find_nth_obj(&set, 1), &rows[1]);
    EXPECT_EQ(keyedset_find_nth_obj(&set, 2), &rows[2]);
    EXPECT_EQ(keyedset_find_nth_obj(&set, 3), &rows[4]);
    EXPECT_EQ(keyedset_find_nth_obj(&set, 4), &rows[0]);
    EXPECT_EQ(keyedset_find_nth_obj(&set, 5), &rows[3]);
    EXPECT_EQ(keyedset_find_nth_obj(&set, 6), nullptr);
    EXPECT_EQ(keyedset_find_nth_obj(&set, UINT32_MAX), nullptr);
}

TEST_F(KeyedSet, ReversedComparatorReversesTheOrder) {
    create(compare_backwards);
    Row low{1};
    Row high{2};
    add(low);
    add(high);
    EXPECT_EQ(keyedset_find_nth_obj(&set, 1), &high);
    EXPECT_EQ(next(2), &low);
    EXPECT_EQ(next(1), nullptr);
}

TEST_F(KeyedSet, NextGreaterNeedsNoPresentKey) {
    create();
    Row rows[] = {{10}, {20}};
    add(rows[0]);
    add(rows[1]);
    EXPECT_EQ(next(0), &rows[0]);
    EXPECT_EQ(next(10), &rows[1]);
    EXPECT_EQ(next(15), &rows[1]);
    EXPECT_EQ(next(20), nullptr);
    EXPECT_EQ(next(21), nullptr);
}

TEST_F(KeyedSet, PresentKeyIsNotInsertedAgain) {
    create();
    Row first{7, 1};
    Row second{7, 2};
    EXPECT_EQ(add(first), &first);
    EXPECT_EQ(add(second), nullptr);
    EXPECT_EQ(keyedset_add(&set, &first, nullptr), nullptr);
    EXPECT_EQ(keyedset_size(&set), 1U);
    EXPECT_EQ(find(7), &first);
}

TEST_F(KeyedSet, RemoveGivesTheObjectBack) {
    create();
    Row rows[] = {{1}, {2}, {3}};
    for (Row &row : rows) {
        add(row);
    }
    EXPECT_EQ(remove(9), nullptr);
    EXPECT_EQ(remove(2), &rows[1]);
    EXPECT_EQ(remove(2), nullptr);
    EXPECT_EQ(find(2), nullptr);
    EXPECT_EQ(next(1), &rows[2]);
    EXPECT_EQ(keyedset_find_nth_obj(&set, 2), &rows[2]);
    EXPECT_EQ(keyedset_size(&set), 2U);
    EXPECT_EQ(add(rows[1]), &rows[1]);
}

TEST_F(KeyedSet, CreateIsRefusedOnlyWhileTheContainerHoldsObjects) {
    create();
    create(compare_backwards);
    Row low{1};
    Row high{2};
    add(low);
    add(high);
    EXPECT_EQ(keyedset_find_nth_obj(&set, 1), &high)
        << "an empty container is made again, with the new comparator";
    EXPECT_NE(keyedset_create(&set, 1, 1, compare_rows, 1), KEYEDSET_CREATED);
    EXPECT_EQ(keyedset_size(&set), 2U);
    keyedset_destroy(&set);
    EXPECT_EQ(set.impl, nullptr);
    EXPECT_EQ(keyedset_size(&set), 0U);
    create();
    EXPECT_NE(keyedset_create(nullptr, 1, 1, compare_rows, 1), KEYEDSET_CREATED);
    EXPECT_NE(keyedset_create(&set, 1, 1, nullptr, 1), KEYEDSET_CREATED);
}

TEST_F(KeyedSet, LookUpsStayLogarithmic) {
    create();
    constexpr std::int32_t count = 100'000;
    std::vector<Row> rows(count);
    for (std::int32_t i = 0; i < count; ++i) {
        rows[static_cast<std::size_t>(i)].index = 2 * i;
    }
    std::vector<std::size_t> order(rows.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::shuffle(order.begin(), order.end(), std::mt19937(1)); // NOLINT: the same order each time
    for (const std::size_t i : order) {
        ASSERT_EQ(add(rows[i]), &rows[i]);
    }
    ASSERT_EQ(keyedset_size(&set), static_cast<std::uint32_t>(count));

    // A red-black tree of n nodes has a height of at most 2 log2(n + 1), here 34; one more
    // comparison determines equality.
    constexpr unsigned most = 36;
    const auto costs = [&](auto look_up) {
        comparisons = 0;
        look_up();
        return comparisons;
    };
    for (std::int32_t i = 0; i < count; i += 997) {
        const auto at = static_cast<std::size_t>(i);
        EXPECT_LE(costs([&] { EXPECT_EQ(find(2 * i), &rows[at]); }), most);
        EXPECT_LE(costs([&] { EXPECT_EQ(next(2 * i - 1), &rows[at]); }), most);
        EXPECT_EQ(costs([&] {
                      EXPECT_EQ(keyedset_find_nth_obj(&set, static_cast<std::uint32_t>(i) + 1),
                                &rows[at]);
                  }),
                  0U);
    }
}

TEST_F(KeyedSet, AWalkDoesNotDescendAgain) {
    create();
    std::vector<Row> rows(1000);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        rows[i].index = static_cast<std::int32_t>(i);
        add(rows[i]);
    }
    ASSERT_EQ(next(-1), rows.data());
    comparisons = 0;
    for (std::size_t i = 0; i + 1 < rows.size(); ++i) {
        const auto index = static_cast<std::int32_t>(i);
        ASSERT_EQ(find(index), &rows[i]);
        ASSERT_EQ(next(index), &rows[i + 1]);
    }
    EXPECT_LE(comparisons, 2 * rows.size());
}

TEST_F(KeyedSet, AgreesWithASortedListThroughManyChanges) {
    create();
    std::mt19937 random(42); // NOLINT: the same sequence each time
    std::vector<Row> rows(200);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        rows[i].index = static_cast<std::int32_t>(i);
    }
    std::vector<Row *> model;
    const auto before = [](const Row *a, std::int32_t index) { return a->index < index; };
    for (int step = 0; step < 5000; ++step) {
        Row &row = rows[random() % rows.size()];
        const auto at = std::lower_bound(model.begin(), model.end(), row.index, before);
        const bool present = at != model.end() && *at == &row;
        if (random() % 2 == 0) {
            ASSERT_EQ(add(row), present ? nullptr : &row);
            if (!present) {
                model.insert(at, &row);
            }
        } else {
            ASSERT_EQ(remove(row.index), present ? &row : nullptr);
            if (present) {
                model.erase(at);
            }
        }
        ASSERT_EQ(keyedset_size(&set), model.size());
        const auto n = random() % (model.size() + 1);
        ASSERT_EQ(keyedset_find_nth_obj(&set, static_cast<std::uint32_t>(n) + 1),
                  n < model.size() ? model[n] : nullptr);
        // Asked twice, since each look-up begins where the last one ended.
        for (const std::int32_t index : {row.index, static_cast<std::int32_t>(n)}) {
            const auto found = std::lower_bound(model.begin(), model.end(), index, before);
            const bool is_there = found != model.end() && (*found)->index == index;
            const auto behind = is_there ? found + 1 : found;
            ASSERT_EQ(find(index), is_there ? *found : nullptr);
            ASSERT_EQ(next(index), behind == model.end() ? nullptr : *behind);
        }
    }
}

} // namespace
