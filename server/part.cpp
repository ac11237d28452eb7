// part.cpp: values by their place, which is where a later run has the same again.

#include "server/part.hpp"

#include <algorithm>
#include <set>
#include <tuple>

namespace kepserver {

namespace {

using Values = std::vector<const Value *>;
using Place = std::tuple<std::string_view, int32_t, int32_t, int32_t>;

Values valuesOf(const Run &run) {
  Values values;
  values.reserve(run.values.size());
  for (const Value &value : run.values) values.push_back(&value);
  return values;
}

// The name belongs to it: an item's index can be another's after the board has started anew.
Place placeOf(const Run &run, const Value *value) {
  return {itemName(run, *value), value->item, value->section, value->key};
}

Values byPlace(const Run &run) {
  Values values = valuesOf(run);
  std::stable_sort(values.begin(), values.end(),
                   [&run](const Value *a, const Value *b) { return placeOf(run, a) < placeOf(run, b); });
  return values;
}

// Takes the values of a place, if any, from those that follow.
Values takeValues(const Run &run, const Values &values, size_t &position, const Place &place) {
  const size_t begin = position;
  while (position < values.size() && placeOf(run, values[position]) == place) ++position;
  return {values.begin() + static_cast<std::ptrdiff_t>(begin), values.begin() + static_cast<std::ptrdiff_t>(position)};
}

bool isSame(const Value *a, const Value *b) {
  return a->kind == b->kind && a->number == b->number && a->bytes == b->bytes;
}

// Only a log has its lines at one place; of anything else that is there more than once no value replaces another.
bool isLog(const Values &values) {
  return std::all_of(values.begin(), values.end(),
                     [](const Value *value) { return value->kind == ValueKind::kString; });
}

// How many of the first that are were the last before: a log loses its oldest, and gets new ones behind. Steps only
// forwards, by what Knuth, Morris and Pratt found, as a log can be as long as a run.
size_t countKnown(const Values &before, const Values &now) {
  std::vector<size_t> border(now.size());  // of each beginning of `now`: how much of it ends as it begins
  const auto grow = [&](size_t length, const Value *next) {
    while (length > 0 && (length == now.size() || !isSame(now[length], next))) length = border[length - 1];
    return length + (isSame(now[length], next) ? 1 : 0);
  };
  if (now.empty()) return 0;
  if (!isLog(now)) return std::equal(before.begin(), before.end(), now.begin(), now.end(), isSame) ? now.size() : 0;
  for (size_t i = 1; i < now.size(); ++i) border[i] = grow(border[i - 1], now[i]);
  size_t known = 0;
  for (const Value *value : before) known = grow(known, value);
  return known;
}

// Those of a run that are marked, by where they stand in it.
Values marked(const Run &run, const std::vector<bool> &marks) {
  Values values = sortedValues(run);
  const auto isUnmarked = [&](const Value *value) { return !marks[static_cast<size_t>(value - run.values.data())]; };
  values.erase(std::remove_if(values.begin(), values.end(), isUnmarked), values.end());
  return values;
}

void compareValues(Part &part) {
  const Run &before = *part.before, &run = part.run;
  const Values all = byPlace(run), allBefore = byPlace(before);
  std::vector<bool> isNew(run.values.size()), isGone(before.values.size());
  for (size_t i = 0, j = 0; i < all.size() || j < allBefore.size();) {
    const Place place = i == all.size()         ? placeOf(before, allBefore[j])
                        : j == allBefore.size() ? placeOf(run, all[i])
                                                : std::min(placeOf(run, all[i]), placeOf(before, allBefore[j]));
    const Values now = takeValues(run, all, i, place);
    const Values known = takeValues(before, allBefore, j, place);
    for (size_t k = countKnown(known, now); k < now.size(); ++k) {
      isNew[static_cast<size_t>(now[k] - run.values.data())] = true;
    }
    if (now.empty()) isGone[static_cast<size_t>(known.back() - before.values.data())] = true;
  }
  part.values = marked(run, isNew);
  if (run.whole) part.gone = marked(before, isGone);
}

std::vector<Announced> announcedBy(const Run &run) {
  std::vector<Announced> all;
  for (const auto &[index, name] : run.catalogue) all.push_back({index, name});
  for (const std::string &name : run.tested) all.push_back({std::nullopt, name});
  return all;
}

// What one run announces and the other does not.
std::vector<Announced> missingFrom(const Run &other, const Run &run) {
  std::set<std::pair<std::optional<int32_t>, std::string_view>> known;
  for (const Announced &item : announcedBy(other)) known.emplace(item.index, item.name);
  std::vector<Announced> missing = announcedBy(run);
  const auto isKnown = [&known](const Announced &item) { return known.count({item.index, item.name}) > 0; };
  missing.erase(std::remove_if(missing.begin(), missing.end(), isKnown), missing.end());
  return missing;
}

}  // namespace

std::vector<const Value *> sortedValues(const Run &run) {
  Values values = valuesOf(run);
  const auto order = [](const Value *v) { return std::tie(v->testedCount, v->item, v->section, v->key); };
  const auto isBefore = [&order](const Value *a, const Value *b) { return order(a) < order(b); };
  // Most boards report in order, and to see it takes less than to sort.
  if (!std::is_sorted(values.begin(), values.end(), isBefore)) {
    std::stable_sort(values.begin(), values.end(), isBefore);
  }
  return values;
}

Part wholeOf(const Run &run) {
  Part part{run};
  part.items = announcedBy(run);
  part.values = sortedValues(run);
  return part;
}

Part changesOf(const Run &before, const Run &run) {
  Part part{run, &before};
  part.identity = run.identity && (!before.identity || run.identity->bytes != before.identity->bytes);
  part.items = missingFrom(before, run);
  if (run.whole) part.goneItems = missingFrom(run, before);
  compareValues(part);
  return part;
}

bool isEmpty(const Part &changes) {
  return !changes.identity && changes.items.empty() && changes.goneItems.empty() && changes.values.empty() &&
         changes.gone.empty();
}

}  // namespace kepserver
