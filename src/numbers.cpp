// numbers.cpp: plain decimal numbers. All is done in integers, so that no floating-point unit has a say in it.
//
// A double is mantissa / 2^shift, exactly. The integer part is what the shift leaves; the rest is kept as a fraction of
// 60 bits, which holds it whole for every shift of at most 60. Ten times that fits in 64 bits, and what then lies above
// the 60 is the next decimal: nothing is lost. What remains behind the last decimal is compared with one half and so
// rounded correctly, halfway cases to the even digit, as printf does with the exact value.
#include "numbers.hpp"

#include <langinfo.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr int kMantissaBits = 52;  // beside the leading one
constexpr int kExponentBias = 1023;
constexpr int kFractionBits = 60;
constexpr uint64_t kOne = uint64_t{1} << kFractionBits;
constexpr uint64_t kLargestTenth = (UINT64_MAX - 9) / 10;

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

bool pointIsPlain() {
  const char *point = nl_langinfo(RADIXCHAR);
  return point[0] == '.' && point[1] == '\0';
}

// value * 10^decimals, rounded to an integer; false where that cannot be said for certain.
bool scale(uint64_t bits, int decimals, bool roundsToNearest, uint64_t *out) {
  const int exponent = static_cast<int>(bits >> kMantissaBits & 0x7FF);
  uint64_t mantissa = bits & ((uint64_t{1} << kMantissaBits) - 1);
  if (exponent > 0) mantissa |= uint64_t{1} << kMantissaBits;
  // Infinities and subnormals are far outside.
  const int shift = mantissa == 0 ? 0 : kExponentBias + kMantissaBits - exponent;
  if (shift < 0 || shift > kFractionBits) return false;

  uint64_t scaled = mantissa >> shift;
  uint64_t rest = mantissa << (kFractionBits - shift) & (kOne - 1);
  for (int i = 0; i < decimals; ++i) {
    if (scaled > kLargestTenth) return false;
    rest *= 10;
    scaled = scaled * 10 + (rest >> kFractionBits);
    rest &= kOne - 1;
  }
  if (rest > 0 && !roundsToNearest) return false;
  if (rest > kOne / 2 || (rest == kOne / 2 && scaled % 2 != 0)) ++scaled;
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
  if (format[0] != '%' || (format[1] != 'd' && format[1] != 'u') || format[2] != '\0') return kNotPrinted;
  const bool isNegative = format[1] == 'd' && value < 0;
  const auto bits = static_cast<uint32_t>(value);
  return printDigits(text, isNegative, isNegative ? 0 - bits : bits, 0);
}

int32_t printNumber(char *text, const char *format, int64_t value) {
  if (std::strcmp(format, "%lld") != 0) return kNotPrinted;
  const auto bits = static_cast<uint64_t>(value);
  return printDigits(text, value < 0, value < 0 ? 0 - bits : bits, 0);
}

int32_t printNumber(char *text, const char *format, double value, bool roundsToNearest) {
  const int decimals = decimalsOf(format);
  if (decimals < 0 || (decimals > 0 && !pointIsPlain())) return kNotPrinted;
  uint64_t bits, scaled;
  std::memcpy(&bits, &value, sizeof bits);
  if (!scale(bits, decimals, roundsToNearest, &scaled)) return kNotPrinted;
  return printDigits(text, bits >> 63 != 0, scaled, decimals);
}
