// buf_test.cpp: growth, contents and limits of byte buffers.
#include <gtest/gtest.h>
#include <kep/ZuBuf.h>

#include <random>

#include "support/platform_double.hpp"

namespace {

// What the block of a buffer holds, beyond the elements in use too.
struct Block {
  size_t elemSize, room, step, length = 0;
  std::string bytes = std::string(elemSize * room, '\0');

  void write(size_t index, const std::string &data) {
    const size_t need = index * elemSize + data.size();
    if (need > room * elemSize || need > bytes.size()) {
      bytes.resize(length * elemSize);  // the elements in use are kept
      bytes.resize((need + step - 1) / step * step);
      room = bytes.size();  // though compared with elements
    }
    bytes.replace(index * elemSize, data.size(), data);
  }
  void clear() { std::fill_n(bytes.begin(), std::exchange(length, 0) * elemSize, '\0'); }
};

}  // namespace

TEST(ByteBuffer, HoldsWhatItsModelHolds) {
  std::mt19937 engine(1848);
  const auto random = [&engine](size_t below) { return static_cast<uint32_t>(engine() % below); };
  for (const auto &[elemSize, count, step] :
       {std::array{1U, 16U, 16U}, {1, 4, 8}, {4, 2, 2}, {3, 3, 40}, {100, 1, 9}}) {
    const int64_t before = platform::liveBytes();
    ZuBuf *buf = ZuBuf_New(elemSize, count, step == count ? 0 : step);
    Block model{elemSize, count, step};
    const auto withoutBlock = static_cast<size_t>(platform::liveBytes()) - model.bytes.size();
    for (int i = 0; i < 1000; ++i) {
      if (random(50) == 0) ZuBuf_Clear(buf), model.clear();
      const bool appends = random(2) != 0;
      const auto n = random(6) + 1, index = appends ? ZuBuf_Length(buf) : random(model.length + 6);
      const std::string data(size_t{n} * elemSize, static_cast<char>(random(255) + 1));
      model.write(index, data);
      if (appends) model.length += n;
      const uint32_t appended = elemSize == 1 ? 0 : n;  // texts are measured
      ASSERT_EQ(appends ? ZuBuf_Append(buf, data.c_str(), appended) : ZuBuf_Set(buf, index, data.c_str(), n), 1);
      ASSERT_EQ(ZuBuf_Length(buf), model.length);
      void *block = nullptr;
      if (!ZuBuf_Get(buf, 0, &block)) continue;
      const auto size = static_cast<size_t>(platform::liveBytes()) - withoutBlock;
      ASSERT_EQ(std::string(static_cast<char *>(block), size), model.bytes) << elemSize << " " << i;
    }
    ZuBuf_Release(buf);
    EXPECT_EQ(platform::liveBytes(), before);
  }
}

TEST(ByteBuffer, RefusesSizesThatWrap) {
  const int64_t before = platform::liveBytes();
  EXPECT_TRUE(!ZuBuf_New(0x10000, 0x10000, 0) && !ZuBuf_New(1, UINT32_MAX, 0));
  for (const auto &[elemSize, step] : {std::pair{1U, 0U}, {4, 0}, {0x10000, 0}, {1, 0x80000001}, {1, UINT32_MAX}}) {
    ZuBuf *buf = ZuBuf_New(elemSize, 2, step);
    const std::string element(elemSize, 'a');
    ZuBuf_Append(buf, element.c_str(), 1);
    for (const uint32_t n : {UINT32_MAX, UINT32_MAX - 1, 0x80000000U, 0x40000000U, 0x3FFFFFFFU}) {
      EXPECT_EQ(ZuBuf_Append(buf, element.c_str(), n) + ZuBuf_Set(buf, 1, element.c_str(), n), 0) << n;
      EXPECT_EQ(ZuBuf_Set(buf, n, element.c_str(), 1), 0) << n;
    }
    EXPECT_TRUE(step == 0 || ZuBuf_Set(buf, 2, element.c_str(), 1) == 0) << "rounded up";
    EXPECT_EQ(ZuBuf_Length(buf), 1U);
    ZuBuf_Release(buf);
  }
  EXPECT_EQ(platform::liveBytes(), before);
}

TEST(ByteBuffer, AcceptsNullAndGetCountsOneMoreThanIsLeft) {
  ZuBuf *buf = ZuBuf_New(1, 0, 0);  // without a step it grows to what is needed
  ZuBuf_Release(nullptr), ZuBuf_Clear(nullptr);
  EXPECT_EQ(ZuBuf_Append(nullptr, "a", 1) + ZuBuf_Set(nullptr, 0, "a", 1), 0);
  EXPECT_EQ(ZuBuf_Append(buf, nullptr, 1) + ZuBuf_Set(buf, 0, nullptr, 1), 0);
  EXPECT_EQ(ZuBuf_Append(buf, "12345", 0), 1);
  void *data = buf;
  EXPECT_EQ(ZuBuf_Get(nullptr, 0, &data) + ZuBuf_Length(nullptr), 0U);
  EXPECT_EQ(data, buf) << "left alone without a buffer";
  EXPECT_EQ(ZuBuf_Get(buf, 4, &data), 2U);
  EXPECT_EQ(*static_cast<char *>(data), '5');
  EXPECT_EQ(ZuBuf_Get(buf, 5, &data), 0U);
  EXPECT_EQ(data, nullptr);
  ZuBuf_Release(buf);
}
