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

const uint8_t *byteOf(const ZuSet *set, uint32_t index) {
  return reinterpret_cast<const uint8_t *>(set + 1) + (index / 8 + (index % 8 != 0));
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

void ZuSet_Release(ZuSet *set) { ZuMem_LocalFree(set); }

int32_t ZuSet_Get(const ZuSet *set, uint32_t index) {
  return set && index < set->capacity && (*byteOf(set, index) & bitOf(index)) != 0;
}

int32_t ZuSet_Set(ZuSet *set, uint32_t index, int32_t flag) {
  if (!set || index >= set->capacity || ZuSet_Get(set, index) == (flag != 0)) return 0;
  *const_cast<uint8_t *>(byteOf(set, index)) ^= bitOf(index);
  set->members += flag ? 1 : -1;
  return 1;
}
