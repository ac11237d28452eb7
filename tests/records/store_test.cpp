// The exact cases of the record store: what each writer answers when, how it grows and wraps, what readers get.
#include <gtest/gtest.h>
#include <kep/ZuInfo.h>
#include <kep/ZuLogger.h>
#include <kep/ZuPrint.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "records/store_model.hpp"
#include "support/platform_double.hpp"

namespace {

std::string traced(const std::string &text) { return kStoresTrace ? text : std::string(); }

class Store {
 public:
  explicit Store(uint32_t limit) : info(ZuInfo_New(limit)) {}
  ~Store() { ZuInfo_Release(info); }
  Store(const Store &) = delete;
  Store &operator=(const Store &) = delete;

  // Runs a call on the store; what it prints to standard output is added to the trace.
  int run(const std::function<int()> &call) {
    StdoutCapture capture;
    const int result = call();
    trace += maskAddresses(capture.take());
    return result;
  }

  // Appends a record that takes `size` bytes in all: a key of one letter, and a value of the same letter.
  int put(char letter, int size) {
    return put(std::string(1, letter), std::string(static_cast<size_t>(size - 4), letter));
  }
  int put(const std::string &key, const std::string &value) {
    return run([&] {
      return ZuInfo_Append(info, key.data(), static_cast<int32_t>(key.size()), value.data(),
                           static_cast<int32_t>(value.size()));
    });
  }
  int put2(int keyLength, int length1, int length2) {
    const std::string bytes(70000, 'x');
    return run([&] {
      return ZuInfo_Append2Message(info, bytes.data(), keyLength, bytes.data(), length1, bytes.data(), length2);
    });
  }

  int resize(uint32_t limit) { return ZuInfo_ReSize(info, limit); }

  // What append, text, two parts and head answer to a small record.
  std::string answers() {
    std::string text;
    const auto add = [&](int result) { text += std::to_string(result) + " "; };
    run([&] {
      add(ZuInfo_Append(info, "k", 1, "v", 1));
      add(ZuInfo_Write(info, "k", "v"));
      add(ZuInfo_Append2Message(info, "k", 1, "v", 1, "w", 1));
      return add(ZuInfo_PackPre(info, "k", 0, 0)), 0;
    });
    return text;
  }

  // The first letter of the value of every record that a key selects, oldest first.
  std::string select(const char *key, int keyLength) {
    std::string letters;
    int32_t cursor = -1;
    const uint8_t *value = nullptr;
    uint16_t length = 0;
    while (letters.size() < 100 && ZuInfo_Get(info, key, keyLength, &cursor, nullptr, nullptr, &value, &length)) {
      letters += length > 0 ? static_cast<char>(*value) : '-';
    }
    return letters;
  }
  std::string all() { return select(nullptr, 0); }

  // The block from its first byte on: records of put(letter, size) as they were put, free stretches as '.' and size.
  std::string layout() const {
    std::string text;
    const std::string block = bytes();
    for (size_t at = 0, size = 0; at < block.size(); at += size) {
      if (block[at] == '\xFF') {
        size = std::min(block.find_first_not_of('\xFF', at), block.size()) - at;
        text += " ." + std::to_string(size);
      } else {
        const char letter = block[at + 1];
        size = 4 + static_cast<uint8_t>(block[at + 2]) * 256U + static_cast<uint8_t>(block[at + 3]);
        const bool whole = block[at] == 1 && block.substr(at + 4, size - 4) == std::string(size - 4, letter);
        text += (whole ? " " : " damaged ") + std::string(1, letter) + std::to_string(size);
      }
    }
    return text.substr(1);
  }

  std::string state() const {
    return "read " + std::to_string(info->readOffset) + " write " + std::to_string(info->writeOffset) + " free " +
           std::to_string(info->freeSize);
  }

  int blockSize() const {
    int32_t size = 0;
    if (info->block) std::memcpy(&size, info->block, sizeof size);  // a block begins with its size
    return size;
  }

  std::string bytes() const {
    return {static_cast<const char *>(ZuMem_Get(info->block, 0)), static_cast<size_t>(blockSize())};
  }

  ZuInfo *const info;
  std::string trace;
};

TEST(Store, AnswersByTheFirstCheckThatFails) {
  Store s(2048);
  EXPECT_EQ(s.answers(), "5 5 1 1 ");

  ZuInfo_Ignore(s.info, 5);
  const std::string before = s.bytes(), state = s.state();
  EXPECT_EQ(s.answers(), "0 0 1 0 ");
  EXPECT_EQ(s.put(std::string(255, 'k'), "v"), 0);
  ZuInfo_AddInfo(s.info, 1, 2, "a", 1, "b", 1, "c", 1, 3);
  EXPECT_EQ(s.bytes(), before);
  EXPECT_EQ(s.state(), state);
  EXPECT_EQ(s.all(), "vvv-") << "reads go on";
  s.info->writeOffset = 5000;
  EXPECT_EQ(s.answers(), "0 0 1 0 ");

  ZuInfo_Ignore(s.info, 0);
  EXPECT_EQ(s.answers().substr(0, 5), "-1 -1") << "write offset beyond the block";
  s.info->writeOffset = 0;
  s.info->freeSize = 1025;
  EXPECT_EQ(s.answers().substr(0, 5), "-1 -1") << "more free than the block has";

  platform::failAllocation(0);
  EXPECT_EQ(s.resize(1024), 0);
  EXPECT_EQ(s.answers(), "-1 -1 0 0 ") << "no block";
  ZuInfo_Ignore(s.info, 1);
  EXPECT_EQ(s.answers(), "-1 -1 1 0 ") << "no block, ignoring";
}

TEST(Store, DoesNothingWithoutAHandle) {
  StdoutCapture capture;
  int32_t cursor = -1;
  ZuInfo_Release(nullptr), ZuInfo_Ignore(nullptr, 1), ZuInfo_Clear(nullptr), ZuInfo_SetFlag(nullptr, 1, 1);
  ZuInfo_AddInfo(nullptr, 1, 2, "a", 1, "b", 1, "c", 1, 3), ZuInfo_ShowInfo(nullptr, -1, "", "", 0, 0, 0, 0);
  ZuLogger_Dump(nullptr);
  const int zeros = ZuInfo_ReSize(nullptr, 1) | ZuInfo_FreeSize_(nullptr, 1) | ZuInfo_PackPre(nullptr, "k", 0, 0) |
                    ZuInfo_Append2Message(nullptr, "k", 1, "v", 1, "w", 1) |
                    ZuInfo_Get(nullptr, nullptr, 0, &cursor, nullptr, nullptr, nullptr, nullptr) |
                    ZuInfo_GetPack(nullptr, &cursor, nullptr, nullptr) | static_cast<int>(ZuInfo_GetEvicted(nullptr));
  const int append = ZuInfo_Append(nullptr, "k", 1, "v", 1), write = ZuInfo_Write(nullptr, "k", "v");
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(zeros, 0);
  EXPECT_TRUE(append == -1 && write == -1);
}

TEST(Store, GrowsToItsLimitAndThenEvictsAndSaysSo) {
  platform::fillBlocksWith(0);  // not what free bytes must be
  Store s(3000);
  EXPECT_EQ(s.layout(), ".1024");
  EXPECT_EQ(s.put('a', 500), 500);
  EXPECT_EQ(s.put('b', 700), 700);
  EXPECT_EQ(s.layout(), "a500 b700 .848");
  EXPECT_EQ(s.put('c', 900), 900);
  EXPECT_EQ(s.put('d', 1200), 1200);
  EXPECT_EQ(s.layout(), "d1200 c900 .972");
  EXPECT_EQ(s.state(), "read 1200 write 1200 free 0");
  EXPECT_EQ(s.all(), "cd");

  const auto dump = [](const char *size, const char *write, const char *freeSize) {
    return std::string("logger info addr: 0x?\nmemory addr: 0x?\nmemory size: ") + size + "\nfree addr:   " + write +
           "\nuse  addr:   0\nmaxsize: 3072\nfreesize: " + freeSize + "\n";
  };
  EXPECT_EQ(s.trace, traced("size 700" + dump("1024", "500", "524") + "add size 1024, new size 2048 freesize 1548\n" +
                            dump("2048", "500", "1548") + "size 900" + dump("2048", "1200", "848") +
                            "add size 1024, new size 3072 freesize 1872\n" + dump("3072", "1200", "1872") +
                            "size 1200size 1200"));
  ZuInfo_Clear(s.info);
  EXPECT_EQ(ZuInfo_GetEvicted(s.info), 2u) << "clearing is no eviction";
  platform::fillBlocksWith(0xA5);
}

TEST(Store, GrowsByDoublingUpTo256KiBAStep) {
  const auto sizes = [](uint32_t limit, int recordSize, int last) {
    Store s(limit);
    std::string text;
    for (int size = 1024; size < last; s.put('a', recordSize)) {
      if (s.blockSize() != size) text += std::to_string(size = s.blockSize()) + " ";
    }
    return text;
  };
  EXPECT_EQ(sizes(1048576, 1000, 1048576), "2048 4096 8192 16384 32768 65536 131072 262144 524288 786432 1048576 ");
  EXPECT_EQ(sizes(0, 50000, 663552), "50176 100352 200704 401408 663552 ");
  EXPECT_EQ(sizes(10000, 10000, 10240) + sizes(10000, 10240, 10240), "10240 10240 ");
}

TEST(Store, DumpsItsHeaderWithTheLow32BitsOfAddresses) {
  Store s(2048);
  s.put('a', 100);
  StdoutCapture capture;
  ZuLogger_Dump(s.info);
  char expected[300];
  std::snprintf(expected, sizeof expected,
                "logger info addr: 0x%x\nmemory addr: 0x%x\nmemory size: 1024\nfree addr:   100\nuse  addr:   0\n"
                "maxsize: 2048\nfreesize: 924\n",
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(s.info)),
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(s.info->block)));
  EXPECT_EQ(capture.take(), expected);
}

TEST(Store, WrapsAndLetsTheReaderRestOnTheUnusedTail) {
  Store s(1024);
  s.put('a', 600);
  s.put('b', 500);
  EXPECT_EQ(s.state(), "read 600 write 500 free 100");
  EXPECT_EQ(s.layout(), "b500 .524");
  EXPECT_EQ(s.all(), "b");
  s.put('c', 100);  // the walk of a full ring whose reader rests on the tail must end
  EXPECT_EQ(s.state(), "read 600 write 600 free 0");
  EXPECT_EQ(s.all(), "bc");
  s.put('d', 50);
  EXPECT_EQ(s.state(), "read 0 write 650 free 374");
  EXPECT_EQ(s.layout(), "b500 c100 d50 .374");
  EXPECT_EQ(s.all(), "bcd");
  // Emptied by hand, the reader on the tail: no record is left, though the offsets differ.
  Store empty(1024);
  empty.put('a', 600);
  EXPECT_EQ(empty.run([&] { return ZuInfo_FreeSize_(empty.info, 500); }), 1);
  EXPECT_EQ(empty.state(), "read 600 write 0 free 600");
  EXPECT_EQ(empty.all(), "");
}

TEST(Store, WalksAnExactlyFullRing) {
  Store s(1024);
  s.put('a', 300), s.put('b', 300), s.put('c', 424);
  EXPECT_EQ(s.state(), "read 0 write 1024 free 0");
  EXPECT_EQ(s.all(), "abc");
  s.put('d', 300);
  EXPECT_EQ(s.state(), "read 300 write 300 free 0");
  EXPECT_EQ(s.all(), "bcd");
  s.put('e', 300), s.put('f', 424);  // evicting c brings the reader to the block's end, and so to its start
  EXPECT_EQ(s.state(), "read 0 write 1024 free 0");
  EXPECT_EQ(s.layout(), "d300 e300 f424");

  EXPECT_EQ(s.put('x', 1025), -1);  // refused without losing anything
  EXPECT_EQ(s.all(), "def");
  EXPECT_EQ(s.put('y', 1024), 1024);
  EXPECT_EQ(s.layout(), "y1024");
  EXPECT_EQ(s.all(), "y");
  ZuInfo_Clear(s.info);
  EXPECT_EQ(s.layout(), ".1024");
  EXPECT_EQ(s.state() + s.all(), "read 0 write 0 free 1024");
}

TEST(Store, ComparesAllOfAKeyButItsLastByte) {
  Store s(1024);
  s.put("l", "1"), s.put("ab", "2"), s.put("ac", "3"), s.put("", "4"), s.put("a", "5");
  EXPECT_EQ(s.select("l", 1), "12345");
  EXPECT_EQ(s.select("ab", 0), "235") << "length 0: that of the text";
  EXPECT_EQ(s.select("", 0), "12345");
  EXPECT_EQ(s.select("abc", 3), "2");
  EXPECT_EQ(s.select("a\0\1-", 4), "5") << "the record's own key length is not asked";
  EXPECT_EQ(s.select("ab", -1), "");

  // A record at the block's very end: the bytes compared reach its last one, or would go beyond.
  const int left = s.info->freeSize;
  s.put("z", std::string(static_cast<size_t>(left - 4), '6'));
  EXPECT_EQ(s.info->freeSize, 0);
  const std::string key = s.bytes().substr(1024U - static_cast<unsigned>(left) + 1) + "??";
  const auto keyLength = static_cast<int>(key.size());
  EXPECT_EQ(s.select(key.c_str(), keyLength - 1), "6");
  EXPECT_EQ(s.select(key.c_str(), keyLength), "");
}

TEST(Store, CutsOrRefusesLengthsThatDoNotFit) {
  Store s(300000);
  const std::string bytes(70000, 'x');
  EXPECT_EQ(ZuInfo_Append(s.info, bytes.data(), 256 + 2, bytes.data(), 65536 + 3), 2 + 3 + 3);
  EXPECT_EQ(s.bytes().substr(0, 9), std::string("\2xx\0\3xxx\xFF", 9));
  const std::string state = s.state();
  EXPECT_EQ(s.put(std::string(255, 'k'), "v"), -1);
  EXPECT_EQ(s.put(std::string(511, 'k'), "v"), -1);
  EXPECT_EQ(ZuInfo_Append(s.info, "k", -1, "v", 1), -1);
  EXPECT_EQ(ZuInfo_Append(s.info, "k", 1, "v", -1), -1);
  EXPECT_EQ(ZuInfo_Append(s.info, "k", 1, nullptr, 1), -1);
  EXPECT_EQ(ZuInfo_Write(s.info, "k", nullptr), -1);
  const int lengths[][3] = {{255, 1, 1}, {257, 1, 1}, {1, 65535, 1}, {1, 32768, 32768},
                            {1, -1, 5},  {1, 5, -1},  {-1, 1, 1}};
  for (const auto &l : lengths) EXPECT_EQ(s.put2(l[0], l[1], l[2]), 0) << l[0] << " " << l[1] << " " << l[2];
  EXPECT_EQ(ZuInfo_PackPre(s.info, bytes.c_str(), 0, 1), 0) << "a text of 70000 bytes as key";
  EXPECT_EQ(ZuInfo_PackPre(s.info, "k", 255, 1), 0);
  EXPECT_EQ(ZuInfo_PackPre(s.info, "k", 1, 65536), 0);
  EXPECT_EQ(ZuInfo_PackPre(s.info, "k", 1, -1), 0);
  ZuInfo_AddInfo(s.info, 1, 1, bytes.data(), 30000, bytes.data(), 35525, "", 0, 1);  // 65536 bytes with the numbers
  ZuInfo_AddInfo(s.info, 1, 1, "a", -5, "b", 1, "", 0, 1);
  EXPECT_EQ(s.state(), state);
  EXPECT_EQ(s.trace, "");

  EXPECT_EQ(s.put2(254, 65534, 1), 1);
  EXPECT_EQ(s.put(std::string(254, 'k'), bytes.substr(0, 65535)), 254 + 65535 + 3);
  s.run([&] { return ZuInfo_AddInfo(s.info, 1, 1, bytes.data(), 30000, bytes.data(), 35524, "", 0, 1), 0; });
  EXPECT_EQ(s.select(nullptr, 0).size(), 4U);
}

TEST(Store, LosesItsRecordsWhenItCannotGrowAndRecovers) {
  Store s(0);
  s.put('a', 600);
  ZuInfo_SetFlag(s.info, 7, 1);
  const int blocks = platform::liveBlocks();
  platform::failAllocation(0);
  EXPECT_EQ(s.put('b', 600), -1);
  EXPECT_EQ(s.info->block, nullptr);
  EXPECT_EQ(platform::liveBlocks(), blocks - 1) << "the old block is given back";
  EXPECT_EQ(s.all(), "");
  EXPECT_EQ(s.answers(), "-1 -1 0 0 ");
  ZuInfo_Clear(s.info);
  platform::failAllocation(0);
  EXPECT_EQ(s.resize(2048), 0);
  EXPECT_EQ(s.info->limit, 0U) << "the old limit stays";
  EXPECT_EQ(s.resize(0), 1) << "no block: the same limit takes a new one";
  EXPECT_EQ(s.put('c', 600), 600);
  EXPECT_EQ(s.layout(), "c600 .424");
  EXPECT_EQ(ZuInfo_GetFlag(s.info, 7), 1);
  EXPECT_EQ(s.resize(0xFFFFFC01), 1);
  EXPECT_EQ(s.info->limit, 0xFFFFFC00U) << "rounded as far as 32 bits go";
}

TEST(Store, KeepsTheThirdStringOfIdsThatAreSwitchedOn) {
  Store s(0);
  ZuInfo_SetFlag(s.info, 9, 1);
  std::string formats;
  for (const int id : {8, 9, 1999, 2000, -1}) {
    ZuInfo_AddInfo(s.info, 0x107, id, "ab", 2, nullptr, 0, "xyz", 3, 0x01020304);
  }
  int32_t cursor = -1;
  char format[256];
  const uint8_t *value = nullptr;
  std::string last;
  while (ZuInfo_GetPack(s.info, &cursor, format, &value)) {
    formats += format;
    last.assign(reinterpret_cast<const char *>(value) + 4, 12);  // behind the time
  }
  EXPECT_EQ(formats, "*TBhI2S0S0S*TBhI2S0S3S*TBhI2S0S0S*TBhI2S0S3S*TBhI2S0S3S");
  EXPECT_EQ(last, "\x07\xFF\xFF\1\2\3\4abxyz");
}

// A store of structured records with a fixed time, 1970/01/01 00:00:01, in a fixed zone.
class Listing : public testing::Test {
 protected:
  Listing() {
    setenv("TZ", "UTC0", 1);
    tzset();
  }

  void add(int type, int id, char code, const std::string &data1, const std::string &data2) {
    const std::string key = "TBhI" + std::to_string(data1.size()) + "S" + std::to_string(data2.size()) + "S0S";
    const char head[] = {0, 0, 0, 1,   static_cast<char>(type), static_cast<char>(id >> 8), static_cast<char>(id),
                         0, 0, 0, code};
    store.put(key, std::string(head, sizeof head) + data1 + data2);
  }

  std::string show(int id, const char *hex1, const char *hex2, int code, int type, int skip = 0, int limit = 0) {
    ZuInfo_ShowInfo(store.info, id, hex1, hex2, code, type, skip, limit);
    ZuPrint_ShowEx("", 0);  // the last line has no end
    return platform::takePrinted();
  }

  // The codes of the records shown, and the total.
  static std::string codes(const std::string &text) {
    std::string found;
    for (size_t at = 0; (at = text.find("[I]=>0x0000000", at)) != std::string::npos; ++at) found += text[at + 14];
    return found + "/" + text.substr(text.rfind(' ') + 1);
  }

  Store store{0};
};

TEST_F(Listing, PrintsARecordFieldByField) {
  store.put("TBhI0S0S", "12345678901");    // not the format
  store.put("TBhI1S0S0S", "12345678901");  // the format, but a byte short of it and a byte too long
  store.put("TBhI1S0S0S", "1234567890123");
  store.put("", ""), store.put("x", "y");
  add(200, -2, 3, "\xAB\xCD", std::string(17, '\1'));
  EXPECT_EQ(show(-1, "", nullptr, 0, 0),
            "index=1,format:*TBhI2S17S0S\n0001[T]=>1970/01/01 00:00:01<\n0002[B]=>0xC8<\n0003[h]=>-2<\n"
            "0004[I]=>0x00000003<\n0005[2S]=>\nAB CD \n0006[17S]=>\n"
            "01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 01 \n01 \n0007[0S]=>\n\nTotal count 1");
}

TEST_F(Listing, FiltersAndCounts) {
  add(1, 10, 0, "\x12\x34", "\xFF");
  add(2, -1, 1, "\x12", "\x01");
  add(1, 10, 2, std::string("\x12\0", 2), "");
  add(2, 20, 3, "", "\xFF\xFF");
  add(1, 20, 4, "\x12\x34\x56", "\x0F");
  EXPECT_EQ(codes(show(-1, "", "", 0, 0)), "01234/5");
  EXPECT_EQ(codes(show(10, "", "", 0, 0)), "02/2");
  EXPECT_EQ(codes(show(65535, "", "", 0, 0)), "1/1");
  EXPECT_EQ(codes(show(65536 + 20, "", "", 0, 0)), "34/2") << "ids are compared as 16 bits";
  EXPECT_EQ(codes(show(-1, "1234", "", 0, 0)), "04/2");
  EXPECT_EQ(codes(show(-1, "123", "", 0, 0)), "0124/4") << "an odd last digit is left out";
  EXPECT_EQ(codes(show(-1, "1200", "", 0, 0)), "12/2") << "what a string lacks counts as 0";
  EXPECT_EQ(codes(show(-1, "00000000", "ffFF", 0, 0)), "3/1");
  EXPECT_EQ(codes(show(-1, "", "ff", 0, 0)), "03/2");
  EXPECT_EQ(codes(show(-1, "", "", 3, 0)), "3/1");
  EXPECT_EQ(codes(show(-1, "", "", -1, 0)), "1234/4") << "-1: any code but 0";
  EXPECT_EQ(codes(show(-1, "", "", 0, 2)), "13/2");
  EXPECT_EQ(codes(show(10, "", "", -1, 1)), "2/1");

  EXPECT_EQ(codes(show(-1, "", "", 0, 0, 2, 3)), "2/5") << "the limit is no number of records";
  EXPECT_EQ(codes(show(-1, "", "", 0, 0, 3, 0)), "34/5");
  EXPECT_EQ(codes(show(-1, "", "", 0, 0, 0, 2)), "01/5");
  EXPECT_EQ(show(99, "", "", 0, 0), "Total count 0");
}

}  // namespace
