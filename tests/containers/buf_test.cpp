// buf_test.cpp: growth, contents and limits of byte buffers.
#include <gtest/gtest.h>
#include <kep/ZuBuf.h>

#include <random>

#include "support/platform_double.hpp"

namespace {

// A buffer that must give back all its memory.
class Buf {
 public:
  Buf(uint32_t elemSize, uint32_t count, uint32_t growStep) : buf_(ZuBuf_New(elemSize, count, growStep)) {
    withoutBlock_ = platform::liveBytes() - int64_t{elemSize} * count;
  }
  ~Buf() {
    platform::failAllocation(platform::kNever);
    ZuBuf_Release(buf_);
    EXPECT_EQ(platform::liveBytes(), before_);
  }
  Buf(const Buf &) = delete;
  Buf &operator=(const Buf &) = delete;

  operator ZuBuf *() { return buf_; }
  int32_t append(const std::string &bytes, uint32_t n = 0) { return ZuBuf_Append(buf_, bytes.c_str(), n); }
  int32_t set(uint32_t index, const std::string &bytes, uint32_t n) { return ZuBuf_Set(buf_, index, bytes.data(), n); }
  // The whole block, beyond the elements in use too.
  std::string block() {
    void *data = nullptr;
    EXPECT_GE(ZuBuf_Get(buf_, 0, &data), 2U);
    return std::string(static_cast<char *>(data), static_cast<size_t>(platform::liveBytes() - withoutBlock_));
  }

 private:
  int64_t before_ = platform::liveBytes();
  ZuBuf *buf_;
  int64_t withoutBlock_;
};

std::string zeros(size_t count) { return std::string(count, '\0'); }

}  // namespace

TEST(ByteBuffer, GrowsInWholeStepsAndOnlyWhenFull) {
  Buf buf(1, 16, 0);
  buf.append(std::string(16, 'a'));
  EXPECT_EQ(buf.block(), std::string(16, 'a'));
  EXPECT_EQ(buf.append("b"), 1);
  EXPECT_EQ(buf.block(), std::string(16, 'a') + "b" + zeros(15));
  platform::failAllocation(0, true);
  EXPECT_EQ(buf.append(std::string(15, 'c')), 1) << "fits, so nothing is allocated";
  EXPECT_EQ(buf.append(""), 1);
  EXPECT_EQ(ZuBuf_Length(buf), 32U) << "no terminator is added";
  ZuBuf_Clear(buf);
  EXPECT_EQ(ZuBuf_Length(buf), 0U);
  EXPECT_EQ(buf.append("xyz"), 1);
  EXPECT_EQ(buf.block(), "xyz" + zeros(29)) << "the block stays";
}

TEST(ByteBuffer, SetWritesBeyondTheLengthUntilTheBlockGrows) {
  Buf buf(1, 4, 8);
  buf.append("abc");
  EXPECT_EQ(buf.set(10, "XY", 2), 1);
  EXPECT_EQ(ZuBuf_Length(buf), 3U);
  EXPECT_EQ(buf.block(), "abc" + zeros(7) + "XY" + zeros(4));
  EXPECT_EQ(buf.set(1, "B", 1) + buf.set(16, "Z", 1), 2);
  EXPECT_EQ(buf.block(), "aBc" + zeros(13) + "Z" + zeros(7)) << "growing keeps the elements in use only";
  ZuBuf_Clear(buf);
  buf.append("d");
  EXPECT_EQ(buf.block(), "d" + zeros(15) + "Z" + zeros(7)) << "clearing zeroes the elements in use only";
}

TEST(ByteBuffer, WideElementsGrowWhenTheirBlockIsFull) {
  Buf buf(4, 2, 0);  // the step is 2 bytes
  buf.append("AAAABBBB", 2);
  EXPECT_EQ(buf.append("CCCC", 1) + buf.append("DDDD", 1), 2);  // its capacity says 12 then, its block holds 3
  EXPECT_EQ(buf.block(), "AAAABBBBCCCCDDDD");
}

TEST(ByteBuffer, SizesThatWrapAndFailedAllocationsLeaveWhatWasThere) {
  const int64_t before = platform::liveBytes();
  EXPECT_TRUE(!ZuBuf_New(0x10000, 0x10000, 0) && !ZuBuf_New(1, UINT32_MAX, 0));
  EXPECT_EQ(platform::liveBytes(), before);

  for (const uint32_t elemSize : {1U, 4U, 0x10000U}) {
    Buf buf(elemSize, 2, 0);
    const std::string element(elemSize, 'a');
    buf.append(element, 1);
    for (const uint32_t n : {UINT32_MAX, UINT32_MAX - 1, 0x80000000U, 0x40000000U, 0x3FFFFFFFU}) {
      EXPECT_EQ(buf.append(element, n) + buf.set(n, element, 1) + buf.set(1, element, n), 0) << n;
    }
    platform::failAllocation(0, true);
    EXPECT_EQ(buf.append(element + element, 2) + buf.set(2, element, 1), 0);
    EXPECT_EQ(buf.append(element, 1), 1) << "the last element of the old block";
    EXPECT_EQ(buf.block(), element + element);
  }
  for (const uint32_t step : {0x80000001U, UINT32_MAX}) {
    Buf buf(1, 1, step);
    EXPECT_EQ(buf.append("ab"), 0) << "rounded up to " << step;
  }
}

TEST(ByteBuffer, BehavesAsAnArrayUnderRandomOperations) {
  std::mt19937 engine(1848);
  const auto random = [&engine](uint32_t below) { return static_cast<uint32_t>(engine()) % below; };
  for (const uint32_t elemSize : {1U, 2U, 3U, 8U, 100U}) {
    Buf buf(elemSize, 3, random(40));
    std::vector<char> model;
    for (int i = 0; i < 2000; ++i) {
      const uint32_t n = random(6) + 1;
      const std::string bytes(size_t{n} * elemSize, static_cast<char>(random(255) + 1));
      if (random(200) == 0) ZuBuf_Clear(buf), model.clear();
      if (random(2) == 0) {
        ASSERT_EQ(buf.append(bytes, n), 1);
        model.insert(model.end(), bytes.begin(), bytes.end());
      } else {
        const uint32_t index = random(ZuBuf_Length(buf) + 6);
        ASSERT_EQ(buf.set(index, bytes, n), 1);
        const size_t at = std::min(size_t{index} * elemSize, model.size());
        std::copy_n(bytes.begin(), std::min(bytes.size(), model.size() - at),
                    model.begin() + static_cast<ptrdiff_t>(at));
      }
      ASSERT_EQ(ZuBuf_Length(buf) * elemSize, model.size());
      ASSERT_TRUE(model.empty() || buf.block().compare(0, model.size(), model.data(), model.size()) == 0);
    }
  }
}

TEST(ByteBuffer, AcceptsNullAndGetCountsOneMoreThanIsLeft) {
  void *data = &data;
  ZuBuf_Release(nullptr);
  ZuBuf_Clear(nullptr);
  EXPECT_EQ(ZuBuf_Get(nullptr, 0, &data) + ZuBuf_Length(nullptr), 0U);
  EXPECT_EQ(data, &data);
  Buf buf(1, 0, 0);
  EXPECT_EQ(ZuBuf_Append(nullptr, "a", 1) + ZuBuf_Append(buf, nullptr, 0) + ZuBuf_Append(buf, nullptr, 1), 0);
  EXPECT_EQ(ZuBuf_Set(nullptr, 0, "a", 1) + ZuBuf_Set(buf, 0, nullptr, 1), 0);
  buf.append("12345");
  EXPECT_EQ(buf.block(), "12345") << "without a step it grows to what is needed";
  EXPECT_EQ(ZuBuf_Get(buf, 0, &data), 6U);
  EXPECT_EQ(ZuBuf_Get(buf, 4, &data), 2U);
  EXPECT_EQ(*static_cast<char *>(data), '5');
  EXPECT_EQ(ZuBuf_Get(buf, 5, &data), 0U);
  EXPECT_EQ(data, nullptr);
}
