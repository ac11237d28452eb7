// server.cpp: a run of 1,000,000 records of all kinds, decoded and printed without names.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench.hpp"
#include "server/board_stream.hpp"
#include "server/run_report.hpp"
#include "server/stream.hpp"

namespace {

using kepserver::Format, kepserver::RunReporter, kepserver::StreamDecoder, kepserver::Value, kepserver::ValueKind;

constexpr int32_t kRecordCount = 1'000'000;
constexpr int32_t kItemCount = 8, kKeyCount = 20;

// ---- the stream: each item has its sections with keys of all kinds, in order; some texts come in two pieces.

std::string recordsOf(int32_t number) {
  const int32_t perItem = kRecordCount / kItemCount;
  const int32_t item = number / perItem, section = number % perItem / kKeyCount, key = number % kKeyCount;
  switch (number % 4) {
    case 0: return board::head(0x81, item, section, key) + board::word(number * 7919 - 500'000'000);
    case 1: return board::head(0x82, item, section, key) + board::number(uint64_t(number) * 10'000'000'019, 8);
    case 2:
      return board::head(number % 100 == 2 ? 0x03 : 0x83, item, section, key) +
             board::counted(std::string("eth0: link is up again as it was").substr(0, size_t(number % 33)));
    default:  // goes on with the text in front
      if (number % 100 == 3) return board::head(0x83, item, section, key - 1) + board::counted(" of two pieces");
      return board::head(0x84, item, section, key) + board::counted(board::word(number) + board::number(1u << 30, 8));
  }
}

std::string makeStream() {
  std::string catalogue, payload, stream = board::message(0, 77, "KB12");
  for (int32_t i = 0; i < kItemCount; ++i) catalogue += board::word(i) + board::counted("item " + std::to_string(i));
  int32_t sequence = 1;
  stream += board::message(1, sequence, catalogue);
  for (int32_t i = 0; i < kRecordCount; ++i) {
    const std::string record = recordsOf(i);
    if (payload.size() + record.size() > 1024) stream += board::message(2, ++sequence, std::exchange(payload, ""));
    payload += record;
  }
  return stream + board::message(2, sequence + 1, payload) + board::message(2, sequence + 2, "");
}

const std::string &stream() {
  static const std::string all = makeStream();
  return all;
}

StreamDecoder decode() {
  StreamDecoder decoder({});
  constexpr size_t kPortion = 65536;  // as it is read
  for (size_t i = 0; i < stream().size(); i += kPortion) {
    decoder.feed(stream().data() + i, std::min(kPortion, stream().size() - i));
  }
  decoder.finish();
  return decoder;
}

// ---- decoding

void kepDecode(Run &run) {
  run.time([] { keep(decode().run().values.size()); });
}

uint32_t load32(const char *at) {
  const auto *const byte = reinterpret_cast<const uint8_t *>(at);
  return uint32_t{byte[0]} << 24 | uint32_t{byte[1]} << 16 | uint32_t{byte[2]} << 8 | byte[3];
}

size_t load16(const char *at) { return load32(at) >> 16; }

// Believes whatever comes.
CALLED void walkPlainly(const char *at, const char *end, std::vector<Value> &values) {
  bool isOpen = false;
  while (at < end) {
    const char *const next = at + load32(at);
    const bool isData = load32(at + 4) == 2;
    for (at += 12; isData && at < next;) {
      const auto type = static_cast<uint8_t>(*at);
      if (!isOpen) {
        values.emplace_back();
        values.back().item = static_cast<int32_t>(load32(at + 1));
        values.back().section = static_cast<int32_t>(load32(at + 5));
        values.back().key = static_cast<int32_t>(load32(at + 9));
      }
      Value &value = values.back();
      at += 13;
      if (type == 0x81) {
        value.kind = ValueKind::kInt;
        value.number = static_cast<int32_t>(load32(at));
        at += 4;
      } else if (type == 0x82) {
        value.kind = ValueKind::kLong;
        value.number = static_cast<int64_t>(uint64_t{load32(at)} << 32 | load32(at + 4));
        at += 8;
      } else {
        value.kind = (type & 0x7F) == 3 ? ValueKind::kString : ValueKind::kBuffer;
        const size_t size = load16(at);
        value.bytes.append(at + 2, size);
        at += 2 + size;
        isOpen = type < 0x80;
      }
    }
    at = next;
  }
}

void plainDecode(Run &run) {
  run.time([] {
    std::vector<Value> values;
    walkPlainly(stream().data(), stream().data() + stream().size(), values);
    keep(values.size());
  });
}

const Row decoding("run of 1,000,000 records decoded, each", kRecordCount, kepDecode, plainDecode, {1.5});

// ---- printing, into a buffer

class Buffer : public std::streambuf {
 public:
  static constexpr size_t kSize = size_t{160} * kRecordCount;

  Buffer() : text_(kSize) { clear(); }

  char *begin() { return text_.data(); }
  void clear() { setp(begin(), begin() + kSize); }
  std::string_view text() const { return {pbase(), static_cast<size_t>(pptr() - pbase())}; }

 private:
  std::vector<char> text_;
};

Side kepPrint(Format format) {
  return [format](Run &run) {
    const StreamDecoder decoder = decode();
    Buffer buffer;
    std::ostream out(&buffer);
    run.time([&] {
      buffer.clear();
      RunReporter(out, {format}).write(decoder.run());
    });
  };
}

// What stands in front of the values, a line of each kind of value, and what stands behind them.
struct Formats {
  const char *identity, *item, *head, *integer, *text, *buffer, *summary;
};

#define JSON_VALUE "{\"row\":\"value\",\"item\":%d,\"name\":\"%s\",\"section\":%d,\"key\":%d,\"kind\":\"%s\",\"value\":"

constexpr Formats kText = {"identity %08x, sequence %d\n",
                           "item %d %s\n",
                           "item  name    section  key  kind    value\n",
                           "%4d  %s  %7d  %3d  %-6s  %lld\n",
                           "%4d  %s  %7d  %3d  %-6s  %s\n",
                           "%4d  %s  %7d  %3d  %-6s  %08x%08x%08x\n",
                           "%llu messages, %llu records, %llu bytes\n"};
constexpr Formats kJson = {
    "{\"row\":\"layout\",\"layout\":\"kep-collect\",\"version\":1}\n"
    "{\"row\":\"identity\",\"identity\":\"%08x\",\"sequence\":%d}\n",
    "{\"row\":\"item\",\"item\":%d,\"name\":\"%s\"}\n",
    "",
    JSON_VALUE "%lld}\n",
    JSON_VALUE "\"%s\"}\n",
    JSON_VALUE "\"%08x%08x%08x\"}\n",
    "{\"row\":\"summary\",\"messages\":%llu,\"records\":%llu,\"bytes\":%llu,\"whole\":true}\n"};
constexpr Formats kCsv = {"row,item,name,section,key,kind,value\nidentity,,,,,,%08x\n",
                          "item,%d,%s,,,,\n",
                          "",
                          "value,%d,%s,%d,%d,%s,%lld\n",
                          "value,%d,%s,%d,%d,%s,%s\n",
                          "value,%d,%s,%d,%d,%s,%08x%08x%08x\n",
                          ""};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

// One call a line, of the values as they came, which is their order; no text here needs an escape, and all buffers have
// 12 bytes. The widths of the columns are known.
CALLED size_t printPlainly(const kepserver::Run &run, const Formats &formats, char *begin, size_t room) {
  char *at = begin;
  const auto print = [&](const char *format, auto... arguments) {
    at += std::snprintf(at, room - static_cast<size_t>(at - begin), format, arguments...);
  };
  print(formats.identity, load32(run.identity->bytes.data()), run.identity->sequence);
  for (const auto &[index, name] : run.catalogue) print(formats.item, index, name.c_str());
  print(formats.head);
  for (const Value &value : run.values) {
    const char *const name = run.catalogue.find(value.item)->second.c_str();
    const char *const bytes = value.bytes.data();
    switch (value.kind) {
      case ValueKind::kInt:
      case ValueKind::kLong:
        print(formats.integer, value.item, name, value.section, value.key,
              value.kind == ValueKind::kInt ? "int" : "long", static_cast<long long>(value.number));
        break;
      case ValueKind::kString: print(formats.text, value.item, name, value.section, value.key, "string", bytes); break;
      case ValueKind::kBuffer:
        print(formats.buffer, value.item, name, value.section, value.key, "buffer", load32(bytes), load32(bytes + 4),
              load32(bytes + 8));
        break;
    }
  }
  print(formats.summary, run.messageCount, run.recordCount, run.byteCount);
  return static_cast<size_t>(at - begin);
}

#pragma GCC diagnostic pop

Side plainPrint(const Formats &formats, Format format) {
  return [formats, format](Run &run) {
    const StreamDecoder decoder = decode();
    Buffer buffer, same;
    std::ostream out(&same);
    RunReporter(out, {format}).write(decoder.run());
    const size_t size = printPlainly(decoder.run(), formats, buffer.begin(), Buffer::kSize);
    if (std::string_view(buffer.begin(), size) != same.text()) std::abort();  // what is compared must be the same
    run.time([&] { keep(printPlainly(decoder.run(), formats, buffer.begin(), Buffer::kSize)); });
  };
}

const Row text("run of 1,000,000 records printed as text, each", kRecordCount, kepPrint(Format::kText),
               plainPrint(kText, Format::kText), {2});
const Row json("run of 1,000,000 records printed as JSON, each", kRecordCount, kepPrint(Format::kJson),
               plainPrint(kJson, Format::kJson), {2});
const Row csv("run of 1,000,000 records printed as CSV, each", kRecordCount, kepPrint(Format::kCsv),
              plainPrint(kCsv, Format::kCsv), {2});

}  // namespace
