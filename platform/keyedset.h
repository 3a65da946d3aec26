/* keyedset: a sorted set of objects that the caller owns. Key and object are records of the same
 * layout; the comparator alone decides the order. Used from one thread. Every look-up is O(log n).
 */
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

/* Positive when b sorts after a, negative when it sorts before, 0 when both name the same object.
 */
typedef int8_t (*keyedset_compare)(const void *a, const void *b);

/* A container; all zero is the absent container, which every operation accepts and which holds
 * nothing. */
struct keyedset {
    void *impl; /* owned by the container, null while it is absent */
};

/* Makes the container. `first`, `second` and `fourth` have no meaning here and are accepted as they
 * come. A container that is present and empty is made anew. Returns KEYEDSET_CREATED, or another
 * value when memory is exhausted or the container holds objects. */
int keyedset_create(struct keyedset *set, int first, int second, keyedset_compare compare,
                    int fourth);

/* Inserts `object` (not a copy) under `key`. Returns `object`, or null when the key is present,
 * memory is exhausted or the container is absent; the set is then as it was and the object still
 * the caller's. */
void *keyedset_add(struct keyedset *set, const void *key, void *object);

/* The object equal to `key`, or null. */
void *keyedset_find(const struct keyedset *set, const void *key);

/* The first object that sorts after `key`, which itself need not be present, or null. */
void *keyedset_find_nextgreater(const struct keyedset *set, const void *key);

/* The n-th object in order, counted from 1, or null. */
void *keyedset_find_nth_obj(const struct keyedset *set, uint32_t n);

/* Takes the object equal to `key` out and returns it to the caller, or null when there is none. */
void *keyedset_remove(struct keyedset *set, const void *key);

/* The number of objects; 0 for an absent container. */
uint32_t keyedset_size(const struct keyedset *set);

/* Makes the container absent. Objects that are still in it are not freed. */
void keyedset_destroy(struct keyedset *set);

#ifdef __cplusplus
}
#endif
#endif
