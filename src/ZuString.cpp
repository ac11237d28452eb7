// ZuString.cpp: text formatting, hex dumps and splitting.
#include "kep/ZuString.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr int32_t kFormatSize = 1000;
constexpr int32_t kHexSize = 10000;
constexpr int32_t kHexLargest = 3265;  // bytes whose dump fills the hex buffer exactly
constexpr int32_t kBytesPerLine = 16;
static_assert(3 * kHexLargest + (kHexLargest - 1) / kBytesPerLine + 1 == kHexSize, "the dump and its terminator fit");

char sg_SBuffer[kFormatSize];
char sg_SHBuffer[kHexSize];

char *putHexByte(char *out, uint8_t byte) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  *out++ = kDigits[byte >> 4];
  *out++ = kDigits[byte & 0xF];
  *out++ = ' ';
  return out;
}

}  // namespace

char *ZuString_SFormat(const char *format, ...) {
  sg_SBuffer[0] = '\0';
  if (!format) return sg_SBuffer;
  va_list args;
  va_start(args, format);
  std::vsnprintf(sg_SBuffer, sizeof sg_SBuffer, format, args);
  va_end(args);
  return sg_SBuffer;
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
  return ZuString_HFormat(sg_SHBuffer, data, len < kHexLargest ? len : kHexLargest);
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
