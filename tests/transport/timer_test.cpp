// timer_test.cpp: timers under a clock that the tests set, and once the real loop on a thread.
#include <gtest/gtest.h>
#include <kep/ZuTimer.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <csetjmp>
#include <ctime>
#include <thread>

#include "support/platform_double.hpp"

namespace {

struct {
  bool real = false;
  uint64_t us = 0;
  int passesLeft = 0;  // the loop is left in the sleep behind its last pass
  std::string sleeps;  // between passes
  std::atomic<bool> leave{false};
  std::jmp_buf way;
} clockwork;

void leaveLoop() { std::longjmp(clockwork.way, 1); }  // no frame on the way has anything to destroy

}  // namespace

extern "C" int gettimeofday(timeval *now, void *) noexcept {
  uint64_t us = clockwork.us;
  if (clockwork.real) {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    us = static_cast<uint64_t>(time.tv_sec) * 1000000 + static_cast<uint64_t>(time.tv_nsec) / 1000;
  }
  now->tv_sec = static_cast<time_t>(us / 1000000);
  now->tv_usec = static_cast<suseconds_t>(us % 1000000);
  return 0;
}

extern "C" int usleep(useconds_t us) {
  if (clockwork.real) {
    if (clockwork.leave) leaveLoop();
    const timespec time = {0, static_cast<long>(us) * 1000};
    return nanosleep(&time, nullptr);
  }
  clockwork.us += us;
  clockwork.sleeps += std::to_string(us / 1000) + " ";
  if (--clockwork.passesLeft == 0) leaveLoop();
  return 0;
}

namespace {

std::string calls;                // "<timer> <argument> at <stamp>, ..."
std::atomic<int32_t> answers[3];  // what the timers' callbacks return
uint64_t timeTaken[3];            // how many microseconds they take
std::atomic<int> counts[3];

template <int kTimer>
int32_t onTime(int32_t interval) {
  ++counts[kTimer];
  if (clockwork.real) return answers[kTimer];
  calls += "abc"[kTimer] + std::to_string(interval) + "@" + std::to_string(clockwork.us / 1000) + " ";
  clockwork.us += timeTaken[kTimer];
  return answers[kTimer];
}

int32_t registerAnother(int32_t) { return ZuTimer_Regist(onTime<1>, 0), 0; }

class Timers : public testing::Test {
 protected:
  Timers() {
    ZuList_Release(g_ZuTimer_List);
    g_ZuTimer_List = nullptr;
    calls.clear();
    clockwork.real = false;
    clockwork.us = 5000000;  // stamp 5000
    clockwork.sleeps.clear();
    for (int i = 0; i < 3; ++i) answers[i] = 1, timeTaken[i] = 0, counts[i] = 0;
    shown();
  }

  // Runs the loop for so many passes, 100 ms apart, and returns what was called.
  static std::string callsIn(int passes) {
    clockwork.passesLeft = passes;
    calls.clear();
    if (setjmp(clockwork.way) == 0) ZuTimer_Loop();
    return calls;
  }

  static std::string shown() {
    platform::takePrinted();
    ZuTimer_Show();
    return platform::takePrinted();
  }
};

TEST_F(Timers, AreCalledOneIntervalAfterTheirLastPass) {
  EXPECT_EQ(ZuTimer_Regist(onTime<0>, 1000), 1);
  ZuTimer_Regist(onTime<1>, 250);
  ZuTimer_Regist(onTime<2>, 0);
  answers[2] = 0;
  EXPECT_EQ(callsIn(11), "c0@5000 b250@5300 b250@5600 b250@5900 a1000@6000 ");
  EXPECT_EQ(shown(),
            "current tm=6100\nlast=6000,interval=1000,status=1,times=1\nlast=5900,interval=250,status=1,times=3\n"
            "last=5000,interval=0,status=0,times=1\n");
  EXPECT_EQ(callsIn(11), "b250@6200 b250@6500 b250@6800 a1000@7000 b250@7100 ");
  EXPECT_EQ(clockwork.sleeps.find_first_not_of("10 "), std::string::npos) << clockwork.sleeps << ": 100 ms each";
}

TEST_F(Timers, ShareTheStampOfTheirPass) {
  ZuTimer_Regist(onTime<0>, 0);
  ZuTimer_Regist(onTime<1>, 200);
  timeTaken[0] = 60000;
  EXPECT_EQ(callsIn(3), "a0@5000 a0@5160 a0@5320 b200@5380 ") << "b's time comes while the second pass runs";
  EXPECT_EQ(shown().substr(16), "last=5320,interval=0,status=1,times=3\nlast=5320,interval=200,status=1,times=1\n");
}

TEST_F(Timers, MayBeRegisteredByACallback) {
  ZuTimer_Regist(registerAnother, 0);
  ZuTimer_Regist(nullptr, 0);
  EXPECT_EQ(callsIn(1), "") << "not in the same pass, though at the list's end and due";
  EXPECT_EQ(callsIn(2), "b0@5100 b0@5200 ");
  EXPECT_EQ(shown(), "current tm=5300\nlast=5000,interval=0,status=0,times=1\nlast=5200,interval=0,status=1,times=2\n");
}

TEST_F(Timers, AreAllDueWhenTheStampWraps) {
  clockwork.us = (uint64_t{7} << 32) + 4294850000;  // stamp 4294850, and 4294967 is the last
  ZuTimer_Regist(onTime<0>, 4000000);
  ZuTimer_Regist(onTime<1>, 0x80000000);  // compared without a sign
  ZuTimer_Regist(onTime<2>, 0xFFFFFFFF);  // longer than any difference
  EXPECT_EQ(callsIn(2), "");
  EXPECT_EQ(shown().substr(0, 16), "current tm=82\nla");
  EXPECT_EQ(callsIn(2).substr(0, 9), "a4000000@");
  EXPECT_EQ(counts[0] * 100 + counts[1] * 10 + counts[2], 110) << "once each";
  EXPECT_EQ(shown().substr(shown().find('\n')),
            "\nlast=82,interval=4000000,status=1,times=1\nlast=82,interval=-2147483648,status=1,times=1\n"
            "last=4294850,interval=-1,status=1,times=0\n");
}

TEST_F(Timers, AreNotThereWithoutMemory) {
  EXPECT_EQ(shown(), "current tm=5000\n");
  EXPECT_EQ(callsIn(2), "") << "nothing registered";
  const int before = platform::liveBlocks();
  platform::failAllocation(0);
  EXPECT_EQ(ZuTimer_Regist(onTime<0>, 0), 1) << "lost: there is no registry";
  EXPECT_EQ(g_ZuTimer_List, nullptr);
  EXPECT_EQ(platform::liveBlocks(), before);
  EXPECT_EQ(ZuTimer_Regist(onTime<1>, 0), 1);
  const int one = platform::liveBlocks();
  platform::failAllocation(0);
  EXPECT_EQ(ZuTimer_Regist(onTime<0>, 0), 0);
  platform::failAllocation(1);
  EXPECT_EQ(ZuTimer_Regist(onTime<0>, 0), 1) << "lost: there is no place in the registry";
  EXPECT_EQ(platform::liveBlocks(), one);
  EXPECT_EQ(callsIn(1), "b0@5200 ");
}

TEST_F(Timers, RunOnAThread) {
  clockwork.real = true;
  clockwork.leave = false;
  answers[1] = 0;
  ZuTimer_Regist(onTime<0>, 1);
  ZuTimer_Regist(onTime<1>, 1);
  ZuTimer_Regist(onTime<2>, 3600000);
  std::thread loop([] {
    if (setjmp(clockwork.way) == 0) ZuTimer_Loop();
  });
  while (counts[0] < 3) std::this_thread::yield();
  clockwork.leave = true;
  loop.join();
  EXPECT_EQ(counts[1], 1) << "stopped by its answer";
  EXPECT_EQ(counts[2], 0) << "not due for an hour";
}

}  // namespace
