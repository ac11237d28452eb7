// records.cpp: appends to a full record store and kept log lines, beside plain copies into a ring.
#include <kep/ZuInfo.h>
#include <kep/ZuLogger.h>

#include <cstring>
#include <ctime>
#include <vector>

#include "bench.hpp"

namespace {

constexpr uint32_t kRingSize = 65536;
const char kLine[] = "a line of a log, as long as such lines usually are: 60 bytes";

// A ring of the same bytes that wipes what it evicts: what is left of the store without its checks, limits and growth.
// Records carry their lengths, or it could not know what to evict.
class PlainRing {
 public:
  PlainRing() : bytes_(kRingSize, 0xFF) {}

  // A call, as the library's are; inlined with its sizes it would be folded into a few stores.
  __attribute__((noinline)) void append(const unsigned char *record, size_t size) {
    if (write_ + size > bytes_.size()) {
      write_ = 0;
      free_ = 0;
    }
    while (free_ < size) evict();
    std::memcpy(&bytes_[write_], record, size);
    write_ += size;
    free_ -= size;
  }

 private:
  void evict() {
    if (read_ + 3 > bytes_.size() || bytes_[read_] == 0xFF) {
      read_ = 0;
      free_ = bytes_.size() - write_;
      return;
    }
    const size_t keyLength = bytes_[read_];
    const size_t size = keyLength + 3 + (bytes_[read_ + keyLength + 1] << 8 | bytes_[read_ + keyLength + 2]);
    std::memset(&bytes_[read_], 0xFF, size);
    read_ += size;
    free_ += size;
  }

  std::vector<unsigned char> bytes_;
  size_t write_ = 0;
  size_t read_ = 0;
  size_t free_ = kRingSize;
};

std::vector<unsigned char> makeRecord(size_t keyLength, size_t valueLength) {
  std::vector<unsigned char> record(keyLength + valueLength + 3, 'r');
  record[0] = static_cast<unsigned char>(keyLength);
  record[keyLength + 1] = static_cast<unsigned char>(valueLength >> 8);
  record[keyLength + 2] = static_cast<unsigned char>(valueLength);
  return record;
}

void appendToStore(benchmark::State &state, int32_t valueLength) {
  ZuInfo *info = ZuInfo_New(kRingSize);
  const char value[64] = "value";
  for (uint32_t i = 0; i < kRingSize; ++i) ZuInfo_Append(info, "k1", 2, value, valueLength);
  for (auto _ : state) benchmark::DoNotOptimize(ZuInfo_Append(info, "k1", 2, value, valueLength));
  ZuInfo_Release(info);
}

void copyToRing(benchmark::State &state, size_t valueLength) {
  PlainRing ring;
  const std::vector<unsigned char> record = makeRecord(2, valueLength);
  for (auto _ : state) ring.append(record.data(), record.size());
}

void append8(benchmark::State &state) { appendToStore(state, 8); }
void append64(benchmark::State &state) { appendToStore(state, 64); }
void copy8(benchmark::State &state) { copyToRing(state, 8); }
void copy64(benchmark::State &state) { copyToRing(state, 64); }
BENCHMARK(append8);
BENCHMARK(copy8);
BENCHMARK(append64);
BENCHMARK(copy64);
const Ratio ratio8("append of 8 bytes at a full ring / plain copy", "append8", "copy8");
const Ratio ratio64("append of 64 bytes at a full ring / plain copy", "append64", "copy64");

void logLine(benchmark::State &state) {
  ZuLogger *logger = ZuLogger_New(0x42);  // level 1 kept, nothing echoed
  ZuLogger_SetInfoSize(logger, kRingSize);
  for (int i = 0; i < 2000; ++i) ZuLogger_Write(logger, 1, kLine);
  for (auto _ : state) benchmark::DoNotOptimize(ZuLogger_Write(logger, 1, kLine));
  ZuLogger_Release(logger);
}
BENCHMARK(logLine);

// The time text of a second is made once; each line asks for the second and copies both.
void copyLine(benchmark::State &state) {
  PlainRing ring;
  std::vector<unsigned char> timeRecord = makeRecord(1, 19);
  const std::vector<unsigned char> line = makeRecord(1, sizeof kLine - 1);
  time_t second = 0;
  for (auto _ : state) {
    const time_t now = time(nullptr);
    if (now != second) {
      char text[32];
      std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", localtime(&now));
      std::memcpy(&timeRecord[4], text, 19);
      second = now;
    }
    ring.append(timeRecord.data(), timeRecord.size());
    ring.append(line.data(), line.size());
  }
}
BENCHMARK(copyLine);
const Ratio ratioLine("kept log line / two copies and a cached time", "logLine", "copyLine");

}  // namespace
