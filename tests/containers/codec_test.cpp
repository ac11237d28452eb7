// codec_test.cpp: the bytes that formats describe, there and back, and their dumps.
#include <gtest/gtest.h>
#include <kep/ZuBuffer.h>

#include <cstdlib>
#include <cstring>
#include <random>

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

constexpr size_t kMostFields = 5;

struct Field {
  bool isText;
  std::string bytes;  // as they must lie in the buffer
};

// A random format and the bytes that it must give.
struct Sample {
  std::string format;
  std::vector<Field> fields;
  std::string layout;
};

Sample makeSample(std::mt19937 &random) {
  Sample sample;
  for (size_t left = random() % (kMostFields + 1); left > 0; --left) {
    const char letter = "BbHhIiTsS"[random() % 9];
    const bool isText = letter == 's' || letter == 'S';
    const size_t size = isText ? random() % 3 * 11 : std::strchr("Bb", letter) ? 1 : std::strchr("Hh", letter) ? 2 : 4;
    Field field{isText, std::string(size, '\0')};
    for (char &byte : field.bytes) byte = static_cast<char>(random() % 3 ? random() : 0);
    if (random() % 4 == 0) sample.format += "12t %x,"[random() % 7];  // ignored, or a count that nothing may use
    if (isText) sample.format += '*' + (size ? std::to_string(size) : "");
    sample.format += letter;
    sample.layout += field.bytes;
    sample.fields.push_back(field);
  }
  if (sample.format[0] == '*') sample.format.insert(0, " ");  // it would ask for a dump
  return sample;
}

// Packs the sample, adding one argument after the other, each with the type its field asks for.
template <typename... Args>
int32_t packSample(void *out, const Sample &sample, Args... args) {
  constexpr size_t done = sizeof...(args);
  if (done == sample.fields.size()) return ZuBuffer_Pack(out, sample.format.c_str(), args...);
  if constexpr (done < kMostFields) {
    const Field &field = sample.fields[done];
    if (field.isText) return packSample(out, sample, args..., field.bytes.data());
    uint32_t value = 0;
    for (const char byte : field.bytes) value = value << 8 | static_cast<uint8_t>(byte);
    return packSample(out, sample, args..., value);
  }
  return -1;
}

// What unpacking must leave in memory.
std::string unpackedBytes(const Field &field) {
  if (field.isText) return field.bytes + '\0';
  const uint16_t one = 1;
  if (*reinterpret_cast<const uint8_t *>(&one) == 0) return field.bytes;
  return std::string(field.bytes.rbegin(), field.bytes.rend());
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

TEST(Codec, RandomFormatsComeBackAsTheyWent) {
  std::mt19937 random(90125);
  for (int round = 0; round < 5000; ++round) {
    const Sample sample = makeSample(random);
    SCOPED_TRACE(sample.format);
    std::string area(sample.layout.size() + 4, '#');
    ASSERT_EQ(packSample(area.data(), sample), static_cast<int32_t>(sample.layout.size()));
    ASSERT_EQ(area, sample.layout + "####");
    int32_t fields = -1;
    ASSERT_EQ(ZuBuffer_GetPackSize(sample.format.c_str(), &fields), static_cast<int32_t>(sample.layout.size()));
    ASSERT_EQ(fields, static_cast<int32_t>(sample.fields.size()));

    alignas(4) char out[kMostFields][40];
    std::memset(out, '#', sizeof out);
    ASSERT_EQ(ZuBuffer_UNPack(sample.format.c_str(), area.data(), out[0], out[1], out[2], out[3], out[4]), fields);
    for (size_t i = 0; i < sample.fields.size(); ++i) {
      const std::string expected = unpackedBytes(sample.fields[i]) + '#';
      ASSERT_EQ(std::string(out[i], expected.size()), expected);
    }
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
  for (const size_t size : {15U, 16U, 17U, 983U, 984U, 1000U, 1024U, 3264U, 3265U, 6545U}) {
    const std::string count = std::to_string(size);
    const std::string text(size, 'Z');
    EXPECT_EQ(dump("*" + count + "ss", text, 2),
              "format:*" + count + "ss\n0001[" + count + "s]=>" + text + "<\n0002[0s]=><\n");
    std::string hex;
    for (size_t i = 0; i < size; ++i) hex += i % 16 == 0 ? "\n5A " : "5A ";
    EXPECT_EQ(dump("*" + count + "S", text, 1), "format:*" + count + "S\n0001[" + count + "S]=>" + hex + "\n");
  }
  const std::string blanks(1500, ' ');
  EXPECT_EQ(dump("*" + blanks + "b", "\x05", 1), "format:*" + blanks + "b\n0001[B]=>5<\n");
}
