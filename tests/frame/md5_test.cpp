// md5_test.cpp: the key hash, whose numbers are the same on every host.
#include <gtest/gtest.h>
#include <kep/ZuMD5.h>

#include <numeric>

// The whole sum: no key of these tests sums up to the modulus itself.
static uint32_t hashed(const char *bytes, uint32_t length) { return ZuMD5_Hash(bytes, length, UINT32_MAX); }

// All numbers here were computed by a Python program that was written from the description of the steps, before and
// without a look at this library's code: registers by name, sine constants from math.sin, words from struct.unpack.
TEST(KeyHash, GivesTheIndependentlyComputedNumbers) {
  ZuMD5 context = {{9, 9}, {}};
  ZuMD5_Init(&context);
  EXPECT_EQ(context.count[0] | context.count[1], 0U);
  ZuMD5_Encode(context.state, "first\0\0", 5), ZuMD5_Encode(context.state, "second..", 8);
  ZuMD5_Encode(context.state, nullptr, 4), ZuMD5_Encode(nullptr, "abcd", 4), ZuMD5_Init(nullptr);
  const uint32_t state[] = {0x35F04A50, 0xD83E3C81, 0x93A29C1D, 0xFD3B0DF5};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(context.state[i], state[i]) << i;

  EXPECT_EQ(hashed("abcX", 3), 0xB10CB241U) << "the rest of a word takes part";
  EXPECT_EQ(ZuMD5_Hash("axyz", 1, 97), 0x500A9A92U % 97);
  EXPECT_EQ(ZuMD5_Hash(nullptr, 4, 97) + ZuMD5_Hash("abcd", 4, 0) + ZuMD5_Hash("abcd", 4, 1), 0U);

  uint32_t random = 1, all = 0;
  for (uint32_t i = 0; i < 1000; ++i) {
    char key[44];
    for (char &c : key) c = static_cast<char>((random = random * 1664525U + 1013904223U) >> 24);
    all = all * 31 + hashed(key, i % 45);
  }
  EXPECT_EQ(all, 0x6B1FC687U);

  char exact[41];  // the sanitizer watches its end
  std::iota(exact, exact + 41, static_cast<char>(-1));
  for (const uint32_t length : {37U, 40U, 41U, 44U, 0x7FFFFFFFU}) {
    EXPECT_EQ(hashed(exact + 1, length), 0xC927914EU) << length << ": nothing behind the 40th byte, at an odd address";
  }
}
