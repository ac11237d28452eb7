// fault_file_test.cpp: what the library saves of its faults is read back; what is not whole never passes for it.
#include <gtest/gtest.h>
#include <kep/ZuFault.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <sstream>

#include "server/annotated.hpp"
#include "server/fault_bytes.hpp"
#include "server/log_lines.hpp"

using namespace faults;
using namespace kepserver;

namespace {

const std::string kTime = "11/23 03:50:21";

struct Read {
  FaultFile file;
  std::optional<Damage> damage;
};

Read readIn(const std::string &bytes, size_t portion) {
  FaultFileReader reader;
  for (size_t i = 0; i < bytes.size(); i += portion) {
    const std::string part = bytes.substr(i, portion);
    reader.feed(part.data(), part.size());
  }
  FaultFile file = reader.finish();
  return {std::move(file), reader.damage()};
}

TEST(FaultReader, IsOnThePageAsTheLibraryWritesIt) {
  ZuFault *net = ZuFault_Regist("net", nullptr), *disk = ZuFault_Regist("disk 0", nullptr);
  ZuFault_SetInitLog(net, 1, 0, "link up");
  ZuFault_SetRunLog(disk, 1, 0, "-5 \xC2\xB0\x43, \"cold\"\n");
  ZuFault_SetRegist(net, 0x10, 0x20), ZuFault_SetCounter(disk, 1, 0xFFFFFFFF), ZuFault_SetValue(net, 7, "OK", 2);
  ZuFault_SetRegist64(net, 0x18, 0x0102030405060708), ZuFault_SetCounter64(net, 2, 0x7FFFFFFFFFFFFFFF);
  ZuFault_SetRegistEx(disk, 0x40, "\0\xFF", 2), ZuFault_SetCounterEx(disk, 3, nullptr, 0);
  const std::string path = testing::TempDir() + "kep-fault-" + std::to_string(getpid());
  ZuFault_SetFile(path.c_str(), 0);
  ZuFault_Start();
  std::ostringstream written;
  written << std::ifstream(path, std::ios::binary).rdbuf();
  std::remove(path.c_str());
  const std::regex time("[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}");
  EXPECT_EQ(std::regex_replace(written.str(), time, kTime), annotatedBytes(KEP_PAGE));
}

// As far as it is whole, a file is what is read; what is lost, or changed where it can be seen, is told.
TEST(FaultReader, IsWholeOnlyToItsLastByte) {
  const std::string bytes = annotatedBytes(KEP_PAGE);
  std::vector<std::string> damaged;
  for (size_t size = 0; size < bytes.size(); ++size) damaged.push_back(bytes.substr(0, size));
  for (size_t i = 0; i < 8 * bytes.size(); ++i) {
    damaged.push_back(bytes);
    damaged.back()[i / 8] = static_cast<char>(bytes[i / 8] ^ 1 << i % 8);
  }
  size_t wholeCuts = 0;
  for (const std::string &input : damaged) {
    const auto [file, damage] = readIn(input, input.size() % 40 + 1);
    const bool hasValues = !file.values.empty() || file.byteCount > encoded(file, false).size();
    EXPECT_EQ(encoded(file, hasValues), input.substr(0, file.byteCount));
    EXPECT_EQ(file.whole, !damage);
    EXPECT_TRUE(damage ? damage->offset >= file.byteCount : file.byteCount == input.size());
    const bool isCut = input.size() < bytes.size();
    if (isCut && !damage) ++wholeCuts;
    EXPECT_TRUE(!isCut || !damage || (damage->cutShort && damage->offset == input.size()));
  }
  EXPECT_EQ(wholeCuts, 7u) << "behind the logs, and behind each value but the last";
}

TEST(FaultReader, NamesItsFirstDamageWithTheOffset) {
  const std::string log = counted("log a " + kTime), eight = word(1) + word(2);
  const std::string name(23, 'n'), cut = word(1) + word(65527) + std::string(65523, 'x');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {log + counted("lag a x"), "24 a log record that begins with neither \"log \" nor \"run \""},
      {log + counted("run"), "24 a log record that begins with neither \"log \" nor \"run \""},
      {log + counted("run " + name + " x"), "28 a log record without a name"},
      {log + counted("run a x" + kEnd), "31 a zero byte in a log record"},
      {kEnd + kEnd, "2 a value without a head"},
      {kEnd + value(0, name, eight), "4 a name length of 24"},
      {kEnd + counted(std::string("\0\0abcdefgh", 10)), "4 a name length of 0"},
      {kEnd + counted("\4\3a"), "4 a name length of 4"},
      {kEnd + value(7, "a", eight), "5 unknown item type 7"},
      {kEnd + value(0, kEnd, eight), "6 a zero byte in a name"},
      {kEnd + value(3, "a", eight + "x"), "2 a value of 9 bytes instead of 8"},
      {kEnd + value(1, "a", eight), "2 a value of 8 bytes instead of 12"},
      {kEnd + value(6, "a", word(1)), "2 a value of 4 bytes instead of 8"},
      {kEnd + value(6, "a", eight + "x"), "11 a size of 2 in front of 1 bytes"},
      {kEnd + value(2, "ab", cut), "whole"},  // as it is too long for its record
      {kEnd + value(2, "a", cut), "11 a size of 65527 in front of 65523 bytes"},
      {kEnd + value(2, "ab", word(1) + word(65528) + cut.substr(8)), "12 a size of 65528 in front of 65523 bytes"},
  };
  for (const auto &[bytes, expected] : cases) {
    const auto damage = readIn(bytes, 1 << 20).damage;
    EXPECT_EQ(damage ? std::to_string(damage->offset) + " " + damage->reason : "whole", expected);
  }
  FaultFileReader reader;
  const std::string longest = counted("log a " + std::string(65529, 'x'));
  for (int i = 0; i < 2048; ++i) reader.feed(longest.data(), longest.size());
  EXPECT_EQ(reader.damage()->reason, "the file goes on beyond 128 MiB");
}

// The lines of the logs: name, with a ? where it is guessed, log, time and text. In files a T stands for a time.
std::string linesIn(const std::vector<std::string> &records, const std::vector<std::string> &names, bool isCut) {
  std::string bytes, told;
  for (const std::string &record : records) bytes += counted(std::regex_replace(record, std::regex("T"), kTime));
  if (!isCut) bytes += kEnd;
  for (const std::string &name : names) bytes += value(0, name, word(1) + word(2));
  const FaultFile file = readIn(bytes, bytes.size()).file;
  for (const FaultLog &log : file.logs) {
    told += std::string(log.fault) + (log.isGuessed ? "?" : "") + (log.kind == FaultLogKind::kInit ? " log" : " run");
    for (const LogLine &line : joinLogLines(log.records, log.isCutShort)) {
      told += '|' + std::string(line.time) + '|' + std::string(line.text);
    }
    told += '\n';
  }
  return std::regex_replace(told, std::regex(kTime), "T");
}

TEST(FaultReader, TellsNamesAndTimesApart) {
  const struct {
    std::vector<std::string> records, names;
    std::string expected;
    bool isCut = false;
  } cases[] = {
      {{"log net T", "log net up 1", "run net T", "run net "}, {}, "net log|T|up 1\nnet run|T|\n"},
      {{"run net x y", "run net T", "run net z"}, {}, "net run||x y|T|z\n"},
      {{"log a b T", "log a b c d", "log a T", "log a e f"}, {}, "a b log|T|c d\na log|T|e f\n"},
      {{"log a b c"}, {"a b"}, "a b log||c\n"},
      {{"log a b c"}, {}, "a? log||b c\n"},
      {{"log a x", "log a b c"}, {}, "a log||x||b c\n"},
      {{"log a T", "log a x", "log a b c"}, {"a b"}, "a log|T|x\na? log||b c\n"},
      {{"run a b c", "run a b T", "run a b d", "run a T", "run a e"}, {}, "a b? run||c\na b run|T|d\na run|T|e\n"},
      {{"run a T", "run a b T", "run a T", "run a T"}, {"a b"}, "a run|T|b T|T|T\n"},
      {{"log  T", "log  x"}, {}, " log|T|x\n"},
      {{"log a T", "log a x", "log a y", "log a T", "log a z"}, {}, "a log||T||x||y|T|z\n"},
      {{"log a T", "log a x", "run a T", "run a y", "log a T", "log a z"}, {}, "a log|T|x\na run|T|y\na log|T|z\n"},
      {{"log a T", "log a x", "log a T"}, {}, "a log|T|x||T\n", true},
      {{"log a T", "log a T"}, {}, "a log|T|T\n", true},
  };
  for (const auto &[records, names, expected, isCut] : cases) EXPECT_EQ(linesIn(records, names, isCut), expected);
  for (const char *time : {"2026/11/23 03:50:21", "26/11/23 03:50:21"}) EXPECT_TRUE(isLogTime(time));
  for (const char *text : {"", "11/23 03:50:2", "11/23 03:50:2x", "11/23 03:50:211"}) EXPECT_FALSE(isLogTime(text));
}

}  // namespace
