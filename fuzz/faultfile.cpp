// faultfile.cpp: fault files of any bytes, in pieces of any size, and what is printed of them.
#include <fuzzer/FuzzedDataProvider.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "printed.hpp"
#include "require.hpp"
#include "server/fault_bytes.hpp"
#include "server/fault_report.hpp"

namespace {

using namespace kepserver;

// The lowest ids of every kind, with what could do harm in a table.
constexpr const char *kFault = R"(
[fault.any]
registers = { 0 = { name = "-zero", unit = '=u,"', scale = 0.001 }, 1 = { name = "+bits", bits = { 0 = "=on" } } }
counters = { 0 = { name = "=count" }, 1 = { name = "real", scale = 1e9 } }
values = { 0 = { name = "=v", format = "B", fields = [{ name = "s", states = { 0 = "=on" } }] }, 1 = { name = "@w" } }
[fault.any.register_data]
0 = { name = "=buffer", format = "Bh", fields = [{ name = "=a" }, { name = "b" }] }
1 = { name = "text", format = "4s", fields = [{ name = "s" }] }
)";

// Says the same of all faults of a file.
Names namesOf(const FaultFile &file) {
  static const FaultNames fault = parseNames(kFault, "fault", [](const std::string &) { return ""; }).faults.at("any");
  Names names;
  for (const FaultValue &value : file.values) names.faults[std::string(value.fault)] = fault;
  return names;
}

Lines printed(const FaultFile &file, const Style &style, const Names *names = nullptr) {
  std::stringstream out;
  writeFaultFile(out, style, file, {}, names);
  return harmlessLines(out);
}

// JSON gives back every value and the text of every record, CSV has a line for each; text but titles and counts, too.
void checkReports(const FaultFile &file) {
  const Lines json = printed(file, {Format::kJson}), csv = printed(file, {Format::kCsv});
  require(json.size() == csv.size() + 1 ? "" : "JSON and CSV differ in their lines");
  size_t textSize = 0, recordedSize = 0, valueCount = 0;
  for (const std::string &line : json) {
    const nlohmann::json row = nlohmann::json::parse(line);
    if (row.at("row") == "value") ++valueCount;
    if (row.at("row") != "line") continue;
    const size_t size = row["text"].get_ref<const std::string &>().size();
    textSize += row["time"].get_ref<const std::string &>().size();
    textSize += row.contains("text_hex") ? row["text_hex"].get_ref<const std::string &>().size() / 2 : size;
  }
  for (const FaultLog &log : file.logs) {
    for (const std::string_view record : log.records) recordedSize += record.size();
  }
  require(valueCount == file.values.size() && textSize == recordedSize ? "" : "JSON has not all that was read");
  const size_t titles = (json.size() > valueCount + 2 ? 1 : 0) + (valueCount > 0 ? 1 : 0);
  require(printed(file, {Format::kText}).size() + 1 == json.size() + titles ? "" : "text has not a line for each");
  checkCsv(csv, printed(file, {Format::kCsv, true}), 8, {1, 6});

  const Names names = namesOf(file);
  const Lines named = printed(file, {Format::kCsv}, &names), raw = printed(file, {Format::kCsv, true}, &names);
  checkCsv(named, raw, 12, {1, 6, 8, 9, 11});
  checkNamed(json, printed(file, {Format::kJson}, &names), csv, named);
  printed(file, {Format::kText}, &names);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider in(data, size);
  const size_t cuts = std::min<size_t>(in.ConsumeIntegralInRange(0u, 15u), in.remaining_bytes());
  const std::string input = in.ConsumeBytesAsString(in.remaining_bytes() - cuts);
  FaultFileReader reader;
  for (size_t position = 0, part; position < input.size(); position += part) {
    part = input.size() - position;
    if (in.remaining_bytes() > 0) part = std::min<size_t>(part, in.ConsumeIntegral<uint8_t>());
    reader.feed(input.data() + position, part);
  }
  const FaultFile file = reader.finish();
  const std::string logs = faults::encoded(file, false);
  requireEqual(faults::encoded(file, !file.values.empty() || file.byteCount > logs.size()),
               input.substr(0, file.byteCount));
  require(file.whole == (file.byteCount == input.size() && file.byteCount > logs.size()) ? "" : "not as whole as told");
  require(file.whole == !reader.damage() ? "" : "whole and damaged");
  checkReports(file);
  return 0;
}
