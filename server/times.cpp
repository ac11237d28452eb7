// times.cpp: the calendar and the zones are Abseil's; which year is meant, and what a zone does not tell, is said here.

#include "server/times.hpp"

#include <absl/time/civil_time.h>

#include <array>
#include <cstdio>

#include "server/log_lines.hpp"

namespace kepserver {

namespace {

absl::CivilSecond civilTime(absl::civil_year_t year, const BoardTime &time) {
  return absl::CivilSecond(year, time.month, time.day, time.hour, time.minute, time.second);
}

// Other days are carried over into the next month.
bool isDay(absl::civil_year_t year, const BoardTime &time) {
  const absl::CivilDay day(year, time.month, time.day);
  return day.month() == time.month && day.day() == time.day;
}

absl::civil_year_t yearOf(const BoardTime &time, const absl::TimeZone &zone, int64_t collected) {
  if (time.year) return *time.year;
  const absl::CivilSecond latest = zone.At(absl::FromUnixSeconds(collected) + absl::Hours(24)).cs;
  absl::civil_year_t year = latest.year();
  while (year > 1 && (!isDay(year, time) || civilTime(year, time) > latest)) --year;
  return year;
}

}  // namespace

std::optional<BoardTime> readTime(std::string_view text) {
  if (!isLogTime(text)) return std::nullopt;
  const auto two = [&text](size_t i) { return (text[i] - '0') * 10 + (text[i + 1] - '0'); };
  BoardTime time;
  const size_t start = text.size() - std::string_view("00/00 00:00:00").size();  // of the month
  if (start > 3) time.year = two(0) * 100 + two(2);
  if (start == 3) time.year = 2000 + two(0);
  time.month = two(start);
  time.day = two(start + 3);
  time.hour = two(start + 6);
  time.minute = two(start + 9);
  time.second = two(start + 12);
  constexpr int kSomeLeapYear = 2000;
  const bool isTime =
      isDay(time.year.value_or(kSomeLeapYear), time) && time.hour < 24 && time.minute < 60 && time.second <= 60;
  return isTime ? std::optional(time) : std::nullopt;
}

std::optional<absl::TimeZone> readZone(std::string_view text) {
  if (text == "UTC") return absl::UTCTimeZone();
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    const auto digit = [text](size_t i) { return text[i] >= '0' && text[i] <= '9' ? text[i] - '0' : 100; };
    if (text.size() != 6 || text[3] != ':') return std::nullopt;
    const int hours = digit(1) * 10 + digit(2), minutes = digit(4) * 10 + digit(5);
    if (hours > 14 || minutes > 59) return std::nullopt;
    return absl::FixedTimeZone((hours * 60 + minutes) * 60 * (text[0] == '-' ? -1 : 1));
  }
  // Only names of the database: no paths, and nothing that means another zone on another machine.
  const bool isName = text.find_first_of(".:") == std::string_view::npos && text.substr(0, 1) != "/";
  absl::TimeZone zone;
  const bool isKnown = isName && text != "localtime" && absl::LoadTimeZone(std::string(text), &zone);
  return isKnown ? std::optional(zone) : std::nullopt;
}

std::string isoTime(const BoardTime &time, const std::optional<absl::TimeZone> &zone, int64_t collected) {
  const absl::civil_year_t year = yearOf(time, zone.value_or(absl::UTCTimeZone()), collected);
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d", static_cast<int>(year), time.month, time.day,
                time.hour, time.minute, time.second);
  std::string iso = text.data();
  if (!zone) return iso;
  const absl::TimeZone::TimeInfo moment = zone->At(civilTime(year, time));
  if (moment.kind != absl::TimeZone::TimeInfo::UNIQUE) return iso;
  const std::string offset = absl::FormatTime("%Ez", moment.pre, *zone);
  return iso + (offset == "+00:00" ? "Z" : offset);
}

std::string timeText(int64_t seconds, const absl::TimeZone &zone) {
  return absl::FormatTime("%Y/%m/%d %H:%M:%S", absl::FromUnixSeconds(seconds), zone);
}

}  // namespace kepserver
