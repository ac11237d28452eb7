// fault_report.hpp: prints what a fault file held, as text, JSON lines or CSV.
#pragma once

#include <array>
#include <optional>
#include <ostream>
#include <string>

#include "server/fault_file.hpp"
#include "server/names.hpp"
#include "server/print.hpp"

namespace kepserver {

// What is printed of a file; empty: all.
struct FaultFilter {
  std::optional<std::string> fault;
  std::optional<std::string> type;  // one of kFaultTypes
};

// The two logs, and the items whatever their width.
constexpr std::array<const char *, 5> kFaultTypes = {"init", "run", "register", "counter", "value"};

// Log lines with their times come first, in the file's order, then the values: fault by fault, as the file first names
// them, registers, counters and others. Nothing that the file holds can steer a terminal. With names, values stand with
// what they mean: in text in the place of their numbers, else beside them.
void writeFaultFile(std::ostream &out, const Style &style, const FaultFile &file, const FaultFilter &filter,
                    const Names *names = nullptr);

// "L log records, V values, B bytes", of what is whole; a line of a log has two records, its time and its text.
std::string countsOf(const FaultFile &file);

}  // namespace kepserver
