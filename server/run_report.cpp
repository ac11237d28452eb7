// run_report.cpp: a run in the three formats, as it was sent; in JSON and CSV with what its names add.

#include "server/run_report.hpp"

#include <optional>
#include <string>
#include <vector>

#include "server/meant.hpp"
#include "server/named_text.hpp"
#include "server/times.hpp"

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
}

void putCounts(Sink &out, const Run &run) {
  out << run.messageCount << " messages, " << run.recordCount << " records, " << run.byteCount << " bytes"
      << (run.whole ? "" : ", not whole") << '\n';
}

// What names add to a row of JSON or CSV.

struct Added {
  std::string_view sectionName;
  Meant meant;
  Verdict verdict = Verdict::kNone;
  std::string time;  // with its year and zone, of a log's line
};

const char *verdictName(Verdict verdict) {
  switch (verdict) {
    case Verdict::kNone: return "";
    case Verdict::kPass: return "pass";
    case Verdict::kFail: return "fail";
  }
  return "";
}

Added addedOf(const NamedRun &named, const NamedValue &value, const Shown &shown) {
  const bool isText = value.value->kind == ValueKind::kString;
  const bool isInRow = !value.hasFields() && !shown.sent.number && (isText || !shown.sent.isText);
  return {value.sectionName, meantOf(shown, isInRow), shown.verdict, named.fullTime(value.time)};
}

// Of a value whose fields have rows of their own.
Added addedOf(const NamedValue &value) {
  Added added;
  added.sectionName = value.sectionName;
  if (value.key) added.meant.name = value.key->meaning.name;
  return added;
}

// Calls take(value, added, shown) for each row: a value, and behind it its fields, for which `shown` is not nullptr.
template <class Take>
void forEachRow(const NamedRun &named, const Take &take) {
  named.forEach([&](const NamedValue &value) {
    const bool isWhole = value.shown.empty() || value.hasFields();
    take(*value.value, isWhole ? addedOf(value) : addedOf(named, value, value.shown[0]), nullptr);
    if (!value.hasFields()) return;
    for (const Shown &shown : value.shown) take(*value.value, addedOf(named, value, shown), &shown);
  });
}

// JSON.

JsonLine beginJsonValue(Sink &out, const Style &style, const char *row, const Run &run, const Value &value) {
  JsonLine line(out, row, style);
  line.number("item", value.item).text("name", itemName(run, value)).number("section", value.section);
  line.number("key", value.key);
  return line;
}

void putJsonContent(JsonLine &line, const Value &value) {
  line.word("kind", kindName(value.kind));
  switch (value.kind) {
    case ValueKind::kInt:
    case ValueKind::kLong: line.number("value", value.number); break;
    case ValueKind::kString: line.text("value", value.bytes); break;
    case ValueKind::kBuffer: line.hex("value", value.bytes); break;
  }
}

void putJsonAdded(JsonLine &line, const Added &added) {
  if (!added.sectionName.empty()) line.text("section_name", added.sectionName);
  putMeant(line, "key_name", added.meant);
  if (added.verdict != Verdict::kNone) line.word("verdict", verdictName(added.verdict));
  if (!added.time.empty()) line.word("time", added.time);
}

void putJsonHead(Sink &out, const Run &run) {
  if (run.identity) {
    JsonLine(out, "identity").hex("identity", run.identity->bytes).number("sequence", run.identity->sequence).end();
  }
  for (const auto &[index, name] : run.catalogue) JsonLine(out, "item").number("item", index).text("name", name).end();
  for (const std::string &name : run.tested) JsonLine(out, "tested").text("name", name).end();
}

JsonLine &putJsonCounts(JsonLine &line, const Run &run) {
  line.number("messages", run.messageCount).number("records", run.recordCount).number("bytes", run.byteCount);
  return line.flag("whole", run.whole);
}

void putJson(Sink &out, const Style &style, const Run &run) {
  putJsonHead(out, run);
  for (const Value *value : sortedValues(run)) {
    JsonLine line = beginJsonValue(out, style, "value", run, *value);
    putJsonContent(line, *value);
    line.end();
  }
  JsonLine summary(out, "summary");
  putJsonCounts(summary, run).end();
}

void putJsonVerdicts(Sink &out, const Judgement &judgement) {
  for (const MissingTest &test : judgement.missing) {
    JsonLine(out, "missing")
        .text("name", test.item)
        .text("key_name", test.name)
        .word("verdict", verdictName(Verdict::kFail))
        .end();
  }
  for (const ItemResult &result : judgement.items) {
    JsonLine line(out, "result");
    line.text("name", result.item);
    if (result.tests.verdict() != Verdict::kNone) line.word("verdict", verdictName(result.tests.verdict()));
    line.end();
  }
}

void putJson(Sink &out, const Style &style, const NamedRun &named) {
  const Run &run = named.run();
  putJsonHead(out, run);
  forEachRow(named, [&](const Value &value, const Added &added, const Shown *field) {
    JsonLine line = beginJsonValue(out, style, field ? "field" : "value", run, value);
    if (!field) putJsonContent(line, value);
    putJsonAdded(line, added);
    line.end();
  });
  const Judgement judgement = run.selfTest ? judge(named.names(), run) : Judgement();
  putJsonVerdicts(out, judgement);
  JsonLine summary(out, "summary");
  putJsonCounts(summary, run);
  if (run.selfTest) summary.number("tests", judgement.tests.count).number("failed", judgement.tests.failed);
  summary.end();
}

// CSV.

constexpr const char *kCsvHeader = "row,item,name,section,key,kind,value";
constexpr const char *kCsvAdded = ",section_name,key_name,unit,number,shown,verdict,time";
constexpr size_t kAddedColumns = 7;

CsvLine beginCsvValue(Sink &out, const Style &style, const char *row, const Run &run, const Value &value) {
  CsvLine line(out, style, row);
  line.number(value.item).text(itemName(run, value)).number(value.section).number(value.key);
  return line;
}

void putCsvContent(CsvLine &line, const Value &value) {
  line.word(kindName(value.kind));
  switch (value.kind) {
    case ValueKind::kInt:
    case ValueKind::kLong: line.number(value.number); break;
    case ValueKind::kString: line.text(value.bytes); break;
    case ValueKind::kBuffer: line.hex(value.bytes); break;
  }
}

void putCsvAdded(CsvLine &line, const Added &added) {
  putMeant(line.text(added.sectionName), added.meant).word(verdictName(added.verdict)).word(added.time);
}

void putCsvHead(Sink &out, const Style &style, const Run &run, size_t added) {
  if (run.identity) CsvLine(out, style, "identity").empty(5).hex(run.identity->bytes).empty(added).end();
  for (const auto &[index, name] : run.catalogue) {
    CsvLine(out, style, "item").number(index).text(name).empty(4 + added).end();
  }
  for (const std::string &name : run.tested) CsvLine(out, style, "tested").empty(1).text(name).empty(4 + added).end();
}

void putCsv(Sink &out, const Style &style, const Run &run) {
  putCsvHead(out, style, run, 0);
  for (const Value *value : sortedValues(run)) {
    CsvLine line = beginCsvValue(out, style, "value", run, *value);
    putCsvContent(line, *value);
    line.end();
  }
}

void putCsvVerdict(Sink &out, const Style &style, const char *row, std::string_view item, const Added &added) {
  CsvLine line(out, style, row);
  line.empty(1).text(item).empty(4);
  putCsvAdded(line, added);
  line.end();
}

void putCsvVerdicts(Sink &out, const Style &style, const Judgement &judgement) {
  for (const MissingTest &test : judgement.missing) {
    Added added;
    added.meant.name = test.name;
    added.verdict = Verdict::kFail;
    putCsvVerdict(out, style, "missing", test.item, added);
  }
  for (const ItemResult &result : judgement.items) {
    Added added;
    added.verdict = result.tests.verdict();
    putCsvVerdict(out, style, "result", result.item, added);
  }
}

void putCsv(Sink &out, const Style &style, const NamedRun &named) {
  const Run &run = named.run();
  putCsvHead(out, style, run, kAddedColumns);
  forEachRow(named, [&](const Value &value, const Added &added, const Shown *field) {
    CsvLine line = beginCsvValue(out, style, field ? "field" : "value", run, value);
    if (field) {
      line.empty(2);
    } else {
      putCsvContent(line, value);
    }
    putCsvAdded(line, added);
    line.end();
  });
  if (run.selfTest) putCsvVerdicts(out, style, judge(named.names(), run));
}

}  // namespace

void RunReporter::begin(Sink &out, bool isNamed) {
  switch (style_.format) {
    case Format::kText:
      if (!first_) out << '\n';
      break;
    case Format::kJson:
      if (first_) putLayout(out, "kep-collect", kLayoutVersion);
      break;
    case Format::kCsv:
      if (first_) out << kCsvHeader << (isNamed ? kCsvAdded : "") << '\n';
      break;
  }
  first_ = false;
  if (!stamp_.empty()) putStamp(out, isNamed);
}

void RunReporter::putStamp(Sink &out, bool isNamed) const {
  switch (style_.format) {
    case Format::kText: out << "run " << number_ << ", " << stamp_ << '\n'; break;
    case Format::kJson: JsonLine(out, "run").number("run", number_).word("time", stamp_).end(); break;
    case Format::kCsv:
      CsvLine(out, style_, "run")
          .empty(3)
          .number(number_)
          .empty(1)
          .word(stamp_)
          .empty(isNamed ? kAddedColumns : 0)
          .end();
      break;
  }
}

void RunReporter::stampNext(uint64_t number, int64_t collected) {
  const std::optional<BoardTime> time = readTime(timeText(static_cast<uint32_t>(collected), 0));
  number_ = number;
  stamp_ = time ? isoTime(*time, 0, collected) : "";
}

void RunReporter::write(const Run &run) {
  Sink out(out_);
  begin(out, false);
  switch (style_.format) {
    case Format::kText:
      putText(out, run);
      putCounts(out, run);
      break;
    case Format::kJson: putJson(out, style_, run); break;
    case Format::kCsv: putCsv(out, style_, run); break;
  }
  out.flush();
}

void RunReporter::write(const Run &run, const Names &names, int64_t collected) {
  Sink out(out_);
  begin(out, true);
  const NamedRun named(names, run, collected);
  switch (style_.format) {
    case Format::kText:
      putNamedText(out, style_, named);
      putCounts(out, run);
      break;
    case Format::kJson: putJson(out, style_, named); break;
    case Format::kCsv: putCsv(out, style_, named); break;
  }
  out.flush();
}

}  // namespace kepserver
