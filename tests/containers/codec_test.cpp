// codec_test.cpp: the bytes that formats describe, and their dumps; a harness compares both with a model.
#include <gtest/gtest.h>
#include <kep/ZuBuffer.h>

#include <cstdlib>

#include "containers/codec_model.hpp"
#include "support/platform_double.hpp"

namespace {

// The bytes in hexadecimal.
template <typename... Args>
std::string packed(const char *format, Args... args) {
  char area[64];
  const int32_t size = ZuBuffer_Pack(area, format, args...);
  return codec::hexText(std::string(area, static_cast<size_t>(size)));
}

}  // namespace

TEST(Codec, LaysFieldsEndToEndMostSignificantByteFirst) {
  EXPECT_EQ(packed("B3sHbhiT", 7, "a\0c", 4660, 0x1FE, -2, -3, 0x12345678),
            "07 61 00 63 12 34 FE FF FE FF FF FF FD 12 34 56 \n78 ");
  EXPECT_EQ(packed("4IsB", 9, "gone", 1), "00 00 00 09 01 ") << "a text without a count takes its argument";
  EXPECT_EQ(packed("*3*s5 s3ts1 2S", "a", "b", "c", "de"), "64 65 ") << "what is ignored clears the count";
  EXPECT_EQ(packed("B2sB", 1, static_cast<const char *>(nullptr), 2), "01 00 00 02 ");
}

TEST(Codec, AcceptsNull) {
  char byte = '#';
  platform::takePrinted();
  EXPECT_EQ(ZuBuffer_Pack(nullptr, "B", 1) + ZuBuffer_Pack(&byte, nullptr), 0);
  EXPECT_EQ(ZuBuffer_UNPack(nullptr, &byte) + ZuBuffer_UNPack("B", nullptr, &byte) + ZuBuffer_UNPack("*B", nullptr), 0);
  EXPECT_EQ(byte + platform::takePrinted(), "#");
  int32_t fields = -1;
  EXPECT_EQ(ZuBuffer_GetPackSize(nullptr, &fields) + fields + ZuBuffer_GetPackSize("", nullptr), 0);
}

TEST(Codec, DumpsEachLetterItsWay) {
  setenv("TZ", "UTC0", 1);
  platform::takePrinted();
  constexpr char kData[] =
      "\xFF\xFF\x80\0\x80\0\x12\x34\x89\xAB\xCD\xEF\x89\xAB\xCD\xEF"  // up to i
      "\x65\xE6\xC4\xD9\x80\0\0\0%s%nab\0de\0\xFF";
  EXPECT_EQ(ZuBuffer_UNPack("*2BbHhHIi%nTTt4s5s2SsS", kData), 14);
  EXPECT_EQ(platform::takePrinted(),
            "format:*2BbHhHIi%nTTt4s5s2SsS\n0001[B]=>0xFF<\n0002[B]=>255<\n0003[H]=>0xFFFF8000<\n"
            "0004[h]=>-32768<\n0005[H]=>0x1234<\n0006[I]=>0x89ABCDEF<\n0007[i]=>-1985229329<\n"
            "0008[T]=>2024/03/05 07:08:09<\n0009[T]=>1901/12/13 20:45:52<\n"  // with a sign on every host
            "0010[4s]=>%s%n<\n0011[5s]=>ab<\n0012[2S]=>\n00 FF \n0013[0s]=><\n0014[0S]=>\n\n")
      << "a text ends at its first NUL, its field does not";
}
