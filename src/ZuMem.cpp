// ZuMem.cpp: tracked blocks, the static pool, and bounded memory objects.
//
//   tracked block   requested size (4, native order) | the bytes handed out
//   bounded object  capacity (4) | static flag (4) | capacity data bytes
#include "ZuMem.hpp"

#include <cassert>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "Kep.hpp"
#include "kep/ZuPrint.h"
#include "kep/ZuString.h"
#include "kep/platform.h"

namespace {

constexpr uint32_t kHeaderSize = 4;
constexpr uint32_t kObjectHeaderSize = sizeof(ZuMem);
constexpr uint32_t kPoolChunkSize = 0x100000;
constexpr uint32_t kPoolLargestBlock = 0x80000;
constexpr int32_t kIdCount = 256;

// The accounts, by the low 8 bits of the id. They wrap.
uint32_t ZuMem_Size[kIdCount];
uint32_t ZuMem_MallocCnt[kIdCount];
uint32_t ZuMem_FreeCnt[kIdCount];

uint8_t *static_mem;  // next free byte of the current pool chunk
uint32_t l_static_leftsize;
uint32_t l_static_times;         // chunks taken
uint32_t l_static_malloc_times;  // blocks handed out

bool l_hasAllocated;

// ---- under the lock

#ifdef NDEBUG
void noteAlignment(const uint8_t *) {}
#else
// Says once that the service layer's blocks are not what platform.h asks for.
void noteAlignment(const uint8_t *handedOut) {
  constexpr bool kFourIsEnough = sizeof(void *) == 4 && alignof(int64_t) == 4;
  constexpr size_t kWanted = kFourIsEnough ? 4 : alignof(std::max_align_t);
  static bool isSaid;
  if (isSaid || reinterpret_cast<uintptr_t>(handedOut) % kWanted == 0) return;
  isSaid = true;
  std::fprintf(stderr, "kep: VRK_Malloc's blocks are misaligned: 4 bytes on must be a multiple of %zu (platform.h)\n",
               kWanted);
}
#endif

void *takeBlock(int32_t id, uint32_t size, uint32_t slack) {
  const uint64_t whole = uint64_t{size} + kHeaderSize + slack;
  if (whole > UINT32_MAX) return nullptr;
  auto *block = static_cast<uint8_t *>(VRK_Malloc(static_cast<uint32_t>(whole)));
  if (!block) return nullptr;
  noteAlignment(block + kHeaderSize);
  std::memcpy(block, &size, sizeof size);  // copied: the platform's blocks need not be aligned
  ZuMem_Size[id & 0xFF] += size + kHeaderSize;
  ++ZuMem_MallocCnt[id & 0xFF];
  l_hasAllocated = true;
  return block + kHeaderSize;
}

void giveBlock(int32_t id, void *ptr) {
  if (!ptr) return;
  const uint32_t size = trackedSize(ptr);
  VRK_Free(static_cast<uint8_t *>(ptr) - kHeaderSize);
  ZuMem_Size[id & 0xFF] -= size + kHeaderSize;
  ++ZuMem_FreeCnt[id & 0xFF];
}

uint8_t *carveFromPool(uint32_t size) {
  uint8_t *block = static_mem;
  static_mem += size;
  l_static_leftsize -= size;
  ++l_static_malloc_times;
  return block;
}

void *takeStatic(int32_t id, uint32_t size) {
  if (size == 0 || size > UINT32_MAX - 3) return nullptr;
  const uint32_t rounded = (size + 3) & ~3U;
  if (rounded > kPoolLargestBlock) return takeBlock(id, rounded, 0);
  if (static_mem && l_static_leftsize >= rounded) return carveFromPool(rounded);

  static_mem = static_cast<uint8_t *>(takeBlock(id, kPoolChunkSize, 0));  // the old chunk's rest is given up
  if (!static_mem) return takeBlock(id, rounded, 0);
  ++l_static_times;
  l_static_leftsize = kPoolChunkSize;
  return carveFromPool(rounded);
}

// ---- the report

void showAccount(int32_t id) {
  uint32_t size;
  uint32_t taken;
  uint32_t freed;
  {
    const Locked locked;
    size = ZuMem_Size[id];
    taken = ZuMem_MallocCnt[id];
    freed = ZuMem_FreeCnt[id];
  }
  if (size == 0) return;
  ZuPrint_Puts(ZuString_SFormat("  %3d  0x%08x      %4d    %4d", static_cast<int>(id), size, static_cast<int>(taken),
                                static_cast<int>(freed)),
               0);
}

void showPool() {
  uint32_t left;
  uint32_t times;
  uint32_t blocks;
  {
    const Locked locked;
    left = l_static_leftsize;
    times = l_static_times;
    blocks = l_static_malloc_times;
  }
  ZuPrint_Puts(ZuString_SFormat("static memory : left         = 0x%08x", left), 0);
  ZuPrint_Puts(ZuString_SFormat("static memory : times        = %d", static_cast<int>(times)), 0);
  ZuPrint_Puts(ZuString_SFormat("static memory : malloc times = %d", static_cast<int>(blocks)), 0);
}

// ---- bounded objects

bool holds(const ZuMem *obj, uint32_t offset) { return obj && offset < static_cast<uint32_t>(obj->capacity); }

// How many of n bytes at an offset lie inside the object.
uint32_t clampCount(const ZuMem *obj, uint32_t offset, uint32_t n) {
  if (!holds(obj, offset)) return 0;
  const uint32_t room = static_cast<uint32_t>(obj->capacity) - offset;
  return n < room ? n : room;
}

}  // namespace

uint32_t trackedSize(const void *block) {
  uint32_t size;
  std::memcpy(&size, static_cast<const uint8_t *>(block) - kHeaderSize, sizeof size);
  return size;
}

bool hasAllocated() { return l_hasAllocated; }

void *mallocWithSlack(int32_t id, uint32_t size, uint32_t slack) {
  const Locked locked;
  return takeBlock(id, size, slack);
}

void *takeLocal(uint32_t size) { return mallocWithSlack(0, size, 0); }

void *takeLocalStatic(uint32_t size) {
  const Locked locked;
  return takeStatic(0, size);
}

void giveLocal(void *ptr) {
  const Locked locked;
  giveBlock(0, ptr);
}

void *ZuMem_Malloc(int32_t id, uint32_t size) {
  const Guarded guard(__func__);
  return takeBlock(id, size, 0);
}

void ZuMem_Free(int32_t id, void *ptr) {
  const Guarded guard(__func__);
  giveBlock(id, ptr);
}

void *ZuMem_Malloc_Static(int32_t id, uint32_t size) {
  const Guarded guard(__func__);
  return takeStatic(id, size);
}

// These name themselves; behind them the lock is taken.

void *ZuMem_LocalMalloc(uint32_t size) {
  noteCall(__func__);
  return takeLocal(size);
}

void *ZuMem_LocalMalloc_Static(uint32_t size) {
  noteCall(__func__);
  return takeLocalStatic(size);
}

void ZuMem_LocalFree(void *ptr) {
  noteCall(__func__);
  giveLocal(ptr);
}

void ZuMem_Show(void) {
  const Waiting mark(__func__);
  ZuPrint_Puts("   id        size    malloc    free", 0);
  ZuPrint_Puts("-------------------------------------", 0);
  for (int32_t id = 0; id < kIdCount; ++id) showAccount(id);
  ZuPrint_Puts("", 0);
  showPool();
}

ZuMem *ZuMem_New(int32_t capacity, int32_t static_flag) {
  if (capacity < 0) return nullptr;
  const uint32_t size = static_cast<uint32_t>(capacity) + kObjectHeaderSize;
  auto *obj = static_cast<ZuMem *>(static_flag ? takeLocalStatic(size) : takeLocal(size));
  if (!obj) return nullptr;
  obj->capacity = capacity;
  obj->staticFlag = static_flag;
  return obj;
}

void ZuMem_Release(ZuMem *obj) {
  if (obj && obj->staticFlag == 0) giveLocal(obj);
}

ZuMem *ZuMem_realloc(ZuMem *obj, int32_t new_capacity) {
  if (!obj || obj->staticFlag) return obj;
  ZuMem *larger = ZuMem_New(new_capacity, 0);
  if (!larger) return nullptr;
  const int32_t kept = obj->capacity < new_capacity ? obj->capacity : new_capacity;
  std::memcpy(memData(larger), memData(obj), static_cast<uint32_t>(kept));
  ZuMem_Release(obj);
  return larger;
}

void *ZuMem_Get(ZuMem *obj, uint32_t offset) { return holds(obj, offset) ? memData(obj) + offset : nullptr; }

uint32_t ZuMem_memcpy(ZuMem *obj, uint32_t offset, const void *src, uint32_t n) {
  const uint32_t count = src ? clampCount(obj, offset, n) : 0;
  if (count > 0) std::memcpy(memData(obj) + offset, src, count);
  return count;
}

uint32_t ZuMem_memget(ZuMem *obj, uint32_t offset, void *dst, uint32_t n) {
  const uint32_t count = dst ? clampCount(obj, offset, n) : 0;
  if (count > 0) std::memcpy(dst, memData(obj) + offset, count);
  return count;
}

void ZuMem_memset(ZuMem *obj, uint32_t offset, int32_t value, uint32_t n) {
  const uint32_t count = clampCount(obj, offset, n);
  if (count > 0) std::memset(memData(obj) + offset, value, count);
}

int32_t ZuMem_memcmp(ZuMem *obj, uint32_t offset, const void *buf, uint32_t n) {
  if (!holds(obj, offset) || !buf) return -1;
  return std::memcmp(memData(obj) + offset, buf, n);
}
