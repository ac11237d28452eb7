// store_model.hpp: an oracle for record stores, for tests and fuzzing; it needs no test framework.
//
// A store finds its records by reading its block and keeps its offsets by hand. The model goes the other way round: it
// keeps the records, oldest first, with the place of each and the lap that the writer is on, and works out the free
// size, every byte of the block, the walk and the text of the growth trace from them.
#pragma once

#include <kep/ZuInfo.h>

#include <algorithm>
#include <bitset>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <utility>

constexpr bool kStoresTrace = KEP_STORE_TRACE;  // as the library was built

// Replaces every address of a store dump.
inline std::string maskAddresses(std::string text) {
  constexpr char kLabel[] = "addr: 0x";
  for (size_t at = 0; (at = text.find(kLabel, at)) != std::string::npos;) {
    at += sizeof kLabel - 1;
    text.replace(at, text.find_first_not_of("0123456789abcdef", at) - at, "?");
  }
  return text;
}

class StoreModel {
 public:
  struct Record {
    uint32_t offset;
    std::string key, value;
    std::string bytes;  // as they lie in the block
  };

  explicit StoreModel(uint32_t limit) { resize(limit); }

  const std::deque<Record> &records() const { return records_; }
  bool hasBlock() const { return hasBlock_; }
  int64_t size() const { return size_; }
  int64_t limit() const { return limit_; }
  int64_t freeSize() const { return wrapped_ ? read_ - write_ : size_ - write_; }

  // The text that goes to standard output since the last call, addresses masked.
  std::string takeTrace() { return kStoresTrace ? std::exchange(trace_, {}) : std::string(); }

  void ignore(bool on) { ignore_ = on; }
  void setNextAllocationFails(bool fails) { allocationFails_ = fails; }

  void clear() {
    records_.clear();
    write_ = read_ = 0;
    wrapped_ = false;
  }

  int resize(uint32_t limit) {
    const int64_t rounded = std::min<int64_t>((int64_t{limit} + 1023) / 1024 * 1024, 0xFFFFFC00);
    if (hasBlock_) {
      if (rounded == limit_) return 1;
      if (rounded != 0 && size_ >= rounded) loseBlock();
    }
    if (!hasBlock_) {
      if (std::exchange(allocationFails_, false)) return 0;
      hasBlock_ = true;
      size_ = 1024;
    }
    limit_ = rounded;
    clear();
    return 1;
  }

  int append(std::string_view key, std::string_view value) {
    if (!hasBlock_) return -1;
    if (ignore_) return 0;
    key = key.substr(0, key.size() % 256);
    value = value.substr(0, value.size() % 65536);
    return put(key, value, value) ? static_cast<int>(key.size() + value.size() + 3) : -1;
  }

  int append2(std::string_view key, std::string_view value1, std::string_view value2) {
    if (ignore_) return 1;
    const std::string value = std::string(value1) + std::string(value2);
    return hasBlock_ && put(key, value, value);
  }

  // The head of a record, and the value that the caller then packs behind it.
  int packPre(std::string_view key, std::string_view value) {
    return !ignore_ && hasBlock_ && put(key, value, std::string_view());
  }
  void pack() {
    Record &newest = records_.back();
    newest.bytes += newest.value;
    write_ += static_cast<int64_t>(newest.value.size());
  }

  // Returns whether the record is kept; its time is that of the caller's choice.
  bool addInfo(int type, int id, std::string_view data1, std::string_view data2, std::string_view data3, uint32_t code,
               uint32_t time) {
    if (!flag(id)) data3 = {};
    std::string format = "TBhI", value = bigEndian(time, 4) + bigEndian(static_cast<uint32_t>(type), 1) +
                                         bigEndian(static_cast<uint32_t>(id), 2) + bigEndian(code, 4);
    for (const std::string_view data : {data1, data2, data3}) {
      format += std::to_string(data.size()) + 'S';
      value += data;
    }
    if (!packPre(format, value)) return false;
    pack();
    return true;
  }

  bool flag(int id) const { return static_cast<uint32_t>(id) >= 2000 || switchesOf(id)[static_cast<size_t>(id % 8)]; }
  void setFlag(int id, int mode) {
    if (static_cast<uint32_t>(id) >= 2000) return;
    if (mode == 2 || mode == 3) {
      switches_.assign(switches_.size(), mode == 2 ? '\xFF' : '\0');
    } else {
      std::bitset<8> byte = switchesOf(id);
      byte[static_cast<size_t>(id % 8)] = mode == 1;
      switches_[static_cast<size_t>(id / 8)] = static_cast<char>(byte.to_ulong());
    }
  }

  // One step towards `need` free bytes: 1 there is room, 2 call again, 0 impossible.
  int makeRoom(int64_t need) {
    trace_ += "size " + std::to_string(need);
    if (need <= freeSize()) return 1;
    if (limit_ != 0 && need > limit_) return 0;
    if (limit_ != 0 && size_ >= limit_) return evict() && freeSize() >= need ? 1 : 2;
    return grow(need);
  }

  // Returns what the store has otherwise than the model, or an empty text. A walk that takes all records is compared,
  // and with a key also the one that it selects.
  std::string difference(ZuInfo *store, std::string_view key = {}) const {
    if (std::memcmp(store->idSwitches, switches_.data(), switches_.size()) != 0) return "switches";
    if ((store->block != nullptr) != hasBlock_) return "block";
    int32_t cursor = -1;
    const uint8_t *data = nullptr;
    if (!hasBlock_) return ZuInfo_Get(store, nullptr, 0, &cursor, &data, nullptr, &data, nullptr) ? "ghost" : "";

    int32_t blockSize;
    std::memcpy(&blockSize, store->block, sizeof blockSize);  // a block begins with its size
    if (blockSize != size_) return differ("block size", blockSize, size_);
    if (store->limit != limit_) return differ("limit", store->limit, limit_);
    if (store->writeOffset != write_) return differ("write offset", store->writeOffset, write_);
    if (store->readOffset != read_) return differ("read offset", store->readOffset, read_);
    if (store->freeSize != freeSize()) return differ("free size", store->freeSize, freeSize());

    std::string image(static_cast<size_t>(size_), '\xFF');
    for (const Record &record : records_) image.replace(record.offset, record.bytes.size(), record.bytes);
    if (image.size() != static_cast<size_t>(size_)) return "model: a record runs over the end";
    data = static_cast<const uint8_t *>(ZuMem_Get(store->block, 0));
    if (std::memcmp(data, image.data(), image.size()) != 0) {
      const auto *at =
          std::mismatch(image.data(), image.data() + image.size(), reinterpret_cast<const char *>(data)).first;
      return differ("byte at offset", data[at - image.data()], at - image.data());
    }
    const std::string all = walkDifference(store, {}, image);
    return all.empty() && !key.empty() ? walkDifference(store, key, image) : all;
  }

 private:
  std::bitset<8> switchesOf(int id) const { return static_cast<uint8_t>(switches_[static_cast<size_t>(id / 8)]); }

  static std::string bigEndian(uint32_t value, int bytes) {
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) text += static_cast<char>(value >> (8 * i));
    return text;
  }

  static std::string differ(const char *what, int64_t found, int64_t expected) {
    return std::string(what) + ": " + std::to_string(found) + ", expected " + std::to_string(expected);
  }

  std::string walkDifference(ZuInfo *store, std::string_view key, std::string_view image) const {
    const char *block = static_cast<const char *>(ZuMem_Get(store->block, 0));
    const std::string terminated(key);
    const uint8_t *keyOut = nullptr, *valueOut = nullptr;
    uint8_t keyLen = 0;
    uint16_t valueLen = 0;
    int32_t cursor = -1;
    int64_t at = 0;
    const auto next = [&] {
      return ZuInfo_Get(store, key.empty() ? nullptr : terminated.c_str(), static_cast<int32_t>(key.size()), &cursor,
                        &keyOut, &keyLen, &valueOut, &valueLen);
    };
    for (const Record &record : records_) {
      // The comparison leaves out the key's last byte and runs on into the value; what the block cannot hold differs.
      if (!key.empty() && image.substr(record.offset + 1, key.size() - 1) != key.substr(0, key.size() - 1)) continue;
      if (next() != 1) return differ("walk ends at record", at, static_cast<int64_t>(records_.size()));
      if (reinterpret_cast<const char *>(keyOut) != block + record.offset + 1)
        return differ("key place of record", at, 0);
      if (keyLen != record.key.size() || valueLen != record.value.size() || valueOut != keyOut + keyLen + 2) {
        return differ("lengths of record", at, 0);
      }
      ++at;
    }
    return next() == 0 ? "" : differ("walk goes on past record", at, at);
  }

  bool put(std::string_view key, std::string_view value, std::string_view written) {
    if (key.size() > 254 || value.size() > 65535) return false;
    const auto need = static_cast<int64_t>(key.size() + value.size() + 3);
    while (freeSize() < need) {
      if (makeRoom(need) == 0) return false;
    }
    std::string bytes = bigEndian(static_cast<uint32_t>(key.size()), 1);
    bytes.append(key).append(bigEndian(static_cast<uint32_t>(value.size()), 2)).append(written);
    records_.push_back({static_cast<uint32_t>(write_), std::string(key), std::string(value), bytes});
    write_ += static_cast<int64_t>(bytes.size());
    return true;
  }

  // Drops the oldest record, or only notes that the reader has come to the unused tail, and then returns false.
  bool evict() {
    if (!wrapped_) {
      wrapped_ = true;
      write_ = 0;
    }
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
    dump();
    if (std::exchange(allocationFails_, false)) return loseBlock(), 0;
    size_ += increment;
    trace_ += "add size " + std::to_string(increment) + ", new size " + std::to_string(size_) + " freesize " +
              std::to_string(freeSize()) + "\n";
    dump();
    return freeSize() < need ? 2 : 1;
  }

  void dump() {
    char text[300];
    std::snprintf(text, sizeof text,
                  "logger info addr: 0x?\nmemory addr: 0x?\nmemory size: %d\nfree addr:   %d\nuse  addr:   %d\n"
                  "maxsize: %d\nfreesize: %d\n",
                  static_cast<int>(size_), static_cast<int>(write_), static_cast<int>(read_), static_cast<int>(limit_),
                  static_cast<int>(freeSize()));
    trace_ += text;
  }

  void loseBlock() {
    hasBlock_ = false;
    records_.clear();
  }

  std::deque<Record> records_;
  bool hasBlock_ = false;
  bool wrapped_ = false;  // the writer is one lap ahead of the reader
  bool ignore_ = false;
  bool allocationFails_ = false;
  int64_t size_ = 0, limit_ = 0, write_ = 0, read_ = 0;
  std::string switches_ = std::string(sizeof ZuInfo::idSwitches, '\0');
  std::string trace_;
};
