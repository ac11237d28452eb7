// report.cpp: the three output formats. Values are printed by item, section and key; among equals, which is how the
// lines of a log arrive, the order of arrival stays.

#include "report.hpp"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>
#include <tuple>
#include <utility>

namespace kepcollect {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char *kHexDigits = "0123456789abcdef";

// A value can have as much as a whole run: what is made of it is put in portions of so many bytes.
constexpr size_t kPortion = 65536;

std::string hex(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<uint8_t>(c);
    text += kHexDigits[byte >> 4];
    text += kHexDigits[byte & 0xF];
  }
  return text;
}

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

bool isUtf8(std::string_view bytes) {
  for (size_t i = 0; i < bytes.size();) {
    const size_t size = decodeUtf8(bytes, i).size;
    if (size == 0) return false;
    i += size;
  }
  return true;
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

void appendEscaped(std::string &text, std::string_view character) {
  constexpr std::string_view kShort = "\\\n\r\t", kLetters = "\\nrt";
  const size_t found = kShort.find(character[0]);
  if (found != std::string_view::npos) {
    text += {'\\', kLetters[found]};
    return;
  }
  for (const char c : character) text += {'\\', 'x', kHexDigits[c >> 4 & 0xF], kHexDigits[c & 0xF]};
}

// Makes bytes fit to be shown, and puts them in portions: printable UTF-8 stays as it is, a backslash becomes \\, a
// line feed \n, a carriage return \r, a tab \t, and every other byte \xHH, so that nothing a board sends can steer a
// terminal and every byte can be told.
template <class Put>
void putPrintable(std::string_view bytes, const Put &put) {
  std::string text;
  for (size_t i = 0; i < bytes.size();) {
    const CodePoint c = decodeUtf8(bytes, i);
    const std::string_view character = bytes.substr(i, std::max<size_t>(c.size, 1));
    if (c.size == 0 || c.value == '\\' || isUnsafe(c.value)) {
      appendEscaped(text, character);
    } else {
      text += character;
    }
    i += character.size();
    if (text.size() < kPortion) continue;
    put(text);
    text.clear();
  }
  put(text);
}

std::string printable(std::string_view bytes) {
  std::string text;
  putPrintable(bytes, [&text](std::string_view piece) { text += piece; });
  return text;
}

const char *kindName(ValueKind kind) {
  switch (kind) {
    case ValueKind::kInt: return "int";
    case ValueKind::kLong: return "long";
    case ValueKind::kString: return "string";
    case ValueKind::kBuffer: return "buffer";
  }
  return "";
}

void putHex(std::ostream &out, std::string_view bytes) {
  for (size_t i = 0; i < bytes.size(); i += kPortion) out << hex(bytes.substr(i, kPortion));
}

// A string's text is the caller's to put, each format having its own form.
template <class PutText>
void putValue(std::ostream &out, const Value &value, const PutText &putText) {
  if (value.kind == ValueKind::kString) {
    putText(out, value.bytes);
  } else if (value.kind == ValueKind::kBuffer) {
    putHex(out, value.bytes);
  } else {
    out << value.number;
  }
}

// A self-test announces its items by name and sends no catalogue. An index that the catalogue lacks has no name.
std::string itemName(const Run &run, const Value &value) {
  if (run.selfTest) return value.testedCount == 0 ? "" : run.tested[value.testedCount - 1];
  const auto found = run.catalogue.find(value.item);
  return found == run.catalogue.end() ? "" : found->second;
}

std::vector<const Value *> sortedValues(const Run &run) {
  std::vector<const Value *> values;
  for (const Value &value : run.values) values.push_back(&value);
  const auto order = [](const Value *v) { return std::tie(v->testedCount, v->item, v->section, v->key); };
  std::stable_sort(values.begin(), values.end(),
                   [&order](const Value *a, const Value *b) { return order(a) < order(b); });
  return values;
}

// Text.

constexpr size_t kColumnCount = 5;  // and the value, which ends the line and is as long as it likes
using Row = std::array<std::string, kColumnCount>;
using Widths = std::array<size_t, kColumnCount>;
constexpr std::array<bool, kColumnCount> kRightAligned = {true, false, true, true, false};

// In characters; `text` is valid UTF-8.
size_t widthOf(const std::string &text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<uint8_t>(c) & 0xC0) != 0x80; }));
}

Row rowOf(const Run &run, const Value &value) {
  return {std::to_string(value.item), printable(itemName(run, value)), std::to_string(value.section),
          std::to_string(value.key), kindName(value.kind)};
}

void widen(Widths &widths, const Row &row) {
  for (size_t i = 0; i < kColumnCount; ++i) widths[i] = std::max(widths[i], widthOf(row[i]));
}

void printRow(std::ostream &out, const Widths &widths, const Row &row) {
  for (size_t i = 0; i < kColumnCount; ++i) {
    const std::string padding(widths[i] - widthOf(row[i]), ' ');
    out << (kRightAligned[i] ? padding + row[i] : row[i] + padding) << "  ";
  }
}

void printText(std::ostream &out, std::string_view bytes) {
  putPrintable(bytes, [&out](std::string_view piece) { out << piece; });
}

// Rows are made twice, for their widths and to be printed, rather than all kept.
void printTable(std::ostream &out, const Run &run) {
  const std::vector<const Value *> values = sortedValues(run);
  if (values.empty()) return;
  const Row head = {"item", "name", "section", "key", "kind"};
  Widths widths{};
  widen(widths, head);
  for (const Value *value : values) widen(widths, rowOf(run, *value));
  printRow(out, widths, head);
  out << "value\n";
  for (const Value *value : values) {
    printRow(out, widths, rowOf(run, *value));
    putValue(out, *value, printText);
    out << '\n';
  }
}

void writeText(std::ostream &out, const Run &run) {
  if (run.identity) out << "identity " << hex(run.identity->bytes) << ", sequence " << run.identity->sequence << '\n';
  for (const auto &[index, name] : run.catalogue) out << "item " << index << ' ' << printable(name) << '\n';
  for (const std::string &name : run.tested) out << "self-test of " << printable(name) << '\n';
  printTable(out, run);
  out << run.messageCount << " messages, " << run.recordCount << " records, " << run.byteCount << " bytes"
      << (run.whole ? "" : ", not whole") << '\n';
}

// JSON.

// JSON holds text only: bytes that are not UTF-8 are replaced in `key`, and stand exactly in `key`_hex.
void putBytes(Json &object, const std::string &key, const std::string &bytes) {
  object[key] = bytes;
  if (!isUtf8(bytes)) object[key + "_hex"] = hex(bytes);
}

// ASCII only: whatever could steer a terminal leaves as \uXXXX.
std::string dump(const Json &json) { return json.dump(-1, ' ', true, Json::error_handler_t::replace); }

void writeLine(std::ostream &out, const Json &object) { out << dump(object) << '\n'; }

// The size of the first portion of `bytes`, which cuts no character: behind it stands none of the bytes that go on with
// one, unless there are more of them than a character has.
size_t portionOf(std::string_view bytes) {
  if (bytes.size() <= kPortion) return bytes.size();
  for (size_t size = kPortion; size > kPortion - 4; --size) {
    if ((static_cast<uint8_t>(bytes[size]) & 0xC0) != 0x80) return size;
  }
  return kPortion;
}

void putJsonText(std::ostream &out, std::string_view bytes) {
  out << '"';
  while (!bytes.empty()) {
    const size_t size = portionOf(bytes);
    const std::string text = dump(std::string(bytes.substr(0, size)));
    out << std::string_view(text).substr(1, text.size() - 2);
    bytes.remove_prefix(size);
  }
  out << '"';
}

void writeValue(std::ostream &out, const Run &run, const Value &value) {
  Json object = {{"row", "value"}, {"item", value.item}};
  putBytes(object, "name", itemName(run, value));
  object.update({{"section", value.section}, {"key", value.key}, {"kind", kindName(value.kind)}});
  std::string start = dump(object);
  start.pop_back();
  out << start << ",\"value\":";
  const char *const quote = value.kind == ValueKind::kBuffer ? "\"" : "";
  out << quote;
  putValue(out, value, putJsonText);
  out << quote;
  if (value.kind == ValueKind::kString && !isUtf8(value.bytes)) {
    out << ",\"value_hex\":\"";
    putHex(out, value.bytes);
    out << '"';
  }
  out << "}\n";
}

void writeJson(std::ostream &out, const Run &run) {
  if (run.identity) {
    writeLine(out, {{"row", "identity"}, {"identity", hex(run.identity->bytes)}, {"sequence", run.identity->sequence}});
  }
  for (const auto &[index, name] : run.catalogue) {
    Json object = {{"row", "item"}, {"item", index}};
    putBytes(object, "name", name);
    writeLine(out, object);
  }
  for (const std::string &name : run.tested) {
    Json object = {{"row", "tested"}};
    putBytes(object, "name", name);
    writeLine(out, object);
  }
  for (const Value *value : sortedValues(run)) writeValue(out, run, *value);
  writeLine(out, {{"row", "summary"},
                  {"messages", run.messageCount},
                  {"records", run.recordCount},
                  {"bytes", run.byteCount},
                  {"whole", run.whole}});
}

// CSV. Line ends are a lone line feed, which the tools that read it on Linux expect.

constexpr const char *kCsvHeader = "row,item,name,section,key,kind,value\n";

void putField(std::ostream &out, std::string_view bytes) {
  if (bytes.find_first_of(",\"") == std::string_view::npos) return printText(out, bytes);
  out << '"';
  putPrintable(bytes, [&out](std::string_view text) {
    for (const char c : text) out << c << (c == '"' ? "\"" : "");
  });
  out << '"';
}

void writeCsv(std::ostream &out, const Run &run) {
  if (run.identity) out << "identity,,,,,," << hex(run.identity->bytes) << '\n';
  for (const auto &[index, name] : run.catalogue) {
    out << "item," << index << ',';
    putField(out, name);
    out << ",,,,\n";
  }
  for (const std::string &name : run.tested) {
    out << "tested,,";
    putField(out, name);
    out << ",,,,\n";
  }
  for (const Value *value : sortedValues(run)) {
    out << "value," << value->item << ',';
    putField(out, itemName(run, *value));
    out << ',' << value->section << ',' << value->key << ',' << kindName(value->kind) << ',';
    putValue(out, *value, putField);
    out << '\n';
  }
}

}  // namespace

void Reporter::write(const Run &run) {
  switch (format_) {
    case Format::kText:
      if (!first_) out_ << '\n';
      writeText(out_, run);
      break;
    case Format::kJson: writeJson(out_, run); break;
    case Format::kCsv:
      if (first_) out_ << kCsvHeader;
      writeCsv(out_, run);
      break;
  }
  first_ = false;
  out_.flush();
}

}  // namespace kepcollect
