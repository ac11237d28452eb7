// decimal.hpp: numbers in decimal, exact, as they are scaled for a reader: no binary fraction stands for 0.01 here.
//
// Where fewer decimals are shown than there are, a number is rounded to the nearest, and half away from zero, as one
// does by hand: 0.125 shows as 0.13, -0.125 as -0.13.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kepserver {

// A number of up to 45 digits in front of the point and 36 behind it: any 64-bit number times one that parse() takes,
// plus another, fits exactly.
class Decimal {
 public:
  static constexpr int kMostDecimals = 36;

  Decimal() = default;
  explicit Decimal(int64_t number);
  explicit Decimal(uint64_t number);

  // Reads what TOML and the C++ library write: 12, -0.50, +1_000, 2.5e-3. Empty: something else, or more than 18 digits
  // in front of the point or 36 behind it.
  static std::optional<Decimal> parse(std::string_view text);

  // As many as parse() found written: 2 of 0.50, and of 5.0e-1; no trailing zero of a whole number is one.
  int decimals() const { return decimals_; }

  bool isZero() const;

  // Rounded to so many decimals, 0 to 36; without, with as many as the number has.
  std::string text(std::optional<int> decimals = std::nullopt) const;

  friend bool operator==(const Decimal &a, const Decimal &b);
  friend bool operator<(const Decimal &a, const Decimal &b);
  friend Decimal operator+(const Decimal &a, const Decimal &b);
  friend Decimal operator*(const Decimal &a, const Decimal &b);  // rounded behind 36 decimals

 private:
  // Each holds nine digits, the least first. Digits beyond the highest are not kept: parse() sees to it.
  static constexpr size_t kFractionLimbs = 4;
  static constexpr size_t kLimbs = 9;
  using Limbs = std::array<uint32_t, kLimbs>;

  static size_t used(const Limbs &limbs);  // up to the highest that is not 0
  static int compare(const Limbs &a, const Limbs &b);

  Limbs limbs_{};
  bool negative_ = false;
  int decimals_ = 0;
};

// Puts a blank between the thousands of a number as text() writes it: -12 345.6789.
std::string grouped(std::string_view number);

}  // namespace kepserver
