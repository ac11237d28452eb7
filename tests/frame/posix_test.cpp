// posix_test.cpp: the library on the service layer of a Linux host.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kep/kep.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <regex>
#include <thread>

namespace {

[[gnu::constructor]] void giveLock() {
  if (std::getenv("KEP_TEST_LOCK")) KepPosix_UseThreads();
}

// Makes standard output a pipe of a page.
class Console {
 public:
  Console() {
    std::fflush(stdout);
    (void)!pipe(ends_);
    dup2(ends_[1], STDOUT_FILENO), close(ends_[1]);
    fcntl(STDOUT_FILENO, F_SETPIPE_SZ, 4096), fcntl(ends_[0], F_SETFL, O_NONBLOCK);
  }
  ~Console() { close(ends_[0]); }

  // Appends what has arrived; false at the end.
  bool take(std::string *text) const {
    char part[512];
    const ssize_t n = read(ends_[0], part, sizeof part);
    text->append(part, n > 0 ? static_cast<size_t>(n) : 0);
    return n != 0;
  }

  // Standard output is again what it was.
  void restore() const { std::fflush(stdout), dup2(before_, STDOUT_FILENO), close(before_); }

 private:
  const int before_ = dup(STDOUT_FILENO);
  int ends_[2];
};

const std::string longText(20000, 'x');

}  // namespace

TEST(Posix, TextsArriveAtOnceAndInTheirOrder) {
  std::string text;
  Console console;
  const auto take = [&] { console.take(&text), text += '|'; };
  ZuPrint_Puts("first", 0), take();
  CollectClient_Start("nowhere", 9099), take();
  std::printf("the host's own, ");  // in stdio's buffer
  ZuPrint_ShowEx("third", 0), take();
  ZuInfo *store = ZuInfo_New(0);
  ZuLogger_Dump(store), take();
  const std::string value(600, 'v');
  ZuInfo_Write(store, "k", value.c_str()), ZuInfo_Write(store, "k", value.c_str()), take();  // grows
  ZuPrint_ShowEx(" fourth, 100%", 0), take();
  console.restore();
  ZuInfo_Release(store);
  EXPECT_TRUE(
      std::regex_match(text, std::regex("first\n\\|connect error.\n\\|the host's own, third\\|logger info addr: "
                                        "0x[^|]*freesize: 1024\n\\|[^|]*\\| fourth, 100%\\|")))
      << text;
}

TEST(Posix, SignalsThatInterruptCostNoText) {
  struct sigaction interrupting = {};
  interrupting.sa_handler = [](int) {};
  sigaction(SIGALRM, &interrupting, nullptr);
  std::string text, expected;
  bool isCounted = true;
  Console console;
  std::thread reader([&] {
    while (console.take(&text)) usleep(200);
  });
  ualarm(1000, 1000);
  for (int i = 0; i < 300; ++i) {
    const std::string number = std::to_string(i), &detail = i % 20 == 0 ? longText : number;
    std::printf("%d", i);
    isCounted &= VRK_RawPrint("%s", detail.c_str()) == static_cast<int>(detail.size());
    CollectClient_Start("nowhere", 9099);
    isCounted &= VRK_RawPrint("%d, %s", i, detail.c_str()) == static_cast<int>((number + ", " + detail).size());
    expected += number + detail + "connect error.\n" + number + ", " + detail;
  }
  ualarm(0, 0);
  console.restore();
  reader.join();
  EXPECT_TRUE(text == expected) << text.size() << " of " << expected.size() << " bytes";
  EXPECT_TRUE(isCounted);
}

TEST(Posix, AThreadCancelledInAPrintLeavesStandardOutputToTheOthers) {
  pthread_t printer;
  const auto print = [](void *) -> void * {
    pthread_cancel(pthread_self());  // which the next call that might wait hears
    return VRK_RawPrint("%s", "the last words"), nullptr;
  };
  void *result;
  pthread_create(&printer, nullptr, print, nullptr);
  pthread_join(printer, &result);
  std::printf("not locked for ever\n");
  EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(Posix, StandardOutputMayRefuseToBlockAndNeedNoDescriptor) {
  std::string start;
  Console console;
  fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK);
  std::printf("host, ");
  const int printed = VRK_RawPrint("%s", longText.c_str());
  std::printf("lost, "), VRK_RawPrint("%s", "as there is no room");
  console.take(&start), console.restore();
  EXPECT_EQ(start.substr(0, 10), "host, xxxx");
  EXPECT_LT(printed, 0);

  char *text;
  size_t size;
  FILE *stream = std::exchange(stdout, open_memstream(&text, &size));
  std::printf("1, "), VRK_RawPrint("%d, ", 2), CollectClient_Start("nowhere", 9099);
  std::fclose(std::exchange(stdout, stream));
  EXPECT_STREQ(text, "1, 2, connect error.\n");
  std::free(text);
}

TEST(Posix, BlocksAreMaximallyAlignedBehindTheirHeader) {
  for (uint32_t size = 0; size < 200; ++size) {
    void *block = VRK_Malloc(size);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ((reinterpret_cast<uintptr_t>(block) + 4) % alignof(std::max_align_t), 0U) << size;
    std::memset(block, 0, size);
    VRK_Free(block);
  }
  VRK_Free(nullptr);
  if (sizeof(void *) > 4) return;
  for (uint32_t size = UINT32_MAX - 32; size != 0; ++size) EXPECT_EQ(VRK_Malloc(size), nullptr) << "wraps: " << size;
}
