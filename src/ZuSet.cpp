// ZuSet.cpp: a bit set in one block.
//
//   capacity (4) | members (4) | bits
//
// Index i is bit i % 8 of byte (i + 7) / 8: byte 0 holds index 0 alone. The last index can therefore lie one byte
// behind the (capacity + 7) / 8 bytes that the set is accounted with; that byte is taken as slack.
#include "kep/ZuSet.h"

#include <cstring>

#include "ZuMem.hpp"

struct ZuSet {
  uint32_t capacity;
  int32_t members;
};
static_assert(sizeof(ZuSet) == 8, "the bits begin 8 bytes into the block");

namespace {

constexpr uint32_t kSlack = 1;

// A capacity is 2^32 - 8 at most, so 7 more than an index below it do not wrap.
const uint8_t *byteOf(const ZuSet *set, uint32_t index) {
  return reinterpret_cast<const uint8_t *>(set + 1) + (index + 7) / 8;
}

uint8_t bitOf(uint32_t index) { return static_cast<uint8_t>(1U << index % 8); }

}  // namespace

ZuSet *ZuSet_New(uint32_t capacity) {
  if (capacity == 0 || capacity > UINT32_MAX - 7) return nullptr;
  const uint32_t size = ((capacity + 7) >> 3) + static_cast<uint32_t>(sizeof(ZuSet));
  auto *set = static_cast<ZuSet *>(mallocWithSlack(0, size, kSlack));
  if (!set) return nullptr;
  std::memset(set, 0, size + kSlack);
  set->capacity = capacity;
  return set;
}

void ZuSet_Release(ZuSet *set) { giveLocal(set); }

int32_t ZuSet_Get(const ZuSet *set, uint32_t index) {
  if (!set || index >= set->capacity) return 0;
  return *byteOf(set, index) >> index % 8 & 1;
}

int32_t ZuSet_Set(ZuSet *set, uint32_t index, int32_t flag) {
  if (!set || index >= set->capacity) return 0;
  auto *byte = const_cast<uint8_t *>(byteOf(set, index));
  const bool isMember = (*byte & bitOf(index)) != 0;
  if (flag) {
    if (isMember) return 0;
    *byte |= bitOf(index);
    ++set->members;
  } else {
    if (!isMember) return 0;
    *byte &= static_cast<uint8_t>(~bitOf(index));
    --set->members;
  }
  return 1;
}
