// ZuString.cpp: text formatting, hex dumps and splitting.
#include "kep/ZuString.h"

#include <pthread.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "Kep.hpp"
#include "ZuMem.hpp"

namespace {

constexpr int32_t kFormatSize = 1000;
constexpr int32_t kHexSize = 10000;
constexpr int32_t kHexLargest = 3265;  // bytes whose dump fills the hex buffer exactly
constexpr int32_t kBytesPerLine = 16;
static_assert(3 * kHexLargest + (kHexLargest - 1) / kBytesPerLine + 1 == kHexSize, "the dump and its terminator fit");

char sg_SBuffer[kFormatSize];
char sg_SHBuffer[kHexSize];

// Where there is a lock, each thread has buffers of its own in their place.
struct ThreadBuffer {
  pthread_key_t key;
  bool hasKey;
};
ThreadBuffer l_format;
ThreadBuffer l_hex;

// This thread's buffer, taken at its first use and given back when the thread ends. NULL when memory is short. Under
// the lock.
char *bufferOfThread(ThreadBuffer *buffer, int32_t size) {
  if (!buffer->hasKey) buffer->hasKey = pthread_key_create(&buffer->key, giveLocal) == 0;
  if (!buffer->hasKey) return nullptr;
  void *memory = pthread_getspecific(buffer->key);
  if (memory) return static_cast<char *>(memory);
  memory = takeLocal(static_cast<uint32_t>(size));
  if (memory && pthread_setspecific(buffer->key, memory) != 0) {
    giveLocal(memory);
    memory = nullptr;
  }
  return static_cast<char *>(memory);
}

// Never written to: threads that were given it before may read it meanwhile.
char *emptyText() {
  static char text[1];
  return text;
}

char *putHexByte(char *out, uint8_t byte) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  *out++ = kDigits[byte >> 4];
  *out++ = kDigits[byte & 0xF];
  *out++ = ' ';
  return out;
}

}  // namespace

char *ZuString_SFormat(const char *format, ...) {
  const Guarded guard(__func__);
  char *buffer = hasLock() ? bufferOfThread(&l_format, kFormatSize) : sg_SBuffer;
  if (!buffer) return emptyText();
  buffer[0] = '\0';
  if (!format) return buffer;
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, kFormatSize, format, args);
  va_end(args);
  return buffer;
}

char *ZuString_Format(char *dst, const char *format, ...) {
  if (!dst) return dst;
  *dst = '\0';
  if (!format) return dst;
  va_list args;
  va_start(args, format);
  std::vsprintf(dst, format, args);
  va_end(args);
  return dst;
}

char *ZuString_HFormat(char *dst, const void *data, int32_t len) {
  if (!dst) return dst;
  const auto *bytes = static_cast<const uint8_t *>(data);
  char *out = dst;
  for (int32_t i = 0; data && i < len; ++i) {
    if (i > 0 && i % kBytesPerLine == 0) *out++ = '\n';
    out = putHexByte(out, bytes[i]);
  }
  *out = '\0';
  return dst;
}

char *ZuString_SHFormat(const void *data, int32_t len) {
  const Guarded guard(__func__);
  char *buffer = hasLock() ? bufferOfThread(&l_hex, kHexSize) : sg_SHBuffer;
  if (!buffer) return emptyText();
  return ZuString_HFormat(buffer, data, len < kHexLargest ? len : kHexLargest);
}

int32_t ZuString_Split(char *text, const char *delimiter, char **fields, int32_t max_fields) {
  if (!text || !delimiter || !fields) return 0;
  const size_t delimiterLength = std::strlen(delimiter);
  fields[0] = text;
  int32_t count = 1;
  while (*text && (max_fields == 0 || count < max_fields)) {
    if (std::strncmp(text, delimiter, delimiterLength) == 0) {
      *text = '\0';
      text += delimiterLength;
      ++count;
      if (!*text) return count;  // an empty field at the end: counted, its slot not written
      fields[count - 1] = text;
    }
    ++text;  // behind a delimiter too, so that its next character never begins another
  }
  return count;
}

void ZuString_LTrim(char *) {}

void ZuString_RTrim(char *) {}

void ZuString_Trim(char *text) {
  ZuString_LTrim(text);
  ZuString_RTrim(text);
}
