// string_time_test.cpp: formatting, hex dumps, splitting, clocks and dates.
#include <gtest/gtest.h>
#include <kep/ZuString.h>
#include <kep/ZuTime.h>
#include <sys/time.h>

#include <cstdlib>
#include <cstring>

namespace {

// The dump of bytes that are all 0xA5.
std::string dumpOf(int32_t count) {
  std::string text;
  for (int32_t i = 0; i < count; ++i) text += i > 0 && i % 16 == 0 ? "\nA5 " : "A5 ";
  return text;
}

// The fields of a split joined with '|'; '~' stands for one that is counted but not written. A slot written beyond the
// counted ones fails.
std::string split(std::string text, const char *delimiter, int32_t maxFields) {
  char unwritten[] = "~";
  char *fields[16];
  for (char *&field : fields) field = unwritten;
  const int32_t count = ZuString_Split(text.data(), delimiter, fields, maxFields);
  std::string joined;
  for (int32_t i = 0; i < count; ++i) joined += (i ? "|" : "") + std::string(fields[i]);
  for (int32_t i = count; i < 16; ++i) EXPECT_EQ(fields[i], unwritten) << i;
  return joined;
}

void setZone(const char *zone) { setenv("TZ", zone, 1); }

std::string timeText(const char *pattern, time_t t) {
  char text[200];
  std::memset(text, '#', sizeof text);
  EXPECT_EQ(ZuTime_Format(text, pattern, t), text);
  return text;
}

constexpr char kLong[] = "YYYY/MM/DD HH:MI:SS";
constexpr time_t kMarch = 1709622489;  // 5 March 2024, 07:08:09 UTC

}  // namespace

TEST(String, FormatsIntoTheCallersOrTheStaticBuffer) {
  char out[8];
  std::memset(out, '#', sizeof out);
  EXPECT_EQ(ZuString_Format(out, "%d%%%s", 12, "ab"), out);
  EXPECT_EQ(std::string(out, sizeof out), std::string("12%ab\0##", 8));
  const std::string text(2000, 'x');
  EXPECT_EQ(ZuString_SFormat("%s", text.c_str()), text.substr(0, 999));
  EXPECT_STREQ(ZuString_SFormat("%s", "short"), "short");
}

TEST(String, DumpsEveryLengthAndNotAByteMore) {
  const std::string bytes(4000, '\xA5');
  for (int32_t length = -1; length <= 50; ++length) {
    const std::string expected = dumpOf(length) + std::string("\0####", 5);
    std::string out(expected.size(), '#');
    ZuString_HFormat(out.data(), bytes.data(), length);
    EXPECT_EQ(out, expected) << length;
  }
  EXPECT_STREQ(ZuString_SHFormat("\n\xFF", 2), "0A FF ");
  for (const int32_t length : {3265, 3266, 4000}) EXPECT_EQ(ZuString_SHFormat(bytes.data(), length), dumpOf(3265));
}

TEST(String, SplitsAtDelimiters) {
  EXPECT_EQ(split("k=v", "=", 0), "k|v");
  EXPECT_EQ(split("a;b;", ";", 0), "a|b|~");
  EXPECT_EQ(split("", ";", 0), "");
  EXPECT_EQ(split("abc", "abcd", 0), "abc");
  EXPECT_EQ(split("abc", "", 0), "|~") << "an empty delimiter cuts the text to nothing";
  // The character behind a delimiter never begins another one.
  EXPECT_EQ(split("a,,b", ",", 0), "a|,b");
  EXPECT_EQ(split(",,,,x", ",", 0), "|,|,x");
  EXPECT_EQ(split("a::b:::c::", "::", 0), "a|b|:c|~");
  // The last field keeps the rest.
  EXPECT_EQ(split("a;b;c", ";", 2), "a|b;c");
  EXPECT_EQ(split("a;", ";", 2), "a|~");
  EXPECT_EQ(split("a;b;c", ";", 1), "a;b;c");
  EXPECT_EQ(split("a;b;c", ";", -1), "a;b;c");
}

TEST(String, AcceptsNull) {
  char text[] = "a";
  char *field = text + 1;
  EXPECT_STREQ(ZuString_SFormat(static_cast<const char *>(nullptr)), "");
  EXPECT_STREQ(ZuString_SHFormat(nullptr, 4), "");
  EXPECT_TRUE(!ZuString_Format(nullptr, "%d", 1) && !ZuString_HFormat(nullptr, text, 1));
  EXPECT_TRUE(!ZuTime_Format(nullptr, "YYYY", 1) && ZuTime_Format(text, nullptr, 1) == text);
  EXPECT_EQ(ZuString_Split(nullptr, " ", &field, 0) + ZuString_Split(text, nullptr, &field, 0), 0);
  EXPECT_EQ(field, text + 1);
  ZuString_Trim(nullptr);
}

TEST(String, TrimsChangeNothing) {
  char text[] = " a ";
  ZuString_Trim(text);
  EXPECT_STREQ(text, " a ");
}

TEST(Time, FormatsByThePattern) {
  setZone("UTC0");
  const struct {
    const char *pattern, *expected;
  } cases[] = {
      {kLong, "2024/03/05 07:08:09"},
      {"YY/MM/DD HH:MI:SS", "24/03/05 07:08:09"},
      {"yy-mm-dd hh:mi:ss", "24-3-5 7:8:9"},
      {"", ""},
      {"YYY yyyy YYYYY", "24Y 2424 2024Y"},
      {"MMI MIMM mmi MMMI", "03I 0803 3i 0308"},  // the month is tried before the minute
      {"Mi mI yY Dd hH Ss Y M D H I S %s", "Mi mI yY Dd hH Ss Y M D H I S %s"},
  };
  for (const auto &c : cases) EXPECT_EQ(timeText(c.pattern, kMarch), c.expected);
  EXPECT_EQ(timeText("yy|YY|mm-dd hh:mi:ss", 1104537600), "5|05|1-1 0:0:0");
  EXPECT_EQ(timeText("yymmddhhmiss;", 1293834132), "101231222212;");
  EXPECT_EQ(timeText(kLong, -1), "1969/12/31 23:59:59") << "only 0 means now";
}

TEST(Time, ShowsFarTimesInFixedStepsAndZerosWithoutAConversion) {
  if (sizeof(time_t) < 8) GTEST_SKIP() << "times of 32 bits all convert";
  setZone("UTC0");
  EXPECT_EQ(timeText("YYYY", static_cast<time_t>(253402300800)), "10000");
  EXPECT_EQ(timeText("YYYY/MM", static_cast<time_t>(253402300800)), "1000/01");
  EXPECT_EQ(timeText("yy/YY", static_cast<time_t>(-2208988801)), "-/-1");  // 1899
  EXPECT_EQ(timeText("YYYY/MM/DD HH:MI:SS yy-mm-dd", static_cast<time_t>(INT64_MAX)), "1900/01/00 00:00:00 0-1-0");
}

TEST(Time, ZeroMeansNow) {
  setZone("EAST-5");
  EXPECT_EQ(timeText(kLong, kMarch), "2024/03/05 12:08:09");
  time_t t = ZuTime_Now();
  ZuTime_Sleep(1);
  const std::string text = timeText(kLong, 0);
  for (const time_t after = ZuTime_Now(); t < after && timeText(kLong, t) != text;) ++t;
  EXPECT_EQ(timeText(kLong, t), text);
}

TEST(Time, ClocksFollowTheSystems) {
  const auto micros = [] {
    timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<uint32_t>(uint64_t(now.tv_sec) * 1000000 + uint64_t(now.tv_usec));
  };
  const uint32_t before = micros();
  const uint32_t counter = ZuTime_GetUTime();
  EXPECT_LE(counter - before, micros() - before);
  const time_t now = ZuTime_Now();
  const time_t earlier = ZuTime_GetTime(-100);
  EXPECT_TRUE(earlier >= now - 100 && earlier <= ZuTime_Now() - 100) << earlier;
}
