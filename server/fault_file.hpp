// fault_file.hpp: reads the file to which a board saves its faults' logs and values.
//
// The reader takes bytes as they come, in portions of any size, and knows nothing of files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "server/bytes.hpp"

namespace kepserver {

enum class FaultLogKind { kInit, kRun };

// What one log of one fault kept, the oldest first: times and texts, each a record of its own.
//
// A name may hold blanks, and a blank is all that stands behind it: where it ends is told by the times, which have a
// form, and by the names of the values, which have a length. `isGuessed`: neither tells.
struct FaultLog {
  std::string_view fault;
  FaultLogKind kind = FaultLogKind::kInit;
  bool isGuessed = false;
  bool isCutShort = false;  // more may have followed
  std::vector<std::string_view> records;
};

enum class FaultItem : uint8_t { kRegister, kRegister64, kRegisterBytes, kCounter, kCounter64, kCounterBytes, kValue };

// `number` belongs to the items of 32 and 64 bits, `bytes` to the others.
struct FaultValue {
  std::string_view fault;
  FaultItem item = FaultItem::kRegister;
  uint32_t id = 0;
  uint64_t number = 0;
  std::string_view bytes;
  uint32_t recordedSize = 0;  // of the bytes on the board: more than are here where they did not fit the record
};

inline bool holdsBytes(FaultItem item) {
  return item == FaultItem::kRegisterBytes || item == FaultItem::kCounterBytes || item == FaultItem::kValue;
}

inline bool isLong(FaultItem item) { return item == FaultItem::kRegister64 || item == FaultItem::kCounter64; }

// What is whole, in the file's order. Two faults of the same name can be told apart only where one's log comes behind
// another log, and their values never. Texts are bytes that the object keeps; it can be moved.
struct FaultFile {
  std::vector<FaultLog> logs;
  std::vector<FaultValue> values;
  uint64_t byteCount = 0;  // of whole records
  bool whole = false;      // read to its end; a file that is cut behind a value looks like one that is whole

  std::vector<char> bytes;
};

// Invariant: after the first damage nothing more is read, and what was whole before it is kept. A file of more than
// 128 MiB is damaged there: what is no such file shall not take all memory.
class FaultFileReader {
 public:
  void feed(const void *data, size_t size);

  // Tells that the file has ended, and returns what it held: the last thing to be done with a reader, beside a look at
  // the damage.
  FaultFile finish();

  const std::optional<Damage> &damage() const { return damage_; }

 private:
  struct Record {
    uint32_t offset = 0, size = 0;  // behind the length field
  };

  void readRecords();
  std::string_view contentOf(const Record &record) const;

  FaultFile file_;
  std::optional<Damage> damage_;
  std::vector<Record> logRecords_, values_;
  bool logsAreOver_ = false;
};

}  // namespace kepserver
