#include "fake_keyedset.h"

#include <algorithm>

namespace {

struct Sorted {
    keyedset_compare compare;
    std::vector<void *> objects;

    bool sorts_after(const void *object, const void *key) const { return compare(key, object) > 0; }
    std::vector<void *>::iterator at_or_after(const void *key) {
        return std::ranges::find_if(objects,
                                    [&](const void *object) { return !sorts_after(key, object); });
    }
    std::vector<void *>::iterator equal(const void *key) {
        return std::ranges::find_if(objects,
                                    [&](const void *object) { return compare(key, object) == 0; });
    }
};

Sorted *impl_of(const keyedset *set) {
    return static_cast<Sorted *>(set->impl);
}

} // namespace

KeyedsetFake fake_keyedset;

void KeyedsetFake::reset() {
    creates.clear();
    destroys.clear();
    create_results.clear();
    next_add.reset();
    fail_find(nullptr, 0);
}

void KeyedsetFake::verify() {
    EXPECT_TRUE(create_results.empty()) << "a creation was to fail and never came";
    EXPECT_FALSE(next_add.has_value()) << "an insertion was to fail and never came";
    EXPECT_EQ(find_fails_in, 0) << "a search was to fail and never came";
}

extern "C" {

int keyedset_create(struct keyedset *set, int first, int second, keyedset_compare compare,
                    int fourth) {
    fake_keyedset.creates.push_back({set, first, second, compare, fourth});
    if (!fake_keyedset.create_results.empty()) {
        const int result = fake_keyedset.create_results.front();
        fake_keyedset.create_results.pop_front();
        if (result != KEYEDSET_CREATED) {
            return result;
        }
    }
    if (keyedset_size(set) > 0) {
        return 0;
    }
    delete impl_of(set);
    set->impl = new Sorted{compare, {}};
    return KEYEDSET_CREATED;
}

void *keyedset_add(struct keyedset *set, const void *key, void *object) {
    if (fake_keyedset.next_add) {
        return *std::exchange(fake_keyedset.next_add, std::nullopt);
    }
    Sorted *impl = impl_of(set);
    if (impl == nullptr || impl->equal(key) != impl->objects.end()) {
        return nullptr;
    }
    impl->objects.insert(impl->at_or_after(key), object);
    return object;
}

void *keyedset_find(const struct keyedset *set, const void *key) {
    if (set == fake_keyedset.failing && fake_keyedset.find_fails_in > 0 &&
        --fake_keyedset.find_fails_in == 0) {
        return nullptr;
    }
    Sorted *impl = impl_of(set);
    if (impl == nullptr) {
        return nullptr;
    }
    const auto found = impl->equal(key);
    return found == impl->objects.end() ? nullptr : *found;
}

void *keyedset_find_nextgreater(const struct keyedset *set, const void *key) {
    Sorted *impl = impl_of(set);
    if (impl == nullptr) {
        return nullptr;
    }
    const auto found = std::ranges::find_if(
        impl->objects, [&](const void *object) { return impl->sorts_after(object, key); });
    return found == impl->objects.end() ? nullptr : *found;
}

void *keyedset_find_nth_obj(const struct keyedset *set, uint32_t n) {
    Sorted *impl = impl_of(set);
    return impl != nullptr && n >= 1 && n <= impl->objects.size() ? impl->objects[n - 1] : nullptr;
}

void *keyedset_remove(struct keyedset *set, const void *key) {
    Sorted *impl = impl_of(set);
    if (impl == nullptr) {
        return nullptr;
    }
    const auto found = impl->equal(key);
    if (found == impl->objects.end()) {
        return nullptr;
    }
    void *object = *found;
    impl->objects.erase(found);
    return object;
}

uint32_t keyedset_size(const struct keyedset *set) {
    Sorted *impl = impl_of(set);
    return impl == nullptr ? 0 : static_cast<uint32_t>(impl->objects.size());
}

void keyedset_destroy(struct keyedset *set) {
    fake_keyedset.destroys.push_back(set);
    delete impl_of(set);
    set->impl = nullptr;
}

} // extern "C"
