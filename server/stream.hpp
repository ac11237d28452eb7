// stream.hpp: decodes the byte stream that a board sends during one collection or self-test run.
//
// The decoder takes bytes as they come, in portions of any size, and knows nothing of sockets or files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "server/bytes.hpp"

namespace kepserver {

enum class ValueKind { kInt, kLong, kString, kBuffer };

// One reported value, its pieces joined. `number` belongs to kInt and kLong, `bytes` to kString and kBuffer.
struct Value {
  ValueKind kind = ValueKind::kInt;
  int32_t item = 0;
  int32_t section = 0;
  int32_t key = 0;
  int64_t number = 0;
  std::string bytes;
  size_t testedCount = 0;  // size of Run::tested when the value came: its self-test is tested[testedCount - 1]
};

struct Identity {
  std::string bytes;
  int32_t sequence = 0;
};

// What arrived whole, in the order of arrival. Names and string values are bytes, not necessarily text.
struct Run {
  std::optional<Identity> identity;
  std::map<int32_t, std::string> catalogue;  // item index to name
  std::vector<std::string> tested;           // the items whose self-tests ran, by name; a self-test has no catalogue
  std::vector<Value> values;
  uint64_t messageCount = 0;
  uint64_t recordCount = 0;  // as on the wire: every piece of a value counts
  uint64_t byteCount = 0;    // of whole messages
  bool selfTest = false;
  bool whole = false;  // the stream went on to its proper end
};

// The name of the value's item. A self-test announces its items by name and sends no catalogue; an index that the
// catalogue lacks has none.
std::string_view itemName(const Run &run, const Value &value);

enum class RunKind { kCollection, kSelfTest };

// What the request lets us expect; left empty when the request is not known.
struct Expectation {
  std::optional<RunKind> kind;      // empty: a run without a catalogue is a self-test
  std::optional<int32_t> sequence;  // 0: the board numbers the first message itself
  bool keepsValues = true;          // otherwise a run costs no memory, and has counts but no values
};

class FieldReader;

// Invariant: after the first damage nothing more is decoded, and run() keeps what was whole before it.
// A run of more than 64 MiB or 1,048,576 records is damaged there: a board that never ends shall not take all memory.
class StreamDecoder {
 public:
  explicit StreamDecoder(const Expectation &expectation) : expectation_(expectation) {}

  // Decodes the next `size` bytes of the stream; returns how many messages became complete and were found good.
  size_t feed(const void *data, size_t size);

  // Tells that the stream has ended. A run that is not over then is damaged, too, as far as can be told: what ends
  // behind the message of an item that reported nothing looks like one that is over.
  void finish();

  // The item that the board was at when it sent last, by name or number, fit to be shown; empty before the first.
  std::string lastItem() const;

  const Run &run() const { return run_; }
  Run takeRun() { return std::move(run_); }  // the last thing to be done with a decoder
  const std::optional<Damage> &damage() const { return damage_; }

 private:
  bool isOver() const;
  size_t readHeader();
  void checkOrder(int32_t type, uint64_t offset);
  void checkSequence(uint32_t sequence, uint64_t offset);
  void readMessage();
  void readRecord(FieldReader &fields);
  void joinPiece(Value &&piece, bool last, uint64_t offset);
  void keep(Value &&value);

  Expectation expectation_;
  Run run_;
  std::optional<Damage> damage_;
  std::string message_;             // what has come of the current message; its stream offset is run_.byteCount
  size_t messageSize_ = 0;          // valid from the moment its header is complete
  int32_t messageType_ = 0;         // likewise
  uint32_t lastSequence_ = 0;       // of the message before
  std::optional<Value> openValue_;  // pieces so far of a value whose last piece has not come
  bool isEmpty_ = false;            // the last message was a data message without records
};

}  // namespace kepserver
