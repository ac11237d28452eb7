// records.cpp: record stores and loggers, beside a plain store of the same bytes.
#include <kep/ZuInfo.h>
#include <kep/ZuLogger.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#ifdef KEP_BENCH_HAVE_GLIB
#include <glib.h>
#endif
#ifdef KEP_BENCH_HAVE_SPDLOG
#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>
#endif

#include "bench.hpp"

namespace {

constexpr uint32_t kRingSize = 65536;
constexpr size_t kSmall = 8;                 // bytes of a small value, under a key of two
constexpr size_t kSmallRecord = kSmall + 5;  // and its record
const char kLine[] = "a line of a log, as long as such lines usually are: 60 bytes";
const char kValue[65000] = "value";

using Store = std::unique_ptr<ZuInfo, decltype(&ZuInfo_Release)>;

Store makeStore(uint32_t limit) { return {ZuInfo_New(limit), ZuInfo_Release}; }

void append(const Store &store, size_t valueLength) {
  keep(ZuInfo_Append(store.get(), "k1", 2, kValue, static_cast<int32_t>(valueLength)));
}

// What is left of a store without its checks, switches and texts: it grows by the same steps, evicts by the same rule
// and wipes what it evicts.
class PlainStore {
 public:
  explicit PlainStore(size_t limit) : limit_(limit), bytes_(1024, 0xFF) {}

  CALLED void append(const void *key, size_t keyLength, const void *value, size_t valueLength) {
    put(putHead(key, keyLength, valueLength), value, valueLength);
  }

  CALLED void add(int type, int id, const void *data1, size_t length1, const void *data2, size_t length2,
                  const void *data3, size_t length3, uint32_t code) {
    char key[40] = "TBhI";
    char *end = key + 4;
    for (const size_t length : {length1, length2, length3}) {
      end = putNumber(end, length);
      *end++ = 'S';
    }
    unsigned char *out = putHead(key, static_cast<size_t>(end - key), 11 + length1 + length2 + length3);
    out = putWord(out, static_cast<uint32_t>(time(nullptr)));
    *out++ = static_cast<unsigned char>(type);
    *out++ = static_cast<unsigned char>(id >> 8);
    *out++ = static_cast<unsigned char>(id);
    out = putWord(out, code);
    put(put(put(out, data1, length1), data2, length2), data3, length3);
  }

  struct Record {
    const unsigned char *key, *value;
    size_t keyLength, valueLength;
  };

  static constexpr size_t kBegin = ~size_t{0};

  CALLED bool next(size_t *cursor, Record *out) const {
    size_t offset = *cursor;
    if (offset == kBegin) {
      if (read_ == write_ && free_ > 0) return false;
      offset = read_;
    } else if (offset == write_) {
      return false;
    }
    if (isEmpty(offset)) {
      offset = 0;
      if (offset == write_) return false;
    }
    out->keyLength = bytes_[offset];
    out->key = &bytes_[offset + 1];
    out->value = out->key + out->keyLength + 2;
    out->valueLength = static_cast<size_t>(out->value[-2] << 8 | out->value[-1]);
    *cursor = offset + out->keyLength + out->valueLength + 3;
    return true;
  }

 private:
  static unsigned char *put(unsigned char *out, const void *data, size_t length) {
    std::memcpy(out, data, length);
    return out + length;
  }

  static unsigned char *putWord(unsigned char *out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) *out++ = static_cast<unsigned char>(value >> shift);
    return out;
  }

  static char *putNumber(char *out, size_t number) {
    if (number >= 10) out = putNumber(out, number / 10);
    *out = static_cast<char>('0' + number % 10);
    return out + 1;
  }

  bool isEmpty(size_t offset) const { return offset >= bytes_.size() || bytes_[offset] == 0xFF; }

  unsigned char *putHead(const void *key, size_t keyLength, size_t valueLength) {
    const size_t size = keyLength + valueLength + 3;
    while (free_ < size) bytes_.size() < limit_ ? grow() : evict();
    unsigned char *out = &bytes_[write_];
    write_ += size;
    free_ -= size;
    *out = static_cast<unsigned char>(keyLength);
    out = put(out + 1, key, keyLength);
    *out++ = static_cast<unsigned char>(valueLength >> 8);
    *out++ = static_cast<unsigned char>(valueLength);
    return out;
  }

  void grow() {
    const size_t step = std::min<size_t>(bytes_.size(), 262144);
    bytes_.resize(bytes_.size() + step, 0xFF);
    free_ += step;
  }

  void evict() {
    if (read_ < write_) write_ = free_ = 0;
    if (isEmpty(read_)) {
      read_ = 0;
      free_ = bytes_.size() - write_;
      return;
    }
    const unsigned char *length = &bytes_[read_ + bytes_[read_] + 1];
    const size_t size = bytes_[read_] + static_cast<size_t>(length[0] << 8 | length[1]) + 3;
    std::memset(&bytes_[read_], 0xFF, size);
    read_ += size;
    free_ += size;
  }

  size_t limit_;
  std::vector<unsigned char> bytes_;
  size_t write_ = 0, read_ = 0, free_ = 1024;
};

// ---- append at a full ring

void kepAppend(Run &run, size_t valueLength) {
  const Store store = makeStore(kRingSize);
  for (uint32_t i = 0; i < kRingSize; ++i) append(store, valueLength);
  run.time([&] { append(store, valueLength); });
}

void plainAppend(Run &run, size_t valueLength) {
  PlainStore store(kRingSize);
  for (uint32_t i = 0; i < kRingSize; ++i) store.append("k1", 2, kValue, valueLength);
  run.time([&] { store.append("k1", 2, kValue, valueLength); });
}

void kepAppend8(Run &run) { kepAppend(run, kSmall); }
void kepAppend64(Run &run) { kepAppend(run, 64); }
void plainAppend8(Run &run) { plainAppend(run, kSmall); }
void plainAppend64(Run &run) { plainAppend(run, 64); }

// Holds values alone, as many as a ring of that size holds records of; up to 15 bytes lie in the string itself.
CALLED void appendToDeque(std::deque<std::string> &values, const char *value, size_t length) {
  values.emplace_back(value, length);
  if (values.size() > kRingSize / kSmallRecord) values.pop_front();
}

void dequeAppend8(Run &run) {
  std::deque<std::string> values;
  for (uint32_t i = 0; i < kRingSize; ++i) appendToDeque(values, kValue, kSmall);
  run.time([&] { appendToDeque(values, kValue, kSmall); });
}

const Row append8("append of 8 bytes at a full ring of 64 KiB", 1, kepAppend8, plainAppend8, {2.0, 1.6});
const Peer append8Deque(append8, "std::deque<std::string>", dequeAppend8);
const Row append64("append of 64 bytes at a full ring of 64 KiB", 1, kepAppend64, plainAppend64, {});

// ---- the worst append: one that nearly all others give way to

constexpr size_t kLarge = sizeof kValue;
constexpr size_t kEvicted = kLarge / kSmallRecord;

void kepWorst(Run &run) {
  const Store store = makeStore(kRingSize);
  const auto fill = [&] {
    for (size_t i = 0; i <= kRingSize / kSmallRecord; ++i) append(store, kSmall);
  };
  run.timeAfter(fill, [&] { append(store, kLarge); });
}

void plainWorst(Run &run) {
  PlainStore store(kRingSize);
  const auto fill = [&] {
    for (size_t i = 0; i <= kRingSize / kSmallRecord; ++i) store.append("k1", 2, kValue, kSmall);
  };
  run.timeAfter(fill, [&] { store.append("k1", 2, kValue, kLarge); });
}

const Row worst("append of 65,000 bytes over 5,000 small records, each", kEvicted, kepWorst, plainWorst, {});

// ---- appends while the store grows

constexpr size_t kSmallGrowth = 65536 / kSmallRecord, kLargeGrowth = 1048576 / kSmallRecord;  // records

template <size_t kCount>
void kepGrow(Run &run) {
  run.time([] {
    const Store store = makeStore(0);
    for (size_t i = 0; i < kCount; ++i) append(store, kSmall);
  });
}

template <size_t kCount>
void plainGrow(Run &run) {
  run.time([] {
    PlainStore store(SIZE_MAX);
    for (size_t i = 0; i < kCount; ++i) store.append("k1", 2, kValue, kSmall);
  });
}

const Row growSmall("appends of 8 bytes, ring growing from 1 to 64 KiB", kSmallGrowth, kepGrow<kSmallGrowth>,
                    plainGrow<kSmallGrowth>, {1.5, 0.75});
const Row growLarge("appends of 8 bytes, ring growing from 1 KiB to 1 MiB", kLargeGrowth, kepGrow<kLargeGrowth>,
                    plainGrow<kLargeGrowth>, {1.3, 0.9});
const Row growth("ring growing to 1 MiB over 64 KiB, per append", kLargeGrowth, kepGrow<kLargeGrowth>, nullptr,
                 {0, 1.1});
const Peer growthSmall(growth, "kep, to 64 KiB", kepGrow<kSmallGrowth>, kSmallGrowth);

#ifdef KEP_BENCH_HAVE_GLIB
// The head in one piece, the value behind it. The array doubles, and is neither filled nor bounded.
CALLED void appendToArray(GByteArray *array, const void *key, size_t keyLength, const void *value, size_t valueLength) {
  guint8 head[3 + 255];
  head[0] = static_cast<guint8>(keyLength);
  std::memcpy(head + 1, key, keyLength);
  head[keyLength + 1] = static_cast<guint8>(valueLength >> 8);
  head[keyLength + 2] = static_cast<guint8>(valueLength);
  g_byte_array_append(array, head, static_cast<guint>(keyLength + 3));
  g_byte_array_append(array, static_cast<const guint8 *>(value), static_cast<guint>(valueLength));
}

template <size_t kCount>
void glibGrow(Run &run) {
  run.time([] {
    GByteArray *array = g_byte_array_new();
    for (size_t i = 0; i < kCount; ++i) appendToArray(array, "k1", 2, kValue, kSmall);
    g_byte_array_free(array, TRUE);
  });
}

const Peer growSmallGlib(growSmall, "GByteArray", glibGrow<kSmallGrowth>);
const Peer growLargeGlib(growLarge, "GByteArray", glibGrow<kLargeGrowth>);
#endif

// ---- walk

constexpr size_t kWalked = 900;  // records of 64 bytes and their heads, not quite a full ring

void kepWalk(Run &run) {
  const Store store = makeStore(kRingSize);
  for (size_t i = 0; i < kWalked; ++i) append(store, 64);
  run.time([&] {
    int32_t cursor = -1;
    const uint8_t *key, *value;
    uint8_t keyLength;
    uint16_t valueLength;
    while (ZuInfo_Get(store.get(), nullptr, 0, &cursor, &key, &keyLength, &value, &valueLength)) keep(value);
  });
}

void plainWalk(Run &run) {
  PlainStore store(kRingSize);
  for (size_t i = 0; i < kWalked; ++i) store.append("k1", 2, kValue, 64);
  run.time([&] {
    size_t cursor = PlainStore::kBegin;
    PlainStore::Record record;
    while (store.next(&cursor, &record)) keep(record.value);
  });
}

const Row walk("walk over records of 64 bytes", kWalked, kepWalk, plainWalk, {1.3, 0});

// ---- structured record

void kepStructured(Run &run) {
  const Store store = makeStore(kRingSize);
  ZuInfo_SetFlag(store.get(), 7, 1);
  run.time([&] { ZuInfo_AddInfo(store.get(), 1, 7, "temp", 4, "sensor", 6, "degrees", 7, 42); });
}

void plainStructured(Run &run) {
  PlainStore store(kRingSize);
  run.time([&] { store.add(1, 7, "temp", 4, "sensor", 6, "degrees", 7, 42); });
}

const Row structured("structured record, 3 short strings", 1, kepStructured, plainStructured, {3.0, 0.3});

// ---- kept log line

void kepLine(Run &run) {
  ZuLogger *logger = ZuLogger_New(ZULOGGER_ACCEPT_INFO | ZULOGGER_KEEP);
  ZuLogger_SetInfoSize(logger, kRingSize);
  run.time([&] { keep(ZuLogger_Write(logger, ZULOGGER_INFO, kLine)); });
  ZuLogger_Release(logger);
}

// The time text of a second is made once; each line asks for the second and keeps both.
CALLED void keepPlainly(PlainStore &store, const char *text) {
  static time_t second;
  static char timeText[32];
  const time_t now = time(nullptr);
  if (now != second) {
    std::strftime(timeText, sizeof timeText, "%Y/%m/%d %H:%M:%S", localtime(&now));
    second = now;
  }
  store.append("l", 1, timeText, 19);
  store.append("l", 1, text, std::strlen(text));
}

void plainLine(Run &run) {
  PlainStore store(kRingSize);
  run.time([&] { keepPlainly(store, kLine); });
}

const Row line("kept log line", 1, kepLine, plainLine, {1.7, 0.6});

#ifdef KEP_BENCH_HAVE_SPDLOG
// Its ring keeps messages with their time and level; the line that is made of them is put off until somebody asks.
constexpr size_t kMessages = 700;  // lines that a ring of 64 KiB keeps

spdlog::logger makeSpdlog() { return {"bench", std::make_shared<spdlog::sinks::ringbuffer_sink_st>(kMessages)}; }

void spdlogStructured(Run &run) {
  spdlog::logger logger = makeSpdlog();
  run.time([&] { logger.info("{} {} {} {} {} {}", 1, 7, 42, "temp", "sensor", "degrees"); });
}

void spdlogLine(Run &run) {
  spdlog::logger logger = makeSpdlog();
  run.time([&] { logger.info(spdlog::string_view_t(kLine, std::strlen(kLine))); });
}

const Peer structuredSpdlog(structured, "spdlog ring, line put off", spdlogStructured);
const Peer lineSpdlog(line, "spdlog ring, line put off", spdlogLine);
#endif

}  // namespace
