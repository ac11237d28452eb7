// timer_test.cpp: timers under a clock that the tests set.
#include <gtest/gtest.h>
#include <kep/ZuTimer.h>
#include <sys/time.h>
#include <unistd.h>

#include "support/platform_double.hpp"

namespace {

struct {
  uint64_t us = 0;
  int passesLeft = 0;  // the loop is stopped in the sleep behind its last pass
} clockwork;

}  // namespace

extern "C" int gettimeofday(timeval *now, void *) noexcept {
  now->tv_sec = static_cast<time_t>(clockwork.us / 1000000);
  now->tv_usec = static_cast<suseconds_t>(clockwork.us % 1000000);
  return 0;
}

extern "C" int usleep(useconds_t us) {
  clockwork.us += us;
  platform::expectNoLockHeld("usleep");
  if (--clockwork.passesLeft == 0) ZuTimer_Stop();
  return 0;
}

namespace {

std::string calls;  // "<timer> <argument> at <stamp>, ..."

template <int kTimer>
int32_t onTime(int32_t interval) {
  platform::expectNoLockHeld("a callback");
  calls += "abc"[kTimer] + std::to_string(interval) + "@" + std::to_string(clockwork.us / 1000) + " ";
  if (kTimer == 1) clockwork.us += 60000;  // a pass has one stamp, however long it takes
  return kTimer != 2;                      // the third wants no more
}

int32_t registerAnother(int32_t) { return ZuTimer_Regist(onTime<1>, 0), 0; }

int32_t stopTwice(int32_t) { return ZuTimer_Stop(), ZuTimer_Stop(), 1; }

class Timers : public testing::Test {
 protected:
  Timers() {
    ZuList_Release(std::exchange(g_ZuTimer_List, nullptr));
    clockwork.us = 5000000;  // stamp 5000
  }

  // Runs the loop for so many passes, 100 ms apart, and returns what was called.
  static std::string callsIn(int passes) {
    clockwork.passesLeft = passes;
    calls.clear();
    ZuTimer_Loop();
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
  ZuTimer_Regist(onTime<1>, 250), ZuTimer_Regist(onTime<2>, 0);
  EXPECT_EQ(callsIn(11), "c0@5000 b250@5300 b250@5560 b250@5820 a1000@6080 b250@6080 ");
  EXPECT_EQ(shown(),
            "current tm=6340\nlast=6080,interval=1000,status=1,times=1\nlast=6080,interval=250,status=1,times=4\n"
            "last=5000,interval=0,status=0,times=1\n");
}

TEST_F(Timers, MayBeRegisteredByACallback) {
  EXPECT_EQ(callsIn(2), "") << "nothing registered";
  ZuTimer_Regist(registerAnother, 0), ZuTimer_Regist(nullptr, 0);
  EXPECT_EQ(callsIn(1), "") << "not in the same pass, though at the list's end and due";
  EXPECT_EQ(callsIn(2), "b0@5300 b0@5460 ");
  EXPECT_EQ(shown(), "current tm=5620\nlast=5200,interval=0,status=0,times=1\nlast=5460,interval=0,status=1,times=2\n");
}

TEST_F(Timers, StopBehindThePassUnderWayOrTheNextTime) {
  ZuTimer_Regist(stopTwice, 200), ZuTimer_Regist(onTime<0>, 0);
  EXPECT_EQ(callsIn(9), "a0@5000 a0@5100 a0@5200 ");
  EXPECT_EQ(clockwork.us, 5200000U) << "no pause follows";
  stopTwice(0);
  EXPECT_EQ(callsIn(1), "");
  EXPECT_EQ(callsIn(1), "a0@5200 ");
}

TEST_F(Timers, AreAllDueWhenTheStampWraps) {
  clockwork.us = (uint64_t{7} << 32) + 4294850000;  // stamp 4294850, and 4294967 is the last
  ZuTimer_Regist(onTime<0>, 4000000);
  ZuTimer_Regist(onTime<1>, 0x80000000);  // compared without a sign
  ZuTimer_Regist(onTime<2>, 0xFFFFFFFF);  // longer than any difference
  EXPECT_EQ(callsIn(4).substr(0, 9), "a4000000@");
  EXPECT_EQ(shown(),
            "current tm=342\nlast=82,interval=4000000,status=1,times=1\nlast=82,interval=-2147483648,status=1,times=1\n"
            "last=4294850,interval=-1,status=1,times=0\n");
}

TEST_F(Timers, AreLostWhenMemoryIsShort) {
  platform::failAllocation(0);
  EXPECT_EQ(ZuTimer_Regist(onTime<0>, 0), 1) << "there is no registry";
  ZuTimer_Regist(onTime<1>, 0);
  platform::failAllocation(0);
  EXPECT_EQ(ZuTimer_Regist(onTime<0>, 0), 0);
  platform::failAllocation(1);
  EXPECT_EQ(ZuTimer_Regist(onTime<0>, 0), 1) << "there is no place in the registry";
  EXPECT_EQ(callsIn(1), "b0@5000 ");
}

}  // namespace
