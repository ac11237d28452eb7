// string_time_test.cpp: formatting, hex dumps, clocks. Splits and date patterns are for a harness to compare.
#include <gtest/gtest.h>
#include <kep/ZuString.h>
#include <kep/ZuTime.h>

#include <chrono>
#include <thread>

#include "containers/codec_model.hpp"
#include "support/platform_double.hpp"

namespace {

std::string timeText(const char *pattern, int64_t t) {
  char text[200] = "####";
  EXPECT_EQ(ZuTime_Format(text, pattern, t), text);
  return text;
}

constexpr char kLong[] = "YYYY/MM/DD HH:MI:SS";

}  // namespace

TEST(String, FormatsIntoTheCallersOrTheStaticBuffer) {
  char out[] = "#######";
  EXPECT_EQ(ZuString_Format(out, "%d%%%s", 12, "ab"), out);
  EXPECT_EQ(std::string(out, sizeof out), std::string("12%ab\0#\0", 8));
  const std::string text(2000, 'x');
  EXPECT_EQ(ZuString_SFormat("%s", text.c_str()), text.substr(0, 999));
  EXPECT_STREQ(ZuString_SFormat(static_cast<const char *>(nullptr)), "");
  EXPECT_STREQ(ZuString_Format(out, static_cast<const char *>(nullptr)), "");
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

TEST(String, AcceptsNull) {
  char text[] = " a ", *field = text;
  EXPECT_FALSE(ZuString_Format(nullptr, "%d", 1) || ZuString_HFormat(nullptr, "a", 1));
  EXPECT_FALSE(ZuString_Split(nullptr, " ", &field, 0) || ZuString_Split(text, nullptr, &field, 0));
  EXPECT_FALSE(ZuString_Split(text, " ", nullptr, 0) || ZuTime_Format(nullptr, "YYYY", 1));
  ZuString_Trim(nullptr);
  EXPECT_EQ(ZuTime_Format(text, nullptr, 1), text);
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
