// text.cpp: UTF-8, and which of its characters show what they are.

#include "server/text.hpp"

#include <clocale>
#include <cwchar>

#include <algorithm>
#include <array>

namespace kepserver {

namespace {

constexpr const char *kHexDigits = "0123456789abcdef";

struct CodePoint {
  uint32_t value = 0;
  size_t size = 0;  // in bytes; 0: not UTF-8
};

// Decodes the character at `position`. Overlong forms, surrogates and what lies beyond Unicode are not UTF-8.
CodePoint decodeUtf8(std::string_view bytes, size_t position) {
  constexpr std::array<uint32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  const auto lead = static_cast<uint8_t>(bytes[position]);
  if (lead < 0x80) return {lead, 1};
  const size_t size = lead >= 0xF8 ? 0 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
  if (size == 0 || bytes.size() - position < size) return {};
  uint32_t value = lead & (0x7Fu >> size);
  for (size_t i = 1; i < size; ++i) {
    const auto next = static_cast<uint8_t>(bytes[position + i]);
    if ((next & 0xC0) != 0x80) return {};
    value = value << 6 | (next & 0x3F);
  }
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  if (value < kSmallest[size] || value > 0x10FFFF || surrogate) return {};
  return {value, size};
}

struct Range {
  uint32_t first = 0, last = 0;
};

// Controls, what breaks lines or turns text around, and what does not show: a value could use them to look like
// something else. From Unicode 15: the general categories Cc, Cf, Zl and Zp of UnicodeData.txt, and
// Default_Ignorable_Code_Point of DerivedCoreProperties.txt.
constexpr std::array<Range, 27> kUnsafe = {{
    {0x0, 0x1F},        {0x7F, 0x9F},       {0xAD, 0xAD},       {0x34F, 0x34F},     {0x600, 0x605},
    {0x61C, 0x61C},     {0x6DD, 0x6DD},     {0x70F, 0x70F},     {0x890, 0x891},     {0x8E2, 0x8E2},
    {0x115F, 0x1160},   {0x17B4, 0x17B5},   {0x180B, 0x180F},   {0x200B, 0x200F},   {0x2028, 0x202E},
    {0x2060, 0x206F},   {0x3164, 0x3164},   {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0},
    {0xFFF0, 0xFFFB},   {0x110BD, 0x110BD}, {0x110CD, 0x110CD}, {0x13430, 0x1343F}, {0x1BCA0, 0x1BCA3},
    {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF},
}};

bool isUnsafe(uint32_t c) {
  const auto range = std::lower_bound(kUnsafe.begin(), kUnsafe.end(), c,
                                      [](const Range &r, uint32_t character) { return r.last < character; });
  return range != kUnsafe.end() && range->first <= c;
}

template <class Target>
void appendEscaped(Target &target, std::string_view character) {
  constexpr std::string_view kShort = "\\\n\r\t", kLetters = "\\nrt";
  const size_t found = kShort.find(character[0]);
  if (found != std::string_view::npos) {
    const char escape[] = {'\\', kLetters[found]};
    target.append(std::string_view(escape, sizeof escape));
    return;
  }
  for (const char c : character) {
    const char escape[] = {'\\', 'x', kHexDigits[c >> 4 & 0xF], kHexDigits[c & 0xF]};
    target.append(std::string_view(escape, sizeof escape));
  }
}

template <class Target>
void appendPrintable(Target &target, std::string_view bytes) {
  if (isPlain(bytes)) {
    target.append(bytes);
    return;
  }
  for (size_t i = 0; i < bytes.size();) {
    const CodePoint c = decodeUtf8(bytes, i);
    const std::string_view character = bytes.substr(i, std::max<size_t>(c.size, 1));
    if (c.size == 0 || c.value == '\\' || isUnsafe(c.value)) {
      appendEscaped(target, character);
    } else {
      target.append(character);
    }
    i += character.size();
  }
}

// Calls take(size, columns) for each character until it returns false. The C library knows how wide each is, in any
// locale of UTF-8 the same; where it has none, or does not know a character, that takes one column.
template <class Take>
void forEachWidth(std::string_view text, const Take &take) {
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  const locale_t before = uselocale(utf8);
  bool goesOn = true;
  for (size_t i = 0, size; goesOn && i < text.size(); i += size) {
    const CodePoint c = decodeUtf8(text, i);
    size = std::max<size_t>(c.size, 1);
    const int width = wcwidth(static_cast<wchar_t>(c.value));
    goesOn = take(size, width < 0 ? size_t{1} : static_cast<size_t>(width));
  }
  uselocale(before);
}

template <class Target>
void appendHex(Target &target, std::string_view bytes) {
  for (const char c : bytes) {
    const char digits[] = {kHexDigits[c >> 4 & 0xF], kHexDigits[c & 0xF]};
    target.append(std::string_view(digits, sizeof digits));
  }
}

}  // namespace

bool isUtf8(std::string_view bytes) {
  if (isPlain(bytes)) return true;
  for (size_t i = 0; i < bytes.size();) {
    const size_t size = decodeUtf8(bytes, i).size;
    if (size == 0) return false;
    i += size;
  }
  return true;
}

bool isPlain(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char c) { return c >= ' ' && c < 0x7F && c != '\\' && c != '"'; });
}

std::string printable(std::string_view bytes) {
  std::string text;
  appendPrintable(text, bytes);
  return text;
}

void putPrintable(Sink &out, std::string_view bytes) { appendPrintable(out, bytes); }

std::string hex(std::string_view bytes) {
  std::string text;
  appendHex(text, bytes);
  return text;
}

void putHex(Sink &out, std::string_view bytes) { appendHex(out, bytes); }

size_t portionOf(std::string_view bytes) {
  if (bytes.size() <= Sink::kPortion) return bytes.size();
  size_t size = Sink::kPortion;
  while (size > Sink::kPortion - 3 && (static_cast<uint8_t>(bytes[size]) & 0xC0) == 0x80) --size;
  return size;
}

size_t widthOf(std::string_view text) {
  size_t width = 0;
  if (isPlain(text)) return text.size();
  forEachWidth(text, [&width](size_t, size_t columns) {
    width += columns;
    return true;
  });
  return width;
}

size_t prefixOf(std::string_view text, size_t columns) {
  size_t prefix = 0, left = columns;
  // With the next byte, as a character without a width of its own could begin there.
  if (isPlain(text.substr(0, columns + 1))) return std::min(text.size(), columns);
  forEachWidth(text, [&](size_t size, size_t width) {
    if (width > left) return false;
    left -= width;
    prefix += size;
    return true;
  });
  return prefix;
}

}  // namespace kepserver
