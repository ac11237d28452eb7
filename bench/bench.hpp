// bench.hpp: a row of the report is one piece of work, done by kep, by the plainest code that gives the same result,
// and by libraries that a user would otherwise pick. A row stands in the source of its module, its sides in front of
// it:
//
//   void kepFind(Run &run) {
//     ZuList *list = makeList();                                      // not timed, done anew for each repeat
//     run.time([&] { keep(ZuList_Find(list, isSame, &last)); });      // one pass, run many times
//     ZuList_Release(list);
//   }
//   CALLED Node *findPlainly(Node *node, const void *key) { ... }     // a call, as the library's functions are
//   void plainFind(Run &run) { ...; run.time([&] { keep(findPlainly(head, &last)); }); ... }
//   const Row find("list: last of 1,000 found", 1000, kepFind, plainFind, {1.15, 1.2});   // per element, with its aims
//
//   #ifdef KEP_BENCH_HAVE_GLIB                                        // peers that may be missing stand apart
//   void glibFind(Run &run) { ... }
//   const Peer findGlib(find, "GSList", glibFind);
//   #endif
//
// Growth is a row without a plain side, whose peer is kep itself at the small size:
//
//   const Row growth("table drawn: 10,000 rows over 10", 20000, drawLarge, nullptr, {0, 1.25});
//   const Peer small(growth, "kep, 10 rows", drawSmall, 20);
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

// Marks the hand-written side of a row: neither inlined nor fitted to its caller, whose arguments are all constants.
#if defined(__clang__)
#define CALLED __attribute__((noinline))
#else
#define CALLED __attribute__((noipa))
#endif

// Has the compiler make `value`, and write down what it holds in registers, though nobody reads it.
template <typename T>
inline void keep(const T &value) {
  asm volatile("" : : "r,m"(value) : "memory");
}

enum class Clock {
  cpu,  // of this thread, which other processes disturb less
  wall  // for what waits for another thread
};

// One repeat of one side.
class Run {
 public:
  Run(int64_t passes, Clock clock) : passes_(passes), clock_(clock) {}

  // Times so many passes, behind one that is not timed, so that memory is warm and what is made once has been made.
  template <typename Pass>
  void time(const Pass &pass) {
    pass();
    const double start = now();
    repeatPass(pass, passes_);
    elapsed_ += now() - start;
  }

  // The same for passes that use up what they work on: `prepare` runs before each, not timed. Reading the clock takes
  // half a microsecond, so a pass should take twenty.
  template <typename Prepare, typename Pass>
  void timeAfter(const Prepare &prepare, const Pass &pass) {
    for (int64_t i = 0; i <= passes_; ++i) {
      prepare();
      const double start = now();
      repeatPass(pass, 1);
      if (i > 0) elapsed_ += now() - start;
    }
  }

  double elapsed() const { return elapsed_; }  // nanoseconds

 private:
  // A function of its own under a name of its own: with --instructions, what runs inside is what is counted.
  template <typename Pass>
  CALLED static void repeatPass(const Pass &pass, int64_t passes) {
    for (; passes > 0; --passes) pass();
  }

  double now() const;

  int64_t passes_;
  Clock clock_;
  double elapsed_ = 0;
};

using Side = std::function<void(Run &run)>;

// The largest ratios to accept, to two decimals; 0: none is set.
struct Aims {
  double plain = 0;
  double peer = 0;  // of the best one
};

// Adds a row. `items` is what a pass does, figures are per item; `plain` may be null.
struct Row {
  Row(const char *name, double items, Side kep, Side plain, Aims aims, Clock clock = Clock::cpu);
  size_t index;
};

// Adds a peer to a row, with the items of its own passes where they differ from the row's.
struct Peer {
  Peer(const Row &row, const char *name, Side side, double items = 0);
};
