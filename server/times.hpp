// times.hpp: the times that boards write in their logs. They say no zone, and some no year.
#pragma once

#include <absl/time/time.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kepserver {

struct BoardTime {
  std::optional<int> year;
  int month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

// Reads "2026/11/23 03:50:21", "26/11/23 03:50:21" and "11/23 03:50:21". Empty: another form, or no such time.
std::optional<BoardTime> readTime(std::string_view text);

// "UTC", an offset such as "+05:30", or a name of the time zone database such as "Europe/Berlin". Empty: none of them.
std::optional<absl::TimeZone> readZone(std::string_view text);

// As ISO 8601, with the offset when the zone is known: 2026-11-23T03:50:21+01:00. A time that the zone's clocks show
// twice, or never, has none. A missing year is the last in which the time is no more than a day ahead of the moment
// when it was collected, in seconds since 1970; a board's clock may be fast.
std::string isoTime(const BoardTime &time, const std::optional<absl::TimeZone> &zone, int64_t collected);

// Seconds since 1970 as a board in that zone writes them: 2026/11/23 03:50:21.
std::string timeText(int64_t seconds, const absl::TimeZone &zone);

}  // namespace kepserver
