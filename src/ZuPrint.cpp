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

bool makeSharedObject() {
  const Locked locked;
  if (!self_print) self_print = ZuPrint_New(self_buffer, kSharedCapacity);
  return self_print != nullptr;
}

size_t lengthOf(const char *text, int32_t len) {
  if (len < 0) return 0;
  return len == 0 ? std::strlen(text) : static_cast<size_t>(len);
}

// Where there is a lock: what leaves in one call, copied out of the shared object under it. A console may wait, so the
// lock is given back before the piece is printed.
class Piece {
 public:
  // What the shared object holds.
  void takeHeld() {
    append(self_buffer, static_cast<size_t>(self_print->length));
    self_print->length = 0;
  }

  void append(const char *text, size_t length) {
    std::memcpy(text_ + length_, text, length);
    length_ += length;
  }

  void print() {
    text_[length_] = '\0';
    if (length_ > 0) VRK_RawPrint("%s", text_);
  }

 private:
  size_t length_ = 0;
  char text_[kLongestPiece + 1];
};

// A text of at most a piece, which is not cut: what is held leaves first if both do not fit.
void showWhole(const char *text, size_t length, const char *lineEnd) {
  const size_t whole = length + std::strlen(lineEnd);
  bool isIn = false;
  while (!isIn) {
    Piece piece;
    {
      const Locked locked;
      isIn = whole <= kLongestPiece - static_cast<size_t>(self_print->length);
      piece.takeHeld();
      if (isIn) {
        piece.append(text, length);
        piece.append(lineEnd, whole - length);
      }
    }
    piece.print();
  }
}

// Holds a text as far as its next line end and the room go, and returns how much of it that is.
size_t hold(const char *text, size_t length) {
  const size_t room = kLongestPiece - static_cast<size_t>(self_print->length);
  if (length > room) length = room;
  if (const void *end = std::memchr(text, '\n', length))
    length = static_cast<size_t>(static_cast<const char *>(end) - text) + 1;
  std::memcpy(self_buffer + self_print->length, text, length);
  self_print->length += static_cast<int32_t>(length);
  return length;
}

void showInPieces(const char *text, size_t length) {
  while (length > 0) {
    Piece piece;
    size_t taken;
    {
      const Locked locked;
      taken = hold(text, length);
      if (taken < length || text[length - 1] == '\n') piece.takeHeld();
    }
    piece.print();
    text += taken;
    length -= taken;
  }
}

void flushShared() {
  Piece piece;
  {
    const Locked locked;
    if (self_print) piece.takeHeld();
  }
  piece.print();
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
  if (!text || !makeSharedObject()) return;
  const size_t length = lengthOf(text, len);
  if (hasLock()) {
    const bool isWhole = length > 0 && length <= kLongestPiece && text[length - 1] == '\n';
    isWhole ? showWhole(text, length, "") : showInPieces(text, length);
    return;
  }
  for (size_t i = 0; i < length; ++i) {
    ZuPrint_PrintCh(self_print, text[i], 1);
    if (text[i] == '\n') ZuPrint_Flush(self_print);
  }
}

void ZuPrint_ShowEx(const char *text, int32_t len) {
  const Waiting mark(__func__);
  if (!text) return;
  ZuPrint_Show(text, len);
  hasLock() ? flushShared() : ZuPrint_Flush(self_print);
}

void ZuPrint_Puts(const char *text, int32_t len) {
  const Waiting mark(__func__);
  if (!text) return;
  if (hasLock() && lengthOf(text, len) < kLongestPiece && makeSharedObject()) {
    showWhole(text, lengthOf(text, len), "\n");
    return;
  }
  ZuPrint_Show(text, len);
  ZuPrint_Show("\n", 1);
}
