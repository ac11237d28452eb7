// ZuInfo.hpp: a walk over a store's records, for those who wait between two of them.
#pragma once

#include "kep/ZuInfo.h"

struct StoreRecord {
  const uint8_t *key;
  const uint8_t *value;
  uint8_t keyLength;
  uint16_t valueLength;
};

// Hands out, oldest first, the records that are present when it begins. It takes the lock for one record at a time and
// then hands out a copy, which holds until the next; without a lock it points into the store, as ZuInfo_Get does.
class StoreWalk {
 public:
  // NULL is an empty store. The store must outlive the walk.
  explicit StoreWalk(ZuInfo *info);
  ~StoreWalk();
  StoreWalk(const StoreWalk &) = delete;
  StoreWalk &operator=(const StoreWalk &) = delete;

  // False at the end: also where the next record has been evicted meanwhile, or there is no memory for its copy.
  bool next(StoreRecord *out);

  // The number of the record that would come next, and why it did not if that was for want of memory.
  uint32_t reached() const { return next_; }
  bool lacksMemory() const { return copySize_ > 0 && !copy_; }

 private:
  bool makeCopy(StoreRecord *record);

  ZuInfo *info_;
  int32_t cursor_;
  uint32_t next_;  // the number of the next record, counted since the store was made
  uint32_t end_;   // and of the first one that was not there yet
  uint8_t *copy_;
  uint32_t copySize_;
};

// Of two numbers of records, which wrap.
inline bool isBefore(uint32_t number, uint32_t other) { return static_cast<int32_t>(number - other) < 0; }

// The number of the next record to be written, and of the oldest one present, counted since the store was made; both
// wrap. Under the lock.
uint32_t numberOfNext(const ZuInfo *info);
uint32_t numberOfOldest(const ZuInfo *info);

// Drops the records before this number as if they had been evicted, but for the count of those. Under the lock.
void dropBefore(ZuInfo *info, uint32_t number);
