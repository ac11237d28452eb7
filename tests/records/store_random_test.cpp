// Random operations on a store and on its model, which must agree on every result, byte and line after each of them.
#include <gtest/gtest.h>
#include <kep/ZuBuffer.h>
#include <kep/ZuTime.h>

#include <ostream>
#include <random>

#include "records/store_model.hpp"
#include "support/platform_double.hpp"

namespace {

struct Case {
  uint32_t limit;
  int64_t largest;  // record, apart from those made to fit an edge
  int steps;
};

void PrintTo(const Case &c, std::ostream *out) { *out << c.limit; }  // names the case

class RandomStore : public testing::TestWithParam<Case> {
 protected:
  RandomStore() : random_(GetParam().limit + 1), store_(ZuInfo_New(GetParam().limit)), model_(GetParam().limit) {}
  ~RandomStore() override {
    ZuInfo_Release(store_);
    EXPECT_EQ(platform::liveBlocks(), 0);
  }

  int below(int64_t n) { return n <= 1 ? 0 : static_cast<int>(random_() % static_cast<uint64_t>(n)); }
  bool oneIn(int n) { return below(n) == 0; }

  std::string makeKey() {
    static constexpr int kLengths[] = {0, 1, 2, 3, 254};
    std::string key(static_cast<size_t>(oneIn(4) ? below(255) : kLengths[below(5)]), 'a');
    for (char &letter : key) letter = oneIn(2) ? 'a' : 'b';
    if (oneIn(50)) key.resize(255 + static_cast<size_t>(below(3)), 'b');
    return key;
  }

  // Lengths lean to the edges: what is just free, the limit, what is left of the block, and one to either side.
  std::string makeValue(size_t keyLength) {
    const int64_t edges[] = {model_.freeSize(), model_.limit(), model_.size(), 65535, 65536, 0};
    int64_t length = below(GetParam().largest);
    if (oneIn(3)) length = edges[below(6)] - (oneIn(4) ? 0 : static_cast<int64_t>(keyLength) + 3) + below(3) - 1;
    std::string value(static_cast<size_t>(std::min<int64_t>(std::max<int64_t>(length, 0), 70000)), '\0');
    const auto filler = static_cast<char>(oneIn(4) ? 0xFF : random_());
    std::fill(value.begin(), value.end(), filler);
    std::string serial = std::to_string(++serial_);
    return value.replace(0, std::min(serial.size(), value.size()), serial, 0, value.size());
  }

  std::pair<int, int> append() {
    const std::string key = makeKey(), value = makeValue(key.size());
    if (oneIn(4)) {  // as texts
      const std::string keyText = key.c_str(), text = value.c_str();
      return {ZuInfo_Write(store_, keyText.c_str(), text.c_str()), model_.append(keyText, text)};
    }
    return {ZuInfo_Append(store_, key.data(), length(key), value.data(), length(value)), model_.append(key, value)};
  }

  std::pair<int, int> append2() {
    const std::string key = makeKey(), value = makeValue(key.size());
    const std::string value1 = value.substr(0, static_cast<size_t>(below(length(value) + 1)));
    const std::string value2 = value.substr(value1.size());
    return {ZuInfo_Append2Message(store_, key.data(), length(key), value1.data(), length(value1), value2.data(),
                                  length(value2)),
            model_.append2(key, value1, value2)};
  }

  std::pair<int, int> packInPlace() {
    const std::string key = makeKey() + "k", value = makeValue(key.size());
    const int expected = model_.packPre(key, value);
    const int result = ZuInfo_PackPre(store_, key.c_str(), oneIn(2) ? 0 : length(key), length(value));
    if (!result || !expected) return {result, expected};
    if (!value.empty()) std::memcpy(ZuMem_Get(store_->block, store_->writeOffset), value.data(), value.size());
    store_->writeOffset += static_cast<uint32_t>(value.size());
    store_->freeSize -= length(value);
    model_.pack();
    return {result, expected};
  }

  std::pair<int, int> addInfo() {
    const std::string value = makeValue(30);
    const std::string data1 = value.substr(0, value.size() / 3), data2 = value.substr(data1.size(), value.size() / 5);
    const std::string data3 = value.substr(data1.size() + data2.size());
    const int type = below(256), id = below(2100) - 50;
    const uint32_t code = static_cast<uint32_t>(random_());
    const time_t before = ZuTime_Now();
    ZuInfo_AddInfo(store_, type, id, data1.data(), length(data1), data2.data(), length(data2), data3.data(),
                   length(data3), code);
    // The model takes over the store's time, once it has been found right.
    const uint32_t time = newestTime();
    const bool kept = model_.addInfo(type, id, data1, data2, data3, code, time);
    const bool inTime = time >= static_cast<uint32_t>(before) && time <= static_cast<uint32_t>(ZuTime_Now());
    return {kept ? inTime : true, true};
  }

  uint32_t newestTime() {
    const uint8_t *value = nullptr;
    char format[256];
    uint32_t time = 0;
    for (int32_t cursor = -1; ZuInfo_GetPack(store_, &cursor, format, &value);) {
      const bool newest = static_cast<uint32_t>(cursor) == store_->writeOffset;
      if (newest && std::strncmp(format, "*TBhI", 5) == 0) ZuBuffer_UNPack("T", value, &time);
    }
    return time;
  }

  std::pair<int, int> housekeeping() {
    const uint32_t limit = GetParam().limit;
    const uint32_t limits[] = {limit, limit, limit > 0 ? limit - 1 : 1, 0, 1024, 4096};
    switch (below(12)) {
      case 0: return ZuInfo_Clear(store_), model_.clear(), std::pair(0, 0);
      case 1:
      case 2:
      case 3: {
        const uint32_t newLimit = limits[below(6)];
        return {ZuInfo_ReSize(store_, newLimit), model_.resize(newLimit)};
      }
      case 4:
      case 5:
      case 6: {
        const int need = below(model_.limit() + 2);
        return model_.hasBlock() ? std::pair(ZuInfo_FreeSize_(store_, need), model_.makeRoom(need)) : std::pair(0, 0);
      }
      default: {
        const int id = below(2100) - 50, mode = oneIn(4) ? below(5) : 1;
        ZuInfo_SetFlag(store_, id, mode);
        model_.setFlag(id, mode);
        return {ZuInfo_GetFlag(store_, id), model_.flag(id)};
      }
    }
  }

  std::pair<int, int> step() {
    switch (below(16)) {
      case 0: return housekeeping();
      case 1: return addInfo();
      case 2:
      case 3: return packInPlace();
      case 4:
      case 5:
      case 6: return append2();
      default: return append();
    }
  }

  static int32_t length(const std::string &text) { return static_cast<int32_t>(text.size()); }

  std::mt19937 random_;
  ZuInfo *store_;
  StoreModel model_;
  int serial_ = 0;
};

TEST_P(RandomStore, AgreesWithItsModel) {
  for (int i = 0; i < GetParam().steps; ++i) {
    const bool ignores = oneIn(60), memoryIsShort = oneIn(40);
    ZuInfo_Ignore(store_, ignores);
    model_.ignore(ignores);
    model_.setNextAllocationFails(memoryIsShort);
    platform::failAllocation(memoryIsShort ? 0 : platform::kNever);
    StdoutCapture capture;
    const std::pair<int, int> results = step();
    const std::string trace = maskAddresses(capture.take());
    platform::failAllocation(platform::kNever);
    model_.setNextAllocationFails(false);

    ASSERT_EQ(results.first, results.second) << "step " << i;
    ASSERT_EQ(trace, model_.takeTrace()) << "step " << i;
    ASSERT_EQ(model_.difference(store_, std::string("abab", static_cast<size_t>(below(5)))), "") << "step " << i;
    if (!model_.hasBlock() && oneIn(4)) {
      const uint32_t limit = GetParam().limit;
      ASSERT_EQ(ZuInfo_ReSize(store_, limit), model_.resize(limit));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Limits, RandomStore,
                         testing::Values(Case{0, 700, 1500}, Case{1024, 300, 6000}, Case{2048, 700, 4000},
                                         Case{3000, 500, 4000}, Case{10240, 1500, 3000}, Case{300000, 30000, 800},
                                         Case{1000000, 66000, 300}),
                         [](const auto &test) { return "Limit" + std::to_string(test.param.limit); });

}  // namespace
