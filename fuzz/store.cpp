// Record stores against their model. From its end the input chooses the limit, the largest value and every operation.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>

#include "records/store_steps.hpp"
#include "require.hpp"

// With a lock, for then walks take their steps between the other operations.
[[gnu::constructor(101)]] static void askForLock() { setenv("KEP_TEST_LOCK", "1", 1); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  constexpr int kMostSteps = 200;
  constexpr int64_t kSmallBlock = 16384;  // compared after every step, a larger one now and then
  FuzzedDataProvider input(data, size);
  const uint32_t limit = input.PickValueInArray({1024U, 2048U, 3000U, 10240U, 0U, 70000U});
  const int64_t largest = input.PickValueInArray({30, 300, 1500, 20000});
  {
    StoreSteps steps(limit, largest, [&input](uint32_t n) { return input.ConsumeIntegralInRange(0U, n - 1); });
    for (int i = 0; i < kMostSteps && input.remaining_bytes() > 0; ++i) {
      require(steps.step());
      if (steps.blockSize() <= kSmallBlock || i % 16 == 0) require(steps.difference());
    }
    require(steps.difference());
  }
  require(platform::liveBlocks() == 0 ? "" : "a block was not given back");
  return 0;
}
