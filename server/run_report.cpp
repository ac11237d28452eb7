// run_report.cpp: a run in the three formats, as it was sent; in JSON and CSV with what its names add.

#include "server/run_report.hpp"

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/meant.hpp"
#include "server/named_text.hpp"
#include "server/times.hpp"

namespace kepserver {

namespace {

constexpr int kLayoutVersion = 1;

using Values = std::vector<const Value *>;

const char *kindName(ValueKind kind) {
  switch (kind) {
    case ValueKind::kInt: return "int";
    case ValueKind::kLong: return "long";
    case ValueKind::kString: return "string";
    case ValueKind::kBuffer: break;
  }
  return "buffer";
}

// Text.

using ValueTable = Table<5>;

ValueTable::Row rowOf(const Run &run, const Value &value, const char *kind) {
  return {std::to_string(value.item), printable(itemName(run, value)), std::to_string(value.section),
          std::to_string(value.key), kind};
}

void putValue(Sink &out, const Value &value) {
  switch (value.kind) {
    case ValueKind::kInt:
    case ValueKind::kLong: out << value.number; break;
    case ValueKind::kString: putPrintable(out, value.bytes); break;
    case ValueKind::kBuffer: putHex(out, value.bytes); break;
  }
}

// Calls take(row, value) for each line; of what is gone it is the last that was there.
template <class Take>
void forEachLine(const Part &part, const Take &take) {
  for (const Value *value : part.values) take(rowOf(part.run, *value, kindName(value->kind)), *value);
  for (const Value *value : part.gone) take(rowOf(*part.before, *value, "gone"), *value);
}

void putTable(Sink &out, const Part &part) {
  if (part.values.empty() && part.gone.empty()) return;
  const ValueTable::Row head = {"item", "name", "section", "key", "kind"};
  ValueTable table({true, false, true, true, false});
  table.widen(head);
  forEachLine(part, [&table](const ValueTable::Row &row, const Value &) { table.widen(row); });
  table.put(out, head);
  out << "value\n";
  forEachLine(part, [&](const ValueTable::Row &row, const Value &value) {
    table.put(out, row);
    putValue(out, value);
    out << '\n';
  });
}

void putItems(Sink &out, const std::vector<Announced> &items, const char *end) {
  for (const auto &[index, name] : items) {
    if (index) {
      out << "item " << *index << ' ' << printable(name) << end;
    } else {
      out << "self-test of " << printable(name) << end;
    }
  }
}

void putItems(Sink &out, const Part &part) {
  putItems(out, part.items, "\n");
  putItems(out, part.goneItems, " is gone\n");
}

void putHead(Sink &out, const Part &part, const std::string &title) {
  const std::optional<Identity> &identity = part.run.identity;
  if (!identity || !part.identity) return;
  if (!title.empty()) out << title << ", ";
  out << "identity " << hex(identity->bytes) << ", sequence " << identity->sequence << '\n';
}

void putEnd(Sink &out, const Part &part) {
  const Run &run = part.run;
  if (part.before && run.whole && isEmpty(part)) out << "nothing has changed\n";
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
    case Verdict::kPass: return "pass";
    case Verdict::kFail: return "fail";
    case Verdict::kNone: break;
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
  added.meant.name = value.key->meaning.name;
  return added;
}

// Calls take(value, added, shown) for each row: a value, and behind it its fields, for which `shown` is not nullptr.
template <class Take>
void forEachRow(const NamedRun &named, const Take &take) {
  named.forEach([&](const NamedValue &value) {
    take(*value.value, value.hasFields() ? addedOf(value) : addedOf(named, value, value.shown[0]), nullptr);
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

void putJsonItems(Sink &out, const std::vector<Announced> &items, const char *goneRow) {
  for (const auto &[index, name] : items) {
    JsonLine line(out, goneRow ? goneRow : index ? "item" : "tested");
    if (index) line.number("item", *index);
    line.text("name", name).end();
  }
}

void putJsonHead(Sink &out, const Part &part) {
  const std::optional<Identity> &identity = part.run.identity;
  if (identity && part.identity) {
    JsonLine(out, "identity").hex("identity", identity->bytes).number("sequence", identity->sequence).end();
  }
  putJsonItems(out, part.items, nullptr);
  putJsonItems(out, part.goneItems, "gone");
}

JsonLine &putJsonCounts(JsonLine &line, const Run &run) {
  line.number("messages", run.messageCount).number("records", run.recordCount).number("bytes", run.byteCount);
  return line.flag("whole", run.whole);
}

void putJsonValues(Sink &out, const Style &style, const char *row, const Run &run, const Values &values) {
  for (const Value *value : values) {
    JsonLine line = beginJsonValue(out, style, row, run, *value);
    putJsonContent(line, *value);
    line.end();
  }
}

void putJson(Sink &out, const Style &style, const Part &part) {
  putJsonHead(out, part);
  putJsonValues(out, style, "value", part.run, part.values);
  if (part.before) putJsonValues(out, style, "gone", *part.before, part.gone);
  JsonLine summary(out, "summary");
  putJsonCounts(summary, part.run).end();
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

void putJsonValues(Sink &out, const Style &style, bool areGone, const NamedRun &named) {
  forEachRow(named, [&](const Value &value, const Added &added, const Shown *field) {
    if (field && areGone) return;
    JsonLine line = beginJsonValue(out, style, field ? "field" : areGone ? "gone" : "value", named.run(), value);
    if (!field) putJsonContent(line, value);
    putJsonAdded(line, added);
    line.end();
  });
}

void putJson(Sink &out, const Style &style, const NamedRun &named, const NamedRun &gone) {
  const Run &run = named.run();
  putJsonHead(out, named.part());
  putJsonValues(out, style, false, named);
  putJsonValues(out, style, true, gone);
  const Judgement judgement = run.selfTest ? verdictsOf(named) : Judgement();
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

void putCsvItems(Sink &out, const Style &style, const std::vector<Announced> &items, const char *goneRow,
                 size_t added) {
  for (const auto &[index, name] : items) {
    CsvLine line(out, style, goneRow ? goneRow : index ? "item" : "tested");
    if (index) {
      line.number(*index);
    } else {
      line.empty(1);
    }
    line.text(name).empty(4 + added).end();
  }
}

void putCsvHead(Sink &out, const Style &style, const Part &part, size_t added) {
  const std::optional<Identity> &identity = part.run.identity;
  if (identity && part.identity) CsvLine(out, style, "identity").empty(5).hex(identity->bytes).empty(added).end();
  putCsvItems(out, style, part.items, nullptr, added);
  putCsvItems(out, style, part.goneItems, "gone", added);
}

void putCsvValues(Sink &out, const Style &style, const char *row, const Run &run, const Values &values) {
  for (const Value *value : values) {
    CsvLine line = beginCsvValue(out, style, row, run, *value);
    putCsvContent(line, *value);
    line.end();
  }
}

void putCsv(Sink &out, const Style &style, const Part &part) {
  putCsvHead(out, style, part, 0);
  putCsvValues(out, style, "value", part.run, part.values);
  if (part.before) putCsvValues(out, style, "gone", *part.before, part.gone);
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

void putCsvValues(Sink &out, const Style &style, bool areGone, const NamedRun &named) {
  forEachRow(named, [&](const Value &value, const Added &added, const Shown *field) {
    if (field && areGone) return;
    CsvLine line = beginCsvValue(out, style, field ? "field" : areGone ? "gone" : "value", named.run(), value);
    if (field) {
      line.empty(2);
    } else {
      putCsvContent(line, value);
    }
    putCsvAdded(line, added);
    line.end();
  });
}

void putCsv(Sink &out, const Style &style, const NamedRun &named, const NamedRun &gone) {
  putCsvHead(out, style, named.part(), kAddedColumns);
  putCsvValues(out, style, false, named);
  putCsvValues(out, style, true, gone);
  if (named.run().selfTest) putCsvVerdicts(out, style, verdictsOf(named));
}

}  // namespace

void RunReporter::begin(Sink &out, bool isNamed) {
  const bool isFirst = std::exchange(first_, false);
  const size_t added = isNamed ? kAddedColumns : 0;
  switch (style_.format) {
    case Format::kText:
      if (!isFirst) out << '\n';
      return putHeading(out);
    case Format::kJson:
      if (isFirst) putLayout(out, "kep-collect", kLayoutVersion);
      return putJsonHeading(out);
    case Format::kCsv:
      if (isFirst) out << kCsvHeader << (isNamed ? kCsvAdded : "") << '\n';
      return putCsvHeading(out, added);
  }
}

void RunReporter::putHeading(Sink &out) const {
  const bool isOfBoard = !heading_.board.empty(), isStamped = heading_.number != 0;
  if (!isOfBoard && !isStamped) return;
  if (isOfBoard) out << "board " << printable(heading_.board) << (isStamped ? ", " : "");
  if (isStamped) out << "run " << heading_.number << ", " << stamp();
  out << '\n';
}

void RunReporter::putJsonHeading(Sink &out) const {
  if (!heading_.board.empty()) {
    JsonLine(out, "board").text("board", heading_.board).number("status", heading_.status).end();
  }
  if (heading_.number != 0) JsonLine(out, "run").number("run", heading_.number).word("time", stamp()).end();
}

void RunReporter::putCsvHeading(Sink &out, size_t added) const {
  if (!heading_.board.empty()) {
    CsvLine line(out, style_, "board");
    line.empty(1).text(heading_.board).empty(3).number(heading_.status).empty(added).end();
  }
  if (heading_.number != 0) {
    CsvLine line(out, style_, "run");
    line.empty(3).number(heading_.number).empty(1).word(stamp()).empty(added).end();
  }
}

std::string RunReporter::stamp() const {
  return absl::FormatTime("%Y-%m-%dT%H:%M:%SZ", absl::FromUnixSeconds(heading_.time), absl::UTCTimeZone());
}

void RunReporter::writeNone(bool isNamed) {
  Sink out(out_);
  begin(out, isNamed);
  if (style_.format == Format::kText) out << "no run\n";
  out.flush();
}

void RunReporter::write(const Run &run, const Run *before) {
  Sink out(out_);
  begin(out, false);
  const Part part = before ? changesOf(*before, run) : wholeOf(run);
  switch (style_.format) {
    case Format::kText:
      putHead(out, part, "");
      putItems(out, part);
      putTable(out, part);
      putEnd(out, part);
      break;
    case Format::kJson: putJson(out, style_, part); break;
    case Format::kCsv: putCsv(out, style_, part); break;
  }
  out.flush();
}

void RunReporter::write(const Run &run, const Names &names, int64_t collected, const Run *before) {
  static const Run kNone;
  Sink out(out_);
  begin(out, true);
  const Part part = before ? changesOf(*before, run) : wholeOf(run);
  const Part gonePart{before ? *before : kNone, nullptr, false, {}, {}, part.gone, {}};
  const NamedRun named(names, part, collected), gone(names, gonePart, collected);
  switch (style_.format) {
    case Format::kText:
      putHead(out, part, names.title);
      if (before) putItems(out, part);  // otherwise they stand with their values
      putNamedText(out, style_, named, gone);
      putEnd(out, part);
      break;
    case Format::kJson: putJson(out, style_, named, gone); break;
    case Format::kCsv: putCsv(out, style_, named, gone); break;
  }
  out.flush();
}

}  // namespace kepserver
