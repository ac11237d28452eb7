// ZuList.hpp: the list's records, for modules that walk a list once instead of once for every position.
#pragma once

#include "kep/ZuList.h"

// The nodes of a static list come from the pool, which aligns to 4 bytes only.
struct __attribute__((packed, aligned(4))) ZuListNode {
  ZuListNode *next;
  void *data;
};
static_assert(sizeof(ZuListNode) == 2 * sizeof(void *), "two words");

struct ZuList {
  int32_t count;
  int32_t maxLength;    // for ZuList_Push; 0: unbounded
  ZuListFree freeFunc;  // NULL: a static list
  ZuListNode *head;
};
static_assert(sizeof(void *) != 4 || sizeof(ZuList) == 16, "the board's record");

// A node of a list and its position, from where walks to it and behind it begin. Without a node they begin at the head.
struct ListPlace {
  ZuListNode *node;
  int32_t index;
};

// The node at a position from 0, to which the place moves; NULL when the list ends before it.
ZuListNode *walkTo(const ZuList *list, ListPlace *place, int32_t index);

// As walkTo, but a list that ends before is extended with NULL elements as far as the position. NULL when memory is
// short on the way, and the elements already added stay; or for the index 2^31 - 1, which no count can hold.
ZuListNode *extendTo(ZuList *list, ListPlace *place, int32_t index);

// Hands out the elements of a list in order; NULL is an empty list. The list may grow at its tail meanwhile: the walk
// ends with the element that was last when it began.
template <typename Element>
class ListWalk {
 public:
  explicit ListWalk(const ZuList *list) : next_(list ? list->head : nullptr), left_(list ? list->count : 0) {}

  // Stores the next element, which may be NULL; false behind the last one.
  bool next(Element **out) {
    if (left_ <= 0) return false;
    --left_;
    *out = static_cast<Element *>(next_->data);
    // Not read behind the last one: that node may not be there yet.
    if (left_ > 0) next_ = next_->next;
    return true;
  }

 private:
  ZuListNode *next_;
  int32_t left_;
};
