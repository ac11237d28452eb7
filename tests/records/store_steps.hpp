// store_steps.hpp: operations on a store and on its model, which must agree on every result, byte and line after each
// of them. What is done is drawn from random numbers or from the bytes of a fuzzer; it needs no test framework.
#pragma once

#include <ctime>
#include <functional>

#include "records/store_model.hpp"
#include "support/platform_double.hpp"

inline time_t storeTime = 0x01020304;

// Stands in for libc's.
extern "C" time_t time(time_t *) noexcept { return storeTime; }

class StoreSteps {
 public:
  using Below = std::function<uint32_t(uint32_t)>;  // draws a number from 0 to below its argument

  // `largest` bounds the values, apart from those made to fit an edge.
  StoreSteps(uint32_t limit, int64_t largest, Below below)
      : limit_(limit), largest_(largest), draw_(std::move(below)), store_(ZuInfo_New(limit)), model_(limit) {}
  ~StoreSteps() { ZuInfo_Release(store_); }
  StoreSteps(const StoreSteps &) = delete;
  StoreSteps &operator=(const StoreSteps &) = delete;

  int64_t blockSize() const { return model_.size(); }

  // Does one operation, now and then to a store that ignores writes or with memory short. Returns what store and model
  // disagree on in its results, or an empty text.
  std::string step() {
    if (!model_.hasBlock() && oneIn(4)) return differ(resize(limit_));
    const bool ignores = oneIn(60), memoryIsShort = oneIn(40);
    ZuInfo_Ignore(store_, ignores);
    model_.ignore(ignores);
    model_.setNextAllocationFails(memoryIsShort);
    platform::failAllocation(memoryIsShort ? 0 : platform::kNever);
    const std::string difference = differ(operate());
    platform::failAllocation(platform::kNever);
    model_.setNextAllocationFails(false);
    return difference;
  }

  // What they disagree on in the block and its walks, or an empty text.
  std::string difference() { return model_.difference(store_, std::string("abab", below(5))); }

 private:
  using Results = std::pair<int, int>;  // of the store and of the model

  static std::string differ(Results results) {
    if (results.first == results.second) return "";
    return "result " + std::to_string(results.first) + ", expected " + std::to_string(results.second) + "; ";
  }

  uint32_t below(int64_t n) { return n <= 1 ? 0 : draw_(static_cast<uint32_t>(n)); }
  bool oneIn(int n) { return below(n) == static_cast<uint32_t>(n - 1); }  // not for the zeros of an exhausted fuzzer
  int oneOf(int n) { return static_cast<int>(below(n)); }
  static int32_t length(const std::string &text) { return static_cast<int32_t>(text.size()); }

  std::string makeKey() {
    static constexpr uint32_t kLengths[] = {0, 1, 2, 3, 254};
    std::string key(oneIn(4) ? below(255) : kLengths[below(5)], 'a');
    const uint32_t letters = below(16);
    for (size_t i = 0; i < key.size(); ++i) key[i] = letters >> i % 4 & 1 ? 'a' : 'b';
    if (oneIn(50)) key.resize(255 + below(3), 'b');
    return key;
  }

  // Lengths lean to the edges: what is just free, the limit, what is left of the block, and one to either side.
  std::string makeValue(size_t keyLength) {
    const int64_t edges[] = {model_.freeSize(), model_.limit(), model_.size(), 65535, 65536, 0};
    int64_t size = below(largest_);
    if (oneIn(3)) size = edges[below(6)] - (oneIn(4) ? 0 : static_cast<int64_t>(keyLength) + 3) + below(3) - 1;
    std::string value(static_cast<size_t>(std::min<int64_t>(std::max<int64_t>(size, 0), 70000)), '\0');
    std::fill(value.begin(), value.end(), static_cast<char>(oneIn(4) ? 0xFF : below(256)));
    const std::string serial = std::to_string(++serial_);
    return value.replace(0, std::min(serial.size(), value.size()), serial, 0, value.size());
  }

  Results append() {
    const std::string key = makeKey(), value = makeValue(key.size());
    if (oneIn(4)) {  // as texts
      const std::string keyText = key.c_str(), text = value.c_str();
      return {ZuInfo_Write(store_, keyText.c_str(), text.c_str()), model_.append(keyText, text)};
    }
    return {ZuInfo_Append(store_, key.data(), length(key), value.data(), length(value)), model_.append(key, value)};
  }

  Results append2() {
    const std::string key = makeKey(), value = makeValue(key.size());
    const std::string value1 = value.substr(0, below(length(value) + 1)), value2 = value.substr(value1.size());
    return {ZuInfo_Append2Message(store_, key.data(), length(key), value1.data(), length(value1), value2.data(),
                                  length(value2)),
            model_.append2(key, value)};
  }

  Results packInPlace() {
    const std::string key = makeKey() + "k", value = makeValue(key.size());
    const Results results(ZuInfo_PackPre(store_, key.c_str(), oneIn(2) ? 0 : length(key), length(value)),
                          model_.pack(key, value));
    if (results != Results(1, 1)) return results;
    if (!value.empty()) std::memcpy(ZuMem_Get(store_->block, store_->writeOffset), value.data(), value.size());
    store_->writeOffset += static_cast<uint32_t>(value.size());
    store_->freeSize -= length(value);
    return results;
  }

  Results addInfo() {
    const std::string value = makeValue(30);
    const std::string data1 = value.substr(0, value.size() / 3), data2 = value.substr(data1.size(), value.size() / 5);
    const std::string data3 = value.substr(data1.size() + data2.size());
    const int type = oneOf(256), id = oneOf(2100) - 50;
    const uint32_t code = below(UINT32_MAX);
    ++storeTime;
    ZuInfo_AddInfo(store_, type, id, data1.data(), length(data1), data2.data(), length(data2), data3.data(),
                   length(data3), code);
    model_.addInfo(type, id, data1, data2, data3, code, static_cast<uint32_t>(storeTime));
    return {};
  }

  Results resize(uint32_t limit) { return {ZuInfo_ReSize(store_, limit), model_.resize(limit)}; }

  Results housekeeping() {
    const uint32_t limits[] = {limit_, limit_, limit_ > 0 ? limit_ - 1 : 1, 0, 1024, 4096};
    const uint32_t kind = below(12);
    if (kind == 0) return ZuInfo_Clear(store_), model_.clear(), Results(0, 0);
    if (kind < 4) return resize(limits[below(6)]);
    if (kind < 7) {
      const int need = oneOf(static_cast<int>(model_.limit()) + 2);
      return model_.hasBlock() ? Results(ZuInfo_FreeSize_(store_, need), model_.makeRoom(need)) : Results(0, 0);
    }
    const int id = oneOf(2100) - 50, mode = oneIn(4) ? oneOf(5) : 1;
    ZuInfo_SetFlag(store_, id, mode);
    model_.setFlag(id, mode);
    return {ZuInfo_GetFlag(store_, id), model_.flag(id)};
  }

  Results operate() {
    const uint32_t kind = below(16);
    if (kind == 0) return housekeeping();
    if (kind == 1) return addInfo();
    if (kind < 4) return packInPlace();
    return kind < 7 ? append2() : append();
  }

  uint32_t limit_;
  int64_t largest_;
  Below draw_;
  ZuInfo *store_;
  StoreModel model_;
  int serial_ = 0;
};
