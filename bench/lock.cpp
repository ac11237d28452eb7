// lock.cpp: what it costs to be called from any thread: without a lock, beside the same without a look for one, and
// with the lock of the POSIX service layer.
#include <kep/ZuInfo.h>
#include <kep/ZuMem.h>
#include <kep/platform.h>

#include <cstring>
#include <utility>

#include "Kep.hpp"
#include "bench.hpp"

namespace {

// Taken out again and put in for some of the sides, which no host can do.
const LockHooks posixLock = [] { return KepPosix_UseThreads(), std::exchange(g_lockHooks, {}); }();

template <void (*kSide)(Run &run)>
void withLock(Run &run) {
  g_lockHooks = posixLock;
  kSide(run);
  g_lockHooks = {};
}

// ---- tracked memory

constexpr uint32_t kSize = 64;

void kepMemory(Run &run) {
  run.time([] {
    void *block = ZuMem_Malloc(7, kSize);
    keep(block);
    ZuMem_Free(7, block);
  });
}

uint32_t sizes[256], taken[256], freed[256];

CALLED void *takePlainly(int32_t id, uint32_t size) {
  auto *block = static_cast<char *>(VRK_Malloc(size + 4));
  if (!block) return nullptr;
  std::memcpy(block, &size, sizeof size);
  sizes[id & 0xFF] += size + 4;
  ++taken[id & 0xFF];
  return block + 4;
}

CALLED void givePlainly(int32_t id, void *block) {
  if (!block) return;
  uint32_t size;
  std::memcpy(&size, static_cast<char *>(block) - 4, sizeof size);
  VRK_Free(static_cast<char *>(block) - 4);
  sizes[id & 0xFF] -= size + 4;
  ++freed[id & 0xFF];
}

void plainMemory(Run &run) {
  run.time([] {
    void *block = takePlainly(7, kSize);
    keep(block);
    givePlainly(7, block);
  });
}

const Row memory("tracked memory taken and given back", 1, kepMemory, plainMemory, {1.3, 0});
const Row lockedMemory("tracked memory taken and given back, with a lock", 1, withLock<kepMemory>, nullptr, {0, 2.5});
const Peer unlockedMemory(lockedMemory, "kep, without a lock", kepMemory);

// ---- a record

void kepAppend(Run &run) {
  ZuInfo *store = ZuInfo_New(65536);
  run.time([&] { keep(ZuInfo_Append(store, "k1", 2, "8 bytes", 8)); });
  ZuInfo_Release(store);
}

const Row lockedAppend("append of 8 bytes at a full ring, with a lock", 1, withLock<kepAppend>, nullptr, {0, 2.0});
const Peer unlockedAppend(lockedAppend, "kep, without a lock", kepAppend);

}  // namespace
