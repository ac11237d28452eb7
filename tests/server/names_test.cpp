// names_test.cpp: names files, and what a reader sees through them.

#include "server/names.hpp"

#include <gtest/gtest.h>

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

Value sent(int64_t whole) { return {ValueKind::kInt, 0, 0, 1, whole, "", 0}; }
Value sentLong(int64_t whole) { return {ValueKind::kLong, 0, 0, 1, whole, "", 0}; }
Value sent(const std::string &bytes, bool isText = true) {
  return {isText ? ValueKind::kString : ValueKind::kBuffer, 0, 0, 1, 0, bytes, 0};
}

struct Case {
  std::string attributes;
  Value value;
  std::string shown;
};

TEST(Names, GiveNumbersAndTextsTheirMeaning) {
  const std::string states = "states = { 0 = 'down', -1 = 'lost', 0x10 = 'up' }";
  const std::string bits = "bits = { 0 = 'link', 31 = 'fan', 33 = 'disk' }";
  const std::vector<Case> cases = {
      {"unit = 'B', kind = 'counter'", sentLong(672176260), "x=672 176 260 B (672176260)"},
      {"", sent(-1234), "x=-1 234 (-1234)"},
      {"", sentLong(INT64_MIN), "x=-9 223 372 036 854 775 808 (-9223372036854775808)"},
      {"scale = 0.01", sent(399), "x=3.99"},
      {"scale = 0.10", sent(-5), "x=-0.50"},  // the decimals are those that were written
      {"scale = 1e-3, decimals = 0", sent(-1500), "x=-2"},
      {"scale = 1e-3, decimals = 2", sent(125), "x=0.13"},
      {"scale = 1e-3, decimals = 0", sent(-499), "x=0"},
      {"scale = 1_000, offset = 0.5", sent(7), "x=7 001 (7001)"},
      {"offset = -273.15, scale = 0.01", sent(29315), "x=20.00"},
      {"offset = -273.15", sent(20), "x=-253.15"},
      {"scale = 0.000000000000000000000000000000000001", sentLong(INT64_MIN),
       "x=-0.000000000000000009223372036854775808"},
      {"scale = 999999999999999999", sentLong(INT64_MAX),
       "x=9 223 372 036 854 775 797 776 627 963 145 224 193 (9223372036854775797776627963145224193)"},
      {states, sent(16), "x=up"},
      {states, sent(-1), "x=lost"},
      {states, sent(1234), "x=1234"},
      {bits, sent(INT32_MIN + 1), "x=link, fan"},
      {bits, sentLong(0x200000004), "x=bit 2, disk"},
      {bits, sent(0), "x=none"},
      {"kind = 'log'", sent("4"), "x=4"},
      {"kind = 'text'", sent(4), "x=4 misfit"},
      {"unit = 'V'", sent("4.0"), "x=4.0 V misfit"},
      {"kind = 'text'", sent("ab", false), "x=ab"},
      {"help = 'none'", sent("ab", false), "x=6162"},
  };
  for (const Case &c : cases) {
    const Names names =
        parse("[item.i.keys]\n1 = { name = 'x'" + std::string(c.attributes.empty() ? "" : ", ") + c.attributes + " }");
    std::vector<Shown> shown;
    present(names, names.item("i")->keys.find(0, 1), sentOf(c.value), shown);
    EXPECT_EQ(describe(shown), c.shown) << c.attributes;
  }
}

TEST(Names, MakeFieldsOfABuffer) {
  const std::string letters = std::string("\xFF") + "\x80" + number(0x8000, 2) + number(0xFFFF, 2) +
                              number(0xFFFFFFFE, 4) + number(7, 4) + number(86400, 4) + std::string("ab\0c", 4) + "AB";
  const std::string wide = number(0xC0490FDB, 4) + number(0x7FE1CCF385EBC8A0, 8) + number(0x8000000000000000, 8) +
                           number(0xFFFFFFFFFFFFFFFF, 8) + number(0x3FB999999999999A, 8);
  const std::vector<Case> cases = {
      {"format = 'BbHhIiT4s2S', fields = [{ name = 'B' }, { name = 'b' }, { name = 'H', scale = 0.1 }, { name = 'h' },"
       " { name = 'I' }, {}, { name = 'T' }, { name = 's' }, { name = 'S' }]",
       sent(letters, false),
       "x B=0xFF; x b=128; x H=3 276.8 (3276.8); x h=-1; x I=0xFFFFFFFE; x T=1970/01/02 05:30:00; x s=ab; x S=4142"},
      {"format = '4s8s8S8s8s', fields = [{ name = 'f', as = 'f' }, { name = 'd', as = 'd', unit = 'J' },"
       " { name = 'i', as = 'i64', unit = 'B' }, { name = 'u', as = 'u64', scale = 0.5 },"
       " { name = 't', as = 'd', scale = 10, decimals = 20 }]",
       sent(wide, false),
       "x f=-3.1415927; x d=1e+308 J; x i=-9 223 372 036 854 775 808 B (-9223372036854775808); "
       "x u=9 223 372 036 854 775 807.5 (9223372036854775807.5); x t=1.00000000000000000000"},
      {"format = 'I', fields = [{ name = 'I' }]", sent("abc", false), "x=616263 misfit"},
      {"format = 'I', fields = [{ name = 'I' }]", sent("abcd"), "x=abcd misfit"},
  };
  for (const Case &c : cases) {
    const Names names = parse("[board]\nzone = '+05:30'\n[item.i.keys.1]\nname = 'x'\n" +
                              std::string(c.attributes).replace(c.attributes.find(", fields"), 1, "\n"));
    std::vector<Shown> shown;
    present(names, names.item("i")->keys.find(0, 1), sentOf(c.value), shown);
    EXPECT_EQ(describe(shown), c.shown) << c.attributes;
  }
}

TEST(Names, JudgeWhatASelfTestSends) {
  const std::string states = ", states = { 0 = 'down', 1 = 'up' }";
  struct Rule {
    std::string attributes;
    std::vector<Value> passing, failing;
  };
  const std::vector<Rule> rules = {
      {"pass = 5", {sent(5), sentLong(5)}, {sent(4), sent("5")}},
      {"pass = 0.5, scale = 0.1, decimals = 0", {sent(5)}, {sent(6)}},  // compared before it is rounded
      {"pass = { min = -0.5, max = 0.5 }, scale = 0.1", {sent(5), sent(-5)}, {sent(6), sent(-6)}},
      {"pass = { min = 3 }", {sent(3), sentLong(INT64_MAX)}, {sent(2)}},
      {"pass = { max = 3 }", {sent(3), sentLong(INT64_MIN)}, {sent(4)}},
      {"pass = 0, bits = { 0 = 'fault' }", {sent(0)}, {sent(1)}},
      {"pass = 'up'" + states, {sent(1)}, {sent(0), sent(2), sent("up")}},
      {"pass = 1" + states, {sent(1)}, {sent(0)}},
      {"pass = 'ok'", {sent("ok")}, {sent("ok "), sent("OK"), sent(1)}},
      {"pass = { pattern = 'v?.*-ok' }", {sent("v1.2-ok-ok"), sent("v1.-ok")}, {sent("v1.2-ok-"), sent("v12-ok")}},
      {"name = 'struct', format = 'h4s', fields = [{ name = 'a', pass = -2 }, { name = 'b', as = 'f', pass = { min = 1 "
       "} }]",
       {sent(number(0xFFFE, 2) + number(0x3F800000, 4), false)},
       {sent(number(0xFFFE, 2) + number(0x7FC00000, 4), false), sent("ab", false)}},
  };
  for (const Rule &rule : rules) {
    const bool isNamed = rule.attributes.find("name") == 0;
    const Names names = parse("[item.i.tests]\n1 = { " + ((isNamed ? "" : "name = 'x', ") + rule.attributes) + " }");
    for (const bool passes : {true, false}) {
      for (const Value &value : passes ? rule.passing : rule.failing) {
        kepserver::Run run;
        run.selfTest = true;
        run.tested = {"i"};
        run.values = {value};
        run.values[0].testedCount = 1;
        EXPECT_EQ(judge(names, run).tests.verdict(), passes ? Verdict::kPass : Verdict::kFail)
            << rule.attributes << " " << value.number << value.bytes;
      }
    }
  }
}

TEST(Names, RefuseWhatTheyDoNotKnow) {
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"[item.i.keys]\n1 = { name = 'x', unti = 'V', scale = 1 }",
       "2: unknown attribute \"unti\"; expected name, unit, kind, scale, offset, decimals, states, bits, help, format, "
       "fields"},
      {"[item.i]\nkey = {}",
       "2: unknown attribute \"key\"; expected reports, sections, keys, keys_in, tests, tests_in"},
      {"\n[boards]", "2: unknown attribute \"boards\"; expected include, board, item, fault"},
      {"\n[item.i.keys.1]\nunit = 'V'", "2: no name; expected name = \"...\""},
      {"[item.i.keys]\nuptime = { name = 'x' }", "2: \"uptime\"; expected a number from -2147483648 to 2147483647"},
      {"[item.i.keys]\n16 = { name = 'x' }\n0x10 = { name = 'y' }", "2: 16 stands there twice"},
      {"[item.i.keys]\n1 = 'x'", "2: expected a table, not a text"},
      {"[item.i]\nreports = 'no'", "2: reports: expected true or false, not a text"},
      {"[item.i]\nsections = { names = { 1 = 'a' }, named_by = 1 }", "2: names: expected names or named_by, not both"},
      {"[board]\nzone = 'Europe/Berlin'", "2: zone: \"Europe/Berlin\"; expected UTC or an offset such as +05:30"},
      {"[item.i.keys]\n1 = { name = 'a\\\\b\\u001b' }", ""},
      {"[item.i.keys]\n1 = { name = \"a\\u001b\" }",
       "2: \"a\\x1b\" holds what does not show; expected a text that does"},
      {"[item.i.keys]\n1 = { name = '' }", "2: an empty text; expected one that can be seen"},
      {"[item.i.keys]\n1 = { name = '''x''' }", "2: a text of several lines; expected one line"},
      {"[item]\n\xC3\xA9 = 1", "2: a letter that is not ASCII; expected quotes around it"},
      {"\na" + std::string(17, '.'), "2: nested too deep; expected 16 levels at most"},
      {"\na = " + std::string(17, '['), "2: nested too deep; expected 16 levels at most"},
  };
  const std::vector<std::pair<std::string, std::string>> badKeys = {
      {"scale = '0.1'", "scale: expected a number, not a text"},
      {"scale = 0.0", "scale: expected any number but 0"},
      {"offset = nan", "offset: expected a number of at most 18 digits in front of its point and 36 behind it"},
      {"scale = 1e18", "scale: expected a number of at most 18 digits in front of its point and 36 behind it"},
      {"decimals = 37", "decimals: expected a whole number from 0 to 36"},
      {"kind = 'number'", "kind: expected gauge, counter, text, log or state"},
      {"kind = 'text', unit = 'V'", "unit: expected with a gauge or a counter only, not with text"},
      {"states = { 0 = 'a' }, bits = { 0 = 'b' }", "bits: expected states or bits, not both"},
      {"states = { 0 = 'a' }, kind = 'gauge'", "kind: expected \"state\" with states or bits"},
      {"states = { 0 = 'a' }, scale = 2", "scale: expected with a gauge or a counter only, not with state"},
      {"states = {}", "states: expected words by number, such as { 0 = \"down\", 1 = \"up\" }"},
      {"bits = { 64 = 'a' }", "\"64\"; expected a number from 0 to 63"},
      {"states = { 0 = 1 }", "expected a word, not a number"},
      {"pass = true", "pass: expected a number, a word, { min, max } or { pattern }"},
      {"pass = { min = 2, max = 1.9 }", "min: expected to be at most max"},
      {"pass = {}", "pass: expected min, max or both, or a pattern"},
      {"pass = { min = 1, pattern = 'a' }", "a pattern and a range; expected one of them"},
      {"pass = 1, kind = 'text'", "pass: expected a word or a pattern for a text"},
      {"pass = 'a', unit = 'V'", "pass: expected a number or a range for a number"},
      {"pass = 'a', states = { 0 = 'b' }", "pass: \"a\" is no state; expected one of the states"},
      {"fields = []", "fields: expected together with a format"},
      {"format = 'I'", "fields: expected a list with a table for each letter of the format"},
      {"format = 'II', fields = [{}]", "fields: 1 for a format of 2; expected one for each letter"},
      {"format = 'It', fields = []", "format: \"t\" in \"It\"; expected the letters B, H, I, s in either case, and T"},
      {"format = '4I', fields = []", "format: a count in \"4I\"; expected in front of s and S only"},
      {"format = 's', fields = []", "format: \"s\" in \"s\"; expected a count in front of it"},
      {"format = '4', fields = []", "format: ends with a count; expected a letter behind it"},
      {"format = '99999999999999999999s', fields = []", "format: expected no more than 64 MiB"},
      {"format = 'I', unit = 'V', fields = [{}]", "unknown attribute \"unit\"; expected name, help, format, fields"},
      {"format = 'I', fields = [{ name = 'a', as = 'f' }]", "as: expected with a field of 4s or 8s only"},
      {"format = '8s', fields = [{ name = 'a', as = 'f' }]", "as: \"f\"; expected i64, u64 or d for 8 bytes"},
      {"format = '8s', fields = [{ name = 'a', unit = 'V' }]", "s is a text; expected as, or what belongs to a text"},
      {"format = '8s', fields = [{ name = 'a', as = 'd', bits = { 0 = 'b' } }]",
       "states and bits; expected with a whole number only"},
      {"format = 'T', fields = [{ name = 'a', kind = 'gauge' }]", "T is a time; expected name and help only"},
      {"format = 'I', fields = [{ name = 'a', kind = 'text' }]", "kind: expected with s and S only"},
      {"format = '1s', fields = [{ name = 'a', kind = 'log' }]", "kind: expected for a whole value, not for a field"},
  };
  for (const auto &[text, expected] : bad) {
    EXPECT_EQ(errorOf(text), expected.empty() ? "" : "dir/top.toml:" + expected) << text;
  }
  EXPECT_EQ(errorOf("a = 1\na = 2").substr(0, 16), "dir/top.toml:2: ") << "and in the parser's words";
  for (const auto &[attributes, expected] : badKeys) {
    EXPECT_EQ(errorOf("[item.i.tests]\n1 = { name = 'x', " + attributes + " }"), "dir/top.toml:2: " + expected)
        << attributes;
  }
}

TEST(Names, IncludeOtherFiles) {
  const Files files = {{"dir/a.toml", "include = 'sub/b.toml'\nboard.title = 'a'\n[item.i.keys]\n1 = { name = 'a' }"},
                       {"dir/sub/b.toml", "[item.i.keys]\n1 = { name = 'b' }\n2 = { name = 'b2', unit = 'V' }"},
                       {"dir/loop.toml", "\ninclude = ['a.toml', 'sub/../loop.toml']"},
                       {"dir/bad.toml", "[board]\ntitle = 1"}};
  const Names names = parse("include = ['a.toml', 'sub/b.toml']\n[item.i.keys]\n2 = { name = 'c' }", files);
  const KeySet &keys = names.item("i")->keys;
  EXPECT_EQ(names.title + keys.find(0, 1)->meaning.name + keys.find(0, 2)->meaning.name, "aac");
  EXPECT_EQ(keys.find(0, 2)->meaning.unit, "") << "a key is told whole";
  EXPECT_EQ(errorOf("include = 'loop.toml'", files),
            "dir/loop.toml:2: include: dir/loop.toml includes this file; expected no circle");
  EXPECT_EQ(errorOf("include = 'top.toml'", files),
            "dir/top.toml:1: include: dir/top.toml includes this file; expected no circle");
  EXPECT_EQ(errorOf("include = '/etc/x'", files), "dir/top.toml:1: include: /etc/x: cannot open");
  EXPECT_EQ(errorOf("include = [1]", files),
            "dir/top.toml:1: include: expected a file or a list of files, not a number");
  EXPECT_EQ(errorOf("include = 'bad.toml'", files), "dir/bad.toml:2: title: expected a text, not a number");
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
  const Names names = example("examples/board/board.toml");
  kepserver::Run run;
  run.catalogue = {{0, "system"}, {1, "memory"}, {2, "network"}, {3, "faults"}, {4, "other"}};
  run.messageCount = 7;
  run.values = {{ValueKind::kBuffer, 0, 0, 3, 0, number(0x190, 4) + number(0x116, 4) + number(0xb2, 4), 0},
                {ValueKind::kString, 2, 1, 1, 0, "eth0", 0},
                {ValueKind::kLong, 2, 1, 2, 672176260, "", 0},
                {ValueKind::kString, 3, 1, 2, 0, "11/23 03:50:21", 0},
                {ValueKind::kInt, 3, 0, 3, 2, "", 0},
                {ValueKind::kInt, 3, 0, 4, 2, "", 0}};
  const RunNames lookup(names, run);
  std::string lines;
  for (const Value &value : run.values) {
    std::vector<Shown> shown;
    present(names, lookup.key(value), sentOf(value), shown);
    lines +=
        std::string(lookup.section(value)) + (lookup.namesSection(value) ? "!" : "") + ": " + describe(shown) + "\n";
  }
  EXPECT_EQ(lines,
            ": load 1 min=4.00; load 5 min=2.78; load 15 min=1.78\neth0!: name=eth0\n"
            "eth0: received=672 176 260 B (672176260)\nmemory: run log=11/23 03:50:21\n: faults saved=2\n: 2\n");
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
    verdicts += std::string(result.item) + "-+!"[static_cast<int>(result.tests.verdict())] + "\n";
  }
  for (const MissingTest &missing : judgement.missing) {
    verdicts += "no " + std::string(missing.item) + " " + missing.name + "\n";
  }
  EXPECT_EQ(verdicts,
            "system+\nextra-\nnetwork!\nfaults!\nmemory!\nno faults faults registered\nno memory /proc/meminfo\n");

  const FaultNames &fault = *names.fault("memory");
  EXPECT_EQ(fault.find(FaultRecord::kRegister64, 0x11)->meaning.name, "free");
  EXPECT_EQ(fault.find(FaultRecord::kRegisterData, 0x12)->fields.size(), 3u);
  EXPECT_EQ(fault.find(FaultRecord::kCounterData, 1), nullptr);
  EXPECT_EQ(example("docs/names.md").items.size(), 3u);
  EXPECT_EQ(example("examples/station/station.toml").item("samples")->keys.find(1, 2)->meaning.name, "many processes");
}

TEST(Times, GetAYearAndAZone) {
  constexpr int64_t kCollected = 1767312000;  // 2026-01-02 00:00 UTC
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"2024/02/29 23:59:60", "2024-02-29T23:59:60-01:30"},
      {"26/11/23 03:50:21", "2026-11-23T03:50:21-01:30"},
      {"12/31 00:00:00", "2025-12-31T00:00:00-01:30"},
      {"01/02 22:30:00", "2026-01-02T22:30:00-01:30"},
      {"01/02 22:30:01", "2025-01-02T22:30:01-01:30"},
      {"02/29 00:00:00", "2024-02-29T00:00:00-01:30"},
      {"02/30 00:00:00", ""},
      {"2023/02/29 00:00:00", ""},
      {"01/00 00:00:00", ""},
      {"13/01 00:00:00", ""},
      {"01/01 24:00:00", ""},
      {"1/01 00:00:00", ""},
      {"01/01 00:00:00 ", ""},
  };
  for (const auto &[text, expected] : cases) {
    const std::optional<BoardTime> time = readTime(text);
    EXPECT_EQ(time ? isoTime(*time, -90, kCollected) : "", expected) << text;
  }
  EXPECT_EQ(timeText(951782399, 0) + timeText(UINT32_MAX, 60) + timeText(0, -60),
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
