// platform_posix.cpp: the service layer for a Linux host, with standard output as its console.
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ZuWrite.hpp"
#include "kep/platform.h"

namespace {

// The library hands out the address 4 bytes behind a block, so the block begins 4 bytes short of maximal alignment.
constexpr size_t kHeaderSize = 4;
constexpr size_t kOffset = alignof(std::max_align_t) - kHeaderSize;

// As it is, which takes no memory however long it is: the library asks for nothing else.
int putText(const char *text) {
  const size_t length = std::strlen(text);
  return kep::putToStdout(text, length) ? static_cast<int>(length) : -1;
}

KEP_PRINTF(1, 0) int putFormatted(const char *format, va_list args) {
  va_list again;
  va_copy(again, args);
  char *text;
  int length = vasprintf(&text, format, args);
  if (length < 0) {  // no memory: a stream formats as it prints
    length = std::vprintf(format, again);
    std::fflush(stdout);
  } else {
    if (!kep::putToStdout(text, static_cast<size_t>(length))) length = -1;
    std::free(text);
  }
  va_end(again);
  return length;
}

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

int VRK_RawPrint(const char *format, ...) {
  va_list args;
  va_start(args, format);
  int printed;
  if (std::strcmp(format, "%s") == 0) {
    const char *text = va_arg(args, const char *);
    printed = putText(text ? text : "(null)");
  } else {
    printed = putFormatted(format, args);
  }
  va_end(args);
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
