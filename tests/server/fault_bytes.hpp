// fault_bytes.hpp: builds a fault file byte by byte, and once more what a reader found in one.
#pragma once

#include <string>
#include <vector>

#include "server/board_stream.hpp"
#include "server/fault_file.hpp"

namespace faults {

using board::counted;
using board::number;
using board::word;

const std::string kEnd(2, '\0');  // of the logs

inline std::string value(int type, const std::string &name, const std::string &content) {
  return counted(number(name.size() + 1, 1) + number(static_cast<uint64_t>(type), 1) + name + content);
}

// As much of the file as is whole.
inline std::string encoded(const kepserver::FaultFile &file, bool logsAreOver) {
  std::string bytes;
  for (const kepserver::FaultLog &log : file.logs) {
    const std::string head = (log.kind == kepserver::FaultLogKind::kInit ? "log " : "run ") + std::string(log.fault);
    for (const std::string_view record : log.records) bytes += counted(head + ' ' + std::string(record));
  }
  if (logsAreOver) bytes += kEnd;
  for (const kepserver::FaultValue &v : file.values) {
    const std::string content =
        holdsBytes(v.item) ? word(v.recordedSize) + std::string(v.bytes) : number(v.number, isLong(v.item) ? 8 : 4);
    bytes += value(static_cast<int>(v.item), std::string(v.fault), word(v.id) + content);
  }
  return bytes;
}

}  // namespace faults
