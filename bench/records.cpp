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

  CALLED void append(const unsigned char *record, size_t size) {
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
    const size_t valueLength = size_t(bytes_[read_ + keyLength + 1]) << 8 | bytes_[read_ + keyLength + 2];
    const size_t size = keyLength + 3 + valueLength;
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

// ---- append at a full ring

void kepAppend(Run &run, int32_t valueLength) {
  ZuInfo *info = ZuInfo_New(kRingSize);
  const char value[64] = "value";
  for (uint32_t i = 0; i < kRingSize; ++i) ZuInfo_Append(info, "k1", 2, value, valueLength);
  run.time([&] { keep(ZuInfo_Append(info, "k1", 2, value, valueLength)); });
  ZuInfo_Release(info);
}

void plainAppend(Run &run, size_t valueLength) {
  PlainRing ring;
  const std::vector<unsigned char> record = makeRecord(2, valueLength);
  for (uint32_t i = 0; i < kRingSize; ++i) ring.append(record.data(), record.size());
  run.time([&] { ring.append(record.data(), record.size()); });
}

void kepAppend8(Run &run) { kepAppend(run, 8); }
void kepAppend64(Run &run) { kepAppend(run, 64); }
void plainAppend8(Run &run) { plainAppend(run, 8); }
void plainAppend64(Run &run) { plainAppend(run, 64); }

const Row append8("append of 8 bytes at a full ring of 64 KiB", 1, kepAppend8, plainAppend8, {2.0, 1.6});
const Row append64("append of 64 bytes at a full ring of 64 KiB", 1, kepAppend64, plainAppend64, {});

// ---- kept log line

void kepLine(Run &run) {
  ZuLogger *logger = ZuLogger_New(0x42);  // level 1 kept, nothing echoed
  ZuLogger_SetInfoSize(logger, kRingSize);
  for (int i = 0; i < 2000; ++i) ZuLogger_Write(logger, 1, kLine);
  run.time([&] { keep(ZuLogger_Write(logger, 1, kLine)); });
  ZuLogger_Release(logger);
}

// The time text of a second is made once; each line asks for the second and copies both.
void plainLine(Run &run) {
  PlainRing ring;
  std::vector<unsigned char> timeRecord = makeRecord(1, 19);
  const std::vector<unsigned char> line = makeRecord(1, sizeof kLine - 1);
  time_t second = 0;
  run.time([&] {
    const time_t now = time(nullptr);
    if (now != second) {
      char text[32];
      std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", localtime(&now));
      std::memcpy(&timeRecord[4], text, 19);
      second = now;
    }
    ring.append(timeRecord.data(), timeRecord.size());
    ring.append(line.data(), line.size());
  });
}

const Row line("kept log line", 1, kepLine, plainLine, {1.7, 0.6});

}  // namespace
