// fault_report.cpp: a fault file in the three formats.

#include "server/fault_report.hpp"

#include <algorithm>
#include <cstdio>
#include <map>
#include <tuple>
#include <vector>

#include "server/log_lines.hpp"
#include "server/meant.hpp"
#include "server/present.hpp"

namespace kepserver {

namespace {

constexpr int kLayoutVersion = 1;

// A line or a value. What cannot be said in its fields is a note.
struct Row {
  std::string_view fault;
  std::string_view type;
  LogLine line;                       // where it is one
  const FaultValue *value = nullptr;  // otherwise
  std::string note;
  std::vector<Shown> shown;  // of a named value: itself, or each named field

  bool hasFields() const { return !shown.empty() && shown[0].meaning != &shown[0].key->meaning; }
};

std::string_view typeOf(const FaultValue &value) {
  switch (value.item) {
    case FaultItem::kRegister:
    case FaultItem::kRegister64:
    case FaultItem::kRegisterBytes: return "register";
    case FaultItem::kCounter:
    case FaultItem::kCounter64:
    case FaultItem::kCounterBytes: return "counter";
    case FaultItem::kValue: break;
  }
  return "value";
}

const char *kindOf(FaultItem item) {
  if (holdsBytes(item)) return "buffer";
  return isLong(item) ? "long" : "int";
}

std::string noteOf(const FaultValue &value) {
  const bool isCut = holdsBytes(value.item) && value.bytes.size() < value.recordedSize;
  return isCut ? "cut from " + std::to_string(value.recordedSize) + " bytes" : "";
}

Sent sentOf(const FaultValue &value) {
  if (holdsBytes(value.item)) return sentBytes(value.bytes, false);
  Sent sent = sentNumber(value.number, isLong(value.item) ? 8 : 4);
  sent.hexadecimal = value.item == FaultItem::kRegister || value.item == FaultItem::kRegister64;
  return sent;
}

std::vector<Shown> shownOf(const Names *names, const FaultValue &value) {
  std::vector<Shown> shown;
  const FaultNames *const fault = names ? names->fault(value.fault) : nullptr;
  const Key *const key = fault ? fault->find(static_cast<FaultRecord>(value.item), value.id) : nullptr;
  if (key) present(*names, key, sentOf(value), shown);
  return shown;
}

bool isHex(const Shown &shown) { return !shown.sent.number && !shown.sent.isText; }

size_t logRecordCount(const FaultFile &file) {
  size_t count = 0;
  for (const FaultLog &log : file.logs) count += log.records.size();
  return count;
}

std::vector<Row> rowsOf(const FaultFile &file, const Names *names) {
  std::vector<Row> rows;
  std::map<std::string_view, size_t> places;  // of the faults
  for (const FaultLog &log : file.logs) {
    places.emplace(log.fault, places.size());
    const char *const type = log.kind == FaultLogKind::kInit ? "init" : "run";
    for (const LogLine &line : joinLogLines(log.records, log.isCutShort)) {
      rows.push_back({log.fault, type, line, nullptr, log.isGuessed ? "the name may be longer or shorter" : "", {}});
    }
  }
  const size_t lineCount = rows.size();
  for (const FaultValue &value : file.values) {
    places.emplace(value.fault, places.size());
    rows.push_back({value.fault, typeOf(value), {}, &value, noteOf(value), shownOf(names, value)});
  }
  const auto order = [&places](const Row &row) {
    return std::tuple(places.at(row.fault), row.type == "value" ? 2 : row.type == "counter" ? 1 : 0);
  };
  std::stable_sort(rows.begin() + static_cast<std::ptrdiff_t>(lineCount), rows.end(),
                   [&order](const Row &a, const Row &b) { return order(a) < order(b); });
  return rows;
}

bool passes(const Row &row, const FaultFilter &filter) {
  return (!filter.fault || row.fault == *filter.fault) && (!filter.type || row.type == *filter.type);
}

// Text. Addresses and contents of registers are read in hexadecimal, with all digits that they have.

using RowTable = Table<3>;

std::string hexNumber(uint64_t number, int digits) {
  char text[24] = {};
  std::snprintf(text, sizeof text, "0x%0*llx", digits, static_cast<unsigned long long>(number));
  return text;
}

RowTable::Row cellsOf(const Row &row, const Shown *shown) {
  std::string where(row.line.time);
  if (row.value) where = row.type == "register" ? hexNumber(row.value->id, 1) : std::to_string(row.value->id);
  if (shown) where = shown->name();
  return {printable(row.fault), std::string(row.type), where};
}

void putSent(Sink &out, const Row &row) {
  if (!row.value) {
    putPrintable(out, row.line.text);
  } else if (holdsBytes(row.value->item)) {
    putHex(out, row.value->bytes);
  } else if (row.type == "register") {
    out << hexNumber(row.value->number, isLong(row.value->item) ? 16 : 8);
  } else {
    out << row.value->number;
  }
}

void putShown(Sink &out, const Shown &shown, size_t numberWidth) {
  const std::string text = printable(shown.text);
  if (isNumber(shown)) out.blanks(numberWidth - widthOf(text));
  out << text;
  if (!shown.misfit && !shown.meaning->unit.empty()) out << ' ' << shown.meaning->unit;
}

// Calls take(row, shown) for each line of one of the two tables; what is not named has nothing that is shown.
template <class Take>
void forEachLine(const std::vector<Row> &rows, bool ofValues, const Take &take) {
  for (const Row &row : rows) {
    if ((row.value != nullptr) != ofValues) continue;
    for (const Shown &shown : row.shown) take(row, &shown);
    if (row.shown.empty()) take(row, static_cast<const Shown *>(nullptr));
  }
}

void putTable(Sink &out, const std::vector<Row> &rows, bool ofValues, bool isNamed) {
  const RowTable::Row head = {"fault", "type", !ofValues ? "time" : isNamed ? "name" : "id"};
  RowTable table({false, false, ofValues && !isNamed});
  table.widen(head);
  bool isEmpty = true;
  size_t numberWidth = 0;
  forEachLine(rows, ofValues, [&](const Row &row, const Shown *shown) {
    table.widen(cellsOf(row, shown));
    if (shown && isNumber(*shown)) numberWidth = std::max(numberWidth, widthOf(shown->text));
    isEmpty = false;
  });
  if (isEmpty) return;
  table.put(out, head);
  out << (ofValues ? "value\n" : "line\n");
  forEachLine(rows, ofValues, [&](const Row &row, const Shown *shown) {
    table.put(out, cellsOf(row, shown));
    if (shown) {
      putShown(out, *shown, numberWidth);
    } else {
      putSent(out, row);
    }
    if (!row.note.empty()) out << "  (" << row.note << ')';
    out << '\n';
  });
}

// JSON.

// What names add to a row; of a value whose fields have rows of their own, no more than its name.
Meant meantOf(const Row &row) {
  if (row.shown.empty()) return {};
  if (!row.hasFields()) return meantOf(row.shown[0], isHex(row.shown[0]));
  Meant meant;
  meant.name = row.shown[0].key->meaning.name;
  return meant;
}

void putSent(JsonLine &line, const FaultValue &value) {
  line.number("id", value.id).word("kind", kindOf(value.item));
  if (holdsBytes(value.item)) {
    line.hex("value", value.bytes);
  } else {
    line.number("value", value.number);
  }
}

void putJson(Sink &out, const Style &style, const Row &row) {
  JsonLine line(out, row.value ? "value" : "line", style);
  line.text("fault", row.fault).word("type", row.type);
  if (row.value) {
    putSent(line, *row.value);
  } else {
    line.word("time", row.line.time).text("text", row.line.text);
  }
  if (!row.note.empty()) line.word("note", row.note);
  putMeant(line, "id_name", meantOf(row)).end();
  if (!row.hasFields()) return;
  for (const Shown &shown : row.shown) {
    JsonLine field(out, "field", style);
    field.text("fault", row.fault).word("type", row.type).number("id", row.value->id);
    putMeant(field, "id_name", meantOf(shown, false)).end();
  }
}

// CSV.

constexpr const char *kCsvHeader = "row,fault,type,time,id,kind,value,note";
constexpr const char *kCsvAdded = ",id_name,unit,number,shown";

void putSent(CsvLine &line, const FaultValue &value) {
  line.number(value.id).word(kindOf(value.item));
  if (holdsBytes(value.item)) {
    line.hex(value.bytes);
  } else {
    line.number(value.number);
  }
}

void putCsv(Sink &out, const Style &style, const Row &row, bool isNamed) {
  CsvLine line(out, style, row.value ? "value" : "line");
  line.text(row.fault).word(row.type).word(row.line.time);
  if (row.value) {
    putSent(line, *row.value);
  } else {
    line.empty(2).text(row.line.text);
  }
  line.word(row.note);
  if (isNamed) putMeant(line, meantOf(row));
  line.end();
  if (!row.hasFields()) return;
  for (const Shown &shown : row.shown) {
    CsvLine field(out, style, "field");
    field.text(row.fault).word(row.type).empty(1).number(row.value->id).empty(3);
    putMeant(field, meantOf(shown, false)).end();
  }
}

}  // namespace

void writeFaultFile(std::ostream &out, const Style &style, const FaultFile &file, const FaultFilter &filter,
                    const Names *names) {
  const bool isNamed = names != nullptr;
  std::vector<Row> rows = rowsOf(file, names);
  rows.erase(std::remove_if(rows.begin(), rows.end(), [&filter](const Row &row) { return !passes(row, filter); }),
             rows.end());
  Sink sink(out);
  switch (style.format) {
    case Format::kText:
      putTable(sink, rows, false, isNamed);
      putTable(sink, rows, true, isNamed);
      sink << countsOf(file) << (file.whole ? "" : ", not whole") << '\n';
      break;
    case Format::kJson:
      putLayout(sink, "kep-faultlog", kLayoutVersion);
      for (const Row &row : rows) putJson(sink, style, row);
      JsonLine(sink, "summary")
          .number("log_records", logRecordCount(file))
          .number("values", file.values.size())
          .number("bytes", file.byteCount)
          .flag("whole", file.whole)
          .end();
      break;
    case Format::kCsv:
      sink << kCsvHeader << (isNamed ? kCsvAdded : "") << '\n';
      for (const Row &row : rows) putCsv(sink, style, row, isNamed);
      break;
  }
  sink.flush();
}

std::string countsOf(const FaultFile &file) {
  return std::to_string(logRecordCount(file)) + " log records, " + std::to_string(file.values.size()) + " values, " +
         std::to_string(file.byteCount) + " bytes";
}

}  // namespace kepserver
