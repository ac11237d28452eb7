// ZuTime.cpp: clocks, a sleep, and the one formatter of dates.
#include "kep/ZuTime.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "kep/ZuString.h"

namespace {

// Where a token takes its value from; the year comes in full and modulo 100.
enum class Field { kYear, kShortYear, kMonth, kDay, kHour, kMinute, kSecond };

struct Token {
  char text[5];
  bool padded;
  uint8_t length;
  Field field;
};

// In the order of their tests: the long year comes before the short one that it begins with.
constexpr Token kTokens[] = {
    {"YYYY", true, 4, Field::kYear},  {"YY", true, 2, Field::kShortYear}, {"yy", false, 2, Field::kShortYear},
    {"MM", true, 2, Field::kMonth},   {"mm", false, 2, Field::kMonth},    {"DD", true, 2, Field::kDay},
    {"dd", false, 2, Field::kDay},    {"HH", true, 2, Field::kHour},      {"hh", false, 2, Field::kHour},
    {"MI", true, 2, Field::kMinute},  {"mi", false, 2, Field::kMinute},   {"SS", true, 2, Field::kSecond},
    {"ss", false, 2, Field::kSecond},
};

bool beginsWith(const char *pattern, const Token &token) {
  for (int i = 0; i < token.length; ++i) {
    if (pattern[i] != token.text[i]) return false;  // a NUL differs too, so nothing behind the pattern is read
  }
  return true;
}

const Token *findToken(const char *pattern) {
  if (*pattern < 'A') return nullptr;  // most of what stands between tokens
  for (const Token &token : kTokens) {
    if (beginsWith(pattern, token)) return &token;
  }
  return nullptr;
}

int valueOf(const tm &time, Field field) {
  switch (field) {
    // Added unsigned: the year of a far time may be the largest int.
    case Field::kYear: return static_cast<int>(static_cast<unsigned>(time.tm_year) + 1900U);
    case Field::kShortYear: return time.tm_year % 100;
    case Field::kMonth: return time.tm_mon + 1;
    case Field::kDay: return time.tm_mday;
    case Field::kHour: return time.tm_hour;
    case Field::kMinute: return time.tm_min;
    case Field::kSecond: break;
  }
  return time.tm_sec;
}

// Writes the token's value and a terminator, and returns where the next one goes. That is a fixed step: digits beyond
// it, as a year of five has, are overwritten by what follows.
char *putToken(char *out, const Token &token, int value) {
  const bool isShort = !token.padded && value < 10;
  if (value < 0 || value > (token.length == 4 ? 9999 : 99)) {
    if (!token.padded) {
      ZuString_Format(out, "%d", value);
    } else {
      ZuString_Format(out, "%0*d", token.length, value);
    }
    return out + (isShort ? 1 : token.length);
  }
  const int digits = isShort ? 1 : token.length;
  for (int i = digits - 1; i >= 0; --i, value /= 10) out[i] = static_cast<char>('0' + value % 10);
  out[digits] = '\0';
  return out + digits;
}

// Gives all zeros for a time that the C library cannot convert.
tm convert(time_t t) {
  const tm *local = localtime(&t);
  return local ? *local : tm{};
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

// Added in 64 bits: near its end a 32-bit time would overflow.
time_t ZuTime_GetTime(int32_t offset) { return static_cast<time_t>(int64_t{time(nullptr)} + offset); }

time_t ZuTime_Now(void) { return ZuTime_GetTime(0); }

char *ZuTime_Format(char *dst, const char *pattern, time_t t) {
  if (!dst || !pattern) return dst;
  const tm time = convert(t == 0 ? ZuTime_Now() : t);
  char *out = dst;
  *out = '\0';
  while (*pattern) {
    if (const Token *token = findToken(pattern)) {
      out = putToken(out, *token, valueOf(time, token->field));
      pattern += token->length;
    } else {
      *out++ = *pattern++;
      *out = '\0';
    }
  }
  return dst;
}
