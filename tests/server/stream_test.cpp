// stream_test.cpp: the decoder of runs and its three output formats.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "server/board_stream.hpp"
#include "server/run_report.hpp"
#include "server/stream.hpp"

using namespace board;
using namespace kepserver;

namespace {

// Decodes a stream that comes in portions of `portion` bytes and then ends.
StreamDecoder decode(const std::string &stream, const Expectation &expectation, size_t portion = SIZE_MAX) {
  StreamDecoder decoder(expectation);
  for (size_t i = 0; i < stream.size(); i += std::min(portion, stream.size() - i)) {
    const std::string bytes = stream.substr(i, portion);
    decoder.feed(bytes.data(), bytes.size());
  }
  decoder.finish();
  return decoder;
}

TEST(Report, KeepsTheLinesOfALogInOrder) {
  kepserver::Run run;
  std::ostringstream out;
  std::string expected = "row,item,name,section,key,kind,value\n";
  for (int line = 100; line < 200; ++line) {
    run.values.push_back({ValueKind::kString, 0, 0, 7, 0, std::to_string(line * 7919 % 100), 0});
    expected += "value,0,,0,7,string," + run.values.back().bytes + '\n';
  }
  RunReporter(out, {Format::kCsv}).write(run);
  EXPECT_EQ(out.str(), expected);
}

// What is long is printed in portions of 65536 bytes, which end within one of these characters.
TEST(Report, CutsNoCharacterOfALongValue) {
  for (const std::string character : {"\xC3\xA9", "\xF0\x9F\x98\x80", "\""}) {
    for (size_t before = 65532; before <= 65536; ++before) {
      const std::string start(before, 'x');
      std::string bytes = start, quoted = start;
      for (int i = 0; i < 20'000; ++i) {
        bytes += character;
        quoted += character == "\"" ? "\"\"" : character;
      }
      kepserver::Run run;
      run.values.push_back({ValueKind::kString, 0, 0, 0, 0, bytes, 0});
      std::stringstream json, csv;
      RunReporter(json, {Format::kJson}).write(run);
      RunReporter(csv, {Format::kCsv}).write(run);
      std::string line;
      std::getline(json, line);  // the layout
      std::getline(json, line);
      EXPECT_TRUE(nlohmann::json::parse(line).at("value") == bytes) << character << before;
      const std::string mark = quoted == bytes ? "" : "\"";
      const std::string expected = "value,0,,0,0,string," + mark + quoted + mark + "\n";
      EXPECT_TRUE(csv.str().find(expected) != std::string::npos) << character << before;
    }
  }
}

TEST(Stream, ReportsACutAtEveryOffset) {
  const std::string stream = joined(collection());
  const size_t emptyItemEnd = stream.size() - 12 - 29;  // looks like a run's end, as nothing tells it from one
  for (size_t size = 0; size <= stream.size(); ++size) {
    const auto damage = decode(stream.substr(0, size), {}, size % 50 + 1).damage();
    EXPECT_EQ(damage.has_value(), size != emptyItemEnd && size != stream.size());
    EXPECT_TRUE(!damage || (damage->cutShort && damage->offset == size)) << size;
  }
}

TEST(Stream, NamesTheFirstDamageWithItsOffset) {
  const Expectation selfTest{RunKind::kSelfTest, 0};
  const std::string identity = message(0, 77, "KB12");
  const std::string start = identity + message(1, 5, "");  // 28 bytes, so records begin at offset 40
  const std::string piece = head(0x03, 1, 2, 3) + counted("ab");
  const std::string value = head(0x83, 0xFFFF, 0, 0) + counted("a");  // a self-test's announcement and nothing else's
  const std::string quiet = identity + message(1, 5, word(0) + counted("a")) + message(2, 6, "");
  const std::string longName = " an item's name of more than 19 bytes";
  const std::string lost = "damaged 57 a record of item ";
  const std::string open = " before the last piece of item 1, section 2, key 3";
  const auto data = [&start](const std::string &records) { return start + message(2, 6, records); };
  struct Case {
    std::string stream, found;
    Expectation expectation = {RunKind::kCollection, 77};
  };
  const std::vector<Case> cases = {
      {word(11) + word(0) + word(77), "damaged 0 a message length of 11 is not within 12 to 1036"},
      {data(std::string(1025, 0)), "damaged 28 a message length of 1037 is not within 12 to 1036"},
      {message(1, 77, ""), "damaged 4 a message of type 1 as number 1 of the run"},
      {identity + message(2, 5, ""), "damaged 20 a message of type 2 as number 2 of the run"},
      {start, "damaged 20 a message of type 1 as number 2 of the run", selfTest},
      {start + message(1, 6, ""), "damaged 32 a message of type 1 as number 3 of the run"},
      {message(0, 78, "KB12"), "damaged 8 sequence 78 instead of 77"},
      {start + message(2, 7, ""), "damaged 36 sequence 7 instead of 6"},
      {identity + message(2, 5, ""), "damaged 24 sequence 5 instead of 78", selfTest},
      {message(0, 77, "KB1"), "damaged 12 an identity of 3 bytes instead of 4"},
      {identity + message(1, 5, word(1) + counted("a") + word(1) + counted("b")),
       "damaged 35 catalogue index 1 does not ascend"},
      {identity + message(1, 5, word(1) + counted(std::string(20, 'n'))), "damaged 32" + longName},
      {identity + message(2, 78, head(0x03, 0xFFFF, 0, 0) + counted(std::string(19, 'n')) + value),
       "damaged 62" + longName, selfTest},
      {quiet, "cut 47 the stream ends before the run's last message"},
      {quiet + message(2, 7, ""), "whole"},
      {data(head(0x01, 0, 0, 0) + word(0)), "damaged 40 unknown record type 1"},
      {data(head(0x85, 0, 0, 0) + counted("")), "damaged 40 unknown record type 133"},
      {data(head(0x82, 0, 0, 0) + number(0, 7)), "damaged 53 a field runs past its message"},
      {data(head(0x83, 0, 0, 0) + number(2, 2) + "a"), "damaged 53 a length of 2 runs past its message"},
      {data(piece + head(0x84, 1, 2, 3) + counted("")), lost + "1, section 2, key 3" + open},
      {data(piece + head(0x83, 1, 0, 3) + counted("")), lost + "1, section 0, key 3" + open},
      {data(piece + head(0x83, 1, 2, 0) + counted("")), lost + "1, section 2, key 0" + open},
      {data(piece) + message(2, 7, ""), "cut 69 the last piece is missing of item 1, section 2, key 3"},
      {message(0, INT32_MAX, "KB12") + message(2, INT32_MIN, ""), "whole", selfTest},
      {data(value) + message(2, 7, ""), "whole, 1 kept"},
      {data(value + "\x55") + message(2, 7, value), "damaged 56 unknown record type 85, 1 kept"},
  };
  for (const auto &[stream, found, expectation] : cases) {
    for (const size_t portion : {size_t{1}, SIZE_MAX}) {
      const StreamDecoder decoder = decode(stream, expectation, portion);
      const auto &damage = decoder.damage();
      const size_t kept = decoder.run().values.size();
      std::string text = damage ? damage->cutShort ? "cut " : "damaged " : "whole";
      if (damage) text += std::to_string(damage->offset) + " " + damage->reason;
      if (kept > 0) text += ", " + std::to_string(kept) + " kept";
      EXPECT_EQ(text, found);
      EXPECT_EQ(decoder.run().whole, !damage);
    }
  }
}

TEST(Stream, BreaksOffARunThatDoesNotEnd) {
  const std::string empty = head(0x83, 0, 0, 0) + counted("");
  struct Case {
    std::string payload, reason;
    uint64_t messages, records;
  };
  const std::vector<Case> cases = {
      {head(0x84, 0, 0, 0) + counted(std::string(1009, 0)), "the run goes on beyond 64 MiB", (64 << 20) / 1036, 64776},
      {joined(std::vector(64, empty)), "the run goes on beyond 1048576 records", (1 << 20) / 64, 1 << 20},
  };
  for (const auto &[payload, reason, messages, records] : cases) {
    StreamDecoder decoder({});
    std::string bytes = message(0, 77, "KB12") + message(1, 0, "");
    for (int32_t sequence = 1; !decoder.damage() && sequence < 70'000; ++sequence) {
      decoder.feed(bytes.data(), bytes.size());
      bytes = message(2, sequence, payload);
    }
    ASSERT_TRUE(decoder.damage());
    EXPECT_EQ(decoder.damage()->reason, reason);
    EXPECT_EQ(decoder.run().messageCount, 2 + messages);
    EXPECT_EQ(decoder.run().recordCount, records);
  }
}

}  // namespace
