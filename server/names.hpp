// names.hpp: the names file: what the numbers that a board sends mean. docs/names.md is its manual.
//
// The file is TOML. Nothing in it is guessed: what is not known, does not fit its place or contradicts itself is
// refused, with its file, its line and what was expected.
#pragma once

#include <absl/time/time.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "server/decimal.hpp"

namespace kepserver {

enum class Kind { kGauge, kCounter, kText, kLog, kState };
std::string_view nameOf(Kind kind);

// When a self-test's value passes. A number is compared as it is scaled, before it is rounded.
struct Range {
  std::optional<Decimal> min, max;  // both within; the same for a single number
};
struct Word {
  std::string text;
};
struct Pattern {
  std::string text;  // * stands for any text, ? for one byte, all else for itself
};
using Rule = std::variant<Range, Word, Pattern>;

// What one value means. `kind` is empty where the file says neither it nor what implies it; all texts are printable.
struct Meaning {
  std::string name;
  std::string unit;
  std::string help;
  std::optional<Kind> kind;
  std::optional<Decimal> scale, offset;  // shown = sent x scale + offset
  std::optional<int> decimals;           // those of `scale` unless the file says others; empty: all there are
  std::map<int64_t, std::string> states;
  std::map<int64_t, std::string> bits;  // 0, the lowest, to 63
  std::optional<Rule> pass;

  // Whether something beyond a name says that it is a number.
  bool isNumber() const;
};

// How the bytes of a field are read, most significant first; it follows from its letter and what it is taken as.
enum class Layout { kUnsigned, kSigned, kReal, kTime, kText, kBytes };

// One letter of a buffer's format.
struct Field {
  Meaning meaning;  // without a name: of no interest, and not shown
  Layout layout = Layout::kBytes;
  size_t offset = 0;
  size_t size = 0;
  bool hexadecimal = false;  // upper case, and nothing says that it is a number
};

struct Key {
  Meaning meaning;            // its name may be empty where the fields have theirs
  std::vector<Field> fields;  // of a buffer with a format
  size_t size = 0;            // of that buffer
};

using Keys = std::map<int64_t, Key>;

// The keys of an item: those of any section, and of single sections, which go before.
struct KeySet {
  Keys keys;
  std::map<int64_t, Keys> in;

  bool empty() const { return keys.empty() && in.empty(); }
  const Key *find(int64_t section, int64_t key) const;  // nullptr: not named
};

struct Sections {
  std::string label;
  std::map<int64_t, std::string> names;
  std::optional<int64_t> namedBy;  // the key whose value is the section's name
};

struct Item {
  KeySet keys;   // of a collection
  KeySet tests;  // of a self-test
  Sections sections;
  std::optional<bool> saysReports;

  // Whether a collection asks it: true unless it only has a self-test.
  bool reports() const { return saysReports.value_or(!keys.empty() || tests.empty()); }
};

// What a record of the fault file holds, in the order of its type numbers.
enum class FaultRecord {
  kRegister,
  kRegister64,
  kRegisterData,
  kCounter,
  kCounter64,
  kCounterData,
  kValue,
};

// The ids of one fault. A number of 32 bits and one of 64 share their ids; what has data has its own.
struct FaultNames {
  Keys registers, registerData, counters, counterData, values;

  const Key *find(FaultRecord record, uint32_t id) const;  // nullptr: not named
};

struct Names {
  std::string title;
  std::optional<absl::TimeZone> zone;  // of the board's times
  std::map<std::string, Item, std::less<>> items;
  std::map<std::string, FaultNames, std::less<>> faults;

  const Item *item(std::string_view name) const;
  const FaultNames *fault(std::string_view name) const;
};

struct NamesError {
  std::string file;
  size_t line = 0;
  std::string reason;

  std::string text() const { return file + ":" + std::to_string(line) + ": " + reason; }
};

// Returns a file's content, or throws a std::runtime_error that says why there is none. It is asked for each file once.
using FileReader = std::function<std::string(const std::string &path)>;

// Reads the text of the file at `path`, and what it includes. Throws NamesError, and what `read` throws beside a
// std::runtime_error.
Names parseNames(std::string_view text, const std::string &path, const FileReader &read);

}  // namespace kepserver
