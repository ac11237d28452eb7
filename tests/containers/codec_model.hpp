// codec_model.hpp: an oracle for the pack codec, for tests and fuzzing; it needs no test framework.
//
// It reads a format into a list of fields first, cuts bytes into them, and makes values and texts from the pieces.
#pragma once

#include <kep/ZuBuffer.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/platform_double.hpp"

namespace codec {

// A copy in a heap block of just its size, so that a sanitizer sees any step over its end.
inline std::unique_ptr<char[]> exactCopy(const std::string &bytes) {
  auto copy = std::make_unique<char[]>(bytes.size());
  std::memcpy(copy.get(), bytes.data(), bytes.size());
  return copy;
}

inline std::unique_ptr<char[]> exactText(const std::string &text) { return exactCopy(text + '\0'); }

struct Field {
  char letter;
  size_t size;
  bool isText() const { return letter == 's' || letter == 'S'; }
};

inline std::vector<Field> parse(const std::string &format) {
  constexpr std::string_view kLetters = "BbHhIiTSs";
  constexpr size_t kSizes[] = {1, 1, 2, 2, 4, 4, 4};
  std::vector<Field> fields;
  std::string digits;
  for (const char c : format) {
    const size_t at = kLetters.find(c);
    const auto count = std::min(std::strtoull(digits.c_str(), nullptr, 10), 0x7FFFFFFFULL);
    if (at != std::string_view::npos) fields.push_back({c, at < 7 ? kSizes[at] : static_cast<size_t>(count)});
    digits = c >= '0' && c <= '9' ? digits + c : "";
  }
  return fields;
}

inline int64_t sizeOf(const std::vector<Field> &fields) {
  int64_t size = 0;
  for (const Field &field : fields) size += static_cast<int64_t>(field.size);
  return size;
}

// The number in big-endian bytes; where it is wider than they are, other bits stand above it.
inline uint32_t numberOf(const std::string &bytes) {
  uint32_t number = 0xA5A5A5A5;
  for (const char byte : bytes) number = number << 8 | static_cast<uint8_t>(byte);
  return number;
}

// Data for all fields, by repeating the bytes. Stamps of 0, which would show as the moment's, get another time.
inline std::string fill(const std::vector<Field> &fields, const std::string &bytes) {
  std::string all;
  for (const Field &field : fields) {
    const size_t at = all.size();
    while (all.size() < at + field.size) all += bytes.empty() ? '\0' : bytes[all.size() % bytes.size()];
    if (field.letter == 'T' && numberOf(all.substr(at)) == 0) all[at] = 1;
  }
  return all;
}

inline std::string hexText(const std::string &bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    const auto byte = static_cast<uint8_t>(bytes[i]);
    if (i > 0 && i % 16 == 0) text += '\n';
    text += {"0123456789ABCDEF"[byte / 16], "0123456789ABCDEF"[byte % 16], ' '};
  }
  return text;
}

inline std::string lineOf(const Field &field, const std::string &bytes) {
  const uint32_t number = numberOf(bytes);
  const auto half = static_cast<int16_t>(number);
  const time_t time = static_cast<int32_t>(number);
  char text[64] = "";
  switch (field.letter) {
    case 'B': std::snprintf(text, sizeof text, "B]=>0x%02X<", number & 0xFF); break;
    case 'b': std::snprintf(text, sizeof text, "B]=>%u<", number & 0xFF); break;
    case 'H': std::snprintf(text, sizeof text, "H]=>0x%04X<", static_cast<uint32_t>(half)); break;
    case 'h': std::snprintf(text, sizeof text, "h]=>%d<", half); break;
    case 'I': std::snprintf(text, sizeof text, "I]=>0x%08X<", number); break;
    case 'i': std::snprintf(text, sizeof text, "i]=>%d<", static_cast<int32_t>(number)); break;
    case 'T': std::strftime(text, sizeof text, "T]=>%Y/%m/%d %H:%M:%S<", std::localtime(&time)); break;
    case 'S': return std::to_string(field.size) + "S]=>\n" + hexText(bytes);
    default: return std::to_string(field.size) + "s]=>" + bytes.c_str() + "<";
  }
  return text;
}

// What a dump by a format that begins with '*' prints.
inline std::string dumpText(const std::string &format, const std::string &data) {
  std::string text = "format:" + format + "\n";
  size_t at = 0;
  int number = 0;
  for (const Field &field : parse(format)) {
    char head[16];
    std::snprintf(head, sizeof head, "%04d[", ++number);
    text += head + lineOf(field, data.substr(at, field.size)) + "\n";
    at += field.size;
  }
  return text;
}

constexpr size_t kMostArguments = 7;  // more than registers hold, on either target

// Packs the fields of `source`, adding one argument after the other, each with the type that its field asks for.
template <typename... Args>
int32_t pack(void *out, const char *format, const std::vector<Field> &fields, const char *source, Args... args) {
  constexpr size_t done = sizeof...(args);
  if (done == fields.size()) return ZuBuffer_Pack(out, format, args...);
  if constexpr (done < kMostArguments) {
    const size_t size = fields[done].size;
    if (fields[done].isText()) return pack(out, format, fields, source + size, args..., source);
    return pack(out, format, fields, source + size, args..., numberOf(std::string(source, size)));
  }
  return -1;
}

// Unpacks into blocks of the right sizes, without a destination for the fields whose bit is set in `skipped`.
inline std::string unpackDifference(const char *format, const std::vector<Field> &fields, const char *data,
                                    unsigned skipped) {
  std::unique_ptr<char[]> out[kMostArguments];
  for (size_t i = 0; i < fields.size(); ++i) {
    if (!(skipped >> i & 1)) out[i] = exactCopy(std::string(fields[i].size + fields[i].isText(), '#'));
  }
  const int32_t count = ZuBuffer_UNPack(format, data, out[0].get(), out[1].get(), out[2].get(), out[3].get(),
                                        out[4].get(), out[5].get(), out[6].get());
  if (count != static_cast<int32_t>(fields.size())) return "fields unpacked: " + std::to_string(count);
  for (size_t i = 0; i < fields.size(); ++i) {
    std::string expected(data, fields[i].size);
    if (!fields[i].isText() && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__)
      std::reverse(expected.begin(), expected.end());
    if (fields[i].isText()) expected += '\0';
    if (out[i] && std::memcmp(out[i].get(), expected.data(), expected.size()) != 0) return "field " + std::to_string(i);
    data += fields[i].size;
  }
  return "";
}

// Does all that the codec offers with a format and the bytes that its fields get. Returns what it does otherwise than
// this model, or an empty text. What is too large or has too many fields is only measured, or only dumped.
inline std::string difference(const std::string &format, const std::string &bytes, unsigned skipped) {
  constexpr int64_t kLargest = 8192;
  const std::vector<Field> fields = parse(format);
  const int64_t size = sizeOf(fields);
  const auto text = exactText(format), dumpFormat = exactText("*" + format);
  int32_t count = -1;
  const int32_t measured = ZuBuffer_GetPackSize(text.get(), &count);
  if (measured != std::min<int64_t>(size, INT32_MAX)) return "size: " + std::to_string(measured);
  if (count != static_cast<int32_t>(fields.size())) return "fields measured: " + std::to_string(count);
  if (size > kLargest) return "";

  const std::string layout = fill(fields, bytes);
  const auto data = exactCopy(layout), packed = exactCopy(std::string(layout.size(), '#'));
  if (fields.size() <= kMostArguments) {
    if (pack(packed.get(), text.get(), fields, data.get()) != size) return "size packed";
    if (std::memcmp(packed.get(), data.get(), layout.size()) != 0) return "bytes packed";
    const std::string wrong = format[0] == '*' ? "" : unpackDifference(text.get(), fields, data.get(), skipped);
    if (!wrong.empty()) return wrong;
  }
  platform::takePrinted();
  if (ZuBuffer_UNPack(dumpFormat.get(), data.get()) != count) return "fields dumped";
  const std::string shown = platform::takePrinted(), expected = dumpText("*" + format, layout);
  return shown == expected ? "" : "dump: " + shown + "\nexpected: " + expected;
}

}  // namespace codec
