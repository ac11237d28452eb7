// stream.cpp: what the collection server makes of a board's stream: of any bytes, and of a run that is written here by
// the board's rules, each in pieces of any size.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "printed.hpp"
#include "require.hpp"
#include "server/board_stream.hpp"
#include "server/run_report.hpp"
#include "server/stream.hpp"

namespace {

using namespace kepserver;

std::string hex(const std::string &bytes) {
  std::string text;
  for (const char c : bytes) text += {"0123456789abcdef"[c >> 4 & 0xF], "0123456789abcdef"[c & 0xF]};
  return text;
}

std::string joined(Lines lines, bool sorted) {
  if (sorted) std::sort(lines.begin(), lines.end());
  return board::joined(lines);
}

std::string valueLine(int64_t item, int64_t section, int64_t key, const std::string &kind, const std::string &content) {
  return std::to_string(item) + "/" + std::to_string(section) + "/" + std::to_string(key) + " " + kind + " " + content +
         "\n";
}

Lines valueLines(const Run &run) {
  Lines lines;
  for (const Value &v : run.values) {
    const bool isNumber = v.kind == ValueKind::kInt || v.kind == ValueKind::kLong;
    const char *const kind = std::array{"int", "long", "string", "buffer"}[static_cast<size_t>(v.kind)];
    lines.push_back(valueLine(v.item, v.section, v.key, kind, isNumber ? std::to_string(v.number) : hex(v.bytes)));
  }
  return lines;
}

std::string describe(const Run &run) {
  std::ostringstream out;
  if (run.identity) out << "identity " << hex(run.identity->bytes) << " " << run.identity->sequence << "\n";
  for (const auto &[index, name] : run.catalogue) out << "item " << index << " " << hex(name) << "\n";
  for (const std::string &name : run.tested) out << "tested " << hex(name) << "\n";
  for (const Value &value : run.values) out << value.testedCount << " ";
  out << "\n" << joined(valueLines(run), false) << run.messageCount << " " << run.recordCount << " " << run.byteCount;
  return out.str() + (run.selfTest ? " self-test" : "") + (run.whole ? " whole" : "");
}

// The keys that Board picks, with what could do harm in a table.
constexpr const char *kItem = R"(
[item.any]
sections = { label = "=port", named_by = 1 }
[item.any.keys]
0 = { name = "-zero", unit = '=u,"', scale = 0.001, offset = -3 }
1 = { name = "+text", kind = "text" }
65535 = { name = "@log", kind = "log" }
2147483647 = { name = "=buffer", format = "Bh", fields = [{ name = "=a", states = { 0 = "=on" } }, { name = "b" }] }
[item.any.tests]
0 = { name = "-zero", unit = '=u,"', pass = 0 }
1 = { name = "+text", kind = "text", pass = { pattern = "*a*" } }
2147483647 = { name = "=missing", pass = 1 }
)";

// Says the same of all items of a run.
Names namesOf(const Run &run) {
  static const Item item = parseNames(kItem, "item", [](const std::string &) { return ""; }).items.at("any");
  Names names;
  for (const auto &[index, name] : run.catalogue) names.items[name] = item;
  for (const std::string &name : run.tested) names.items[name] = item;
  names.items["none"] = item;
  return names;
}

Lines printed(const Run &run, const Style &style, const Names *names = nullptr) {
  std::stringstream out;
  RunReporter reporter(out, style);
  names ? reporter.write(run, *names, 1'795'000'000) : reporter.write(run);
  return harmlessLines(out);
}

void checkNamedReports(const Run &run, const Lines &json, const Lines &csv) {
  const Names names = namesOf(run);
  const Lines named = printed(run, {Format::kCsv}, &names), raw = printed(run, {Format::kCsv, true}, &names);
  checkCsv(named, raw, 14, {2, 6, 7, 8, 9, 11});
  checkNamed(json, printed(run, {Format::kJson}, &names), csv, named);
  Style style;
  for (; style.width < 100; style.width += 30, style.isCut = !style.isCut) printed(run, style, &names);
}

// Every format has its lines and no more; JSON gives back every value.
void checkReports(const Run &run) {
  const size_t values = run.values.size();
  const size_t others = (run.identity ? 1 : 0) + run.catalogue.size() + run.tested.size() + 1;
  const Lines json = printed(run, {Format::kJson}), csv = printed(run, {Format::kCsv});
  require(json.size() == others + 1 + values && csv.size() == others + values ? ""
                                                                              : "JSON or CSV has not a line for each");
  require(printed(run, {Format::kText}).size() == others + values + (values > 0 ? 1 : 0)
              ? ""
              : "text has not a line for each");
  checkCsv(csv, printed(run, {Format::kCsv, true}), 7, {2, 6});
  checkNamedReports(run, json, csv);

  Lines read;
  for (const std::string &line : json) {
    const nlohmann::json row = nlohmann::json::parse(line);
    if (row.at("row") != "value") continue;
    const nlohmann::json &value = row.contains("value_hex") ? row["value_hex"] : row.at("value");
    const bool isText = row["kind"] == "string" && !row.contains("value_hex");
    const std::string content = value.is_number() ? value.dump() : value.get<std::string>();
    read.push_back(
        valueLine(row.at("item"), row.at("section"), row.at("key"), row["kind"], isText ? hex(content) : content));
  }
  requireEqual(joined(read, true), joined(valueLines(run), true));
}

// In pieces whose sizes the rest of the input gives, or, without one, as a whole.
StreamDecoder decode(const std::string &stream, const Expectation &expectation, FuzzedDataProvider *in) {
  StreamDecoder decoder(expectation);
  uint64_t completed = 0;
  for (size_t position = 0, size; position < stream.size(); position += size) {
    size = stream.size() - position;
    if (in && in->remaining_bytes() > 0) size = std::min<size_t>(size, in->ConsumeIntegral<uint8_t>());
    completed += decoder.feed(stream.data() + position, size);
  }
  decoder.finish();
  require(completed == decoder.run().messageCount ? "" : "messages are told that did not come");
  return decoder;
}

std::string describe(const StreamDecoder &decoder) {
  const auto &damage = decoder.damage();
  return describe(decoder.run()) +
         (damage ? std::to_string(damage->offset) + (damage->cutShort ? " cut " : " ") + damage->reason : "");
}

// Writes a run as a board does, and remembers what it tells.
class Board {
 public:
  explicit Board(FuzzedDataProvider &in) : in_(in) {
    run.selfTest = in_.ConsumeBool();
    run.whole = true;
    run.identity = Identity{"KB\1\2", in_.ConsumeIntegral<int32_t>()};
    send(0, run.identity->sequence, run.identity->bytes);
    if (!run.selfTest) writeCatalogue();
    for (unsigned left = in_.ConsumeIntegralInRange(0u, 12u); left > 0; --left) writeValue();
    if (!payload_.empty() || (!run.catalogue.empty() && run.messageCount == 2)) flush(2);
    flush(2);
    run.byteCount = stream.size();
  }

  std::string stream;
  Run run;

 private:
  void send(int32_t type, int32_t sequence, const std::string &payload) {
    stream += board::message(type, sequence, payload);
    ++run.messageCount;
  }

  void flush(int32_t type) { send(type, ++sequence_, std::exchange(payload_, "")); }

  size_t room() const { return 1024 - payload_.size(); }

  void writeCatalogue() {
    int32_t index = pickNumber();
    for (unsigned left = in_.ConsumeIntegralInRange(0u, 5u); left > 0 && index < INT32_MAX; --left, ++index) {
      run.catalogue[index] = in_.ConsumeBytesAsString(in_.ConsumeIntegralInRange(0u, 19u));
      payload_ += board::word(index) + board::counted(run.catalogue[index]);
    }
    flush(1);
  }

  int32_t pickNumber() { return in_.PickValueInArray({0, 0, 1, 0xFFFF, -1, INT32_MIN, INT32_MAX}); }

  void writeValue() {
    Value value{in_.PickValueInArray({ValueKind::kInt, ValueKind::kLong, ValueKind::kString, ValueKind::kBuffer}),
                pickNumber(),
                pickNumber(),
                pickNumber(),
                0,
                "",
                run.tested.size()};
    if (value.kind == ValueKind::kInt) {
      value.number = in_.ConsumeIntegral<int32_t>();
      put(0x81, value, board::word(value.number));
    } else if (value.kind == ValueKind::kLong) {
      value.number = in_.ConsumeIntegral<int64_t>();
      put(0x82, value, board::number(static_cast<uint64_t>(value.number), 8));
    } else {
      const std::string part = in_.ConsumeBytesAsString(in_.ConsumeIntegral<uint8_t>());
      for (unsigned left = in_.ConsumeIntegralInRange(1u, 8u); left > 0; --left) value.bytes += part;
      if (announces(value)) value.bytes.resize(std::min<size_t>(value.bytes.size(), 19));
      putPieces(value.kind == ValueKind::kString ? 3 : 4, value);
    }
    announces(value) ? run.tested.push_back(value.bytes) : run.values.push_back(value);
    if (in_.ConsumeBool()) flush(2);
  }

  bool announces(const Value &value) const {
    return run.selfTest && value.kind == ValueKind::kString && value.item == 0xFFFF && value.section == 0 &&
           value.key == 0;
  }

  void putPieces(int type, const Value &value) {
    for (size_t position = 0, size; type < 0x80; position += size) {
      if (room() < 25) flush(2);
      size = std::min({value.bytes.size() - position, room() - 15,
                       in_.ConsumeBool() ? in_.ConsumeIntegral<uint8_t>() : size_t{1024}});
      if (position + size == value.bytes.size()) type |= 0x80;
      put(type, value, board::counted(value.bytes.substr(position, size)));
    }
  }

  void put(int type, const Value &value, const std::string &content) {
    if (room() < 13 + content.size()) flush(2);
    payload_ += board::head(static_cast<uint8_t>(type), value.item, value.section, value.key) + content;
    ++run.recordCount;
  }

  FuzzedDataProvider &in_;
  std::string payload_;
  int32_t sequence_ = 41;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider in(data, size);
  Expectation expectation;
  std::string stream, expected;
  if (in.ConsumeBool()) {
    const Board board(in);
    stream = board.stream;
    expected = describe(board.run);
  } else {
    if (in.ConsumeBool()) expectation.kind = in.ConsumeBool() ? RunKind::kCollection : RunKind::kSelfTest;
    if (in.ConsumeBool()) expectation.sequence = 0;
    const size_t cuts = std::min<size_t>(in.ConsumeIntegralInRange(0u, 15u), in.remaining_bytes());
    stream = in.ConsumeBytesAsString(in.remaining_bytes() - cuts);
    expected = describe(decode(stream, expectation, nullptr));
  }
  const StreamDecoder decoder = decode(stream, expectation, &in);
  requireEqual(describe(decoder), expected);
  checkReports(decoder.run());
  return 0;
}
