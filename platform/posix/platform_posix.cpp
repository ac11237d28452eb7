// platform_posix.cpp: the service layer for a Linux host, with standard output as its console.
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "kep/platform.h"

namespace {

// The library hands out the address 4 bytes behind a block, so the block begins 4 bytes short of maximal alignment.
constexpr size_t kHeaderSize = 4;
constexpr size_t kOffset = alignof(std::max_align_t) - kHeaderSize;

}  // namespace

void *VRK_Malloc(uint32_t size) {
  const uint64_t whole = uint64_t{size} + kOffset;
  if (whole > SIZE_MAX) return nullptr;
  auto *memory = static_cast<char *>(std::malloc(static_cast<size_t>(whole)));
  return memory ? memory + kOffset : nullptr;
}

void VRK_Free(void *block) {
  if (block) std::free(static_cast<char *>(block) - kOffset);
}

// Through stdio and flushed at once: nothing waits, and texts that others put to stdout keep their place.
int VRK_RawPrint(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int printed = std::vprintf(format, args);
  va_end(args);
  std::fflush(stdout);
  return printed;
}

void VRK_Delay(uint32_t ms) {
  timespec left = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

int PLM_snprintf(char *buffer, size_t size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(buffer, size, format, args);
  va_end(args);
  return length;
}
