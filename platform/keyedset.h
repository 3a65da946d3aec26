/* keyedset: a sorted set of objects that the caller owns. Key and object are records of the same
 * layout; only the comparator determines the order. For use by one thread. Every look-up is O(log
 * n). */
#ifndef PLATFORM_KEYEDSET_H
#define PLATFORM_KEYEDSET_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Three-way comparison of two integers: 1 when x is greater, -1 when it is smaller, 0 when they are
 * equal. */
#define INTCMP(x, y) (((x) > (y)) - ((x) < (y)))

/* The result of keyedset_create() that means success. */
#define KEYEDSET_CREATED 2

/* Positive if b sorts after a, negative if b sorts before a, 0 if both identify the same object. */
typedef int8_t (*keyedset_compare)(const void *a, const void *b);

/* A container. An all-zero one is absent: every operation accepts it, and it contains nothing. */
struct keyedset {
    void *impl; /* owned by the container, null while it is absent */
};

/* Creates the container. `first`, `second` and `fourth` are accepted and ignored. A container that
 * exists and is empty is recreated. Returns KEYEDSET_CREATED, or another value if memory is
 * exhausted or the container has objects. */
int keyedset_create(struct keyedset *set, int first, int second, keyedset_compare compare,
                    int fourth);

/* Inserts `object` itself, not a copy, under `key`. Returns `object`, or null if the key is
 * present, memory is exhausted or the container is absent; the set is then unchanged, and the
 * caller still owns the object. */
void *keyedset_add(struct keyedset *set, const void *key, void *object);

/* The object equal to `key`, or null. */
void *keyedset_find(const struct keyedset *set, const void *key);

/* The first object that sorts after `key`, or null. `key` itself need not be in the set. */
void *keyedset_find_nextgreater(const struct keyedset *set, const void *key);

/* The n-th object in order, counted from 1, or null. */
void *keyedset_find_nth_obj(const struct keyedset *set, uint32_t n);

/* Removes the object equal to `key` and returns it to the caller, or returns null if there is
 * none. */
void *keyedset_remove(struct keyedset *set, const void *key);

/* The number of objects; 0 for an absent container. */
uint32_t keyedset_size(const struct keyedset *set);

/* Makes the container absent. Objects that are still in it are not freed. */
void keyedset_destroy(struct keyedset *set);

#ifdef __cplusplus
}
#endif
#endif
