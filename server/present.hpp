// present.hpp: what a reader sees of one value, whatever format it is then printed in.
//
// Everything returned points into the names and the run it was made from, and lives as long as both.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <variant>
#include <vector>

#include "server/names.hpp"
#include "server/stream.hpp"

namespace kepserver {

// What a board sent, or a part of it: a number of so many bytes, or bytes.
struct Sent {
  using Number = std::variant<int64_t, uint64_t, float, double>;
  std::optional<Number> number;
  std::string_view bytes;
  size_t size = 0;
  bool isText = false;       // the bytes are: a string, or a field of s
  bool hexadecimal = false;  // how the number is shown where no name says more of it
};

Sent sentNumber(Sent::Number number, size_t size);
Sent sentBytes(std::string_view bytes, bool isText);
Sent sentOf(const Value &value);

enum class Verdict { kNone, kPass, kFail };

// One value, or one named field of a buffer.
struct Shown {
  const Key *key = nullptr;          // nullptr: not named; all else is then as it was sent
  const Meaning *meaning = nullptr;  // the key's, or the field's
  Sent sent;                         // for a field, its part
  std::string text;     // for a person, without the unit; for a text, the board's bytes: not yet fit for a terminal
  std::string number;   // for a program: the scaled number, such as -1234.50; empty for what is no number
  bool misfit = false;  // its names do not fit what was sent, which is shown as it is
  Verdict verdict = Verdict::kNone;

  std::string name() const;  // the key's name, and the field's behind it
};

// Appends what is to be shown of a value: one for each named field, or one. `key` belongs to `names`, or is nullptr.
void present(const Names &names, const Key *key, const Sent &sent, std::vector<Shown> &out);

// Names of the values of one run.
class RunNames {
 public:
  RunNames(const Names &names, const Run &run);

  const Item *item(const Value &value) const;     // nullptr: not named
  const Key *key(const Value &value) const;       // likewise
  std::string section(const Value &value) const;  // "eth0"; empty: not named

  // Whether the value names its section, and so is seen with every other of that section.
  bool namesSection(const Value &value) const;

 private:
  const Names &names_;
  const Run &run_;
  std::map<std::tuple<int32_t, int32_t>, const Value *> sections_;  // what names them, by item and section
};

// Of all that has a rule, or is missing.
struct Tally {
  size_t count = 0, failed = 0;

  Verdict verdict() const { return failed > 0 ? Verdict::kFail : count > 0 ? Verdict::kPass : Verdict::kNone; }
};

struct ItemResult {
  std::string_view item;
  Tally tests;  // its values and named fields
};

// A named test that did not come, and so has failed.
struct MissingTest {
  std::string_view item;
  std::string name;
};

// What came of a self-test run: little, however many values it has.
struct Judgement {
  std::vector<ItemResult> items;  // as the run turned to them, each once; behind them those of which all is missing
  std::vector<MissingTest> missing;
  Tally tests;        // of all items
  Tally testedItems;  // those that have tests
};

Judgement judge(const Names &names, const Run &run);

// Whether a collection has fewer data messages than its items report, the end's included, be it whole otherwise.
bool isCutShort(const Names &names, const Run &run);

}  // namespace kepserver
