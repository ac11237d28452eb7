// numbers.hpp: plain decimal numbers without printf, byte for byte as printf prints them.
#pragma once

#include <cstdint>

constexpr int32_t kNotPrinted = -1;
constexpr uint32_t kLongestNumber = 32;  // bytes that a text needs, terminator included

// Whether printf, as the process has it now, rounds to the nearest. Asked once for many numbers: printf is slow.
bool printfRoundsToNearest();

// Print a number as printf does under "%d" or "%u", "%lld", and "%.0f" to "%.9f", and return the length of the text.
// Under any other format, and for a double that is not certain to come out the same, they return kNotPrinted and
// leave the text alone.
int32_t printNumber(char *text, const char *format, int32_t value);
int32_t printNumber(char *text, const char *format, int64_t value);
int32_t printNumber(char *text, const char *format, double value, bool roundsToNearest);
