// present.cpp: a value as its names have it.

#include "server/present.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>
#include <unordered_map>
#include <utility>

#include "server/text.hpp"
#include "server/times.hpp"

namespace kepserver {

namespace {

// ---- numbers

template <class... How>
std::string digitsOf(double number, How... how) {
  std::array<char, 80> text;
  return {text.data(), std::to_chars(text.data(), text.data() + text.size(), number, how...).ptr};
}

std::string shortest(const Sent::Number &number) {
  return std::visit(
      [](auto n) {
        std::array<char, 80> text;
        return std::string(text.data(), std::to_chars(text.data(), text.data() + text.size(), n).ptr);
      },
      number);
}

double doubleOf(const Sent::Number &number) {
  return std::visit([](auto n) { return static_cast<double>(n); }, number);
}

double doubleOf(const Decimal &number) { return std::strtod(number.text().c_str(), nullptr); }

// A real number is the shortest decimal that reads back as it. Empty: it is none, or has more than 18 digits in front
// of its point.
std::optional<Decimal> decimalOf(const Sent::Number &number) {
  if (const auto *whole = std::get_if<int64_t>(&number)) return Decimal(*whole);
  if (const auto *whole = std::get_if<uint64_t>(&number)) return Decimal(*whole);
  const double real = doubleOf(number);
  if (!(std::fabs(real) < 1e18)) return std::nullopt;
  const std::optional<Decimal> decimal = Decimal::parse(shortest(number));
  return decimal ? decimal : Decimal::parse(digitsOf(real, std::chars_format::fixed, Decimal::kMostDecimals));
}

// The scaled number: in decimal, or in binary where it is beyond that.
struct Scaled {
  std::optional<Decimal> decimal;
  double real = 0;
};

Scaled scale(const Meaning &meaning, const Sent::Number &number) {
  Scaled scaled{decimalOf(number)};
  if (!scaled.decimal) {
    scaled.real = doubleOf(number);
    if (meaning.scale) scaled.real *= doubleOf(*meaning.scale);
    if (meaning.offset) scaled.real += doubleOf(*meaning.offset);
    return scaled;
  }
  if (meaning.scale) scaled.decimal = *scaled.decimal * *meaning.scale;
  if (meaning.offset) scaled.decimal = *scaled.decimal + *meaning.offset;
  return scaled;
}

bool isWithin(const Range &range, const Scaled &scaled) {
  if (scaled.decimal) {
    return (!range.min || !(*scaled.decimal < *range.min)) && (!range.max || !(*range.max < *scaled.decimal));
  }
  return !std::isnan(scaled.real) && (!range.min || scaled.real >= doubleOf(*range.min)) &&
         (!range.max || scaled.real <= doubleOf(*range.max));
}

std::string numberText(const Meaning &meaning, const Sent::Number &number) {
  const bool isWhole = std::holds_alternative<int64_t>(number) || std::holds_alternative<uint64_t>(number);
  if (isWhole && !meaning.scale && !meaning.offset && !meaning.decimals) return shortest(number);
  const Scaled scaled = scale(meaning, number);
  return scaled.decimal ? scaled.decimal->text(meaning.decimals) : digitsOf(scaled.real);
}

uint64_t bitsOf(const Sent &sent) {
  uint64_t bits = 0;
  if (const auto *whole = std::get_if<int64_t>(&*sent.number)) bits = static_cast<uint64_t>(*whole);
  if (const auto *whole = std::get_if<uint64_t>(&*sent.number)) bits = *whole;
  return sent.size < 8 ? bits & ((uint64_t{1} << (8 * sent.size)) - 1) : bits;
}

std::string hexText(const Sent &sent) {
  std::string digits;
  for (size_t shift = 8 * sent.size; shift > 0; shift -= 4) {
    digits += "0123456789ABCDEF"[bitsOf(sent) >> (shift - 4) & 0xF];
  }
  return "0x" + digits;
}

std::string bitsText(const Meaning &meaning, uint64_t bits) {
  std::string text;
  for (int64_t bit = 0; bit < 64; ++bit) {
    if ((bits >> bit & 1) == 0) continue;
    const auto word = meaning.bits.find(bit);
    if (!text.empty()) text += ", ";
    text += word == meaning.bits.end() ? "bit " + std::to_string(bit) : word->second;
  }
  return text.empty() ? "none" : text;
}

std::string stateText(const Meaning &meaning, const Sent::Number &number) {
  std::optional<int64_t> whole;
  if (const auto *asSigned = std::get_if<int64_t>(&number)) whole = *asSigned;
  const auto *asUnsigned = std::get_if<uint64_t>(&number);
  if (asUnsigned && *asUnsigned <= INT64_MAX) whole = static_cast<int64_t>(*asUnsigned);
  if (!whole) return shortest(number);
  const auto state = meaning.states.find(*whole);
  return state == meaning.states.end() ? shortest(number) : state->second;
}

// ---- texts

// Greedy: where the rest does not match, only the last * can have taken too little.
bool matches(std::string_view pattern, std::string_view text) {
  size_t p = 0, t = 0, star = std::string_view::npos, taken = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      taken = t;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p, ++t;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      t = ++taken;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

// ---- one value

Verdict judgeOne(const Shown &shown) {
  if (!shown.meaning || !shown.meaning->pass) return Verdict::kNone;
  const Rule &rule = *shown.meaning->pass;
  bool passes = false;
  if (const auto *range = std::get_if<Range>(&rule)) {
    passes = shown.sent.number && isWithin(*range, scale(*shown.meaning, *shown.sent.number));
  } else if (const auto *word = std::get_if<Word>(&rule)) {
    passes = shown.text == word->text;
  } else {
    passes = matches(std::get<Pattern>(rule).text, shown.text);
  }
  return passes && !shown.misfit ? Verdict::kPass : Verdict::kFail;
}

std::string plainText(const Sent &sent) {
  if (sent.number) return sent.hexadecimal ? hexText(sent) : shortest(*sent.number);
  return sent.isText ? std::string(sent.bytes) : hex(sent.bytes);
}

void showNumber(Shown &shown) {
  const Meaning &meaning = *shown.meaning;
  if (meaning.isNumber() && *meaning.kind != Kind::kState) {
    shown.number = numberText(meaning, *shown.sent.number);
    shown.text = grouped(shown.number);
  } else if (!meaning.bits.empty()) {
    shown.text = bitsText(meaning, bitsOf(shown.sent));
  } else if (meaning.kind == Kind::kState) {
    shown.text = stateText(meaning, *shown.sent.number);
  } else if (shown.sent.hexadecimal) {
    shown.text = hexText(shown.sent);
  } else {  // nothing but a name
    shown.number = shortest(*shown.sent.number);
    shown.text = grouped(shown.number);
  }
}

// Of a value that has no fields, or is one.
void showOne(Shown &shown) {
  const Meaning &meaning = *shown.meaning;
  const bool wantsText = meaning.kind == Kind::kText || meaning.kind == Kind::kLog;
  const bool wantsNumber =
      meaning.isNumber() && (*meaning.kind != Kind::kState || !meaning.states.empty() || !meaning.bits.empty());
  if (shown.sent.number && !wantsText) {
    showNumber(shown);
  } else if (!shown.sent.number && !wantsNumber) {
    shown.sent.isText |= wantsText;
    shown.text = plainText(shown.sent);
  } else {
    shown.misfit = true;
    shown.text = plainText(shown.sent);
  }
  shown.verdict = judgeOne(shown);
}

uint64_t bigEndian(std::string_view bytes) {
  uint64_t number = 0;
  for (const char c : bytes) number = number << 8 | static_cast<uint8_t>(c);
  return number;
}

int64_t signExtended(uint64_t number, size_t size) {
  const size_t shift = 64 - 8 * size;
  return static_cast<int64_t>(number << shift) >> shift;
}

template <class Real, class Bits>
Real realOf(Bits bits) {
  Real real;
  static_assert(sizeof real == sizeof bits, "IEEE 754 on either side");
  std::memcpy(&real, &bits, sizeof real);
  return real;
}

Sent fieldOf(const Field &field, std::string_view buffer) {
  const std::string_view bytes = buffer.substr(field.offset, field.size);
  if (field.layout == Layout::kBytes) return sentBytes(bytes, false);
  if (field.layout == Layout::kText) return sentBytes(bytes.substr(0, bytes.find('\0')), true);
  const uint64_t number = bigEndian(bytes);
  Sent sent = sentNumber(number, field.size);
  if (field.layout == Layout::kSigned) sent.number = signExtended(number, field.size);
  if (field.layout == Layout::kReal && field.size == 4) sent.number = realOf<float>(static_cast<uint32_t>(number));
  if (field.layout == Layout::kReal && field.size == 8) sent.number = realOf<double>(number);
  sent.bytes = bytes;
  sent.hexadecimal = field.hexadecimal;
  return sent;
}

bool hasRule(const Key &key) {
  return key.meaning.pass || std::any_of(key.fields.begin(), key.fields.end(),
                                         [](const Field &field) { return field.meaning.pass.has_value(); });
}

void presentFields(const Names &names, const Key &key, const Sent &sent, std::vector<Shown> &out) {
  for (const Field &field : key.fields) {
    if (field.meaning.name.empty()) continue;
    Shown shown;
    shown.key = &key;
    shown.meaning = &field.meaning;
    shown.sent = fieldOf(field, sent.bytes);
    showOne(shown);
    if (field.layout == Layout::kTime) {
      shown.number.clear();
      shown.text =
          timeText(static_cast<int64_t>(bigEndian(shown.sent.bytes)), names.zone.value_or(absl::UTCTimeZone()));
    }
    out.push_back(std::move(shown));
  }
}

}  // namespace

Sent sentNumber(Sent::Number number, size_t size) {
  Sent sent;
  sent.number = number;
  sent.size = size;
  return sent;
}

Sent sentBytes(std::string_view bytes, bool isText) {
  Sent sent;
  sent.bytes = bytes;
  sent.size = bytes.size();
  sent.isText = isText;
  return sent;
}

Sent sentOf(const Value &value) {
  switch (value.kind) {
    case ValueKind::kInt: return sentNumber(value.number, 4);
    case ValueKind::kLong: return sentNumber(value.number, 8);
    default: return sentBytes(value.bytes, value.kind == ValueKind::kString);
  }
}

std::string Shown::name() const {
  if (!key) return "";
  if (meaning == &key->meaning || key->meaning.name.empty()) return meaning->name;
  return key->meaning.name + " " + meaning->name;
}

void present(const Names &names, const Key *key, const Sent &sent, std::vector<Shown> &out) {
  const bool isBuffer = !sent.number && !sent.isText;
  const bool fits = key && (key->fields.empty() || (isBuffer && sent.bytes.size() == key->size));
  const size_t before = out.size();
  if (fits) presentFields(names, *key, sent, out);
  if (out.size() > before) return;
  Shown shown;
  shown.key = key;
  shown.sent = sent;
  if (key) shown.meaning = &key->meaning;
  if (fits) {
    showOne(shown);
  } else {
    shown.text = plainText(sent);
    shown.misfit = key != nullptr;
    shown.verdict = key && hasRule(*key) ? Verdict::kFail : Verdict::kNone;
  }
  out.push_back(std::move(shown));
}

// ---- runs

RunNames::RunNames(const Names &names, const Run &run) : names_(names), run_(run) {
  for (const Value &value : run.values) {
    if (namesSection(value)) sections_.emplace(std::tuple(value.item, value.section), &value);
  }
}

const Item *RunNames::item(const Value &value) const { return names_.item(itemName(run_, value)); }

const Key *RunNames::key(const Value &value) const {
  const Item *const found = item(value);
  return found ? (run_.selfTest ? found->tests : found->keys).find(value.section, value.key) : nullptr;
}

std::string RunNames::section(const Value &value) const {
  const auto naming = sections_.find(std::tuple(value.item, value.section));
  if (naming != sections_.end()) {
    std::vector<Shown> shown;
    present(names_, key(*naming->second), sentOf(*naming->second), shown);
    return shown[0].text;
  }
  const Item *const found = item(value);
  if (!found) return "";
  const auto name = found->sections.names.find(value.section);
  return name == found->sections.names.end() ? "" : name->second;
}

// A name stands with every value of its section: a long one would make a run many times its size.
bool RunNames::namesSection(const Value &value) const {
  constexpr size_t kLongestName = 256;
  const Item *const found = run_.selfTest ? nullptr : item(value);
  return found && value.section != 0 && found->sections.namedBy == value.key && value.bytes.size() <= kLongestName;
}

// ---- self-tests

namespace {

std::string testName(const Key &key) {
  std::string name = key.meaning.name;
  if (!name.empty()) return name;
  for (const Field &field : key.fields) {
    if (!field.meaning.name.empty()) name += (name.empty() ? "" : ", ") + field.meaning.name;
  }
  return name;
}

void add(Verdict verdict, Tally &tally) {
  tally.count += verdict != Verdict::kNone ? 1 : 0;
  tally.failed += verdict == Verdict::kFail ? 1 : 0;
}

// Adds to a judgement, and finds the items in it.
class Judge {
 public:
  ItemResult &item(std::string_view name) {
    const auto [place, isNew] = places_.emplace(name, judgement.items.size());
    if (isNew) judgement.items.push_back({name, {}});
    return judgement.items[place->second];
  }

  void addMissing(std::string_view name, const Keys &keys, const std::set<const Key *> &seen) {
    ItemResult &result = item(name);
    for (const auto &[id, key] : keys) {
      if (seen.count(&key) != 0) continue;
      judgement.missing.push_back({name, testName(key)});
      add(Verdict::kFail, result.tests);
    }
  }

  void count() {
    for (const ItemResult &item : judgement.items) {
      judgement.tests.count += item.tests.count;
      judgement.tests.failed += item.tests.failed;
      add(item.tests.verdict(), judgement.testedItems);
    }
  }

  Judgement judgement;

 private:
  std::unordered_map<std::string_view, size_t> places_;
};

}  // namespace

Judgement judge(const Names &names, const Run &run) {
  Judge judge;
  std::set<const Key *> seen;
  const RunNames lookup(names, run);
  std::vector<Shown> shown;
  for (const std::string &item : run.tested) judge.item(item);
  for (const Value &value : run.values) {
    const Key *const key = lookup.key(value);
    if (!key) continue;
    seen.insert(key);
    shown.clear();
    present(names, key, sentOf(value), shown);
    ItemResult &result = judge.item(itemName(run, value));
    for (const Shown &one : shown) add(one.verdict, result.tests);
  }
  for (const auto &[name, item] : names.items) {
    if (item.tests.empty()) continue;
    judge.addMissing(name, item.tests.keys, seen);
    for (const auto &[section, keys] : item.tests.in) judge.addMissing(name, keys, seen);
  }
  judge.count();
  return std::move(judge.judgement);
}

bool isCutShort(const Names &names, const Run &run) {
  if (run.selfTest) return false;
  uint64_t expected = 3;  // the identity, the catalogue, the end's
  for (const auto &[index, name] : run.catalogue) {
    const Item *const item = names.item(name);
    if (item && item->reports()) ++expected;
  }
  return run.messageCount < expected;
}

}  // namespace kepserver
