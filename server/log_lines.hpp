// log_lines.hpp: a log's records joined to lines with their times.
//
// A logger keeps two records for a line, its time and its text, and both leave it as records like any others. Its
// oldest go first when it is full, so that the two are told by counting from the newest.
#pragma once

#include <string_view>
#include <vector>

namespace kepserver {

struct LogLine {
  std::string_view time;  // empty: not known
  std::string_view text;
};

// Whether it is "MM/DD HH:MI:SS", with or without a year of two or four digits in front.
bool isLogTime(std::string_view text);

// Joins the records of one log, the oldest first. Where the first of a pair has not a time's form both are lines, as is
// the oldest when it has lost its time. Of a log that is cut short the newest may be a time that has lost its line.
std::vector<LogLine> joinLogLines(const std::vector<std::string_view> &records, bool isCutShort);

}  // namespace kepserver
