// numbers.cpp: plain decimal numbers. All is done in integers, so that no floating-point unit has a say in it.
//
// A double is mantissa / 2^shift, exactly. The integer part is what the shift leaves; each further decimal is ten times
// the remainder, divided by 2^shift, of which the factor two is taken from the divisor: remainder * 5 / 2^(shift - 1).
// The remainder stays below 2^shift and, as it begins with 53 bits, below 2^60 for every shift of at most 63, so that
// five times of it fit in 64 bits: nothing is lost. What remains behind the last decimal is compared with one half of
// it and so rounded correctly, halfway cases to the even digit, as printf does with the exact value.
#include "numbers.hpp"

#include <langinfo.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr int kMantissaBits = 52;  // beside the leading one
constexpr int kExponentBias = 1023;
constexpr int kLargestShift = 63;
constexpr int kSmallestShift = -10;  // integers below 2^63
constexpr uint64_t kLargestTenth = (UINT64_MAX - 9) / 10;

bool isFormat(const char *format, const char *plain) { return std::strcmp(format, plain) == 0; }

// Puts the digits of a value in front of `end`, and returns the first.
char *putDigits(char *end, uint64_t value) {
  for (; value > UINT32_MAX; value /= 10) *--end = static_cast<char>('0' + value % 10);
  auto rest = static_cast<uint32_t>(value);  // few are longer, and 64-bit divisions are slow where words have 32
  do {
    *--end = static_cast<char>('0' + rest % 10);
    rest /= 10;
  } while (rest > 0);
  return end;
}

// Prints an integer with a point in front of its last so many digits, none at 0.
int32_t printDigits(char *text, bool isNegative, uint64_t value, int decimals) {
  char digits[kLongestNumber];
  char *const end = digits + sizeof digits;
  char *begin = putDigits(end, value);
  if (decimals > 0) {
    char *const point = end - decimals - 1;
    while (begin > point) *--begin = '0';
    std::memmove(begin - 1, begin, static_cast<size_t>(point + 1 - begin));
    --begin;
    *point = '.';
  }
  if (isNegative) *--begin = '-';
  const auto length = static_cast<size_t>(end - begin);
  std::memcpy(text, begin, length);
  text[length] = '\0';
  return static_cast<int32_t>(length);
}

int32_t printSigned(char *text, int64_t value) {
  const auto bits = static_cast<uint64_t>(value);
  return printDigits(text, value < 0, value < 0 ? 0 - bits : bits, 0);
}

bool pointIsPlain() {
  const char *point = nl_langinfo(RADIXCHAR);
  return point[0] == '.' && point[1] == '\0';
}

// value * 10^decimals, rounded to an integer; false where that cannot be said for certain.
bool scale(uint64_t bits, int decimals, bool roundsToNearest, uint64_t *out) {
  const int exponent = static_cast<int>(bits >> kMantissaBits & 0x7FF);
  uint64_t rest = bits & ((uint64_t{1} << kMantissaBits) - 1);
  if (exponent > 0) rest |= uint64_t{1} << kMantissaBits;
  int shift = rest == 0 ? 0 : kExponentBias + kMantissaBits - exponent;  // infinities and subnormals are far outside
  if (shift < kSmallestShift || shift > kLargestShift) return false;

  uint64_t scaled = shift > 0 ? rest >> shift : rest << -shift;
  rest = shift > 0 ? rest - (scaled << shift) : 0;
  for (int i = 0; i < decimals; ++i) {
    if (scaled > kLargestTenth) return false;
    scaled *= 10;
    if (rest == 0) continue;
    rest *= 5;
    const uint64_t digit = rest >> --shift;
    rest -= digit << shift;
    scaled += digit;
  }
  if (rest > 0) {
    if (!roundsToNearest) return false;
    const uint64_t half = uint64_t{1} << (shift - 1);
    if (rest > half || (rest == half && scaled % 2 != 0)) ++scaled;
  }
  *out = scaled;
  return true;
}

// The decimals of "%.Nf", N a single digit; -1: another format.
int decimalsOf(const char *format) {
  const bool isFixed = format[0] == '%' && format[1] == '.' && format[2] >= '0' && format[2] <= '9' &&
                       format[3] == 'f' && format[4] == '\0';
  return isFixed ? format[2] - '0' : -1;
}

}  // namespace

// The process may have asked for another direction, which only fegetround tells, outside of libc. A conversion would
// show it too, but for a host that has inexact results end it.
bool printfRoundsToNearest() {
  static const volatile double kLess = 0.25, kMore = 0.75;
  char less[8], more[8];
  std::snprintf(less, sizeof less, "%.0f", kLess);
  std::snprintf(more, sizeof more, "%.0f", kMore);
  return less[0] == '0' && more[0] == '1';
}

int32_t printNumber(char *text, const char *format, int32_t value) {
  if (isFormat(format, "%d")) return printSigned(text, value);
  if (isFormat(format, "%u")) return printDigits(text, false, static_cast<uint32_t>(value), 0);
  return kNotPrinted;
}

int32_t printNumber(char *text, const char *format, int64_t value) {
  return isFormat(format, "%lld") ? printSigned(text, value) : kNotPrinted;
}

int32_t printNumber(char *text, const char *format, double value, bool roundsToNearest) {
  const int decimals = decimalsOf(format);
  if (decimals < 0 || (decimals > 0 && !pointIsPlain())) return kNotPrinted;
  uint64_t bits, scaled;
  std::memcpy(&bits, &value, sizeof bits);
  if (!scale(bits, decimals, roundsToNearest, &scaled)) return kNotPrinted;
  return printDigits(text, bits >> 63 != 0, scaled, decimals);
}
