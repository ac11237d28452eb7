// lock_test.cpp: which lock is taken, and who hears that there is none. With one, all other tests run as well.
#include <gtest/gtest.h>
#include <kep/kep.h>

#include <thread>

#include "Kep.hpp"
#include "support/platform_double.hpp"

TEST(Lock, IsTheFirstOneWithBothHooksThatIsGivenBeforeTheFirstBlock) {
  static int calls;
  const auto count = [] { ++calls; };
  Kep_SetLock(count, nullptr), Kep_SetLock(nullptr, count);
  if (platform::isLocking()) Kep_SetLock(count, count);  // the second
  ZuMem_Free(1, ZuMem_Malloc(1, 1));
  Kep_SetLock(count, count);
  ZuMem_Free(1, ZuMem_Malloc(1, 1));
  EXPECT_EQ(calls, 0);
}

// What is not watched beside the serving thread: work on the caller's own objects, and what the loop of timers does.
static void workAlone() {
  int32_t number = 7;
  char text[100] = "a,b", *fields[2];
  ZuBuf *buf = ZuBuf_New(1, 1, 0);
  ZuTable *table = ZuTable_New();
  ZuTable_SetTitle(table, 0, "title", 2, "%d", 'L'), ZuTable_Set(table, 0, 0, &number);
  ZuTable_ShowToBuf(table, buf), ZuTable_ShowToBuffer(table, text, 100), ZuTable_Release(table);
  ZuHash *hash = ZuHash_New(4, 4, 2, nullptr);
  ZuHash_Set(hash, &number, &number), ZuHash_Release(hash);
  ZuBuf_Append(buf, text, 100), ZuBuf_Release(buf);
  ZuSet_Release(ZuSet_New(9)), ZuMem_Release(ZuMem_realloc(ZuMem_New(9, 0), 99));
  ZuPrint_Release(ZuPrint_New(text, 9));
  ZuBuffer_Pack(text, "I", number), ZuBuffer_UNPack("I", text, &number);
  ZuTime_Format(text, "YYYY", ZuTime_Now()), ZuTime_Sleep(0), ZuTime_GetUTime();
  ZuString_Format(text, "%d", 1), ZuString_HFormat(text, "x", 1), ZuString_Split(text, ",", fields, 2);
  CollectStats stats;
  Collect_GetStats(&stats);
  ZuTimer_Stop(), ZuTimer_Loop();
}

TEST(Lock, IsMissedOnceWhenSomebodyCallsBesideTheServingThread) {
  ZuTimer_Regist([](int32_t) { return ZuMem_Free(1, ZuMem_Malloc(1, 1)), ZuTimer_Stop(), 0; }, 0);
  std::thread([] { noteService(true), ZuMem_Show(); }).join();
  testing::internal::CaptureStderr();
  workAlone();
  ZuTimer_Loop();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  testing::internal::CaptureStderr();
  ZuPrint_Puts("x", 0), ZuMem_Show();
  noteService(false);
#ifdef NDEBUG
  const bool isTold = false;
#else
  const bool isTold = !platform::isLocking();
#endif
  const std::string told =
      "kep: ZuPrint_Puts is called beside the serving thread, and there is no lock (Kep_SetLock)\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), isTold ? told : "");
}
