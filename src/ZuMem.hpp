// ZuMem.hpp: what other modules need to know of a block.
#pragma once

#include "kep/ZuMem.h"

// A bounded memory object; its data bytes lie directly behind it.
struct ZuMem {
  int32_t capacity;    // data bytes, never negative
  int32_t staticFlag;  // non-zero: carved from the static pool
};
static_assert(sizeof(ZuMem) == 8, "the data begins 8 bytes into the block");

inline uint8_t *memData(ZuMem *obj) { return reinterpret_cast<uint8_t *>(obj + 1); }

#pragma GCC visibility push(hidden)

// The size that was asked for when a block was taken with ZuMem_Malloc.
uint32_t trackedSize(const void *block);

// As ZuMem_Malloc, with `slack` more bytes addressable behind the block that are not counted with it.
void *mallocWithSlack(int32_t id, uint32_t size, uint32_t slack);

// As ZuMem_LocalMalloc, ZuMem_LocalMalloc_Static and ZuMem_LocalFree, for what works on objects of the caller's own,
// which any thread may have: containers.
void *takeLocal(uint32_t size);
void *takeLocalStatic(uint32_t size);
void giveLocal(void *ptr);

// Whether a block was ever taken.
bool hasAllocated();

#pragma GCC visibility pop
