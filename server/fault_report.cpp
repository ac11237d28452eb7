// fault_report.cpp: a fault file in the three formats.

#include "server/fault_report.hpp"

#include <algorithm>
#include <cstdio>
#include <map>
#include <tuple>
#include <vector>

#include "server/log_lines.hpp"

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

size_t logRecordCount(const FaultFile &file) {
  size_t count = 0;
  for (const FaultLog &log : file.logs) count += log.records.size();
  return count;
}

std::vector<Row> rowsOf(const FaultFile &file) {
  std::vector<Row> rows;
  std::map<std::string_view, size_t> places;  // of the faults
  for (const FaultLog &log : file.logs) {
    places.emplace(log.fault, places.size());
    const char *const type = log.kind == FaultLogKind::kInit ? "init" : "run";
    for (const LogLine &line : joinLogLines(log.records, log.isCutShort)) {
      rows.push_back({log.fault, type, line, nullptr, log.isGuessed ? "the name may be longer or shorter" : ""});
    }
  }
  const size_t lineCount = rows.size();
  for (const FaultValue &value : file.values) {
    places.emplace(value.fault, places.size());
    rows.push_back({value.fault, typeOf(value), {}, &value, noteOf(value)});
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

RowTable::Row cellsOf(const Row &row) {
  std::string where(row.line.time);
  if (row.value) where = row.type == "register" ? hexNumber(row.value->id, 1) : std::to_string(row.value->id);
  return {printable(row.fault), std::string(row.type), where};
}

void putLast(Sink &out, const Row &row) {
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

void putTable(Sink &out, const std::vector<Row> &rows, bool ofValues) {
  const RowTable::Row head = {"fault", "type", ofValues ? "id" : "time"};
  RowTable table({false, false, ofValues});
  table.widen(head);
  bool isEmpty = true;
  for (const Row &row : rows) {
    if ((row.value != nullptr) != ofValues) continue;
    table.widen(cellsOf(row));
    isEmpty = false;
  }
  if (isEmpty) return;
  table.put(out, head);
  out << (ofValues ? "value\n" : "line\n");
  for (const Row &row : rows) {
    if ((row.value != nullptr) != ofValues) continue;
    table.put(out, cellsOf(row));
    putLast(out, row);
    if (!row.note.empty()) out << "  (" << row.note << ')';
    out << '\n';
  }
}

// JSON.

void putJson(Sink &out, const Row &row) {
  JsonLine line(out, row.value ? "value" : "line");
  line.text("fault", row.fault).word("type", row.type);
  if (!row.value) {
    line.word("time", row.line.time).text("text", row.line.text);
  } else {
    line.number("id", row.value->id).word("kind", kindOf(row.value->item));
    if (holdsBytes(row.value->item)) {
      line.hex("value", row.value->bytes);
    } else {
      line.number("value", row.value->number);
    }
  }
  if (!row.note.empty()) line.word("note", row.note);
  line.end();
}

// CSV.

constexpr const char *kCsvHeader = "row,fault,type,time,id,kind,value,note\n";

void putCsv(Sink &out, const Style &style, const Row &row) {
  CsvLine line(out, style, row.value ? "value" : "line");
  line.text(row.fault).word(row.type).word(row.line.time);
  if (!row.value) {
    line.empty(2).text(row.line.text);
  } else {
    line.number(row.value->id).word(kindOf(row.value->item));
    if (holdsBytes(row.value->item)) {
      line.hex(row.value->bytes);
    } else {
      line.number(row.value->number);
    }
  }
  line.word(row.note).end();
}

}  // namespace

void writeFaultFile(std::ostream &out, const Style &style, const FaultFile &file, const FaultFilter &filter) {
  std::vector<Row> rows = rowsOf(file);
  rows.erase(std::remove_if(rows.begin(), rows.end(), [&filter](const Row &row) { return !passes(row, filter); }),
             rows.end());
  Sink sink(out);
  switch (style.format) {
    case Format::kText:
      putTable(sink, rows, false);
      putTable(sink, rows, true);
      sink << countsOf(file) << (file.whole ? "" : ", not whole") << '\n';
      break;
    case Format::kJson:
      putLayout(sink, "kep-faultlog", kLayoutVersion);
      for (const Row &row : rows) putJson(sink, row);
      JsonLine(sink, "summary")
          .number("log_records", logRecordCount(file))
          .number("values", file.values.size())
          .number("bytes", file.byteCount)
          .flag("whole", file.whole)
          .end();
      break;
    case Format::kCsv:
      sink << kCsvHeader;
      for (const Row &row : rows) putCsv(sink, style, row);
      break;
  }
  sink.flush();
}

std::string countsOf(const FaultFile &file) {
  return std::to_string(logRecordCount(file)) + " log records, " + std::to_string(file.values.size()) + " values, " +
         std::to_string(file.byteCount) + " bytes";
}

}  // namespace kepserver
