// require.hpp: how a harness reports what is wrong.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

// Ends the run with an artifact unless the text that names a difference is empty.
inline void require(const std::string &difference) {
  if (difference.empty()) return;
  std::fprintf(stderr, "%s\n", difference.c_str());
  std::abort();
}

inline void requireEqual(const std::string &found, const std::string &expected) {
  if (found != expected) require("found:\n" + found + "\nexpected:\n" + expected);
}
