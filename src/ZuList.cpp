// ZuList.cpp: a singly linked list of element values. `count` is the only bookkeeping: every walk is bounded by it.
#include "ZuList.hpp"

#include <cassert>

#include "ZuMem.hpp"

namespace {

ZuListNode *makeNode(const ZuList *list, void *value) {
  void *memory = list->freeFunc ? takeLocal(sizeof(ZuListNode)) : takeLocalStatic(sizeof(ZuListNode));
  auto *node = static_cast<ZuListNode *>(memory);
  if (node) *node = {nullptr, value};
  return node;
}

ZuListNode *stepFrom(ZuListNode *node, int32_t steps) {
  for (; steps > 0; --steps) node = node->next;
  return node;
}

// The node at a position that the caller knows to lie in the list.
ZuListNode *nodeAt(const ZuList *list, int32_t index) {
  assert(index >= 0 && index < list->count);
  return stepFrom(list->head, index);
}

// Links a node behind another one; NULL: as the head.
void linkBehind(ZuList *list, ZuListNode *previous, ZuListNode *node) {
  if (previous) {
    node->next = previous->next;
    previous->next = node;
  } else {
    node->next = list->head;
    list->head = node;
  }
  ++list->count;
}

// Unlinks and frees the node behind another one, or the head, and returns its element.
void *unlinkBehind(ZuList *list, ZuListNode *previous) {
  ZuListNode *victim = previous ? previous->next : list->head;
  assert(victim && "the caller counted it");
  (previous ? previous->next : list->head) = victim->next;
  --list->count;
  void *value = victim->data;
  giveLocal(victim);
  return value;
}

// The first node for which `cmp` gives 0, and its position. The count is read afresh: `cmp` may reach the list.
ZuListNode *findNode(const ZuList *list, ZuListCompare cmp, const void *key, int32_t *position) {
  if (!list || !cmp) return nullptr;
  ZuListNode *node = list->head;
  for (int32_t i = 0; i < list->count; ++i, node = node->next) {
    if (cmp(node->data, key) != 0) continue;
    *position = i;
    return node;
  }
  return nullptr;
}

}  // namespace

ZuListNode *walkTo(const ZuList *list, ListPlace *place, int32_t index) {
  if (index < 0 || index >= list->count) return nullptr;
  const bool isBehind = place->node && place->index <= index;
  place->node = isBehind ? stepFrom(place->node, index - place->index) : nodeAt(list, index);
  place->index = index;
  return place->node;
}

ZuListNode *extendTo(ZuList *list, ListPlace *place, int32_t index) {
  if (index == INT32_MAX) return nullptr;
  if (list->count > 0 && index >= list->count) walkTo(list, place, list->count - 1);
  while (list->count <= index) {
    ZuListNode *node = makeNode(list, nullptr);
    if (!node) return nullptr;
    linkBehind(list, place->node, node);
    *place = {node, list->count - 1};
  }
  return walkTo(list, place, index);
}

ZuList *ZuList_New(int32_t maxLength, ZuListFree freeFunc) {
  auto *list = static_cast<ZuList *>(takeLocal(sizeof(ZuList)));
  if (list) *list = {0, maxLength, freeFunc, nullptr};
  return list;
}

void ZuList_RemoveAll(ZuList *list) {
  if (!list || !list->freeFunc) return;
  ZuListNode *node = list->head;
  // Count and release function are read afresh for every node: the release function may reach the list. What it adds
  // behind the last node is not in the chain that is walked here.
  for (int32_t visited = 0; visited < list->count && node; ++visited) {
    ZuListNode *next = node->next;
    if (list->freeFunc && node->data) list->freeFunc(node->data);
    giveLocal(node);
    node = next;
  }
  list->head = nullptr;
  list->count = 0;
}

void ZuList_Release(ZuList *list) {
  if (!list || !list->freeFunc) return;
  ZuList_RemoveAll(list);
  giveLocal(list);
}

int32_t ZuList_Length(const ZuList *list) { return list ? list->count : 0; }

int32_t ZuList_FindPos(ZuList *list, ZuListCompare cmp, const void *key) {
  int32_t position = -1;
  return findNode(list, cmp, key, &position) ? position : -1;
}

void *ZuList_Find(ZuList *list, ZuListCompare cmp, const void *key) {
  int32_t position = -1;
  const ZuListNode *node = findNode(list, cmp, key, &position);
  return node ? node->data : nullptr;
}

void *ZuList_Get(ZuList *list, int32_t index) {
  if (!list || list->count <= 0 || index >= list->count) return nullptr;
  return nodeAt(list, index < 0 ? 0 : index)->data;
}

void *ZuList_Set(ZuList *list, int32_t index, void *value) {
  if (!list) return nullptr;
  ListPlace place = {nullptr, 0};
  ZuListNode *node = extendTo(list, &place, index);
  if (!node) return nullptr;
  void *previous = node->data;  // NULL in a node that was added
  node->data = value;
  return previous;
}

void *ZuList_Remove(ZuList *list, int32_t index) {
  if (!list || !list->freeFunc || index >= list->count) return nullptr;
  if (index == 0) return unlinkBehind(list, nullptr);
  if (index < 0) index = 1;  // a negative index removes the second element, where there is one
  return index < list->count ? unlinkBehind(list, nodeAt(list, index - 1)) : nullptr;
}

void *ZuList_Popup(ZuList *list) { return ZuList_Remove(list, 0); }

void *ZuList_PopTail(ZuList *list) { return ZuList_Length(list) > 0 ? ZuList_Remove(list, list->count - 1) : nullptr; }

int32_t ZuList_Insert(ZuList *list, int32_t index, void *value) {
  if (!list) return 0;
  ZuListNode *node = makeNode(list, value);
  if (!node) return 0;
  const int32_t last = list->count - 1;
  const bool atFront = list->count == 0 || index < 0;
  linkBehind(list, atFront ? nullptr : nodeAt(list, index < last ? index : last), node);
  return 1;
}

int32_t ZuList_Append(ZuList *list, void *value) { return list ? ZuList_Insert(list, list->count, value) : 0; }

int32_t ZuList_Push(ZuList *list, void *value) {
  if (!list) return 0;
  if (list->maxLength != 0 && list->count >= list->maxLength) {
    void *evicted = ZuList_PopTail(list);
    if (evicted && list->freeFunc) list->freeFunc(evicted);
  }
  return ZuList_Insert(list, -1, value);
}
