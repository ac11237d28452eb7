// named_run.cpp: which lines of a log belong together, and which values only name what others are seen with.

#include "server/named_run.hpp"

#include <algorithm>
#include <optional>
#include <tuple>

#include "server/log_lines.hpp"
#include "server/times.hpp"

namespace kepserver {

namespace {

bool isSamePlace(const Value *a, const Value *b) {
  return std::tie(a->testedCount, a->item, a->section, a->key) == std::tie(b->testedCount, b->item, b->section, b->key);
}

using Values = std::vector<const Value *>;

// Whether another value stands in the section of the one at `i`.
bool hasNeighbour(const Values &values, size_t i) {
  const auto isIn = [&values, i](size_t other) {
    return other < values.size() && values[other]->item == values[i]->item &&
           values[other]->section == values[i]->section;
  };
  return isIn(i - 1) || isIn(i + 1);
}

}  // namespace

std::vector<const Value *> sortedValues(const Run &run) {
  Values values;
  values.reserve(run.values.size());
  for (const Value &value : run.values) values.push_back(&value);
  const auto order = [](const Value *v) { return std::tie(v->testedCount, v->item, v->section, v->key); };
  const auto isBefore = [&order](const Value *a, const Value *b) { return order(a) < order(b); };
  // Most boards report in order, and to see it takes less than to sort.
  if (!std::is_sorted(values.begin(), values.end(), isBefore)) {
    std::stable_sort(values.begin(), values.end(), isBefore);
  }
  return values;
}

bool NamedRun::isOfLog(const Value &value) const {
  const Key *const key = lookup_.key(value);
  const bool isNumber = value.kind == ValueKind::kInt || value.kind == ValueKind::kLong;
  return key && key->meaning.kind == Kind::kLog && !isNumber;
}

NamedValue NamedRun::named(const Value &value) const {
  NamedValue named;
  named.value = &value;
  named.key = lookup_.key(value);
  named.sectionName = lookup_.section(value);
  present(names_, named.key, sentOf(value), named.shown);
  return named;
}

void NamedRun::forEach(const std::function<void(const NamedValue &)> &take) const {
  const Values values = sortedValues(run_);
  for (size_t i = 0; i < values.size();) {
    if (!isOfLog(*values[i])) {
      NamedValue one = named(*values[i]);
      one.isSection = lookup_.namesSection(*values[i]) && !one.shown.empty() && one.shown[0].text == one.sectionName &&
                      hasNeighbour(values, i);
      take(one);
      ++i;
      continue;
    }
    std::vector<std::string_view> records;
    bool isCutShort = false;  // only what came last can be
    const size_t begin = i;
    for (; i < values.size() && isSamePlace(values[begin], values[i]) && isOfLog(*values[i]); ++i) {
      records.push_back(values[i]->bytes);
      isCutShort |= !run_.whole && values[i] == &run_.values.back();
    }
    size_t record = begin;
    for (const LogLine &line : joinLogLines(records, isCutShort)) {
      for (bool isTime = !line.time.empty();; isTime = false) {
        NamedValue one = named(*values[record++]);
        one.time = line.time;
        one.isTime = isTime;
        take(one);
        if (!isTime) break;
      }
    }
  }
}

std::string NamedRun::fullTime(std::string_view time) const {
  const std::optional<BoardTime> known = readTime(time);
  return known ? isoTime(*known, names_.zoneMinutes, collected_) : "";
}

}  // namespace kepserver
