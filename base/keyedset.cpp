#include "platform/keyedset.h"

#include <ext/pb_ds/assoc_container.hpp>
#include <ext/pb_ds/tree_policy.hpp>

#include <new>

namespace {

struct Less {
    keyedset_compare compare;
    bool operator()(const void *a, const void *b) const { return compare(a, b) > 0; }
};

using Tree = __gnu_pbds::tree<const void *, __gnu_pbds::null_type, Less, __gnu_pbds::rb_tree_tag,
                              __gnu_pbds::tree_order_statistics_node_update>;

Tree *tree_of(const keyedset *set) {
    return set == nullptr ? nullptr : static_cast<Tree *>(set->impl);
}

// The objects were added as writable; the tree only compares them.
void *object_at(const Tree &tree, Tree::const_iterator position) {
    return position == tree.end() ? nullptr : const_cast<void *>(*position);
}

} // namespace

int keyedset_create(struct keyedset *set, int /*first*/, int /*second*/, keyedset_compare compare,
                    int /*fourth*/) {
    constexpr int not_created = 0;
    if (set == nullptr || compare == nullptr || keyedset_size(set) != 0) {
        return not_created;
    }
    try {
        auto *tree = new Tree(Less{compare});
        keyedset_destroy(set);
        set->impl = tree;
    } catch (const std::bad_alloc &) {
        return not_created;
    }
    return KEYEDSET_CREATED;
}

void *keyedset_add(struct keyedset *set, const void *key, void *object) {
    Tree *tree = tree_of(set);
    if (tree == nullptr || object == nullptr || keyedset_find(set, key) != nullptr) {
        return nullptr;
    }
    try {
        return tree->insert(object).second ? object : nullptr;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void *keyedset_find(const struct keyedset *set, const void *key) {
    const Tree *tree = tree_of(set);
    return tree == nullptr ? nullptr : object_at(*tree, tree->find(key));
}

void *keyedset_find_nextgreater(const struct keyedset *set, const void *key) {
    const Tree *tree = tree_of(set);
    return tree == nullptr ? nullptr : object_at(*tree, tree->upper_bound(key));
}

void *keyedset_find_nth_obj(const struct keyedset *set, uint32_t n) {
    const Tree *tree = tree_of(set);
    return tree == nullptr || n == 0 ? nullptr : object_at(*tree, tree->find_by_order(n - 1));
}

void *keyedset_remove(struct keyedset *set, const void *key) {
    void *object = keyedset_find(set, key);
    if (object != nullptr) {
        tree_of(set)->erase(object);
    }
    return object;
}

uint32_t keyedset_size(const struct keyedset *set) {
    const Tree *tree = tree_of(set);
    return tree == nullptr ? 0 : static_cast<uint32_t>(tree->size());
}

void keyedset_destroy(struct keyedset *set) {
    if (set != nullptr) {
        delete tree_of(set);
        set->impl = nullptr;
    }
}
