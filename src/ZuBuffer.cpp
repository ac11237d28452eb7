// ZuBuffer.cpp: lays values end to end as a format of field letters says, reads them back, and dumps them.
#include "ZuBuffer.hpp"

#include <cstdarg>
#include <cstring>

#include "kep/ZuPrint.h"
#include "kep/ZuString.h"
#include "kep/ZuTime.h"

namespace {

constexpr int32_t kLargest = INT32_MAX;  // counts and sums saturate here

int32_t appendDigit(int32_t count, char digit) {
  if (count > kLargest / 10) return kLargest;
  const uint32_t longer = static_cast<uint32_t>(count) * 10 + static_cast<uint32_t>(digit - '0');
  return longer < kLargest ? static_cast<int32_t>(longer) : kLargest;
}

// Walks a format and hands each field to the sink, strings with their count. A count belongs to the letter directly
// behind it; every other character in between clears it. The one place that knows the letters.
template <typename Sink>
void forEachField(const char *format, Sink &sink) {
  int32_t count = 0;
  for (; *format; ++format) {
    const char letter = *format;
    // By small letters, and T as I: four cases become comparisons, which are faster here than a table of jumps.
    switch (letter == 'T' ? 'i' : letter | 0x20) {
      case 'b': sink.byte(letter); break;
      case 'h': sink.half(letter); break;
      case 'i': sink.word(letter); break;
      case 's': sink.string(letter, count); break;
      default:
        if (letter >= '0' && letter <= '9') {
          count = appendDigit(count, letter);
          continue;
        }
    }
    count = 0;
  }
}

// Sinks reach the arguments through a pointer, which lets the compiler keep the rest of a sink in registers.
struct Packer {
  uint8_t *out;
  va_list *args;

  void byte(char) { *out++ = static_cast<uint8_t>(va_arg(*args, unsigned)); }
  void half(char) { out = storeBig(out, static_cast<uint16_t>(va_arg(*args, unsigned))); }
  void word(char) { out = storeBig(out, va_arg(*args, uint32_t)); }
  void string(char, int32_t size) {
    const auto length = static_cast<size_t>(size);
    if (const void *source = va_arg(*args, const void *)) {
      std::memcpy(out, source, length);
    } else {
      std::memset(out, 0, length);  // what leaves in a record was written
    }
    out += length;
  }
};

struct Unpacker {
  const uint8_t *in;
  int32_t fields;
  va_list *args;

  void byte(char) { number<uint8_t>(); }
  void half(char) { number<uint16_t>(); }
  void word(char) { number<uint32_t>(); }
  void string(char, int32_t size) {
    const auto length = static_cast<size_t>(size);
    if (auto *out = va_arg(*args, char *)) {
      std::memcpy(out, in, length);
      out[length] = '\0';
    }
    in += length;
    ++fields;
  }

  template <typename Unsigned>
  void number() {
    const auto value = loadBig<Unsigned>(in);
    if (void *out = va_arg(*args, void *)) std::memcpy(out, &value, sizeof value);
    in += sizeof value;
    ++fields;
  }
};

struct Sizer {
  int32_t size;
  int32_t fields;

  void byte(char) { add(1); }
  void half(char) { add(2); }
  void word(char) { add(4); }
  void string(char, int32_t count) { add(count); }

  void add(int32_t more) {
    size = more < kLargest - size ? size + more : kLargest;
    ++fields;
  }
};

void show(const char *text) { ZuPrint_Show(text, 0); }

// Shows exactly `length` characters, where ZuPrint_Show would take a length of 0 as "measure it".
void showPart(const char *text, int32_t length) {
  if (length > 0) ZuPrint_Show(text, length);
}

// Prints each field as one line, strings of any length included: they go out in pieces.
struct Dumper {
  const uint8_t *in;
  int number;

  void byte(char letter) {
    const unsigned value = take<uint8_t>();
    // Both cases are labelled B.
    show(letter == 'B' ? ZuString_SFormat("%04d[B]=>0x%02X<\n", number, value)
                       : ZuString_SFormat("%04d[B]=>%u<\n", number, value));
  }

  void half(char letter) {
    const int value = static_cast<int16_t>(take<uint16_t>());
    // Widened with its sign, so that 0x8000 shows as FFFF8000.
    show(letter == 'H' ? ZuString_SFormat("%04d[H]=>0x%04X<\n", number, static_cast<unsigned>(value))
                       : ZuString_SFormat("%04d[h]=>%d<\n", number, value));
  }

  void word(char letter) {
    const auto value = take<uint32_t>();
    switch (letter) {
      case 'I': show(ZuString_SFormat("%04d[I]=>0x%08X<\n", number, value)); break;
      case 'i': show(ZuString_SFormat("%04d[i]=>%d<\n", number, static_cast<int>(value))); break;
      default: time(static_cast<int32_t>(value)); break;  // signed 32 bits on every host, however wide time_t is
    }
  }

  void time(int32_t stamp) const {
    char text[64];
    show(ZuString_SFormat("%04d[T]=>%s<\n", number, ZuTime_Format(text, "YYYY/MM/DD HH:MI:SS", stamp)));
  }

  void string(char letter, int32_t size) {
    ++number;
    letter == 'S' ? bytes(size) : text(size);
    in += size;
  }

  void bytes(int32_t size) const {
    constexpr int32_t kPiece = 3264;
    static_assert(kPiece % 16 == 0, "a piece ends where a line of the hex dump ends");
    show(ZuString_SFormat("%04d[%dS]=>\n", number, static_cast<int>(size)));
    for (int32_t shown = 0; shown < size; shown += kPiece) {
      if (shown > 0) show("\n");
      show(ZuString_SHFormat(in + shown, size - shown < kPiece ? size - shown : kPiece));
    }
    show("\n");
  }

  void text(int32_t size) const {
    const auto *begin = reinterpret_cast<const char *>(in);
    show(ZuString_SFormat("%04d[%ds]=>", number, static_cast<int>(size)));
    showPart(begin, static_cast<int32_t>(strnlen(begin, static_cast<size_t>(size))));
    show("<\n");
  }

  template <typename Unsigned>
  Unsigned take() {
    const auto value = loadBig<Unsigned>(in);
    in += sizeof value;
    ++number;
    return value;
  }
};

int32_t dump(const char *format, const uint8_t *in) {
  // In three parts and never as a printf format: the caller's text may be long and may hold a '%'.
  show("format:");
  show(format);
  show("\n");
  Dumper dumper = {in, 0};
  forEachField(format, dumper);
  return dumper.number;
}

}  // namespace

int32_t ZuBuffer_Pack(void *buffer, const char *format, ...) {
  if (!buffer || !format) return 0;
  va_list args;
  va_start(args, format);
  Packer packer = {static_cast<uint8_t *>(buffer), &args};
  forEachField(format, packer);
  va_end(args);
  return static_cast<int32_t>(packer.out - static_cast<uint8_t *>(buffer));
}

int32_t ZuBuffer_UNPack(const char *format, const void *buffer, ...) {
  if (!format || !buffer) return 0;
  const auto *in = static_cast<const uint8_t *>(buffer);
  if (*format == '*') return dump(format, in);
  va_list args;
  va_start(args, buffer);
  Unpacker unpacker = {in, 0, &args};
  forEachField(format, unpacker);
  va_end(args);
  return unpacker.fields;
}

int32_t ZuBuffer_GetPackSize(const char *format, int32_t *fieldCount) {
  Sizer sizer = {0, 0};
  if (format) forEachField(format, sizer);
  if (fieldCount) *fieldCount = sizer.fields;
  return sizer.size;
}
