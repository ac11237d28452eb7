// ZuPrint.cpp: gathers text in a buffer and hands whole buffers to the platform's console.
#include "ZuPrint.hpp"

#include <cassert>
#include <cstdarg>
#include <cstring>

#include "ZuWrite.hpp"
#include "kep/ZuMem.h"
#include "kep/platform.h"

struct ZuPrint {
  char *buffer;      // the caller's
  int32_t capacity;  // of the buffer, at least 2
  int32_t length;    // characters gathered, below capacity
  int32_t flag;      // non-zero: print a full or flushed buffer
};
static_assert(sizeof(void *) != 4 || sizeof(ZuPrint) == 16, "the board's record");

namespace {

constexpr int32_t kSharedCapacity = 1000;

ZuPrint *self_print;  // the shared object, made at the first use
char self_buffer[kSharedCapacity];

// Empties the buffer, printing it if the object prints.
void dropBuffer(ZuPrint *obj) {
  assert(obj->length < obj->capacity && "there is always room for the terminator");
  obj->buffer[obj->length] = '\0';
  if (obj->length > 0 && obj->flag) VRK_RawPrint("%s", obj->buffer);
  obj->length = 0;
}

bool makeSharedObject() {
  if (!self_print) self_print = ZuPrint_New(self_buffer, kSharedCapacity);
  return self_print != nullptr;
}

}  // namespace

int32_t printLength(const ZuPrint *obj) { return obj->length; }

void printPastSink(const char *format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  kep::putToStdout(text, std::strlen(text));
}

ZuPrint *ZuPrint_New(char *buffer, int32_t capacity) {
  if (!buffer || capacity < 2) return nullptr;
  auto *obj = static_cast<ZuPrint *>(ZuMem_LocalMalloc(sizeof(ZuPrint)));
  if (!obj) return nullptr;
  *obj = {buffer, capacity, 0, 1};
  buffer[0] = '\0';
  return obj;
}

void ZuPrint_SetPrint(ZuPrint *obj, int32_t flag) {
  if (obj) obj->flag = flag;
}

void ZuPrint_PrintCh(ZuPrint *obj, char ch, int32_t count) {
  if (!obj) return;
  while (count > 0) {
    for (; count > 0 && obj->length + 1 < obj->capacity; --count) obj->buffer[obj->length++] = ch;
    if (count > 0) dropBuffer(obj);
  }
}

void ZuPrint_Print(ZuPrint *obj, const char *text, int32_t count) {
  if (!obj || !text || !*text) return;
  const size_t textLength = std::strlen(text);
  while (count > 0) {
    // Written as a difference: length + textLength could wrap.
    for (; count > 0 && textLength < static_cast<size_t>(obj->capacity - obj->length); --count) {
      std::memcpy(obj->buffer + obj->length, text, textLength);
      obj->length += static_cast<int32_t>(textLength);
    }
    if (count == 0) return;
    if (obj->length == 0) {  // not even an empty buffer holds it
      obj->buffer[0] = '\0';
      if (obj->flag) VRK_RawPrint("%s", text);
      --count;
    } else {
      dropBuffer(obj);
    }
  }
}

void ZuPrint_Flush(ZuPrint *obj) {
  if (obj && obj->flag && obj->length > 0) dropBuffer(obj);
}

void ZuPrint_Release(ZuPrint *obj) {
  ZuPrint_Flush(obj);
  ZuMem_LocalFree(obj);
}

void ZuPrint_Show(const char *text, int32_t len) {
  if (!text || !makeSharedObject()) return;
  const size_t length = len == 0 ? std::strlen(text) : len < 0 ? 0 : static_cast<size_t>(len);
  for (size_t i = 0; i < length; ++i) {
    ZuPrint_PrintCh(self_print, text[i], 1);
    if (text[i] == '\n') ZuPrint_Flush(self_print);
  }
}

void ZuPrint_ShowEx(const char *text, int32_t len) {
  if (!text) return;
  ZuPrint_Show(text, len);
  ZuPrint_Flush(self_print);
}

void ZuPrint_Puts(const char *text, int32_t len) {
  if (!text) return;
  ZuPrint_Show(text, len);
  ZuPrint_Show("\n", 1);
}
