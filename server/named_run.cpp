// named_run.cpp: which lines of a log belong together, and which values only name what others are seen with.

#include "server/named_run.hpp"

#include <algorithm>
#include <map>
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

// The verdict of each item and what is missing of it, to be compared.
std::map<std::string_view, std::string> outcomesOf(const Judgement &judgement) {
  std::map<std::string_view, std::string> outcomes;
  for (const ItemResult &result : judgement.items) {
    outcomes[result.item] = std::to_string(static_cast<int>(result.tests.verdict()));
  }
  for (const MissingTest &test : judgement.missing) outcomes[test.item] += '\n' + test.name;
  return outcomes;
}

}  // namespace

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

void NamedRun::forEach(const std::function<void(const NamedValue &)> &takeAny) const {
  const Values all = part_.before ? sortedValues(part_.run) : Values();
  const Values &values = part_.before ? all : part_.values;
  auto next = part_.values.begin();
  const auto take = [&](const NamedValue &value) {  // what is not in the part only stands beside it
    if (next == part_.values.end() || *next != value.value) return;
    ++next;
    takeAny(value);
  };
  for (size_t i = 0; i < values.size();) {
    if (!isOfLog(*values[i])) {
      NamedValue one = named(*values[i]);
      one.isSection = lookup_.namesSection(*values[i]) && one.shown.size() == 1 &&
                      one.shown[0].text == one.sectionName && hasNeighbour(values, i);
      take(one);
      ++i;
      continue;
    }
    std::vector<std::string_view> records;
    bool isCutShort = false;  // only what came last can be
    const size_t begin = i;
    for (; i < values.size() && isSamePlace(values[begin], values[i]) && isOfLog(*values[i]); ++i) {
      records.push_back(values[i]->bytes);
      isCutShort |= !run().whole && values[i] == &run().values.back();
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
  return known ? isoTime(*known, names_.zone, collected_) : "";
}

Judgement verdictsOf(const NamedRun &named) {
  Judgement judgement = judge(named.names(), named.run());
  if (!named.part().before) return judgement;
  const auto outcomes = outcomesOf(judgement), known = outcomesOf(judge(named.names(), *named.part().before));
  const auto isKnown = [&](const auto &of) {
    const auto before = known.find(of.item);
    return before != known.end() && before->second == outcomes.at(of.item);
  };
  std::vector<ItemResult> &items = judgement.items;
  items.erase(std::remove_if(items.begin(), items.end(), isKnown), items.end());
  std::vector<MissingTest> &missing = judgement.missing;
  missing.erase(std::remove_if(missing.begin(), missing.end(), isKnown), missing.end());
  return judgement;
}

}  // namespace kepserver
