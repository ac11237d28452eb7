// names_test.cpp: names files, and what a reader sees through them.

#include "server/names.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "server/board_stream.hpp"
#include "server/present.hpp"
#include "server/times.hpp"

namespace {

using namespace kepserver;
using board::number;

using Files = std::map<std::string, std::string>;

Names parse(const std::string &text, const Files &files = {}) {
  return parseNames(text, "dir/top.toml", [&files](const std::string &path) {
    const auto found = files.find(path);
    return found != files.end() ? found->second : throw std::runtime_error("cannot open");
  });
}

std::string errorOf(const std::string &text, const Files &files = {}) {
  try {
    parse(text, files);
  } catch (const NamesError &error) {
    return error.text();
  }
  return "";
}

// The rows of a table in the folder of golden files: | parts their cells.
std::vector<std::vector<std::string>> rowsOf(const std::string &table) {
  std::vector<std::vector<std::string>> rows;
  std::ifstream file(KEP_SOURCE "/tests/server/golden/" + table);
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    rows.emplace_back();
    for (size_t start = 0, end = 0; end != std::string::npos; start = end + 3) {
      end = line.find(" | ", start);
      rows.back().push_back(line.substr(start, end - start));
    }
  }
  EXPECT_FALSE(rows.empty()) << table;
  return rows;
}

std::string describe(const std::vector<Shown> &all) {
  std::string text;
  for (const Shown &one : all) {
    if (!text.empty()) text += "; ";
    if (one.meaning) text += one.name() + "=";
    text += one.text;
    if (one.meaning && !one.meaning->unit.empty()) text += " " + one.meaning->unit;
    if (!one.number.empty() && one.number != one.text) text += " (" + one.number + ")";
    if (one.misfit) text += " misfit";
    if (one.verdict != Verdict::kNone) text += one.verdict == Verdict::kPass ? " PASS" : " FAIL";
  }
  return text;
}

// "int -5", "long 7", "text ab" or "hex 00ff".
Value valueOf(const std::string &sent) {
  const std::string kind = sent.substr(0, sent.find(' ')), content = sent.substr(kind.size() + 1);
  if (kind == "text") return {ValueKind::kString, 0, 0, 1, 0, content, 0};
  if (kind != "hex") return {kind == "int" ? ValueKind::kInt : ValueKind::kLong, 0, 0, 1, std::stoll(content), "", 0};
  Value value{ValueKind::kBuffer, 0, 0, 1, 0, "", 0};
  for (size_t i = 0; i < content.size(); i += 2) {
    value.bytes += static_cast<char>(std::stoi(content.substr(i, 2), nullptr, 16));
  }
  return value;
}

TEST(Names, GiveValuesTheirMeaning) {
  for (const auto &row : rowsOf("shown.txt")) {
    const Names names = parse("board.zone = '+05:30'\nitem.i.tests.1 = { name = 'x', " + row[0] + " }");
    std::vector<Shown> shown;
    const Value value = valueOf(row[1]);
    present(names, names.item("i")->tests.find(0, 1), sentOf(value), shown);
    EXPECT_EQ(describe(shown), row[2]) << row[0];
  }
}

TEST(Names, RefuseWhatTheyDoNotKnow) {
  const Files files = {{"dir/loop.toml", "\ninclude = ['sub/../loop.toml']"},
                       {"dir/sub/bad.toml", "[board]\ntitle = 1"}};
  for (const auto &row : rowsOf("refused.txt")) {
    std::string text = row[0];
    if (text.find('~') == std::string::npos) text = "[item.i.tests]~1 = { name = 'x', " + row[0] + " }";
    std::replace(text.begin(), text.end(), '~', '\n');
    EXPECT_EQ(errorOf(text, files), row[1]) << text;
  }
  EXPECT_EQ(errorOf("a = 1\na = 2").substr(0, 16), "dir/top.toml:2: ") << "and in the parser's words";
}

TEST(Names, IncludeOtherFiles) {
  const Files files = {{"dir/a.toml", "include = 'sub/b.toml'\nboard.title = 'a'\n[item.i.keys]\n1 = { name = 'a' }"},
                       {"dir/sub/b.toml", "include = 'c.toml'\n[item.i.keys]\n1 = { name = 'b' }"},
                       {"dir/sub/c.toml", "item.i.keys = { 1.name = 'c1', 2 = { name = 'c2', unit = 'V' } }"}};
  const Names names = parse("include = ['a.toml', 'sub/b.toml']\n[item.i.keys]\n2 = { name = 'd' }", files);
  const KeySet &keys = names.item("i")->keys;
  EXPECT_EQ(names.title + keys.find(0, 1)->meaning.name + keys.find(0, 2)->meaning.name, "aad");
  EXPECT_EQ(keys.find(0, 2)->meaning.unit, "") << "a key is told whole";
}

// A names file of this project's, or the example of its manual.
Names example(const std::string &name) {
  std::ostringstream file;
  file << std::ifstream(KEP_SOURCE "/" + name).rdbuf();
  std::string text = file.str();
  const size_t start = text.find("```toml\n");
  if (start != std::string::npos) text = text.substr(start + 8, text.find("\n```\n", start) - start - 8);
  try {
    return parse(text, {{"dir/common.toml", ""}});
  } catch (const NamesError &error) {
    ADD_FAILURE() << name << ": " << error.text();
    return {};
  }
}

TEST(Names, OfTheExamplesTellWhatTheySend) {
  Names names = example("examples/board/board.toml");
  names.items["other"].saysReports = false;
  kepserver::Run run;
  run.catalogue = {{0, "system"}, {1, "memory"}, {2, "network"}, {3, "faults"}, {4, "other"}};
  run.messageCount = 7;
  run.values = {{ValueKind::kBuffer, 0, 0, 3, 0, number(0x190, 4) + number(0x116, 4) + number(0xb2, 4), 0},
                {ValueKind::kString, 2, 0, 1, 0, "none", 0},
                {ValueKind::kString, 2, 1, 1, 0, "eth0", 0},
                {ValueKind::kLong, 2, 1, 2, 672176260, "", 0},
                {ValueKind::kString, 3, 1, 2, 0, "11/23 03:50:21", 0},
                {ValueKind::kInt, 3, 0, 3, 2, "", 0},
                {ValueKind::kInt, 3, 0, 4, 2, "", 0},
                {ValueKind::kString, 2, 2, 1, 0, std::string(257, 'n'), 0}};
  const RunNames lookup(names, run);
  std::string lines;
  for (const Value &value : run.values) {
    std::vector<Shown> shown;
    present(names, lookup.key(value), sentOf(value), shown);
    lines +=
        std::string(lookup.section(value)) + (lookup.namesSection(value) ? "!" : "") + ": " + describe(shown) + "\n";
  }
  EXPECT_EQ(lines,
            ": load 1 min=4.00; load 5 min=2.78; load 15 min=1.78\n: name=none\neth0!: name=eth0\n"
            "eth0: received=672 176 260 B (672176260)\nmemory: run log=11/23 03:50:21\n: faults saved=2\n: 2\n: name=" +
                std::string(257, 'n') + "\n");
  EXPECT_FALSE(isCutShort(names, run)) << "four items that report, and the end";
  run.messageCount = 6;
  EXPECT_TRUE(isCutShort(names, run));

  kepserver::Run test;
  test.selfTest = true;
  test.tested = {"system", "extra", "network"};
  test.values = {{ValueKind::kInt, 0, 0, 1, 1, "", 1}, {ValueKind::kInt, 2, 0, 1, 0, "", 3}};
  const Judgement judgement = judge(names, test);
  std::string verdicts;
  for (const ItemResult &result : judgement.items) {
    verdicts += std::string(result.item) + "-+!"[static_cast<int>(result.tests.verdict())] + " ";
  }
  for (const MissingTest &missing : judgement.missing)
    verdicts += std::string(missing.item) + ": " + missing.name + " ";
  EXPECT_EQ(verdicts, "system+ extra- network! faults! memory! faults: faults registered memory: /proc/meminfo ");

  const FaultNames &fault = *names.fault("memory");
  EXPECT_EQ(fault.find(FaultRecord::kRegister64, 0x11)->meaning.name, "free");
  EXPECT_EQ(fault.find(FaultRecord::kCounterData, 1), nullptr);
  EXPECT_EQ(example("docs/names.md").items.size(), 3u);
  EXPECT_EQ(example("examples/station/station.toml").item("samples")->keys.find(1, 2)->meaning.name, "many processes");
}

TEST(Times, GetAYearAndAZone) {
  constexpr int64_t kCollected = 1767312000;  // 2026-01-02 00:00 UTC
  for (const auto &row : rowsOf("times.txt")) {
    const std::optional<BoardTime> time = readTime(row[0]);
    EXPECT_EQ(time ? isoTime(*time, readZone(row[1]), kCollected) : "", row[2]) << row[0];
  }
  EXPECT_EQ(timeText(951782399, *readZone("UTC")) + timeText(UINT32_MAX, *readZone("+01:00")) +
                timeText(0, *readZone("-01:00")),
            "2000/02/28 23:59:592106/02/07 07:28:151969/12/31 23:00:00");
}

// Against numbers of 128 bits.
TEST(Decimal, EqualsWholeNumberArithmetic) {
  __extension__ typedef __int128 Wide;
  std::mt19937_64 random(1);
  for (int i = 0; i < 20000; ++i) {
    const auto value = static_cast<int64_t>(random()) >> random() % 64;
    const auto scale = static_cast<int32_t>(random()) >> random() % 32, offset = static_cast<int32_t>(random());
    const int places = static_cast<int>(random() % 10), shown = static_cast<int>(random() % 10);
    const std::string power = "e-" + std::to_string(places);
    const Decimal result = Decimal(value) * *Decimal::parse(std::to_string(scale) + power) +
                           *Decimal::parse(std::to_string(offset) + power);
    Wide expected = Wide{value} * scale + offset;
    for (int p = places; p < shown; ++p) expected *= 10;
    Wide divisor = 1;
    for (int p = shown; p < places; ++p) divisor *= 10;
    const bool negative = expected < 0;
    expected = ((negative ? -expected : expected) * 2 + divisor) / (2 * divisor);
    std::string digits;
    for (; expected > 0 || static_cast<int>(digits.size()) <= shown; expected /= 10) {
      digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(expected % 10)));
    }
    const bool isZero = digits.find_first_not_of('0') == std::string::npos;
    if (shown > 0) digits.insert(digits.size() - static_cast<size_t>(shown), ".");
    ASSERT_EQ(result.text(shown), (negative && !isZero ? "-" : "") + digits) << value << " " << scale << power;
  }
}

}  // namespace
