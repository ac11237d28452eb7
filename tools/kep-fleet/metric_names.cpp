// metric_names.cpp: kep_, the item, the name, the base unit, _total for a counter.

#include "kep-fleet/metric_names.hpp"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "kep-fleet/units.hpp"

namespace kepfleet {

using namespace kepserver;

namespace {

constexpr const char *kOwn = "kep-fleet itself";

struct OwnMetric {
  const char *name;
  MetricType type;
  const char *help;
};

// In the order of OwnFamily.
constexpr OwnMetric kOwnMetrics[] = {
    {"kep_up", MetricType::kGauge, "Whether the last run of the board came whole, and in time"},
    {"kep_run_seconds", MetricType::kGauge, "How long the last run took"},
    {"kep_run_messages", MetricType::kGauge, "Whole messages of the last run"},
    {"kep_run_bytes", MetricType::kGauge, "Bytes of the last run"},
    {"kep_last_whole_run_age_seconds", MetricType::kGauge, "Time since the last run began that came whole"},
    {"kep_value", MetricType::kUntyped, "A number that no names file names"},
    {"kep_selftest_value", MetricType::kUntyped, "A number of a self-test that no names file names"},
    {"kep_selftest_passed", MetricType::kGauge, "Whether all tests of the item passed that have a rule"},
    {"kep_fleet_boards", MetricType::kGauge, "Boards of the configuration"},
    {"kep_fleet_held_boards", MetricType::kGauge, "Boards that this instance asks"},
    {"kep_fleet_store_up", MetricType::kGauge, "Whether the store takes runs"},
    {"kep_fleet_leases_up", MetricType::kGauge, "Whether this instance has its leases, or needs none"},
    {"kep_fleet_runs_under_way", MetricType::kGauge, "Runs that have begun and not ended"},
    {"kep_fleet_waiting_runs", MetricType::kGauge, "Runs that wait for the store"},
    {"kep_fleet_waiting_bytes", MetricType::kGauge, "Bytes of runs that wait for the store"},
    {"kep_fleet_started_runs_total", MetricType::kCounter, "Runs that have begun"},
    {"kep_fleet_whole_runs_total", MetricType::kCounter, "Runs that came whole"},
    {"kep_fleet_dropped_runs_total", MetricType::kCounter, "Runs that the store did not take in time"},
    {"kep_fleet_refused_runs_total", MetricType::kCounter, "Runs of boards whose lease was lost"},
    {"kep_fleet_refused_events_total", MetricType::kCounter, "Events of boards whose lease was lost"},
    {"kep_fleet_skipped_polls_total", MetricType::kCounter, "Requests left out, their time long past"},
    {"kep_fleet_strangers_total", MetricType::kCounter, "Connections that carried no number that was awaited"},
    {"kep_fleet_started_alarms_total", MetricType::kCounter, "Commands that were run for events"},
    {"kep_fleet_failed_alarms_total", MetricType::kCounter, "Commands for events that failed, or took too long"},
    {"kep_fleet_dropped_alarms_total", MetricType::kCounter, "Events for which no command was run: too many waited"},
    {"kep_fleet_series_left_out_total", MetricType::kCounter, "Samples that were left out of answers"},
};
static_assert(std::size(kOwnMetrics) == kOwnFamilies, "one for each");

std::string describe(const Family &family) {
  if (family.hasStates) return "states";
  const char *const type = family.type == MetricType::kGauge     ? "a gauge"
                           : family.type == MetricType::kCounter ? "a counter"
                                                                 : "a number of no kind";
  return type + (family.unit.empty() ? " without a unit" : " in " + family.unit);
}

bool endsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// Joined by _, an ending that is there already left out.
std::string extended(const std::string &name, const std::string &end) {
  return end.empty() || endsWith(name, "_" + end) ? name : name + "_" + end;
}

// Empty: too large or too small to stay exact.
std::optional<Decimal> product(const Decimal &number, const Decimal &factor) {
  if (number.decimals() + factor.decimals() > Decimal::kMostDecimals) return std::nullopt;
  return Decimal::parse((number * factor).text());
}

std::map<std::string, std::set<int64_t>> wordsOf(const std::map<int64_t, std::string> &words) {
  std::map<std::string, std::set<int64_t>> numbers;
  for (const auto &[number, word] : words) numbers[word].insert(number);
  return numbers;
}

}  // namespace

std::string MetricNames::Place::text() const {
  std::string table = "[item." + item + (isTest ? ".tests" : ".keys");
  if (section) table += "_in." + std::to_string(*section);
  table += "] " + std::to_string(key);
  return field == 0 ? table : table + ", field " + std::to_string(field);
}

// What is said of one section goes before what is said of all.
bool MetricNames::Place::meets(const Place &other) const {
  if (item != other.item || isTest != other.isTest) return true;
  if (section && other.section && section != other.section) return false;
  return key != other.key || section == other.section;
}

MetricNames::MetricNames(const std::map<std::string, NamesPointer> &files) : files_(files) {
  for (const OwnMetric &own : kOwnMetrics) {
    byName_.emplace(own.name, families_.size());
    families_.push_back({own.name, own.type, "", false, own.help, kOwn});
  }
  for (const auto &[path, names] : files_) addFile(path, *names);
  places_.clear();
}

void MetricNames::addFile(const std::string &path, const Names &names) {
  places_.clear();
  for (const auto &[name, item] : names.items) {
    for (const bool isTest : {false, true}) {
      const KeySet &set = isTest ? item.tests : item.keys;
      Place place{path, name, isTest, std::nullopt, 0, 0};
      addKeys(set.keys, place);
      for (const auto &[section, keys] : set.in) {
        place.section = section;
        addKeys(keys, place);
      }
    }
  }
}

void MetricNames::addKeys(const Keys &keys, const Place &place) {
  for (const auto &[id, key] : keys) {
    Place at = place;
    at.key = id;
    if (key.fields.empty()) addMeaning(key.meaning, key.meaning.name, at);
    for (const Field &field : key.fields) {
      ++at.field;
      const bool isNumber =
          field.layout == Layout::kUnsigned || field.layout == Layout::kSigned || field.layout == Layout::kReal;
      if (!isNumber || field.hexadecimal || field.meaning.name.empty()) continue;
      addMeaning(field.meaning, key.meaning.name + " " + field.meaning.name, at);
    }
  }
}

void MetricNames::addMeaning(const Meaning &meaning, const std::string &name, const Place &place) {
  if (meaning.kind && !meaning.isNumber()) return;
  const BaseUnit base = meaning.unit.empty() ? BaseUnit{"", Decimal(int64_t{1})} : baseUnitOf(meaning.unit);
  Family family;
  family.type = !meaning.kind                    ? MetricType::kUntyped
                : meaning.kind == Kind::kCounter ? MetricType::kCounter
                                                 : MetricType::kGauge;
  family.hasStates = meaning.kind == Kind::kState;
  family.unit = base.name;
  const std::string item = plainWord(place.item), word = plainWord(name);
  family.name = place.isTest ? "kep_selftest_" : "kep_";
  family.name += (item.empty() ? "item" : item) + "_";
  family.name += word.empty() ? "key_" + plainWord(std::to_string(place.key)) : word;
  family.name = extended(extended(family.name, base.name), family.type == MetricType::kCounter ? "total" : "");
  family.help = meaning.help.empty() ? place.item + ": " + name : meaning.help;
  if (meaning.help.empty() && !base.name.empty()) family.help += ", in " + base.name;

  MetricPlan plan;
  plan.number.meaning.kind = meaning.kind;
  plan.number.meaning.scale = meaning.scale;
  plan.number.meaning.offset = meaning.offset;
  if (!(base.factor == Decimal(int64_t{1}))) {
    plan.number.meaning.scale = product(meaning.scale.value_or(Decimal(int64_t{1})), base.factor);
    if (meaning.offset) plan.number.meaning.offset = product(*meaning.offset, base.factor);
    if (!plan.number.meaning.scale || plan.number.meaning.offset.has_value() != meaning.offset.has_value()) {
      throw ConfigError{place.path, 0, place.text() + ": the scale is too large, or too small, for " + meaning.unit};
    }
  }
  plan.isState = family.hasStates;
  plan.isBits = !meaning.bits.empty();
  plan.words = wordsOf(plan.isBits ? meaning.bits : meaning.states);
  plan.family = familyOf(std::move(family), place);
  plans_.emplace(&meaning, std::move(plan));
}

size_t MetricNames::familyOf(Family family, const Place &place) {
  family.origin = place.path + " " + place.text();
  const auto [known, isNew] = byName_.emplace(family.name, families_.size());
  if (isNew) families_.push_back(family);
  const Family &first = families_[known->second];
  if (first.origin == kOwn) {
    throw ConfigError{place.path, 0, place.text() + ": " + family.name + " is a metric of kep-fleet's own"};
  }
  if (describe(first) != describe(family)) {
    throw ConfigError{place.path, 0,
                      place.text() + ": " + family.name + " is " + describe(family) + ", but " + describe(first) +
                          " in " + first.origin};
  }
  std::vector<Place> &others = places_[known->second];
  for (const Place &other : others) {
    if (place.meets(other)) {
      throw ConfigError{place.path, 0, place.text() + ": " + family.name + ", as is " + other.text()};
    }
  }
  others.push_back(place);
  return known->second;
}

const MetricPlan *MetricNames::find(const Meaning *meaning) const {
  const auto found = plans_.find(meaning);
  return found == plans_.end() ? nullptr : &found->second;
}

bool MetricNames::knows(const Names &names) const {
  return names.items.empty() ||
         std::any_of(files_.begin(), files_.end(), [&](const auto &file) { return file.second.get() == &names; });
}

}  // namespace kepfleet
