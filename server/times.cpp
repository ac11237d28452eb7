// times.cpp: the calendar is the Gregorian one, and no day has a leap second.

#include "server/times.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>

#include "server/log_lines.hpp"

namespace kepserver {

namespace {

constexpr int64_t kDay = 86400;

bool isLeap(int64_t year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

int daysIn(int64_t year, int month) {
  constexpr std::array<int, 12> kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return kDays[static_cast<size_t>(month - 1)] + (month == 2 && isLeap(year) ? 1 : 0);
}

int64_t daysBefore(int64_t year) {  // since 1970, up to the year's first
  const int64_t last = year - 1;
  return 365 * (year - 1970) + (last / 4 - last / 100 + last / 400) - (1969 / 4 - 1969 / 100 + 1969 / 400);
}

int64_t yearAt(int64_t seconds) {
  int64_t year = 1970 + seconds / (366 * kDay);
  while (daysBefore(year + 1) * kDay <= seconds) ++year;
  return year;
}

int64_t secondsOf(int64_t year, const BoardTime &time) {
  int64_t days = daysBefore(year) + time.day - 1;
  for (int month = 1; month < time.month; ++month) days += daysIn(year, month);
  return days * kDay + int64_t{time.hour} * 3600 + int64_t{time.minute} * 60 + time.second;
}

int64_t yearOf(const BoardTime &time, int zoneMinutes, int64_t collected) {
  if (time.year) return *time.year;
  const int64_t latest = collected + int64_t{zoneMinutes} * 60 + kDay;
  int64_t year = yearAt(latest);
  while (year > 1 && (time.day > daysIn(year, time.month) || secondsOf(year, time) > latest)) --year;
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
  const bool isTime = time.month >= 1 && time.month <= 12 && time.day >= 1 &&
                      time.day <= daysIn(time.year.value_or(kSomeLeapYear), time.month) && time.hour < 24 &&
                      time.minute < 60 && time.second <= 60;
  return isTime ? std::optional(time) : std::nullopt;
}

std::string isoTime(const BoardTime &time, std::optional<int> zoneMinutes, int64_t collected) {
  const int zone = zoneMinutes.value_or(0);
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d",
                static_cast<int>(yearOf(time, zone, collected)), time.month, time.day, time.hour, time.minute,
                time.second);
  std::string iso = text.data();
  if (!zoneMinutes) return iso;
  std::snprintf(text.data(), text.size(), "%c%02d:%02d", zone < 0 ? '-' : '+', std::abs(zone) / 60,
                std::abs(zone) % 60);
  return iso + (zone == 0 ? "Z" : text.data());
}

std::string timeText(uint32_t seconds, int zoneMinutes) {
  const int64_t local = int64_t{seconds} + int64_t{zoneMinutes} * 60;
  if (local < 0) return "1969/12/31 " + timeText(static_cast<uint32_t>(local + kDay), 0).substr(11);
  const int64_t year = yearAt(local);
  int64_t day = local / kDay - daysBefore(year);
  int month = 1;
  while (day >= daysIn(year, month)) day -= daysIn(year, month++);
  const int64_t second = local % kDay;
  std::array<char, 64> text;
  std::snprintf(text.data(), text.size(), "%04d/%02d/%02d %02d:%02d:%02d", static_cast<int>(year), month,
                static_cast<int>(day) + 1, static_cast<int>(second / 3600), static_cast<int>(second / 60 % 60),
                static_cast<int>(second % 60));
  return text.data();
}

}  // namespace kepserver
