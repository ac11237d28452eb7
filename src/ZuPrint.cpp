// ZuPrint.cpp: gathers text in a buffer and hands whole buffers to the platform's console.
#include "ZuPrint.hpp"

#include <cassert>
#include <cstdarg>
#include <cstring>

#include "Kep.hpp"
#include "ZuMem.hpp"
#include "ZuWrite.hpp"
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
constexpr size_t kLongestPiece = kSharedCapacity - 1;

ZuPrint *self_print;  // the shared object, made at the first use and never released
char self_buffer[kSharedCapacity];

// Empties the buffer, printing it if the object prints.
void dropBuffer(ZuPrint *obj) {
  assert(obj->length < obj->capacity && "there is always room for the terminator");
  obj->buffer[obj->length] = '\0';
  if (obj->length > 0 && obj->flag) VRK_RawPrint("%s", obj->buffer);
  obj->length = 0;
}

// ---- the shared object

ZuPrint *sharedObject() {
  if (!self_print) self_print = ZuPrint_New(self_buffer, kSharedCapacity);
  return self_print;
}

void hold(ZuPrint *obj, const char *text, size_t length) {
  std::memcpy(obj->buffer + obj->length, text, length);
  obj->length += static_cast<int32_t>(length);
}

void takeHeld(ZuPrint *obj, char *out) {
  std::memcpy(out, obj->buffer, static_cast<size_t>(obj->length));
  out[obj->length] = '\0';
  obj->length = 0;
}

size_t lineLength(const char *text, size_t length) {
  const void *end = std::memchr(text, '\n', length);
  return end ? static_cast<size_t>(static_cast<const char *>(end) - text) + 1 : length;
}

enum class Then { kHold, kEndLine, kFlush };

// Holds a text line by line, as far as there is room each time, and prints what is not to be held any longer. That is
// copied out under the lock and printed without it: a console may wait.
//
// Where there is a lock, a text that ends its line and is no longer than a piece stays whole, for other threads print
// between two pieces; if it does not fit behind what is held, that leaves first.
void print(const char *text, size_t length, Then then) {
  const size_t lineEnd = then == Then::kEndLine ? 1 : 0;
  const bool endsLine = lineEnd > 0 || (length > 0 && text[length - 1] == '\n');
  const bool isWhole = hasLock() && endsLine && length + lineEnd <= kLongestPiece;
  bool isIn = false;
  while (!isIn) {
    char piece[kLongestPiece + 1];
    bool isDue;
    {
      const Locked locked;
      ZuPrint *const obj = sharedObject();
      if (!obj) return;
      const size_t room = kLongestPiece - static_cast<size_t>(obj->length);
      const bool fits = length + lineEnd <= room;
      size_t taken = fits ? length : isWhole ? 0 : room;
      if (!isWhole) taken = lineLength(text, taken);
      isIn = fits && taken == length;
      hold(obj, text, taken);
      if (isIn) hold(obj, "\n", lineEnd);
      text += taken;
      length -= taken;
      isDue = obj->length > 0 && (!isIn || then != Then::kHold || obj->buffer[obj->length - 1] == '\n');
      if (isDue) takeHeld(obj, piece);
    }
    if (isDue) VRK_RawPrint("%s", piece);
  }
}

void show(const char *text, int32_t len, Then then) {
  if (!text) return;
  const size_t length = len < 0 ? 0 : len == 0 ? std::strlen(text) : static_cast<size_t>(len);
  const bool isCut = then == Then::kEndLine && (!hasLock() || length >= kLongestPiece);
  print(text, length, isCut ? Then::kHold : then);
  if (isCut) print("\n", 1, Then::kHold);
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
  auto *obj = static_cast<ZuPrint *>(takeLocal(sizeof(ZuPrint)));
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
  giveLocal(obj);
}

void ZuPrint_Show(const char *text, int32_t len) {
  const Waiting mark(__func__);
  show(text, len, Then::kHold);
}

void ZuPrint_ShowEx(const char *text, int32_t len) {
  const Waiting mark(__func__);
  show(text, len, Then::kFlush);
}

void ZuPrint_Puts(const char *text, int32_t len) {
  const Waiting mark(__func__);
  show(text, len, Then::kEndLine);
}
