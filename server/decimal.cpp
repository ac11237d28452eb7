// decimal.cpp: nine digits a limb, so that no step of a sum or a product leaves 64 bits.

#include "server/decimal.hpp"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <utility>

namespace kepserver {

namespace {

constexpr uint32_t kBase = 1'000'000'000;
constexpr size_t kLimbDigits = 9;
constexpr int kMostWholeDigits = 18;  // that parse() takes

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A number as it was written: its digits without the point, and where the point stands.
struct Written {
  std::string digits;
  int wholeDigits = 0;
  bool negative = false;
};

// Reads digits up to the first other character, leaving out a _ between two.
void takeDigits(std::string_view text, size_t &position, std::string &digits) {
  for (; position < text.size(); ++position) {
    const bool parts = text[position] == '_' && position > 0 && isDigit(text[position - 1]) &&
                       position + 1 < text.size() && isDigit(text[position + 1]);
    if (isDigit(text[position])) {
      digits += text[position];
    } else if (!parts) {
      return;
    }
  }
}

std::optional<int> readExponent(std::string_view text) {
  if (!text.empty() && text[0] == '+') text.remove_prefix(1);
  int exponent = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), exponent);
  if (error != std::errc() || end != text.data() + text.size() || std::abs(exponent) > 400) return std::nullopt;
  return exponent;
}

std::optional<Written> readNumber(std::string_view text) {
  Written written;
  size_t position = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
  written.negative = position == 1 && text[0] == '-';
  takeDigits(text, position, written.digits);
  if (written.digits.empty()) return std::nullopt;
  written.wholeDigits = static_cast<int>(written.digits.size());
  if (position < text.size() && text[position] == '.') {
    takeDigits(text, ++position, written.digits);
    if (static_cast<int>(written.digits.size()) == written.wholeDigits) return std::nullopt;
  }
  if (position < text.size() && (text[position] == 'e' || text[position] == 'E')) {
    const std::optional<int> exponent = readExponent(text.substr(position + 1));
    if (!exponent) return std::nullopt;
    written.wholeDigits += *exponent;
    position = text.size();
  }
  if (position < text.size()) return std::nullopt;
  return written;
}

}  // namespace

Decimal::Decimal(uint64_t number) {
  for (size_t i = kFractionLimbs; number > 0; ++i, number /= kBase) limbs_[i] = static_cast<uint32_t>(number % kBase);
}

Decimal::Decimal(int64_t number) : Decimal(number < 0 ? 0 - static_cast<uint64_t>(number) : uint64_t(number)) {
  negative_ = number < 0;
}

std::optional<Decimal> Decimal::parse(std::string_view text) {
  const std::optional<Written> written = readNumber(text);
  if (!written) return std::nullopt;
  constexpr int kPoint = static_cast<int>((kLimbs - kFractionLimbs) * kLimbDigits);  // in front of so many digits
  Decimal result;
  const int count = static_cast<int>(written->digits.size());
  for (int i = 0; i < count; ++i) {
    const int place = kPoint - written->wholeDigits + i;  // from the highest digit kept
    const auto digit = static_cast<uint32_t>(written->digits[static_cast<size_t>(i)] - '0');
    if (digit == 0) continue;
    if (place < kPoint - kMostWholeDigits || place >= kPoint + kMostDecimals) return std::nullopt;
    const size_t limb = kLimbs - 1 - static_cast<size_t>(place) / kLimbDigits;
    uint32_t unit = 1;
    for (size_t p = static_cast<size_t>(place) % kLimbDigits; p < kLimbDigits - 1; ++p) unit *= 10;
    result.limbs_[limb] += digit * unit;
  }
  result.negative_ = written->negative && !result.isZero();
  result.decimals_ = std::clamp(count - written->wholeDigits, 0, kMostDecimals);
  return result;
}

bool Decimal::isZero() const { return limbs_ == Limbs{}; }

std::string Decimal::text(std::optional<int> decimals) const {
  constexpr size_t kDigits = kLimbs * kLimbDigits, kPoint = kDigits - kMostDecimals;
  std::string digits(kDigits, '0');
  for (size_t limb = 0; limb < kLimbs; ++limb) {
    uint32_t rest = limbs_[limb];
    for (size_t place = kDigits - limb * kLimbDigits; rest > 0; rest /= 10) {
      digits[--place] = static_cast<char>('0' + rest % 10);
    }
  }
  size_t end = decimals ? kPoint + static_cast<size_t>(std::clamp(*decimals, 0, kMostDecimals)) : kDigits;
  if (end < kDigits && digits[end] >= '5') {
    size_t place = end;
    while (digits[--place] == '9') digits[place] = '0';
    ++digits[place];
  }
  while (!decimals && end > kPoint && digits[end - 1] == '0') --end;
  digits.resize(end);
  const size_t leading = std::max<size_t>(kDigits - used(limbs_) * kLimbDigits, 1) - 1;  // but for a digit rounded up
  const size_t highest = digits.find_first_not_of('0', leading);
  const size_t first = std::min(highest, kPoint - 1);
  std::string text = negative_ && highest != std::string::npos ? "-" : "";
  text.append(digits, first, kPoint - first);
  if (end > kPoint) text.append(".").append(digits, kPoint);
  return text;
}

size_t Decimal::used(const Limbs &limbs) {
  size_t count = kLimbs;
  while (count > 0 && limbs[count - 1] == 0) --count;
  return count;
}

int Decimal::compare(const Limbs &a, const Limbs &b) {
  for (size_t i = kLimbs; i-- > 0;) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  return 0;
}

bool operator==(const Decimal &a, const Decimal &b) { return a.limbs_ == b.limbs_ && a.negative_ == b.negative_; }

bool operator<(const Decimal &a, const Decimal &b) {
  if (a.negative_ != b.negative_) return a.negative_;
  return Decimal::compare(a.limbs_, b.limbs_) * (a.negative_ ? -1 : 1) < 0;
}

Decimal operator+(const Decimal &a, const Decimal &b) {
  if (Decimal::compare(a.limbs_, b.limbs_) < 0) return b + a;
  Decimal result = a;  // the larger, whose sign the sum has
  const bool adds = a.negative_ == b.negative_;
  int64_t carry = 0;
  for (size_t i = 0; i < Decimal::kLimbs; ++i) {
    const int64_t term = adds ? int64_t{b.limbs_[i]} : -int64_t{b.limbs_[i]};
    int64_t limb = a.limbs_[i] + term + carry;
    carry = limb < 0 ? -1 : limb / kBase;
    limb -= carry * kBase;
    result.limbs_[i] = static_cast<uint32_t>(limb);
  }
  assert(carry == 0 && "no sum has more than 45 digits in front of its point");
  if (result.isZero()) result.negative_ = false;
  return result;
}

Decimal operator*(const Decimal &a, const Decimal &b) {
  constexpr size_t kProductLimbs = 2 * Decimal::kLimbs;
  std::array<uint64_t, kProductLimbs> limbs{};
  const size_t count = Decimal::used(b.limbs_);
  for (size_t i = 0; i < Decimal::kLimbs; ++i) {
    if (a.limbs_[i] == 0) continue;
    uint64_t carry = 0;
    for (size_t j = 0; j < count; ++j) {
      const uint64_t term = limbs[i + j] + uint64_t{a.limbs_[i]} * b.limbs_[j] + carry;
      limbs[i + j] = term % kBase;
      carry = term / kBase;
    }
    limbs[i + count] = carry;
  }
  Decimal result;
  uint64_t carry = limbs[Decimal::kFractionLimbs - 1] >= kBase / 2 ? 1 : 0;
  for (size_t i = 0; i < Decimal::kLimbs; ++i) {
    const uint64_t limb = limbs[i + Decimal::kFractionLimbs] + carry;
    result.limbs_[i] = static_cast<uint32_t>(limb % kBase);
    carry = limb / kBase;
  }
  result.negative_ = a.negative_ != b.negative_ && !result.isZero();
  return result;
}

std::string grouped(std::string_view number) {
  const size_t first = !number.empty() && number[0] == '-' ? 1 : 0;
  const size_t point = std::min(number.find_first_not_of("0123456789", first), number.size());
  std::string text(number.substr(0, first));
  for (size_t i = first; i < point; ++i) {
    if (i > first && (point - i) % 3 == 0) text += ' ';
    text += number[i];
  }
  return text.append(number.substr(point));
}

}  // namespace kepserver
