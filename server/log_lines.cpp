// log_lines.cpp: what is a time, and whose.

#include "server/log_lines.hpp"

#include <algorithm>

namespace kepserver {

namespace {

// A digit stands for any.
bool hasForm(std::string_view text, std::string_view form) {
  return std::equal(text.begin(), text.end(), form.begin(), form.end(),
                    [](char c, char f) { return f == '0' ? c >= '0' && c <= '9' : c == f; });
}

}  // namespace

bool isLogTime(std::string_view text) {
  return hasForm(text, "00/00 00:00:00") || hasForm(text, "00/00/00 00:00:00") || hasForm(text, "0000/00/00 00:00:00");
}

std::vector<LogLine> joinLogLines(const std::vector<std::string_view> &records, bool isCutShort) {
  std::vector<LogLine> lines;
  size_t end = records.size();
  // Behind another time it would rather be a line that looks like one.
  const auto isTimeAt = [&records](size_t i) { return isLogTime(records[i]); };
  if (isCutShort && end > 0 && isTimeAt(end - 1) && (end == 1 || !isTimeAt(end - 2))) --end;
  size_t i = end % 2;
  if (i == 1) lines.push_back({"", records[0]});
  for (; i < end; i += 2) {
    if (isTimeAt(i)) {
      lines.push_back({records[i], records[i + 1]});
    } else {
      lines.push_back({"", records[i]});
      lines.push_back({"", records[i + 1]});
    }
  }
  if (end < records.size()) lines.push_back({"", records[end]});
  return lines;
}

}  // namespace kepserver
