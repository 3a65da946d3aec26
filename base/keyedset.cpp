// The sorted set is a red-black tree of the standard library's extensions that also counts, so that
// the n-th object is found without a walk.
#include "platform/keyedset.h"

#include <ext/pb_ds/assoc_container.hpp>
#include <ext/pb_ds/tree_policy.hpp>

#include <iterator>
#include <new>

namespace {

struct Less {
    keyedset_compare compare;
    bool operator()(const void *a, const void *b) const { return compare(a, b) > 0; }
};

using Tree = __gnu_pbds::tree<const void *, __gnu_pbds::null_type, Less, __gnu_pbds::rb_tree_tag,
                              __gnu_pbds::tree_order_statistics_node_update>;

// The tree, and where the last look-up ended. A walk asks for the object after the one that it has
// just got, and a handler reads and writes the same object several times: neither descends the tree
// again.
class Set {
  public:
    explicit Set(keyedset_compare compare) : compare_(compare), tree_(Less{compare}) {}

    void *find(const void *key) { return is_at(key) ? object_at(last_) : visit(tree_.find(key)); }

    void *find_next(const void *key) {
        return visit(is_at(key) ? std::next(last_) : tree_.upper_bound(key));
    }

    [[nodiscard]] void *find_nth(std::size_t n) const { return object_at(tree_.find_by_order(n)); }

    bool insert(void *object) { return tree_.insert(object).second; }

    void erase(const void *object) {
        last_ = tree_.end();
        tree_.erase(object);
    }

    [[nodiscard]] std::size_t size() const { return tree_.size(); }

  private:
    [[nodiscard]] bool is_at(const void *key) const {
        return last_ != tree_.end() && compare_(*last_, key) == 0;
    }

    void *visit(Tree::const_iterator position) {
        if (position != tree_.end()) {
            last_ = position;
        }
        return object_at(position);
    }

    // The objects were added as writable; the tree only compares them.
    [[nodiscard]] void *object_at(Tree::const_iterator position) const {
        return position == tree_.end() ? nullptr : const_cast<void *>(*position);
    }

    keyedset_compare compare_;
    Tree tree_;
    Tree::const_iterator last_ = tree_.end();
};

Set *set_of(const keyedset *set) {
    return set == nullptr ? nullptr : static_cast<Set *>(set->impl);
}

} // namespace

int keyedset_create(struct keyedset *set, int /*first*/, int /*second*/, keyedset_compare compare,
                    int /*fourth*/) {
    constexpr int not_created = 0;
    if (set == nullptr || compare == nullptr || keyedset_size(set) != 0) {
        return not_created;
    }
    try {
        auto *created = new Set(compare);
        keyedset_destroy(set);
        set->impl = created;
    } catch (const std::bad_alloc &) {
        return not_created;
    }
    return KEYEDSET_CREATED;
}

void *keyedset_add(struct keyedset *set, const void *key, void *object) {
    Set *objects = set_of(set);
    if (objects == nullptr || object == nullptr || objects->find(key) != nullptr) {
        return nullptr;
    }
    try {
        return objects->insert(object) ? object : nullptr;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void *keyedset_find(const struct keyedset *set, const void *key) {
    Set *objects = set_of(set);
    return objects == nullptr ? nullptr : objects->find(key);
}

void *keyedset_find_nextgreater(const struct keyedset *set, const void *key) {
    Set *objects = set_of(set);
    return objects == nullptr ? nullptr : objects->find_next(key);
}

void *keyedset_find_nth_obj(const struct keyedset *set, uint32_t n) {
    const Set *objects = set_of(set);
    return objects == nullptr || n == 0 ? nullptr : objects->find_nth(n - 1);
}

void *keyedset_remove(struct keyedset *set, const void *key) {
    void *object = keyedset_find(set, key);
    if (object != nullptr) {
        set_of(set)->erase(object);
    }
    return object;
}

uint32_t keyedset_size(const struct keyedset *set) {
    const Set *objects = set_of(set);
    return objects == nullptr ? 0 : static_cast<uint32_t>(objects->size());
}

void keyedset_destroy(struct keyedset *set) {
    if (set != nullptr) {
        delete set_of(set);
        set->impl = nullptr;
    }
}
