// store_steps.hpp: operations on a store and on its model, which must agree on every result, byte and line after each
// of them, and on what walks find that take a few steps now and then; without a lock they go all the way at once. What
// is done is drawn from random numbers or from the bytes of a fuzzer; it needs no test framework.
#pragma once

#include <ctime>
#include <functional>
#include <iterator>
#include <list>

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
      : limit_(limit), largest_(largest), draw_(std::move(below)), store_(ZuInfo_New(limit)), model_(limit, kFirst) {
    auto *numbers = reinterpret_cast<uint32_t *>(store_ + 1);  // of evicted records, of the next, of the oldest
    numbers[1] = numbers[2] = kFirst;
  }
  ~StoreSteps() { ZuInfo_Release(store_); }
  StoreSteps(const StoreSteps &) = delete;
  StoreSteps &operator=(const StoreSteps &) = delete;

  int64_t blockSize() const { return model_.size(); }

  // Does one operation, now and then to a store that ignores writes or with memory short. Returns what store and model
  // disagree on in its results, or an empty text.
  std::string step() {
    if (!model_.hasBlock() && oneIn(4)) return differ(resize(limit_));
    const bool ignores = oneIn(60), memoryIsShort = memoryIsShort_ = oneIn(40);
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

  static constexpr uint32_t kFirst = UINT32_MAX - 300;  // numbers of records wrap

  struct Walk {
    Walk(ZuInfo *store, const StoreModel &model) : walk(store), next(model.oldest()), end(model.next()) {}
    StoreWalk walk;
    uint32_t next, end;
    StoreRecord found{};
    std::string bytes;  // of what was found, as they lie in the block
  };

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

  static std::string bytesOf(const StoreRecord &record) {
    std::string bytes = static_cast<char>(record.keyLength) + std::string(record.key, record.key + record.keyLength);
    bytes += {static_cast<char>(record.valueLength >> 8), static_cast<char>(record.valueLength)};
    return bytes.append(record.value, record.value + record.valueLength);
  }

  // Returns whether the last record found is still there, whatever became of the store, and the next is the right one.
  bool stepWalk(std::list<Walk>::iterator at) {
    const bool holds = at->bytes.empty() || bytesOf(at->found) == at->bytes;
    at->bytes = at->next == at->end ? "" : model_.record(at->next++);
    if (at->walk.next(&at->found)) return holds && bytesOf(at->found) == at->bytes;
    const bool isEnd = at->bytes.empty() || memoryIsShort_;  // maybe for the copy
    walks_.erase(at);
    return holds && isEnd;
  }

  Results walk() {
    if (walks_.empty() || (walks_.size() < 3 && oneIn(4))) walks_.emplace_back(store_, model_);
    const auto at = std::next(walks_.begin(), oneOf(static_cast<int>(walks_.size())));
    const size_t open = walks_.size();
    bool agrees = true;
    for (int steps = 1 + oneOf(8); agrees && walks_.size() == open && (steps > 0 || !platform::isLocking()); --steps) {
      agrees = stepWalk(at);
    }
    return {agrees, true};
  }

  Results drop() {
    const uint32_t number = model_.oldest() + below(model_.next() - model_.oldest() + 2);
    return dropBefore(store_, number), model_.dropBefore(number), Results(0, 0);
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
    const uint32_t kind = below(20);
    if (kind > 15) return kind == 19 && oneIn(4) ? drop() : walk();
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
  std::list<Walk> walks_;
  bool memoryIsShort_ = false;
  int serial_ = 0;
};
