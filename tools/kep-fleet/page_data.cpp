// page_data.cpp: runs decoded, named, compared and laid out for the page.

#include "kep-fleet/page_data.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "server/meant.hpp"
#include "server/named_run.hpp"
#include "server/text.hpp"

namespace kepfleet {

namespace {

using Json = nlohmann::json;
using kepserver::NamedRun;
using kepserver::NamedValue;
using kepserver::Names;
using kepserver::printable;
using kepserver::Shown;
using kepserver::Value;
using kepserver::Verdict;

// What is shown of one run at most: a board may send a million records, and texts of megabytes.
constexpr size_t kMostValues = 4000;
constexpr size_t kMostLines = 500;          // of a log, the newest, and up to so many more
constexpr size_t kMostRemembered = 20'000;  // lines of the run before
constexpr size_t kMostText = 4000;

constexpr size_t kMostPoints = 6000;                  // of a plot
constexpr std::chrono::milliseconds kPlotTime{5000};  // it is cut short then
constexpr double kGap = 3;                            // times the usual distance of two points
constexpr std::chrono::milliseconds kRefresh{500};    // of the fleet's rows, at most so often

std::string dump(const Json &json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

std::string shortened(std::string_view text) {
  if (text.size() <= kMostText) return printable(text);
  return printable(text.substr(0, kMostText)) + " ...";
}

Json labelsOf(const BoardState &board) {
  Json labels = Json::object();
  for (const auto &[name, value] : board.labels) labels[printable(name)] = shortened(value);
  return labels;
}

const char *stateOf(const BoardState &board) {
  if (!board.problem.empty()) return "failing";
  return board.answers ? "well" : "unknown";
}

Json boardRow(const BoardState &board) {
  Json row = {{"name", board.config.name},
              {"address", board.config.host},
              {"labels", labelsOf(board)},
              {"state", stateOf(board)},
              {"since", board.since}};
  if (board.config.port != BoardConfig().port)
    row["address"] = board.config.host + ":" + std::to_string(board.config.port);
  if (!board.problem.empty()) row["problem"] = shortened(board.problem);
  if (!board.isHeld) row["isHeld"] = false;
  return row;
}

Json runRow(const Run &run, size_t bytes) {
  Json row = {{"started", run.started},   {"type", run.type},         {"outcome", nameOf(run.outcome)},
              {"duration", run.duration}, {"messages", run.messages}, {"bytes", bytes}};
  if (!run.reason.empty()) row["reason"] = shortened(run.reason);
  return row;
}

const char *nameOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::kPass: return "PASS";
    case Verdict::kFail: return "FAIL";
    default: return "";
  }
}

int64_t nowMilliseconds() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

// ---- one run

// Which field of its key's a value is; 0 also where it is the whole value.
size_t fieldOf(const Shown &shown) {
  if (!shown.key || shown.meaning == &shown.key->meaning) return 0;
  const auto &fields = shown.key->fields;
  const auto found =
      std::find_if(fields.begin(), fields.end(), [&](const auto &f) { return &f.meaning == shown.meaning; });
  return static_cast<size_t>(found - fields.begin());
}

// What a number is in a plot; empty: it has no place in one.
std::optional<double> plotted(const Shown &shown) {
  if (!shown.sent.number || shown.misfit) return std::nullopt;
  const bool isTime = shown.meaning && shown.number.empty() && !shown.meaning->kind && !shown.sent.hexadecimal;
  if (isTime) return std::nullopt;
  const double number = shown.number.empty()
                            ? std::visit([](auto n) { return static_cast<double>(n); }, *shown.sent.number)
                            : std::strtod(shown.number.c_str(), nullptr);
  return std::isfinite(number) ? std::optional(number) : std::nullopt;
}

// Where a value stands: the same in every run, unless the board counts its items anew.
using Place = std::tuple<std::string, int32_t, int32_t, size_t, size_t>;  // item, section, key, field, which of equals

// What a run said, to compare another one with it.
struct Before {
  std::map<Place, std::string> values;
  std::set<std::pair<Place, std::string>> lines;
};

// Counts values of the same place.
class Places {
 public:
  Place of(const kepserver::Run &run, const Value &value, size_t field) {
    Place place(kepserver::itemName(run, value), value.section, value.key, field, 0);
    std::get<4>(place) = counts_[place]++;
    return place;
  }

 private:
  std::map<Place, size_t> counts_;
};

std::string numbered(std::string_view what, int32_t number) { return std::string(what) + " " + std::to_string(number); }

// Lays out one run, its values by item and section, beside what was before.
class RunLayout {
 public:
  RunLayout(const NamedRun &named, const Before *before) : named_(named), before_(before) {}

  Json layOut();

  // What there is to compare with, of a run of before.
  static Before remember(const NamedRun &named);

 private:
  static bool isLine(const NamedValue &value);
  Json &sectionOf(const NamedValue &value);
  void putValue(const NamedValue &value, const Shown &shown);
  void putLine(const NamedValue &value);
  void putVerdicts();
  void putEnd();

  const NamedRun &named_;
  const Before *const before_;
  Json items_ = Json::array();
  const Value *last_ = nullptr;  // the value in front
  Places places_;
  std::map<Place, std::string> gone_;
  size_t count_ = 0, leftOut_ = 0;
  kepserver::Tally tests_;  // of a self-test
};

bool RunLayout::isLine(const NamedValue &value) {
  return value.key && value.key->meaning.kind == kepserver::Kind::kLog && !value.shown.empty() &&
         !value.shown[0].sent.number;
}

std::string lineOf(const NamedValue &value) {
  return std::string(value.time) + "\n" + std::string(value.shown[0].text);
}

Before RunLayout::remember(const NamedRun &named) {
  Before before;
  Places places;
  const kepserver::Run &run = named.run();
  named.forEach([&](const NamedValue &value) {
    if (value.isTime || value.isSection) return;
    if (isLine(value)) {
      if (before.lines.size() < kMostRemembered)
        before.lines.emplace(Place(itemName(run, *value.value), value.value->section, value.value->key, 0, 0),
                             lineOf(value));
      return;
    }
    for (const Shown &shown : value.shown) {
      if (before.values.size() >= kMostValues) return;
      before.values.emplace(places.of(run, *value.value, fieldOf(shown)), shortened(shown.text));
    }
  });
  return before;
}

// Of the value's item, a new one where the value in front is of another.
Json &RunLayout::sectionOf(const NamedValue &value) {
  const Value &sent = *value.value;
  const bool sameItem = last_ && last_->item == sent.item && last_->testedCount == sent.testedCount;
  if (!sameItem) {
    const std::string_view name = itemName(named_.run(), sent);
    items_.push_back({{"item", sent.item},
                      {"name", name.empty() ? numbered("item", sent.item) : printable(name)},
                      {"sections", Json::array()}});
  }
  Json &sections = items_.back()["sections"];
  if (!sameItem || last_->section != sent.section) {
    const kepserver::Item *const item = named_.item(sent);
    std::string name = printable(value.sectionName);
    if (name.empty() && sent.section != 0) {
      name = numbered(item && !item->sections.label.empty() ? item->sections.label : "section", sent.section);
    }
    sections.push_back({{"section", sent.section}, {"name", name}, {"values", Json::array()}, {"logs", Json::array()}});
  }
  last_ = &sent;
  return sections.back();
}

void RunLayout::putValue(const NamedValue &value, const Shown &shown) {
  const Value &sent = *value.value;
  const std::string name = shown.name();
  Json row = {{"key", sent.key},
              {"field", fieldOf(shown)},
              {"name", name.empty() ? numbered("key", sent.key) : printable(name)},
              {"text", shortened(shown.text)}};
  if (kepserver::isNumber(shown)) row["isNumber"] = true;
  if (plotted(shown)) row["plots"] = true;
  if (shown.misfit) row["misfit"] = true;
  if (shown.meaning) {
    if (!shown.misfit && !shown.meaning->unit.empty()) row["unit"] = shown.meaning->unit;
    if (shown.meaning->kind) row["kind"] = kepserver::nameOf(*shown.meaning->kind);
    if (!shown.meaning->help.empty()) row["help"] = shown.meaning->help;
  }
  if (shown.verdict != Verdict::kNone) row["verdict"] = nameOf(shown.verdict);
  if (before_) {
    const Place place = places_.of(named_.run(), sent, fieldOf(shown));
    const auto was = before_->values.find(place);
    if (was == before_->values.end()) {
      row["isNew"] = true;
    } else if (was->second != row["text"].get_ref<const std::string &>()) {
      row["was"] = was->second;
    }
    gone_.erase(place);
  }
  sectionOf(value)["values"].push_back(std::move(row));
}

void RunLayout::putLine(const NamedValue &value) {
  const Value &sent = *value.value;
  Json &logs = sectionOf(value)["logs"];
  if (logs.empty() || logs.back()["key"] != sent.key) {
    const std::string name = value.shown[0].name();
    logs.push_back({{"key", sent.key}, {"name", printable(name)}, {"lines", Json::array()}});
    ++count_;
  }
  Json line = {{"text", shortened(value.shown[0].text)}};
  if (!value.time.empty()) {
    const std::string full = named_.fullTime(value.time);
    line["time"] = full.empty() ? printable(value.time) : full;
  }
  const Place place(itemName(named_.run(), sent), sent.section, sent.key, 0, 0);
  if (before_ && before_->lines.count({place, lineOf(value)}) == 0) line["isNew"] = true;
  Json &lines = logs.back()["lines"];
  if (lines.size() >= 2 * kMostLines) lines.erase(lines.begin(), lines.begin() + kMostLines);
  lines.push_back(std::move(line));
}

// What is missing of a self-test stands beside what came, and each item has a verdict.
void RunLayout::putVerdicts() {
  const kepserver::Judgement judgement = kepserver::judge(named_.names(), named_.run());
  std::map<std::string, Json> missing;  // by item
  for (const kepserver::MissingTest &test : judgement.missing) {
    missing[printable(test.item)].push_back({{"name", test.name}, {"text", "missing"}, {"verdict", "FAIL"}});
  }
  std::map<std::string, size_t> places;  // of items that have a name
  for (size_t i = 0; i < items_.size(); ++i) places.emplace(items_[i]["name"].get<std::string>(), i);
  for (const kepserver::ItemResult &result : judgement.items) {
    const std::string name = printable(result.item);
    if (items_.size() >= kMostValues && places.count(name) == 0) {
      ++leftOut_;
      continue;
    }
    const auto [place, isNew] = places.emplace(name, items_.size());
    if (isNew) items_.push_back({{"name", name}, {"sections", Json::array()}});
    Json &item = items_[place->second];
    if (result.tests.verdict() != Verdict::kNone) item["verdict"] = nameOf(result.tests.verdict());
    if (missing[name].empty()) continue;
    item["sections"].push_back({{"name", ""}, {"values", std::move(missing[name])}, {"logs", Json::array()}});
  }
  tests_ = judgement.tests;
}

void RunLayout::putEnd() {
  if (leftOut_ > 0) gone_.clear();  // what is not shown may be there
  Json gone = Json::array();
  for (const auto &[place, text] : gone_) {
    gone.push_back({{"item", printable(std::get<0>(place))},
                    {"section", std::get<1>(place)},
                    {"key", std::get<2>(place)},
                    {"was", text}});
    if (gone.size() >= kMostLines) break;
  }
  items_ = {{"items", std::move(items_)}, {"gone", std::move(gone)}, {"leftOut", leftOut_}};
  if (!named_.run().selfTest) return;
  items_["tests"] = tests_.count;
  items_["failed"] = tests_.failed;
}

Json RunLayout::layOut() {
  if (before_) gone_ = before_->values;
  named_.forEach([this](const NamedValue &value) {
    if (value.isTime || value.isSection) return;
    if (isLine(value) && count_ < kMostValues) return putLine(value);
    for (const Shown &shown : value.shown) {
      if (++count_ > kMostValues) {
        ++leftOut_;
      } else {
        putValue(value, shown);
      }
    }
  });
  if (named_.run().selfTest) putVerdicts();
  putEnd();
  return std::move(items_);
}

Json layOut(const Names &names, const Run &run, const std::optional<Run> &previous) {
  Json json;
  const DecodingTurn turn(std::max(run.stream.size(), previous ? previous->stream.size() : 0));
  const kepserver::Run decoded = decode(run);
  const kepserver::Part part = kepserver::wholeOf(decoded);
  const NamedRun named(names, part, run.started / 1000);
  if (previous) {
    const kepserver::Run decodedBefore = decode(*previous);
    const kepserver::Part partBefore = kepserver::wholeOf(decodedBefore);
    const Before before = RunLayout::remember(NamedRun(names, partBefore, previous->started / 1000));
    json = RunLayout(named, &before).layOut();
    json["before"] = previous->started;
  } else {
    json = RunLayout(named, nullptr).layOut();
  }
  json.update(runRow(run, sentBytes(run)));
  return json;
}

// ---- plots

// Where the plotted value stands in each run.
class PlotReader {
 public:
  PlotReader(const Names &names, const PlotQuery &query, std::string item)
      : names_(names), query_(query), item_(std::move(item)) {}

  struct Point {
    double time = 0;  // seconds since 1970
    std::optional<double> number;
  };

  void take(const Run &run);
  void close();  // gaps, and of a counter how fast it grows

  bool isRate() const { return !query_.isRaw && meaning_ && meaning_->kind == kepserver::Kind::kCounter; }
  const kepserver::Meaning *meaning() const { return meaning_; }
  const std::string &name() const { return name_; }
  const std::vector<Point> &points() const { return points_; }

 private:
  std::optional<double> find(const Run &run);

  const Names &names_;
  const PlotQuery &query_;
  const std::string item_;
  const kepserver::Meaning *meaning_ = nullptr;
  std::string name_;
  std::vector<Point> points_;
};

std::optional<double> PlotReader::find(const Run &run) {
  if (!isWhole(run)) return std::nullopt;
  const DecodingTurn turn(run.stream.size());
  const kepserver::Run decoded = decode(run);
  const kepserver::Item *const item = names_.item(item_);
  std::vector<Shown> shown;
  for (const Value &value : decoded.values) {
    if (value.key != query_.key || value.section != query_.section || itemName(decoded, value) != item_) continue;
    const kepserver::KeySet *const keys = !item ? nullptr : decoded.selfTest ? &item->tests : &item->keys;
    shown.clear();
    kepserver::present(names_, keys ? keys->find(value.section, value.key) : nullptr, sentOf(value), shown);
    for (const Shown &one : shown) {
      if (fieldOf(one) != query_.field) continue;
      if (one.meaning) meaning_ = one.meaning;
      name_ = one.name();
      return plotted(one);
    }
  }
  return std::nullopt;
}

void PlotReader::take(const Run &run) { points_.push_back({static_cast<double>(run.started) / 1000, find(run)}); }

void PlotReader::close() {
  if (points_.size() == 1 && isRate()) points_[0].number.reset();
  if (points_.size() < 2) return;
  std::vector<double> distances;
  for (size_t i = 1; i < points_.size(); ++i) distances.push_back(points_[i].time - points_[i - 1].time);
  std::nth_element(distances.begin(), distances.begin() + static_cast<ptrdiff_t>(distances.size() / 2),
                   distances.end());
  const double longest = kGap * distances[distances.size() / 2];
  std::vector<Point> points;
  Point last = {0, std::nullopt};
  for (const Point &point : points_) {
    if (!points.empty() && point.time - last.time > longest) {
      last = {(last.time + point.time) / 2, std::nullopt};
      points.push_back(last);
    }
    points.push_back(point);
    if (isRate()) {
      std::optional<double> &rate = points.back().number;
      if (point.number) rate = last.number ? std::optional(*point.number - *last.number) : std::nullopt;
      if (rate) *rate /= point.time - last.time;
      if (rate && !(*rate >= 0 && std::isfinite(*rate))) rate.reset();  // it began anew
    }
    last = point;
  }
  points_ = std::move(points);
}

// The item's name, by which it is found also where the board counts its items anew.
std::string nameOfItem(Store &store, const BoardState &board, const PlotQuery &query) {
  RunPointer run = board.lastWhole[static_cast<size_t>(query.type)];
  if (!run) return "";
  if (run->leftOut > 0) {
    RunQuery last;
    last.board = run->board;
    last.type = run->type;
    last.wholeOnly = last.newestFirst = last.withStreams = true;
    last.limit = 1;
    store.runs(last, [&run](StoredRun &&stored) {
      run = std::make_shared<const Run>(std::move(stored.run));
      return true;
    });
  }
  const DecodingTurn turn(run->stream.size());
  const kepserver::Run decoded = decode(*run);
  const auto found = std::find_if(decoded.values.begin(), decoded.values.end(),
                                  [&](const Value &value) { return value.item == query.item; });
  return found == decoded.values.end() ? "" : std::string(itemName(decoded, *found));
}

// A run that memory has no room for, as it is stored; as long as it is not, the one before it.
RunPointer stored(const Run &run, const std::function<std::optional<Run>(const Run &)> &before) {
  Run behind;
  behind.board = run.board;
  behind.type = run.type;
  behind.started = run.started + 1;
  return std::make_shared<const Run>(before(behind).value_or(run));
}

}  // namespace

// ---- the fleet

void FleetRows::refresh() {
  const auto now = std::chrono::steady_clock::now();
  const uint64_t seen = boards_.version();
  if (seen_ == seen || (seen_ && now - refreshed_ < kRefresh)) return;
  seen_ = seen;
  refreshed_ = now;
  const std::vector<BoardState> boards = boards_.all();
  const bool sameBoards = boards.size() == rows_.size() && std::equal(boards.begin(), boards.end(), rows_.begin(),
                                                                      [](const BoardState &board, const Row &row) {
                                                                        return board.config.name == row.name;
                                                                      });
  if (!sameBoards || epoch_ == 0) {
    // Not one that another process gave before.
    epoch_ = std::max(epoch_ + 1, static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()));
    rows_.assign(boards.size(), {});
  }
  ++version_;
  for (size_t i = 0; i < boards.size(); ++i) {
    std::string json = dump(boardRow(boards[i]));
    if (json == rows_[i].json) continue;
    rows_[i] = {boards[i].config.name, std::move(json), stateOf(boards[i]), version_};
  }
}

uint64_t FleetRows::knownIn(const std::string &version) const {
  if (version.rfind(epoch(), 0) != 0) return 0;
  return std::strtoull(version.c_str() + epoch().size(), nullptr, 10);
}

size_t FleetRows::newTo(const std::string &version) {
  const std::lock_guard lock(mutex_);
  refresh();
  const uint64_t known = knownIn(version);
  const auto isNew = [known](const Row &row) { return row.version > known; };
  return static_cast<size_t>(std::count_if(rows_.begin(), rows_.end(), isNew));
}

std::string FleetRows::since(const std::string &version, const Health &health, bool mayAct) {
  const std::lock_guard lock(mutex_);
  refresh();
  const uint64_t known = knownIn(version);
  std::map<std::string, size_t> counts;
  std::string rows;
  for (const Row &row : rows_) {
    ++counts[row.state];
    if (row.version > known) rows += (rows.empty() ? "" : ",\n") + row.json;
  }
  Json head = {{"version", epoch() + std::to_string(version_)},
               {"all", known == 0},
               {"now", nowMilliseconds()},
               {"counts", counts},
               {"mayAct", mayAct},
               {"held", health.heldBoards},
               {"underWay", health.runsUnderWay},
               {"droppedRuns", health.droppedRuns}};
  if (!health.store.empty()) head["store"] = shortened(health.store);
  if (!health.leases.empty()) head["leases"] = shortened(health.leases);
  std::string json = dump(head);
  json.back() = ',';
  return json + "\"boards\":[" + rows + "]}";
}

// ---- a board

std::string boardVersion(const BoardState &board) {
  std::string version = std::string(stateOf(board)) + std::to_string(board.since) + (board.isHeld ? "h" : "");
  for (const RunPointer &run : board.last) version += "-" + (run ? std::to_string(run->started) : "");
  return version;
}

// One run of before is in memory at a time.
std::string boardJson(const BoardState &board, const Names &names,
                      const std::function<std::optional<Run>(const Run &)> &before) {
  Json json = boardRow(board);
  json["version"] = boardVersion(board);
  json["now"] = nowMilliseconds();
  json["identity"] = kepserver::hex(board.identity);
  if (!names.title.empty()) json["title"] = names.title;
  json["last"] = json["runs"] = Json::array();
  for (size_t type = 0; type < kTypes; ++type) {
    const RunPointer &last = board.last[type];
    RunPointer run = board.lastWhole[type] ? board.lastWhole[type] : last;
    if (last) json["last"].push_back(runRow(*last, sentBytes(*last)));
    if (!run || sentBytes(*run) == 0) continue;
    std::optional<Run> previous;
    try {
      if (!json.contains("store") && run->leftOut > 0) run = stored(*run, before);
      if (!json.contains("store")) previous = before(*run);
    } catch (const std::runtime_error &error) {
      json["store"] = shortened(error.what());
    }
    json["runs"].push_back(layOut(names, *run, previous));
  }
  return dump(json);
}

std::string askedJson(const Names &names, const Run &run) { return dump(layOut(names, run, std::nullopt)); }

// ---- history

std::string plotJson(Store &store, const BoardState &board, const Names &names, const PlotQuery &query) {
  PlotReader reader(names, query, nameOfItem(store, board, query));
  RunQuery runs;
  runs.board = board.config.name;
  runs.from = query.from;
  runs.to = query.to;
  runs.type = query.type;
  runs.spread = kMostPoints;
  runs.withStreams = true;
  const auto deadline = std::chrono::steady_clock::now() + kPlotTime;
  bool isCutShort = false;
  store.runs(runs, [&](StoredRun &&stored) {
    reader.take(stored.run);
    isCutShort = query.isEnding() || std::chrono::steady_clock::now() > deadline;
    return !isCutShort;
  });
  const size_t count = reader.points().size();
  reader.close();
  Json json = {{"from", query.from},      {"to", query.to},         {"runs", count}, {"name", printable(reader.name())},
               {"rate", reader.isRate()}, {"cutShort", isCutShort}, {"unit", ""},    {"kind", ""}};
  if (const kepserver::Meaning *const meaning = reader.meaning()) {
    json["unit"] = meaning->unit;
    if (meaning->kind) json["kind"] = kepserver::nameOf(*meaning->kind);
    for (const auto &[number, word] : meaning->states) json["states"][std::to_string(number)] = word;
  }
  Json times = Json::array(), numbers = Json::array();
  for (const PlotReader::Point &point : reader.points()) {
    times.push_back(point.time);
    numbers.push_back(point.number ? Json(*point.number) : Json());
  }
  json["times"] = std::move(times);
  json["numbers"] = std::move(numbers);
  return dump(json);
}

std::string runsJson(Store &store, const RunQuery &query) {
  Json runs = Json::array();
  store.runs(query, [&](StoredRun &&stored) {
    runs.push_back(runRow(stored.run, stored.bytes));
    runs.back()["id"] = stored.id;
    return true;
  });
  return dump({{"now", nowMilliseconds()}, {"runs", std::move(runs)}});
}

std::string eventsJson(Store &store, const EventQuery &query) {
  Json events = Json::array();
  for (const Event &event : store.events(query)) {
    events.push_back(
        {{"board", event.board}, {"time", event.time}, {"kind", nameOf(event.kind)}, {"text", shortened(event.text)}});
  }
  return dump({{"now", nowMilliseconds()}, {"events", std::move(events)}});
}

std::string healthJson(const Health &health, bool withReasons) {
  Json json = {{"ok", health.store.empty() && health.leases.empty()}};
  if (withReasons) {
    json.update({{"store", printable(health.store)},
                 {"removal", printable(health.removal)},
                 {"leases", printable(health.leases)},
                 {"heldBoards", health.heldBoards},
                 {"runsUnderWay", health.runsUnderWay},
                 {"waitingRuns", health.waitingRuns},
                 {"waitingBytes", health.waitingBytes},
                 {"droppedRuns", health.droppedRuns},
                 {"refusedRuns", health.refusedRuns},
                 {"refusedEvents", health.refusedEvents}});
  }
  return dump(json);
}

std::string problemJson(const std::string &problem) { return dump({{"problem", printable(problem)}}); }

}  // namespace kepfleet
