// store_model.hpp: an oracle for record stores, for tests and fuzzing; it needs no test framework.
//
// A store finds its records by reading its block and keeps its offsets by hand. The model goes the other way round: it
// keeps the records, oldest first, with the place of each and the lap that the writer is on, and works out the free
// size, every byte of the block and the walk from them.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ZuInfo.hpp"

class StoreModel {
 public:
  // The next record is the `first`.
  StoreModel(uint32_t limit, uint32_t first) : next_(first) { resize(limit); }

  bool hasBlock() const { return size_ != 0; }
  int64_t size() const { return size_; }
  int64_t limit() const { return limit_; }
  int64_t freeSize() const { return wrapped_ ? read_ - write_ : size_ - write_; }

  uint32_t next() const { return next_; }
  uint32_t oldest() const { return next_ - static_cast<uint32_t>(records_.size()); }

  // A record as it lies in the block, empty when there is none of this number.
  std::string record(uint32_t number) const {
    const uint32_t index = number - oldest();
    return index < records_.size() ? records_[index].bytes : "";
  }

  void ignore(bool on) { ignore_ = on; }
  void setNextAllocationFails(bool fails) { allocationFails_ = fails; }

  void clear() {
    records_.clear();
    write_ = read_ = 0;
    wrapped_ = false;
  }

  int resize(uint32_t limit) {
    const int64_t rounded = std::min<int64_t>((int64_t{limit} + 1023) / 1024 * 1024, 0xFFFFFC00);
    if (hasBlock()) {
      if (rounded == limit_) return 1;
      if (rounded != 0 && size_ >= rounded) loseBlock();
    }
    if (!hasBlock()) {
      if (std::exchange(allocationFails_, false)) return 0;
      size_ = 1024;
    }
    limit_ = rounded;
    clear();
    return 1;
  }

  int append(std::string_view key, std::string_view value) {
    if (!hasBlock()) return -1;
    if (ignore_) return 0;
    key = key.substr(0, key.size() % 256);
    value = value.substr(0, value.size() % 65536);
    return put(key, value) ? static_cast<int>(key.size() + value.size() + 3) : -1;
  }

  int append2(std::string_view key, std::string_view value) { return ignore_ || (hasBlock() && put(key, value)); }

  // The head of a record, and the value that the caller then packs behind it.
  int pack(std::string_view key, std::string_view value) { return !ignore_ && hasBlock() && put(key, value); }

  void addInfo(int type, int id, std::string_view data1, std::string_view data2, std::string_view data3, uint32_t code,
               uint32_t time) {
    if (!flag(id)) data3 = {};
    std::string format = "TBhI", value = bigEndian(time, 4) + bigEndian(static_cast<uint32_t>(type), 1) +
                                         bigEndian(static_cast<uint32_t>(id), 2) + bigEndian(code, 4);
    for (const std::string_view data : {data1, data2, data3}) {
      format += std::to_string(data.size()) + 'S';
      value += data;
    }
    pack(format, value);
  }

  bool flag(int id) const {
    return static_cast<uint32_t>(id) >= 2000 || (switches_[static_cast<size_t>(id / 8)] >> id % 8 & 1) != 0;
  }
  void setFlag(int id, int mode) {
    if (static_cast<uint32_t>(id) >= 2000) return;
    uint8_t &byte = switches_[static_cast<size_t>(id / 8)];
    const int bit = 1 << id % 8;
    byte = static_cast<uint8_t>(mode == 1 ? byte | bit : byte & ~bit);
    if (mode == 2 || mode == 3) switches_.fill(mode == 2 ? 0xFF : 0);
  }

  // One step towards `need` free bytes: 1 there is room, 2 call again, 0 impossible.
  int makeRoom(int64_t need) {
    if (need <= freeSize()) return 1;
    if (limit_ != 0 && need > limit_) return 0;
    return limit_ != 0 && size_ >= limit_ ? evict(need) : grow(need);
  }

  void dropBefore(uint32_t number) {
    while (!records_.empty() && static_cast<int32_t>(number - oldest()) > 0) dropFront();
    if (records_.empty()) clear();
  }

  // Returns what the store has otherwise than the model, or an empty text. A walk that takes all records is compared,
  // and with a key also the one that it selects.
  std::string difference(ZuInfo *store, std::string_view key = {}) const {
    if (std::memcmp(store->idSwitches, switches_.data(), switches_.size()) != 0) return "switches";
    if ((store->block != nullptr) != hasBlock() || store->limit != limit_) return "block or limit";
    int32_t cursor = -1;
    if (!hasBlock()) {
      const bool hasRecord = numberOfOldest(store) != next_ || numberOfNext(store) != next_;
      return ZuInfo_Get(store, nullptr, 0, &cursor, nullptr, nullptr, nullptr, nullptr) || hasRecord ? "ghost" : "";
    }
    int32_t blockSize;
    std::memcpy(&blockSize, store->block, sizeof blockSize);  // a block begins with its size
    const std::string found = describe({blockSize, store->writeOffset, store->readOffset, store->freeSize,
                                        ZuInfo_GetEvicted(store), numberOfOldest(store), numberOfNext(store)});
    const std::string expected = describe({size_, write_, read_, freeSize(), evicted_, oldest(), next_});
    if (found != expected) return "size, write, read, free, evicted, oldest, next:" + found + ", expected" + expected;

    std::string image(static_cast<size_t>(size_), '\xFF');
    for (const Record &record : records_) {
      image.replace(static_cast<size_t>(record.offset), record.bytes.size(), record.bytes);
    }
    if (image.size() != static_cast<size_t>(size_)) return "model: a record runs over the end";
    const char *data = static_cast<const char *>(ZuMem_Get(store->block, 0));
    if (std::memcmp(data, image.data(), image.size()) != 0) {
      return "byte at" + describe({std::mismatch(image.begin(), image.end(), data).first - image.begin()});
    }
    const std::string all = walkDifference(store, {}, image);
    return key.empty() ? all : all + walkDifference(store, key, image);
  }

 private:
  struct Record {
    int64_t offset;
    int64_t keySize, valueSize;
    std::string bytes;  // as they lie in the block
  };

  static std::string bigEndian(uint32_t value, int bytes) {
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) text += static_cast<char>(value >> (8 * i));
    return text;
  }

  static std::string describe(std::initializer_list<int64_t> numbers) {
    std::string text;
    for (const int64_t number : numbers) text += " " + std::to_string(number);
    return text;
  }

  std::string walkDifference(ZuInfo *store, std::string_view key, std::string_view image) const {
    std::vector<int64_t> expected, found;  // of every record: where its key is, its length; the same of its value
    for (const Record &record : records_) {
      const int64_t at = record.offset + 1;
      // The comparison leaves out the key's last byte and runs on into the value; what the block cannot hold differs.
      const std::string_view compared = key.substr(0, key.size() - 1);
      if (!key.empty() && image.substr(static_cast<size_t>(at), compared.size()) != compared) continue;
      expected.insert(expected.end(), {at, record.keySize, at + record.keySize + 2, record.valueSize});
    }
    const std::string text(key);
    const int32_t length = key.size() % 2 == 0 ? 0 : static_cast<int32_t>(key.size());  // 0: that of the text
    const auto *block = static_cast<const uint8_t *>(ZuMem_Get(store->block, 0));
    const uint8_t *keyOut = nullptr, *valueOut = nullptr;
    uint8_t keyLen = 0;
    uint16_t valueLen = 0;
    int32_t cursor = -1;
    while (found.size() <= expected.size() && ZuInfo_Get(store, key.empty() ? nullptr : text.c_str(), length, &cursor,
                                                         &keyOut, &keyLen, &valueOut, &valueLen)) {
      found.insert(found.end(), {keyOut - block, keyLen, valueOut - block, valueLen});
    }
    return found == expected ? "" : "walk of '" + text + "'";
  }

  bool put(std::string_view key, std::string_view value) {
    if (key.size() > 254 || value.size() > 65535) return false;
    const auto need = static_cast<int64_t>(key.size() + value.size() + 3);
    while (freeSize() < need) {
      if (makeRoom(need) == 0) return false;
    }
    std::string bytes = bigEndian(static_cast<uint32_t>(key.size()), 1);
    bytes.append(key).append(bigEndian(static_cast<uint32_t>(value.size()), 2)).append(value);
    records_.push_back({write_, static_cast<int64_t>(key.size()), static_cast<int64_t>(value.size()), bytes});
    write_ += static_cast<int64_t>(bytes.size());
    ++next_;
    return true;
  }

  int evict(int64_t need) {
    if (!wrapped_) {
      wrapped_ = true;
      write_ = 0;
      if (need <= freeSize()) return 1;
    }
    const bool onRecord = dropFront();
    evicted_ += onRecord;
    return onRecord && freeSize() >= need ? 1 : 2;
  }

  // Drops the oldest record, or only notes that the reader has come to the unused tail, and then returns false.
  bool dropFront() {
    const bool onRecord = !records_.empty() && records_.front().offset == read_;
    if (onRecord) {
      read_ += static_cast<int64_t>(records_.front().bytes.size());
      records_.pop_front();
    }
    if (!onRecord || read_ == size_) {
      read_ = 0;
      wrapped_ = false;
    }
    return onRecord;
  }

  int grow(int64_t need) {
    int64_t increment = std::min<int64_t>(size_, 262144);
    if (increment < need - freeSize()) increment = (need - freeSize() + 1023) / 1024 * 1024;
    if (limit_ != 0 && (limit_ < 2 * size_ || limit_ + freeSize() - size_ <= need)) increment = limit_ - size_;
    if (std::exchange(allocationFails_, false)) return loseBlock(), 0;
    size_ += increment;
    return freeSize() < need ? 2 : 1;
  }

  void loseBlock() {
    size_ = 0;
    records_.clear();
  }

  std::deque<Record> records_;
  bool wrapped_ = false;  // the writer is one lap ahead of the reader
  bool ignore_ = false;
  bool allocationFails_ = false;
  int64_t size_ = 0, limit_ = 0, write_ = 0, read_ = 0;
  std::array<uint8_t, sizeof ZuInfo::idSwitches> switches_{};
  uint32_t evicted_ = 0, next_;
};
