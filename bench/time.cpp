// time.cpp: texts of local times, beside the same digits written by hand behind localtime_r.
#include <kep/ZuTime.h>

#include <ctime>
#include <vector>

#ifdef KEP_BENCH_HAVE_FMT
#include <fmt/chrono.h>
#endif

#include "bench.hpp"

namespace {

constexpr int32_t kCount = 1000;
constexpr time_t kFirst = 1709622489;

// Each time differs from the one before it by so many seconds.
std::vector<time_t> makeTimes(time_t step) {
  std::vector<time_t> times(kCount, kFirst);
  for (size_t i = 1; i < times.size(); ++i) times[i] = times[i - 1] + step;
  return times;
}

char *putTwo(char *out, int value) {
  *out++ = static_cast<char>('0' + value / 10);
  *out++ = static_cast<char>('0' + value % 10);
  return out;
}

CALLED void formatPlainly(char *out, time_t t) {
  tm time;
  localtime_r(&t, &time);
  const int year = time.tm_year + 1900;
  out = putTwo(putTwo(out, year / 100), year % 100);
  *out++ = '/';
  out = putTwo(out, time.tm_mon + 1);
  *out++ = '/';
  out = putTwo(out, time.tm_mday);
  *out++ = ' ';
  out = putTwo(out, time.tm_hour);
  *out++ = ':';
  out = putTwo(out, time.tm_min);
  *out++ = ':';
  *putTwo(out, time.tm_sec) = '\0';
}

template <typename Format>
void formatAll(Run &run, time_t step, const Format &format) {
  const std::vector<time_t> times = makeTimes(step);
  char text[32];
  run.time([&] {
    for (const time_t t : times) {
      format(text, t);
      keep(text);
    }
  });
}

template <time_t kStep>
void kepFormat(Run &run) {
  formatAll(run, kStep, [](char *out, time_t t) { ZuTime_Format(out, "YYYY/MM/DD HH:MI:SS", t); });
}

template <time_t kStep>
void plainFormat(Run &run) {
  formatAll(run, kStep, formatPlainly);
}

constexpr time_t kDaysApart = 123456;

const Row next("ZuTime_Format, the next second each time", kCount, kepFormat<1>, plainFormat<1>, {2.5, 1.0});
const Row apart("ZuTime_Format, another day each time", kCount, kepFormat<kDaysApart>, plainFormat<kDaysApart>,
                {2.5, 1.0});
const Row same("ZuTime_Format, the same second as the last", kCount, kepFormat<0>, plainFormat<0>, {1.5, 0.6});

#ifdef KEP_BENCH_HAVE_FMT

template <time_t kStep>
void fmtFormat(Run &run) {
  formatAll(run, kStep,
            [](char *out, time_t t) { *fmt::format_to(out, "{:%Y/%m/%d %H:%M:%S}", fmt::localtime(t)) = '\0'; });
}

const Peer nextFmt(next, "fmt", fmtFormat<1>);
const Peer apartFmt(apart, "fmt", fmtFormat<kDaysApart>);
const Peer sameFmt(same, "fmt", fmtFormat<0>);

#endif

}  // namespace
