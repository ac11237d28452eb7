// md5_test.cpp: the key hash, whose numbers are the same on every host.
#include <gtest/gtest.h>
#include <kep/ZuMD5.h>

#include <array>
#include <memory>

#include "support/platform_double.hpp"

namespace {

using State = std::array<uint32_t, 4>;

// Room for whole words behind a key: zeros.
std::string padded(const std::string &key) { return key + std::string(44, '\0'); }

State encoded(const std::string &bytes, uint32_t length, ZuMD5 context = {}) {
  if (!context.state[0]) ZuMD5_Init(&context);
  ZuMD5_Encode(context.state, bytes.data(), length);
  return {context.state[0], context.state[1], context.state[2], context.state[3]};
}

// The whole sum: no key of these tests sums up to the modulus itself.
uint32_t hashed(const std::string &bytes, uint32_t length) { return ZuMD5_Hash(bytes.data(), length, UINT32_MAX); }

// All numbers here were computed by a Python program that was written from the description of the steps, before and
// without a look at this library's code: registers by name, sine constants from math.sin, words from struct.unpack.
TEST(KeyHash, GivesTheIndependentlyComputedNumbers) {
  const struct {
    std::string bytes;
    uint32_t length;
    State state;
  } vectors[] = {
      {padded(""), 0, {0xA8F5E99C, 0x3EA1B463, 0x93FC8D0F, 0x54E4FF11}},
      {padded("abc"), 3, {0x1E5CDAF4, 0x4658D2A8, 0x6AE32883, 0x9951E93D}},
      {padded("abcde"), 5, {0xDB1A9ED6, 0x61FB4595, 0x2350D1DC, 0xB44987A5}},
      {std::string(40, '\xFF'), 40, {0x5D0D1AD1, 0xE19B2EF4, 0x672304D3, 0x08CBBA9A}},
  };
  for (const auto &[bytes, length, state] : vectors) {
    EXPECT_EQ(encoded(bytes, length), state) << length;
    EXPECT_EQ(ZuMD5_Hash(bytes.data(), length, 97), (state[0] + state[1] + state[2] + state[3]) % 97);
  }
  const State first = encoded(padded("first"), 5);
  EXPECT_EQ(encoded("second..", 8, {{0, 0}, {first[0], first[1], first[2], first[3]}}),
            (State{0x35F04A50, 0xD83E3C81, 0x93A29C1D, 0xFD3B0DF5}));

  const int blocks = platform::liveBlocks();
  uint32_t random = 1, all = 0;
  for (uint32_t i = 0; i < 1000; ++i) {
    std::string key(44, '\0');
    for (char &c : key) c = static_cast<char>((random = random * 1664525U + 1013904223U) >> 24);
    all = all * 31 + hashed(key, i % 45);
  }
  EXPECT_EQ(all, 0x6B1FC687U);
  EXPECT_EQ(platform::liveBlocks(), blocks);
}

TEST(KeyHash, TakesTheRestOfAWordAndNothingBehindTheFortiethByte) {
  EXPECT_EQ(hashed("abcX", 3), 0xB10CB241U);
  EXPECT_EQ(hashed("axyz", 1), 0x500A9A92U);

  const std::unique_ptr<char[]> exact(new char[41]);  // the sanitizer watches its end
  for (int i = 0; i < 41; ++i) exact[static_cast<size_t>(i)] = static_cast<char>(i - 1);
  for (const uint32_t length : {37U, 40U, 41U, 44U, 0x7FFFFFFFU}) {
    EXPECT_EQ(ZuMD5_Hash(exact.get() + 1, length, UINT32_MAX), 0xC927914EU) << length << ", at an odd address";
  }
}

TEST(KeyHash, IsZeroWithoutDataOrModulus) {
  ZuMD5_Init(nullptr), ZuMD5_Encode(nullptr, "abcd", 4);
  ZuMD5 context = {{9, 9}, {1, 2, 3, 4}};
  ZuMD5_Encode(context.state, nullptr, 4);
  EXPECT_EQ(context.state[3], 4U);
  ZuMD5_Init(&context);
  EXPECT_EQ(context.count[0] | context.count[1], 0U);
  EXPECT_EQ(ZuMD5_Hash(nullptr, 4, 97) + ZuMD5_Hash("abcd", 4, 0) + ZuMD5_Hash("abcd", 4, 1), 0U);
}

}  // namespace
