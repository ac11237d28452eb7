// ZuBuffer.cpp: lays values end to end as a format of field letters says, reads them back, and dumps them.
#include "ZuBuffer.hpp"

#include <cstdarg>
#include <cstring>

#include "kep/ZuPrint.h"
#include "kep/ZuString.h"
#include "kep/ZuTime.h"

namespace {

constexpr int32_t kLargest = INT32_MAX;  // counts and sums saturate here

struct Field {
  char letter;
  int32_t size;  // bytes in the buffer
};

// Takes the next field off the format. A count belongs to the letter directly behind it; every other character in
// between clears it.
bool nextField(const char *&format, Field *out) {
  int32_t count = 0;
  for (; *format; ++format) {
    const char ch = *format;
    if (ch >= '0' && ch <= '9') {
      const int64_t longer = int64_t{count} * 10 + (ch - '0');
      count = static_cast<int32_t>(longer < kLargest ? longer : kLargest);
      continue;
    }
    switch (ch) {
      case 'B':
      case 'b': *out = {ch, 1}; break;
      case 'H':
      case 'h': *out = {ch, 2}; break;
      case 'I':
      case 'i':
      case 'T': *out = {ch, 4}; break;
      case 'S':
      case 's': *out = {ch, count}; break;
      default: count = 0; continue;
    }
    ++format;
    return true;
  }
  return false;
}

void packString(uint8_t *out, const void *source, int32_t size) {
  if (source) {
    std::memcpy(out, source, static_cast<size_t>(size));
  } else {
    std::memset(out, 0, static_cast<size_t>(size));  // what leaves in a record was written
  }
}

template <typename Unsigned>
void unpackInteger(void *out, const uint8_t *in) {
  const Unsigned value = loadBig<Unsigned>(in);
  if (out) std::memcpy(out, &value, sizeof value);
}

void unpackString(void *out, const uint8_t *in, int32_t size) {
  if (!out) return;
  std::memcpy(out, in, static_cast<size_t>(size));
  static_cast<char *>(out)[size] = '\0';
}

void unpackField(const Field &field, const uint8_t *in, void *out) {
  switch (field.letter) {
    case 'B':
    case 'b': return unpackInteger<uint8_t>(out, in);
    case 'H':
    case 'h': return unpackInteger<uint16_t>(out, in);
    case 'I':
    case 'i':
    case 'T': return unpackInteger<uint32_t>(out, in);
    default: return unpackString(out, in, field.size);
  }
}

void show(const char *text) { ZuPrint_Show(text, 0); }

// Shows exactly `length` characters, where ZuPrint_Show would take a length of 0 as "measure it".
void showPart(const void *text, int32_t length) {
  if (length > 0) ZuPrint_Show(static_cast<const char *>(text), length);
}

void dumpTime(int number, const uint8_t *in) {
  char text[64];
  // The stamp is signed 32 bits on every host, however wide time_t is.
  ZuTime_Format(text, "YYYY/MM/DD HH:MI:SS", static_cast<int32_t>(loadBig<uint32_t>(in)));
  show(ZuString_SFormat("%04d[T]=>%s<\n", number, text));
}

// Long strings go out in pieces, so that a line is never cut; a piece of whole dump lines is parted by a newline.
void dumpHexString(int number, const uint8_t *in, int32_t size) {
  constexpr int32_t kPiece = 3264;
  static_assert(kPiece % 16 == 0, "pieces end with a dump line");
  show(ZuString_SFormat("%04d[%dS]=>\n", number, static_cast<int>(size)));
  for (int32_t shown = 0; shown < size;) {
    const int32_t piece = size - shown < kPiece ? size - shown : kPiece;
    if (shown > 0) show("\n");
    show(ZuString_SHFormat(in + shown, piece));
    shown += piece;
  }
  show("\n");
}

void dumpTextString(int number, const uint8_t *in, int32_t size) {
  const auto *text = reinterpret_cast<const char *>(in);
  show(ZuString_SFormat("%04d[%ds]=>", number, static_cast<int>(size)));
  showPart(text, static_cast<int32_t>(strnlen(text, static_cast<size_t>(size))));
  show("<\n");
}

void dumpField(const Field &field, int number, const uint8_t *in) {
  switch (field.letter) {
    case 'B': return show(ZuString_SFormat("%04d[B]=>0x%02X<\n", number, in[0]));
    case 'b':
      return show(ZuString_SFormat("%04d[B]=>%d<\n", number, in[0]));  // labelled B in both cases
    // Widened with its sign, so that 0x8000 shows as FFFF8000.
    case 'H':
      return show(ZuString_SFormat("%04d[H]=>0x%04X<\n", number,
                                   static_cast<unsigned>(static_cast<int16_t>(loadBig<uint16_t>(in)))));
    case 'h': return show(ZuString_SFormat("%04d[h]=>%d<\n", number, static_cast<int16_t>(loadBig<uint16_t>(in))));
    case 'I': return show(ZuString_SFormat("%04d[I]=>0x%08X<\n", number, loadBig<uint32_t>(in)));
    case 'i': return show(ZuString_SFormat("%04d[i]=>%d<\n", number, static_cast<int>(loadBig<uint32_t>(in))));
    case 'T': return dumpTime(number, in);
    case 'S': return dumpHexString(number, in, field.size);
    default: return dumpTextString(number, in, field.size);
  }
}

int32_t dump(const char *format, const uint8_t *in) {
  // In three parts and never as a printf format: the caller's text may be long and may hold a '%'.
  show("format:");
  show(format);
  show("\n");
  int32_t number = 0;
  for (Field field; nextField(format, &field); in += field.size) dumpField(field, ++number, in);
  return number;
}

}  // namespace

int32_t ZuBuffer_Pack(void *buffer, const char *format, ...) {
  if (!buffer || !format) return 0;
  auto *out = static_cast<uint8_t *>(buffer);
  va_list args;
  va_start(args, format);
  for (Field field; nextField(format, &field); out += field.size) {
    switch (field.letter) {
      case 'B':
      case 'b': storeBig(out, static_cast<uint8_t>(va_arg(args, unsigned))); break;
      case 'H':
      case 'h': storeBig(out, static_cast<uint16_t>(va_arg(args, unsigned))); break;
      case 'I':
      case 'i':
      case 'T': storeBig(out, va_arg(args, uint32_t)); break;
      default: packString(out, va_arg(args, const void *), field.size); break;
    }
  }
  va_end(args);
  return static_cast<int32_t>(out - static_cast<uint8_t *>(buffer));
}

int32_t ZuBuffer_UNPack(const char *format, const void *buffer, ...) {
  if (!format || !buffer) return 0;
  const auto *in = static_cast<const uint8_t *>(buffer);
  if (*format == '*') return dump(format, in);
  int32_t number = 0;
  va_list args;
  va_start(args, buffer);
  for (Field field; nextField(format, &field); in += field.size) {
    unpackField(field, in, va_arg(args, void *));
    ++number;
  }
  va_end(args);
  return number;
}

int32_t ZuBuffer_GetPackSize(const char *format, int32_t *fieldCount) {
  int64_t size = 0;
  int32_t fields = 0;
  for (Field field; format && nextField(format, &field); ++fields) {
    size = size + field.size < kLargest ? size + field.size : kLargest;
  }
  if (fieldCount) *fieldCount = fields;
  return static_cast<int32_t>(size);
}
