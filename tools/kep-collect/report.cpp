// report.cpp: the three output formats. Values are printed by item, section and key; among equals, which is how the
// lines of a log arrive, the order of arrival stays.

#include "report.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <nlohmann/json.hpp>
#include <tuple>
#include <utility>

namespace kepcollect {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char *kHexDigits = "0123456789abcdef";

std::string hex(const std::string &bytes) {
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
CodePoint decodeUtf8(const std::string &bytes, size_t position) {
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

bool isUtf8(const std::string &bytes) {
  for (size_t i = 0; i < bytes.size();) {
    const size_t size = decodeUtf8(bytes, i).size;
    if (size == 0) return false;
    i += size;
  }
  return true;
}

// Controls, and the marks that break lines or reorder text: a value could use them to look like something else.
bool isUnsafe(uint32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x061C || (c >= 0x200B && c <= 0x200F) ||
         (c >= 0x2028 && c <= 0x202E) || (c >= 0x2060 && c <= 0x206F) || c == 0xFEFF;
}

std::string escaped(const std::string &bytes) {
  if (bytes == "\\") return "\\\\";
  if (bytes == "\n") return "\\n";
  if (bytes == "\r") return "\\r";
  if (bytes == "\t") return "\\t";
  std::string text;
  for (const char c : bytes) text += "\\x" + hex(std::string(1, c));
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

std::string valueText(const Value &value) {
  if (value.kind == ValueKind::kString) return printable(value.bytes);
  if (value.kind == ValueKind::kBuffer) return hex(value.bytes);
  return std::to_string(value.number);
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

using Row = std::array<std::string, 6>;
constexpr Row::size_type kLastColumn = 5;
constexpr std::array<bool, 6> kRightAligned = {true, false, true, true, false, false};

// In characters; `text` is valid UTF-8.
size_t widthOf(const std::string &text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<uint8_t>(c) & 0xC0) != 0x80; }));
}

void printTable(std::ostream &out, const std::vector<Row> &rows) {
  std::array<size_t, kLastColumn> widths{};
  for (const Row &row : rows) {
    for (size_t i = 0; i < kLastColumn; ++i) widths[i] = std::max(widths[i], widthOf(row[i]));
  }
  for (const Row &row : rows) {
    for (size_t i = 0; i < kLastColumn; ++i) {
      const std::string padding(widths[i] - widthOf(row[i]), ' ');
      out << (kRightAligned[i] ? padding + row[i] : row[i] + padding) << "  ";
    }
    out << row[kLastColumn] << '\n';
  }
}

void writeText(std::ostream &out, const Run &run) {
  if (run.identity) out << "identity " << hex(run.identity->bytes) << ", sequence " << run.identity->sequence << '\n';
  for (const auto &[index, name] : run.catalogue) out << "item " << index << ' ' << printable(name) << '\n';
  for (const std::string &name : run.tested) out << "self-test of " << printable(name) << '\n';
  std::vector<Row> rows = {{"item", "name", "section", "key", "kind", "value"}};
  for (const Value *value : sortedValues(run)) {
    rows.push_back({std::to_string(value->item), printable(itemName(run, *value)), std::to_string(value->section),
                    std::to_string(value->key), kindName(value->kind), valueText(*value)});
  }
  if (rows.size() > 1) printTable(out, rows);
  out << run.messageCount << " messages, " << run.recordCount << " records, " << run.byteCount << " bytes"
      << (run.whole ? "" : ", not whole") << '\n';
}

// JSON.

// JSON holds text only: bytes that are not UTF-8 are replaced in `key`, and stand exactly in `key`_hex.
void putBytes(Json &object, const std::string &key, const std::string &bytes) {
  object[key] = bytes;
  if (!isUtf8(bytes)) object[key + "_hex"] = hex(bytes);
}

void writeLine(std::ostream &out, const Json &object) {
  // ASCII only: whatever could steer a terminal leaves as \uXXXX.
  out << object.dump(-1, ' ', true, Json::error_handler_t::replace) << '\n';
}

Json valueObject(const Run &run, const Value &value) {
  Json object = {{"row", "value"}, {"item", value.item}};
  putBytes(object, "name", itemName(run, value));
  object.update({{"section", value.section}, {"key", value.key}, {"kind", kindName(value.kind)}});
  if (value.kind == ValueKind::kString) {
    putBytes(object, "value", value.bytes);
  } else if (value.kind == ValueKind::kBuffer) {
    object["value"] = hex(value.bytes);
  } else {
    object["value"] = value.number;
  }
  return object;
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
  for (const Value *value : sortedValues(run)) writeLine(out, valueObject(run, *value));
  writeLine(out, {{"row", "summary"},
                  {"messages", run.messageCount},
                  {"records", run.recordCount},
                  {"bytes", run.byteCount},
                  {"whole", run.whole}});
}

// CSV. Line ends are a lone line feed, which the tools that read it on Linux expect.

constexpr const char *kCsvHeader = "row,item,name,section,key,kind,value\n";

std::string quoted(const std::string &field) {
  if (field.find_first_of(",\"") == std::string::npos) return field;
  std::string text = "\"";
  for (const char c : field) text += c == '"' ? std::string("\"\"") : std::string(1, c);
  return text + '"';
}

void writeCsv(std::ostream &out, const Run &run) {
  if (run.identity) out << "identity,,,,,," << hex(run.identity->bytes) << '\n';
  for (const auto &[index, name] : run.catalogue) out << "item," << index << ',' << quoted(printable(name)) << ",,,,\n";
  for (const std::string &name : run.tested) out << "tested,," << quoted(printable(name)) << ",,,,\n";
  for (const Value *value : sortedValues(run)) {
    out << "value," << value->item << ',' << quoted(printable(itemName(run, *value))) << ',' << value->section << ','
        << value->key << ',' << kindName(value->kind) << ',' << quoted(valueText(*value)) << '\n';
  }
}

}  // namespace

std::string printable(const std::string &bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size();) {
    const CodePoint c = decodeUtf8(bytes, i);
    const std::string character = bytes.substr(i, std::max<size_t>(c.size, 1));
    text += c.size == 0 || c.value == '\\' || isUnsafe(c.value) ? escaped(character) : character;
    i += character.size();
  }
  return text;
}

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
