// run_report.cpp: a run in the three formats. Values are printed by item, section and key; among equals, which is how
// the lines of a log arrive, the order of arrival stays.

#include "server/run_report.hpp"

#include <algorithm>
#include <tuple>
#include <vector>

namespace kepserver {

namespace {

constexpr int kLayoutVersion = 1;

const char *kindName(ValueKind kind) {
  switch (kind) {
    case ValueKind::kInt: return "int";
    case ValueKind::kLong: return "long";
    case ValueKind::kString: return "string";
    case ValueKind::kBuffer: return "buffer";
  }
  return "";
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

using ValueTable = Table<5>;

ValueTable::Row rowOf(const Run &run, const Value &value) {
  return {std::to_string(value.item), printable(itemName(run, value)), std::to_string(value.section),
          std::to_string(value.key), kindName(value.kind)};
}

void putValue(Sink &out, const Value &value) {
  switch (value.kind) {
    case ValueKind::kInt:
    case ValueKind::kLong: out << value.number; break;
    case ValueKind::kString: putPrintable(out, value.bytes); break;
    case ValueKind::kBuffer: putHex(out, value.bytes); break;
  }
}

void putTable(Sink &out, const Run &run) {
  const std::vector<const Value *> values = sortedValues(run);
  if (values.empty()) return;
  const ValueTable::Row head = {"item", "name", "section", "key", "kind"};
  ValueTable table({true, false, true, true, false});
  table.widen(head);
  for (const Value *value : values) table.widen(rowOf(run, *value));
  table.put(out, head);
  out << "value\n";
  for (const Value *value : values) {
    table.put(out, rowOf(run, *value));
    putValue(out, *value);
    out << '\n';
  }
}

void putText(Sink &out, const Run &run) {
  if (run.identity) out << "identity " << hex(run.identity->bytes) << ", sequence " << run.identity->sequence << '\n';
  for (const auto &[index, name] : run.catalogue) out << "item " << index << ' ' << printable(name) << '\n';
  for (const std::string &name : run.tested) out << "self-test of " << printable(name) << '\n';
  putTable(out, run);
  out << run.messageCount << " messages, " << run.recordCount << " records, " << run.byteCount << " bytes"
      << (run.whole ? "" : ", not whole") << '\n';
}

// JSON.

void putJsonValue(Sink &out, const Run &run, const Value &value) {
  JsonLine line(out, "value");
  line.number("item", value.item).text("name", itemName(run, value)).number("section", value.section);
  line.number("key", value.key).word("kind", kindName(value.kind));
  switch (value.kind) {
    case ValueKind::kInt:
    case ValueKind::kLong: line.number("value", value.number); break;
    case ValueKind::kString: line.text("value", value.bytes); break;
    case ValueKind::kBuffer: line.hex("value", value.bytes); break;
  }
  line.end();
}

void putJson(Sink &out, const Run &run) {
  if (run.identity) {
    JsonLine(out, "identity").hex("identity", run.identity->bytes).number("sequence", run.identity->sequence).end();
  }
  for (const auto &[index, name] : run.catalogue) JsonLine(out, "item").number("item", index).text("name", name).end();
  for (const std::string &name : run.tested) JsonLine(out, "tested").text("name", name).end();
  for (const Value *value : sortedValues(run)) putJsonValue(out, run, *value);
  JsonLine summary(out, "summary");
  summary.number("messages", run.messageCount).number("records", run.recordCount).number("bytes", run.byteCount);
  summary.flag("whole", run.whole).end();
}

// CSV.

constexpr const char *kCsvHeader = "row,item,name,section,key,kind,value\n";

void putCsvValue(Sink &out, const Style &style, const Run &run, const Value &value) {
  CsvLine line(out, style, "value");
  line.number(value.item).text(itemName(run, value)).number(value.section).number(value.key);
  line.word(kindName(value.kind));
  switch (value.kind) {
    case ValueKind::kInt:
    case ValueKind::kLong: line.number(value.number); break;
    case ValueKind::kString: line.text(value.bytes); break;
    case ValueKind::kBuffer: line.hex(value.bytes); break;
  }
  line.end();
}

void putCsv(Sink &out, const Style &style, const Run &run) {
  if (run.identity) CsvLine(out, style, "identity").empty(5).hex(run.identity->bytes).end();
  for (const auto &[index, name] : run.catalogue) CsvLine(out, style, "item").number(index).text(name).empty(4).end();
  for (const std::string &name : run.tested) CsvLine(out, style, "tested").empty(1).text(name).empty(4).end();
  for (const Value *value : sortedValues(run)) putCsvValue(out, style, run, *value);
}

}  // namespace

void RunReporter::write(const Run &run) {
  Sink out(out_);
  switch (style_.format) {
    case Format::kText:
      if (!first_) out << '\n';
      putText(out, run);
      break;
    case Format::kJson:
      if (first_) putLayout(out, "kep-collect", kLayoutVersion);
      putJson(out, run);
      break;
    case Format::kCsv:
      if (first_) out << kCsvHeader;
      putCsv(out, style_, run);
      break;
  }
  first_ = false;
  out.flush();
}

}  // namespace kepserver
