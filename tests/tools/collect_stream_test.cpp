// collect_stream_test.cpp: the decoder of kep-collect and its three output formats.

#include <gtest/gtest.h>

#include <sstream>

#include "board_stream.hpp"
#include "report.hpp"
#include "stream.hpp"

using namespace board;
using namespace kepcollect;

namespace {

const Expectation kUnknownRequest;

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

std::string printed(const Run &run, Format format) {
  std::ostringstream out;
  Reporter(out, format).write(run);
  return out.str();
}

std::string describe(const StreamDecoder &decoder) {
  const auto &damage = decoder.damage();
  if (!damage) return "whole";
  return (damage->cutShort ? "cut " : "damaged ") + std::to_string(damage->offset) + " " + damage->reason;
}

std::string printedCollection(Format format) { return printed(decode(joined(collection()), {}).run(), format); }

TEST(Report, PrintsEveryKindOfValueAsText) {
  EXPECT_EQ(printedCollection(Format::kText), R"(identity 4b420000, sequence 77
item 0 log
item 1 café
 item  name  section  key  kind    value
    0  log         0    4  string  first of \x1b[2J\xc2\x9b\xff\\
    0  log         0    4  string  second, "quoted"\n
    0  log         0    4  string  )"
                                              R"(
    1  café        0    1  long    -9223372036854775808
    1  café        2    3  buffer  00ff10
    1  café        2    9  int     -5
65535              0    0  int     1
8 messages, 9 records, 302 bytes
)");
}

TEST(Report, PrintsEveryKindOfValueAsJson) {
  EXPECT_EQ(printedCollection(Format::kJson),
            R"({"row":"identity","identity":"4b420000","sequence":77}
{"row":"item","item":0,"name":"log"}
{"row":"item","item":1,"name":"caf\u00e9"}
{"row":"value","item":0,"name":"log","section":0,"key":4,"kind":"string","value":"first of \u001b[2J\u009b\ufffd\\","value_hex":"6669727374206f66201b5b324ac29bff5c"}
{"row":"value","item":0,"name":"log","section":0,"key":4,"kind":"string","value":"second, \"quoted\"\n"}
{"row":"value","item":0,"name":"log","section":0,"key":4,"kind":"string","value":""}
{"row":"value","item":1,"name":"caf\u00e9","section":0,"key":1,"kind":"long","value":-9223372036854775808}
{"row":"value","item":1,"name":"caf\u00e9","section":2,"key":3,"kind":"buffer","value":"00ff10"}
{"row":"value","item":1,"name":"caf\u00e9","section":2,"key":9,"kind":"int","value":-5}
{"row":"value","item":65535,"name":"","section":0,"key":0,"kind":"int","value":1}
{"row":"summary","messages":8,"records":9,"bytes":302,"whole":true}
)");
}

TEST(Report, PrintsEveryKindOfValueAsCsv) {
  EXPECT_EQ(printedCollection(Format::kCsv), R"(row,item,name,section,key,kind,value
identity,,,,,,4b420000
item,0,log,,,,
item,1,café,,,,
value,0,log,0,4,string,first of \x1b[2J\xc2\x9b\xff\\
value,0,log,0,4,string,"second, ""quoted""\n"
value,0,log,0,4,string,
value,1,café,0,1,long,-9223372036854775808
value,1,café,2,3,buffer,00ff10
value,1,café,2,9,int,-5
value,65535,,0,0,int,1
)");
}

TEST(Report, NamesValuesOfASelfTestAfterTheItemAnnounced) {
  const kepcollect::Run run = decode(joined(selfTest()), kUnknownRequest).run();
  EXPECT_EQ(printed(run, Format::kText), R"(identity 4b420000, sequence 77
self-test of fan
self-test of disk
item  name  section  key  kind  value
   3  fan         0    1  int   0
4 messages, 3 records, 106 bytes
)");
  EXPECT_EQ(printed(run, Format::kCsv), R"(row,item,name,section,key,kind,value
identity,,,,,,4b420000
tested,,fan,,,,
tested,,disk,,,,
value,3,fan,0,1,int,0
)");
}

TEST(Report, KeepsTheLinesOfALogInOrder) {
  kepcollect::Run run;
  std::string expected = "row,item,name,section,key,kind,value\n";
  for (int line = 100; line < 200; ++line) {
    run.values.push_back({ValueKind::kString, 0, 0, 7, 0, std::to_string(line * 7919 % 100), 0});
    expected += "value,0,,0,7,string," + run.values.back().bytes + '\n';
  }
  EXPECT_EQ(printed(run, Format::kCsv), expected);
}

TEST(Report, EscapesWhatIsNotPrintableUtf8) {
  EXPECT_EQ(printable("\r\t\x7F z"), "\\r\\t\\x7f z");
  EXPECT_EQ(printable("\xE2\x82\xAC \xF0\x9F\x98\x80"), "\xE2\x82\xAC \xF0\x9F\x98\x80");
  EXPECT_EQ(printable("\xE2\x80\xAE"), "\\xe2\\x80\\xae") << "would turn the text around";
  EXPECT_EQ(printable("\xC0\x8A"), "\\xc0\\x8a") << "an overlong line feed";
  EXPECT_EQ(printable("\xED\xA0\x80"), "\\xed\\xa0\\x80") << "a surrogate";
  EXPECT_EQ(printable("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80") << "beyond Unicode";
  EXPECT_EQ(printable("a\xE2\x82"), "a\\xe2\\x82") << "a character cut off";
  EXPECT_EQ(printable("\xE2\x82 b"), "\\xe2\\x82 b") << "a character broken off";
}

TEST(Stream, DecodesTheSameInPortionsOfAnySize) {
  for (const auto &messages : {collection(), selfTest()}) {
    const std::string stream = joined(messages);
    const StreamDecoder whole = decode(stream, kUnknownRequest);
    EXPECT_EQ(describe(whole), "whole");
    for (size_t portion = 1; portion < 50; ++portion) {
      EXPECT_EQ(printed(decode(stream, kUnknownRequest, portion).run(), Format::kJson),
                printed(whole.run(), Format::kJson));
    }
  }
}

TEST(Stream, TellsEachMessageOnceItIsWhole) {
  StreamDecoder decoder({RunKind::kCollection, 77});
  for (const std::string &bytes : collection()) {
    EXPECT_EQ(decoder.feed(bytes.data(), bytes.size() - 1), 0u);
    EXPECT_EQ(decoder.feed(&bytes.back(), 1), 1u);
  }
}

TEST(Stream, ReportsACutAtEveryOffset) {
  const std::string stream = joined(collection());
  const size_t emptyItemEnd = stream.size() - 12 - 29;  // looks like a run's end, as nothing tells it from one
  for (size_t size = 0; size < stream.size(); ++size) {
    const StreamDecoder decoder = decode(stream.substr(0, size), {RunKind::kCollection, 77});
    if (size == emptyItemEnd) {
      EXPECT_FALSE(decoder.damage());
    } else {
      ASSERT_TRUE(decoder.damage());
      EXPECT_TRUE(decoder.damage()->cutShort);
      EXPECT_EQ(decoder.damage()->offset, size);
    }
  }
}

TEST(Stream, KeepsWhatWasWholeBeforeTheDamage) {
  const std::string good = head(0x81, 0, 0, 1) + word(11);
  const std::string stream = joined({message(0, 1, "KB12"), message(1, 1, ""), message(2, 2, good + "\x55")});
  const StreamDecoder decoder = decode(stream + message(2, 3, good), {RunKind::kCollection, 1});
  EXPECT_EQ(describe(decoder), "damaged 57 unknown record type 85");
  EXPECT_EQ(decoder.run().values.size(), 1u);
  EXPECT_EQ(decoder.run().messageCount, 2u);
  EXPECT_FALSE(decoder.run().whole);
}

struct DamageCase {
  std::string stream;
  std::string found;
};

TEST(Stream, NamesTheFirstDamageWithItsOffset) {
  const std::string start = message(0, 77, "KB12") + message(1, 5, "");  // 28 bytes, so records begin at offset 40
  const std::string piece = head(0x03, 1, 2, 3) + counted("ab");
  const std::string open = "before the last piece of item 1, section 2, key 3";
  const std::string lost = "damaged 57 a record of item ";
  const std::vector<DamageCase> cases = {
      {word(11) + word(0) + word(77), "damaged 0 a message length of 11 is not within 12 to 1036"},
      {start + message(2, 6, std::string(1025, ' ')), "damaged 28 a message length of 1037 is not within 12 to 1036"},
      {start + word(-1) + word(2) + word(6), "damaged 28 a message length of -1 is not within 12 to 1036"},
      {message(2, 77, ""), "damaged 4 a message of type 2 as number 1 of the run"},
      {message(0, 77, "KB12") + message(2, 5, ""), "damaged 20 a message of type 2 as number 2 of the run"},
      {start + message(1, 6, ""), "damaged 32 a message of type 1 as number 3 of the run"},
      {start + message(3, 6, ""), "damaged 32 a message of type 3 as number 3 of the run"},
      {message(0, 78, "KB12"), "damaged 8 sequence 78 instead of 77"},
      {start + message(2, 7, ""), "damaged 36 sequence 7 instead of 6"},
      {message(0, 77, "KB1"), "damaged 12 an identity of 3 bytes instead of 4"},
      {message(0, 77, "KB12") + message(1, 5, word(0) + number(3, 2) + "ab"),
       "damaged 32 a length of 3 runs past its message"},
      {message(0, 77, "KB12") + message(1, 5, word(1) + counted("a") + word(1) + counted("b")),
       "damaged 35 catalogue index 1 does not ascend"},
      {start + message(2, 6, head(0x01, 0, 0, 0) + word(0)), "damaged 40 unknown record type 1"},
      {start + message(2, 6, head(0x85, 0, 0, 0) + word(0)), "damaged 40 unknown record type 133"},
      {start + message(2, 6, head(0x82, 0, 0, 0) + word(0)), "damaged 53 a field runs past its message"},
      {start + message(2, 6, head(0x84, 0, 0, 0) + number(0, 1)), "damaged 53 a field runs past its message"},
      {start + message(2, 6, head(0x83, 0, 0, 0) + number(2, 2) + "a"),
       "damaged 53 a length of 2 runs past its message"},
      {start + message(2, 6, piece + head(0x84, 1, 2, 3) + counted("")), lost + "1, section 2, key 3 " + open},
      {start + message(2, 6, piece + head(0x83, 0, 2, 3) + counted("")), lost + "0, section 2, key 3 " + open},
      {start + message(2, 6, piece + head(0x83, 1, 0, 3) + counted("")), lost + "1, section 0, key 3 " + open},
      {start + message(2, 6, piece + head(0x83, 1, 2, 0) + counted("")), lost + "1, section 2, key 0 " + open},
      {start, "cut 28 the stream ends before the run's last message"},
      {start + message(2, 6, piece), "cut 57 the last piece is missing of item 1, section 2, key 3"},
      {start + message(2, 6, piece) + message(2, 7, ""),
       "cut 69 the last piece is missing of item 1, section 2, key 3"},
  };
  for (const DamageCase &c : cases) {
    EXPECT_EQ(describe(decode(c.stream, {RunKind::kCollection, 77})), c.found);
    EXPECT_EQ(describe(decode(c.stream, {RunKind::kCollection, 77}, 1)), c.found);
  }
}

TEST(Stream, ExpectsWhatTheRequestLeadsTo) {
  const std::string end = message(2, INT32_MIN, "");
  const std::string tested = message(0, INT32_MAX, "KB12") + end;
  EXPECT_EQ(describe(decode(tested, {RunKind::kSelfTest, 0})), "whole") << "the board's count wraps";
  EXPECT_EQ(describe(decode(tested, kUnknownRequest)), "whole");
  EXPECT_EQ(describe(decode(tested, {RunKind::kSelfTest, 1})), "damaged 8 sequence 2147483647 instead of 1");
  EXPECT_EQ(describe(decode(message(0, 4, "KB12") + end, {RunKind::kSelfTest, 0})),
            "damaged 24 sequence -2147483648 instead of 5");
  EXPECT_EQ(describe(decode(message(0, 4, "KB12") + message(1, 5, ""), {RunKind::kSelfTest, 4})),
            "damaged 20 a message of type 1 as number 2 of the run");
}

}  // namespace
