// codec_test.cpp: the bytes that formats describe, there and back, and their dumps.
#include <gtest/gtest.h>
#include <kep/ZuBuffer.h>

#include <cstdlib>
#include <cstring>
#include <random>

#include "containers/codec_model.hpp"
#include "support/platform_double.hpp"

namespace {

template <typename... Args>
std::string packed(const char *format, Args... args) {
  char area[64];
  const int32_t size = ZuBuffer_Pack(area, format, args...);
  return std::string(area, static_cast<size_t>(size));
}

std::string bytes(const char *hex) {
  std::string all;
  for (char *end; *hex; hex = end) all += static_cast<char>(std::strtoul(hex, &end, 16));
  return all;
}

// What a dump prints; it must return `fields`.
std::string dump(const std::string &format, const std::string &data, int32_t fields) {
  platform::takePrinted();
  EXPECT_EQ(ZuBuffer_UNPack(format.c_str(), data.data()), fields);
  return platform::takePrinted();
}

}  // namespace

TEST(Codec, LaysFieldsEndToEndMostSignificantByteFirst) {
  EXPECT_EQ(packed("BIIII", 1, 2, 3, 4, 5), bytes("01 00 00 00 02 00 00 00 03 00 00 00 04 00 00 00 05"));
  EXPECT_EQ(packed("B3sH2S", 7, "a\0c", 4660, "xy"), bytes("07 61 00 63 12 34 78 79"));
  EXPECT_EQ(packed("bhiT", 0x1FE, -2, -3, 0x12345678), bytes("FE FF FE FF FF FF FD 12 34 56 78"));
  EXPECT_EQ(packed("4I", 9), bytes("00 00 00 09")) << "a count repeats nothing";
  EXPECT_EQ(packed("sB", "gone", 1), bytes("01")) << "a text without a count takes its argument";
  EXPECT_EQ(packed("*3*s5 s3ts1 2S", "a", "b", "c", "de"), "de") << "what is ignored clears the count";
  EXPECT_EQ(packed("B2sB", 1, static_cast<const char *>(nullptr), 2), bytes("01 00 00 02"));
}

TEST(Codec, RandomFormatsDoAsTheirModel) {
  std::mt19937 random(90125);
  for (int round = 0; round < 5000; ++round) {
    std::string format, bytes;
    for (size_t left = random() % 13; left > 0; --left) format += "BbHhIiTsSSs0123* t%"[random() % 19];
    for (size_t left = random() % 40; left > 0; --left) bytes += static_cast<char>(random() % 3 ? random() : 0);
    ASSERT_EQ(codec::difference(format, bytes, static_cast<unsigned>(random() & random())), "") << format;
  }
}

TEST(Codec, CountsAndSumsStopAtTheLargest) {
  for (const char *format :
       {"2147483648s", "4294967297S", "99999999999999999999s", "2147483647s9sI", "2147483640sII"}) {
    EXPECT_EQ(ZuBuffer_GetPackSize(format, nullptr), INT32_MAX) << format;
  }
  EXPECT_EQ(ZuBuffer_GetPackSize("99999999999B2s2147483000s", nullptr), 2147483003);
}

TEST(Codec, AcceptsNull) {
  char byte = '#';
  platform::takePrinted();
  EXPECT_EQ(ZuBuffer_Pack(nullptr, "B", 1) + ZuBuffer_Pack(&byte, nullptr), 0);
  EXPECT_EQ(ZuBuffer_UNPack(nullptr, &byte) + ZuBuffer_UNPack("B", nullptr, &byte) + ZuBuffer_UNPack("*B", nullptr), 0);
  EXPECT_EQ(byte, '#');
  EXPECT_EQ(platform::takePrinted(), "");
  EXPECT_EQ(ZuBuffer_UNPack("I2sB", "123456\7", nullptr, nullptr, &byte), 3);
  EXPECT_EQ(byte, '\7') << "fields without a destination are skipped";
  int32_t fields = -1;
  EXPECT_EQ(ZuBuffer_GetPackSize(nullptr, &fields) + fields, 0);
}

TEST(CodecDump, ShowsEachLetterItsWay) {
  setenv("TZ", "UTC0", 1);
  EXPECT_EQ(dump("*2B", bytes("0A FF"), 1), "format:*2B\n0001[B]=>0x0A<\n");
  EXPECT_EQ(dump("*BbHhHIiI", bytes("FF FF 80 00 80 00 12 34 89 AB CD EF 89 AB CD EF 00 00 00 01"), 8),
            "format:*BbHhHIiI\n0001[B]=>0xFF<\n0002[B]=>255<\n0003[H]=>0xFFFF8000<\n0004[h]=>-32768<\n"
            "0005[H]=>0x1234<\n0006[I]=>0x89ABCDEF<\n0007[i]=>-1985229329<\n0008[I]=>0x00000001<\n");
  EXPECT_EQ(dump("*TTt", bytes("65 E6 C4 D9 80 00 00 00"), 2),
            "format:*TTt\n0001[T]=>2024/03/05 07:08:09<\n0002[T]=>1901/12/13 20:45:52<\n")
      << "stamps have a sign on every host";
  EXPECT_EQ(dump("*5s2SsSB", bytes("61 62 00 64 65 00 FF 07"), 5),
            "format:*5s2SsSB\n0001[5s]=>ab<\n0002[2S]=>\n00 FF \n0003[0s]=><\n0004[0S]=>\n\n0005[B]=>0x07<\n")
      << "a text ends at its first NUL, its field does not";
  EXPECT_EQ(dump("*%n4s%d", "%s%n", 1), "format:*%n4s%d\n0001[4s]=>%s%n<\n");
}

TEST(CodecDump, LongFieldsAndFormatsAreShownWhole) {
  for (const char *size : {"15", "16", "17", "983", "984", "1000", "1024", "3264", "3265", "6545"}) {
    EXPECT_EQ(codec::difference(size + std::string("ss"), "Z", 0) + codec::difference(size + std::string("S"), "Z", 0),
              "");
  }
  const std::string blanks(1500, ' ');
  EXPECT_EQ(dump("*" + blanks + "b", "\x05", 1), "format:*" + blanks + "b\n0001[B]=>5<\n");
}
