// string_time_test.cpp: formatting, hex dumps, splitting, clocks and dates.
#include <gtest/gtest.h>
#include <kep/ZuString.h>
#include <kep/ZuTime.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "containers/codec_model.hpp"
#include "support/platform_double.hpp"

namespace {

// The fields of a split joined with '|'; '~' stands for one that is counted but not written. A slot written beyond the
// counted ones fails.
std::string split(std::string text, const char *delimiter, int32_t maxFields = 0) {
  char unwritten[] = "~";
  char *fields[16];
  for (char *&field : fields) field = unwritten;
  const int32_t count = ZuString_Split(text.data(), delimiter, fields, maxFields);
  std::string joined;
  for (int32_t i = 0; i < count; ++i) joined += (i ? "|" : "") + std::string(fields[i]);
  for (int32_t i = count; i < 16; ++i) EXPECT_EQ(fields[i], unwritten) << i;
  return joined;
}

std::string timeText(const char *pattern, int64_t t) {
  char text[200] = "####";
  EXPECT_EQ(ZuTime_Format(text, pattern, t), text);
  return text;
}

constexpr char kLong[] = "YYYY/MM/DD HH:MI:SS";
constexpr time_t kMarch = 1709622489;  // 5 March 2024, 07:08:09 UTC

}  // namespace

TEST(String, FormatsIntoTheCallersOrTheStaticBuffer) {
  char out[] = "#######";
  EXPECT_EQ(ZuString_Format(out, "%d%%%s", 12, "ab"), out);
  EXPECT_EQ(std::string(out, sizeof out), std::string("12%ab\0#\0", 8));
  const std::string text(2000, 'x');
  EXPECT_EQ(ZuString_SFormat("%s", text.c_str()), text.substr(0, 999));
  EXPECT_STREQ(ZuString_SFormat(static_cast<const char *>(nullptr)), "");
  EXPECT_STREQ(ZuString_Format(out, static_cast<const char *>(nullptr)), "");
  EXPECT_TRUE(!ZuString_Format(nullptr, "%d", 1) && !ZuString_HFormat(nullptr, "a", 1));
}

TEST(String, GivesEachThreadItsBuffersWhereThereIsALock) {
  const char *text = ZuString_SFormat("%d", 1), *dump = ZuString_SHFormat("\1", 1);
  const int64_t bytes = platform::liveBytes();
  const bool isLocking = platform::isLocking();
  std::thread([=] {
    platform::failAllocation(0, true);
    EXPECT_STREQ(ZuString_SFormat("%d", 2), isLocking ? "" : "2");
    EXPECT_STREQ(ZuString_SHFormat("\2", 1), isLocking ? "" : "02 ");
    platform::failAllocation(platform::kNever);
    EXPECT_STREQ(ZuString_SFormat("%d", 3), "3");
    EXPECT_STREQ(ZuString_SHFormat("\3", 1), "03 ");
    EXPECT_EQ(platform::liveBytes() - bytes, isLocking ? 1000 + 4 + 10000 + 4 : 0);
  }).join();
  EXPECT_EQ(platform::liveBytes(), bytes);
  EXPECT_EQ(std::string(text) + dump, isLocking ? "101 " : "303 ");
}

TEST(String, DumpsEveryLengthAndNotAByteMore) {
  const std::string bytes(4000, '\xA5');
  for (int32_t length = -1; length <= 50; ++length) {
    const size_t count = length < 0 ? 0 : static_cast<size_t>(length);
    const std::string expected = codec::hexText(bytes.substr(0, count)) + std::string("\0####", 5);
    std::string out(expected.size(), '#');
    ZuString_HFormat(out.data(), bytes.data(), length);
    EXPECT_EQ(out, expected) << length;
  }
  const std::string longest = codec::hexText(bytes.substr(0, 3265));
  for (const int32_t length : {3265, 3266, 4000}) EXPECT_EQ(ZuString_SHFormat(bytes.data(), length), longest);
  EXPECT_STREQ(ZuString_SHFormat("\n\xFF", 2), "0A FF ");
  EXPECT_STREQ(ZuString_SHFormat(nullptr, 4), "");
}

TEST(String, SplitsAtDelimiters) {
  EXPECT_EQ(split("a;b;", ";"), "a|b|~");
  EXPECT_EQ(split("", ";"), "");
  EXPECT_EQ(split("abc", ""), "|~") << "an empty delimiter cuts the text to nothing";
  // The character behind a delimiter never begins another one.
  EXPECT_EQ(split(",,,,x", ","), "|,|,x");
  EXPECT_EQ(split("a::b:::c::", "::"), "a|b|:c|~");
  // The last field keeps the rest.
  EXPECT_EQ(split("a;b;c", ";", 2), "a|b;c");
  EXPECT_EQ(split("a;", ";", 2), "a|~");
  EXPECT_EQ(split("a;b;c", ";", 1), "a;b;c");
  EXPECT_EQ(split("a;b;c", ";", -1), "a;b;c");
  char text[] = " a ", *field = text;
  EXPECT_FALSE(ZuString_Split(nullptr, " ", &field, 0) || ZuString_Split(text, nullptr, &field, 0));
  EXPECT_FALSE(ZuString_Split(text, " ", nullptr, 0));
  ZuString_Trim(text), ZuString_Trim(nullptr);
  EXPECT_STREQ(text, " a ") << "trims change nothing";
}

TEST(Time, FormatsByThePattern) {
  setenv("TZ", "UTC0", 1);
  const std::tuple<const char *, int64_t, const char *> cases[] = {
      {kLong, kMarch, "2024/03/05 07:08:09"},
      {"yy-mm-dd hh:mi:ss", kMarch, "24-3-5 7:8:9"},
      {"YYY yyyy YYYYY aa", kMarch, "24Y 2424 2024Y aa"},
      {"MMI MIMM mmi MMMI", kMarch, "03I 0803 3i 0308"},  // the month is tried before the minute
      {"Mi mI yY Dd hH Ss Y M D H I S %s", kMarch, "Mi mI yY Dd hH Ss Y M D H I S %s"},
      {"", kMarch, ""},
      {"yy|YY|mm-dd hh:mi:ss", 1104537600, "5|05|1-1 0:0:0"},
      {"yymmddhhmiss;", 1293834132, "101231222212;"},
      {kLong, -1, "1969/12/31 23:59:59"},  // only 0 means now
      {kLong, 2208988800, "2040/01/01 00:00:00"},
      {"YYYY/MM YYYY", 253402300800, "1000/01 10000"},  // far times go in fixed steps
      {"yy/YY", -2208988801, "-/-1"},                   // 1899
      {"YYYY/MM/DD HH:MI:SS yy-mm-dd", INT64_MAX, "1900/01/00 00:00:00 0-1-0"},
  };
  for (const auto &[pattern, t, expected] : cases) {
    EXPECT_EQ(timeText(pattern, t), expected);
  }
  char text[] = "a";
  EXPECT_TRUE(!ZuTime_Format(nullptr, "YYYY", 1) && ZuTime_Format(text, nullptr, 1) == text);
}

TEST(Time, ClocksFollowTheSystemsAndZeroMeansNow) {
  const auto micros = [] {
    return static_cast<uint32_t>(std::chrono::system_clock::now().time_since_epoch() / std::chrono::microseconds(1));
  };
  const uint32_t before = micros(), counter = ZuTime_GetUTime();
  EXPECT_LE(counter - before, micros() - before);
  const int64_t now = ZuTime_Now(), earlier = ZuTime_GetTime(-100);
  EXPECT_TRUE(earlier >= now - 100 && earlier <= ZuTime_Now() - 100) << earlier;

  const std::string text = timeText(kLong, 0);
  EXPECT_TRUE(text >= timeText(kLong, now) && text <= timeText(kLong, ZuTime_Now())) << text;
}

TEST(Time, FollowsTheZoneWithTheNextCall) {
  const std::string longZone = "<" + std::string(50, 'Z') + ">-", early = "EST5EDT,M1.1.0,M12.5.0";
  const struct {
    std::string zone, before;  // what TZ is, and what it was for the C library alone since the last call
    time_t t;
  } steps[] = {{"EAST-5", "", 0}, {"EAST-6", "", 0},  {"", "", 0},    {longZone + "1", "", 0}, {longZone + "2", "", 0},
               {"none", "", 0},   {"none", early, 1}, {early, "", 1}, {"EST5EDT", "", 1},      {"EST5EDT", early, 2}};
  for (const auto &[zone, before, later] : steps) {
    if (!before.empty()) setenv("TZ", before.c_str(), 1), tzset();
    zone == "none" ? unsetenv("TZ") : setenv("TZ", zone.c_str(), 1);
    const time_t t = kMarch + later;
    const std::string text = timeText("HH", t);
    EXPECT_EQ(text, timeText("HH", t));
    char expected[3];
    std::strftime(expected, sizeof expected, "%H", std::localtime(&t));
    EXPECT_EQ(text, expected) << zone << " " << before;
  }
}
