// bench.hpp: every figure is a ratio of two benchmarks of one run: ours, and what a user would write by hand.
#pragma once

#include <benchmark/benchmark.h>

// Has the report print `name`: the median time of benchmark `ours` divided by that of `theirs`.
struct Ratio {
  Ratio(const char *name, const char *ours, const char *theirs);
};
