/* ZuList.h: a singly linked list of element values, usually pointers.
 *
 * The list stores values as given and copies nothing that they point to. Its release function marks what kind it is:
 *   dynamic  freeFunc given: nodes come from the heap; ZuList_RemoveAll, ZuList_Release and an eviction by ZuList_Push
 *            call freeFunc on the values they drop, nothing else does;
 *   static   freeFunc NULL: nodes come from the static pool, the list can only grow, and releasing it does nothing.
 * Positions count from 0; a positional operation walks from the head. Every function accepts a NULL list and returns
 * its failure value. A list belongs to one thread at a time; with a lock (Kep_SetLock) the memory under it is accounted
 * for safely. */
#ifndef KEP_ZULIST_H
#define KEP_ZULIST_H

#include <stdint.h>

#include "kep/api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZuList ZuList; /* a list, known by its address only */

/* Releases one element value. It must not change the list that calls it. */
typedef void (*ZuListFree)(void *element);
/* Returns 0 when the element matches the key. A NULL function matches nothing. */
typedef int32_t (*ZuListCompare)(void *element, const void *key);

/* Creates an empty list; `maxLength` bounds ZuList_Push only, 0 means unbounded. Returns NULL when memory is short. */
KEP_API ZuList *ZuList_New(int32_t maxLength, ZuListFree freeFunc);

/* Empties a dynamic list, calling freeFunc on every value but 0. A static list stays as it is. */
KEP_API void ZuList_RemoveAll(ZuList *list);

/* Empties and frees a dynamic list. A static list stays as it is. */
KEP_API void ZuList_Release(ZuList *list);

/* Returns the number of elements, 0 for NULL. */
KEP_API int32_t ZuList_Length(const ZuList *list);

/* Returns the position of the first element for which `cmp` gives 0, or -1. */
KEP_API int32_t ZuList_FindPos(ZuList *list, ZuListCompare cmp, const void *key);

/* Returns the first element for which `cmp` gives 0, or NULL; a stored NULL cannot be told from no match. */
KEP_API void *ZuList_Find(ZuList *list, ZuListCompare cmp, const void *key);

/* Returns the element at `index`; a negative index reads the first. NULL when there is none. */
KEP_API void *ZuList_Get(ZuList *list, int32_t index);

/* Stores `value` at `index` and returns what was there, NULL for a negative index. An index at or past the end extends
 * the list with NULL elements and gives NULL; when memory runs short on the way the elements already added stay. The
 * index 2^31 - 1 is refused. */
KEP_API void *ZuList_Set(ZuList *list, int32_t index, void *value);

/* Unlinks the element at `index` and hands it to the caller without calling freeFunc. A negative index is served like
 * index 1. NULL when there is no such element or the list is static. */
KEP_API void *ZuList_Remove(ZuList *list, int32_t index);

/* ZuList_Remove of the first and of the last element. */
KEP_API void *ZuList_Popup(ZuList *list);
KEP_API void *ZuList_PopTail(ZuList *list);

/* Inserts `value` after the element at `index`: 0 gives second place, a negative index the front, one past the end
 * the tail. Returns 1, or 0 when memory is short. */
KEP_API int32_t ZuList_Insert(ZuList *list, int32_t index, void *value);

/* Inserts at the tail. Returns 1, or 0 when memory is short. */
KEP_API int32_t ZuList_Append(ZuList *list, void *value);

/* Inserts at the front of a list that keeps its `maxLength` newest: a full dynamic list first drops its last element
 * through freeFunc, and has done so even when memory for the new one is then short; a static list just grows. Returns
 * 1, or 0 when memory is short. */
KEP_API int32_t ZuList_Push(ZuList *list, void *value);

#ifdef __cplusplus
}
#endif

#endif
