// ZuTime.cpp: clocks, a sleep, and the one formatter of dates. All that the library asks the C library about time is
// asked here, for times of 64 bits where that one has a choice.
#define _TIME_BITS 64
#define _FILE_OFFSET_BITS 64
#include "kep/ZuTime.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "Kep.hpp"
#include "kep/ZuString.h"

#ifdef __GLIBC_PREREQ
static_assert(sizeof(time_t) == 8 || !__GLIBC_PREREQ(2, 34), "no header of the C library may stand before this source");
#endif

namespace {

struct Token {
  int length;  // 0: none
  int value;
};

// The token that a pattern, not an empty one, begins with: a letter twice, but for the long year and the minute.
Token readToken(const char *pattern, const tm &time) {
  const char first = pattern[0];
  const char second = pattern[1];
  const int small = first | 0x20;
  if (first != second) {
    const bool isMinute = small == 'm' && second - first == 'I' - 'M';
    return isMinute ? Token{2, time.tm_min} : Token{0, 0};
  }
  switch (small) {
    case 'y':
      // Added unsigned: the year of a far time may be the largest int.
      if (first == 'Y' && pattern[2] == 'Y' && pattern[3] == 'Y')
        return {4, static_cast<int>(static_cast<unsigned>(time.tm_year) + 1900)};
      return {2, time.tm_year % 100};
    case 'm': return {2, time.tm_mon + 1};
    case 'd': return {2, time.tm_mday};
    case 'h': return {2, time.tm_hour};
    case 's': return {2, time.tm_sec};
    default: return {0, 0};
  }
}

void putPair(char *out, int value) {
  out[0] = static_cast<char>('0' + value / 10);
  out[1] = static_cast<char>('0' + value % 10);
}

// Writes a token's value and a terminator, and returns where the next one goes. That is a fixed step: digits beyond it,
// as a year of five has, are overwritten by what follows.
char *putToken(char *out, Token token, bool isPadded) {
  const auto [length, value] = token;
  const int step = !isPadded && value < 10 ? 1 : length;
  if (value < 0 || value > (length == 4 ? 9999 : 99)) {
    if (isPadded) {
      ZuString_Format(out, "%0*d", length, value);
    } else {
      ZuString_Format(out, "%d", value);
    }
    return out + step;
  }
  if (length == 4) putPair(out, value / 100);
  if (step == 1) {
    out[0] = static_cast<char>('0' + value);
  } else {
    putPair(out + step - 2, value % 100);
  }
  out[step] = '\0';
  return out + step;
}

// ---- conversions

// The last conversion, and the zone that it was made in. Under the lock.
struct {
  bool isKept;    // the rest holds
  bool isNamed;   // TZ was set,
  char name[32];  // to this; with a longer one nothing is kept
  time_t moment;  // the wall clock's second
  long offset;    // the C library's zone
  const char *names[2];
  bool isConverted;
  int64_t second;
  tm fields;
} l_last;

// As far as can be told without asking the file system. The host may have had the C library go to another zone and back
// in TZ alone.
bool isZoneOfLast(const char *name, time_t now) {
  if (!l_last.isKept || l_last.moment != now || l_last.isNamed != (name != nullptr)) return false;
  if (name && std::strcmp(l_last.name, name) != 0) return false;
  return l_last.offset == timezone && l_last.names[0] == tzname[0] && l_last.names[1] == tzname[1];
}

void keepZone(const char *name, time_t now) {
  const size_t length = name ? strnlen(name, sizeof l_last.name) : 0;
  l_last.isKept = length < sizeof l_last.name;
  if (!l_last.isKept) return;
  l_last.isNamed = name != nullptr;
  if (name) std::memcpy(l_last.name, name, length + 1);
  l_last.moment = now;
  l_last.offset = timezone;
  l_last.names[0] = tzname[0];
  l_last.names[1] = tzname[1];
}

// Gives all zeros for a time that the C library cannot convert. Under the lock.
//
// localtime would have the C library look at the zone each time. That is cheap while TZ names it; but without TZ it
// asks the file system, which takes longer than all the rest, so it is done once a second of the wall clock.
const tm &convert(int64_t t) {
  const char *name = getenv("TZ");
  const time_t now = time(nullptr);
  const bool isSame = isZoneOfLast(name, now);
  if (isSame && l_last.isConverted && t == l_last.second) return l_last.fields;
  if (name || !isSame) tzset();
  l_last.second = t;
  const auto second = static_cast<time_t>(t);
  l_last.isConverted = second == t && localtime_r(&second, &l_last.fields) != nullptr;
  if (!l_last.isConverted) l_last.fields = tm{};
  keepZone(name, now);  // behind the conversion, which may change the names to those of its time
  return l_last.fields;
}

int64_t uptimeMicros() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// A signal ends usleep early; the same sleep goes on with the time that is left.
void sleepMicros(uint32_t micros) {
  const int64_t end = uptimeMicros() + micros;
  while (usleep(micros) != 0 && errno == EINTR) {
    const int64_t left = end - uptimeMicros();
    if (left <= 0) return;
    micros = static_cast<uint32_t>(left);
  }
}

}  // namespace

void ZuTime_Sleep(uint32_t milliseconds) {
  constexpr uint32_t kLongestMs = UINT32_MAX / 1000;  // what fits usleep's 32 bits of microseconds
  for (; milliseconds > kLongestMs; milliseconds -= kLongestMs) sleepMicros(kLongestMs * 1000);
  sleepMicros(milliseconds * 1000);
}

uint32_t ZuTime_GetUTime(void) {
  timeval now{};
  gettimeofday(&now, nullptr);
  return static_cast<uint32_t>(now.tv_sec) * 1000000U + static_cast<uint32_t>(now.tv_usec);
}

int64_t ZuTime_GetTime(int32_t offset) { return int64_t{time(nullptr)} + offset; }

int64_t ZuTime_Now(void) { return ZuTime_GetTime(0); }

char *ZuTime_Format(char *dst, const char *pattern, int64_t t) {
  if (!dst || !pattern) return dst;
  const Locked locked;
  const tm &time = convert(t == 0 ? ZuTime_Now() : t);
  char *out = dst;
  *out = '\0';
  while (*pattern) {
    const Token token = readToken(pattern, time);
    if (token.length > 0) {
      out = putToken(out, token, *pattern < 'a');  // capitals pad with zeros
      pattern += token.length;
    } else {
      *out++ = *pattern++;
      *out = '\0';
    }
  }
  return dst;
}
