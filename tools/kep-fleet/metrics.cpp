// metrics.cpp: what becomes of boards' runs as samples.

#include "kep-fleet/metrics.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "server/present.hpp"
#include "server/stream.hpp"
#include "server/text.hpp"

namespace kepfleet {

namespace {

using namespace kepserver;
using std::chrono::milliseconds;
using ServerRun = kepserver::Run;
using FleetRun = kepfleet::Run;

constexpr std::chrono::minutes kBetweenWords{1};
constexpr std::chrono::hours kByHand{1};  // so long a run counts that no schedule makes

// ---- texts

std::string label(std::string_view name, std::string_view value) {
  return std::string(name) + "=\"" + labelValue(value) + "\"";
}

// The names of the others are valid, and none that the server uses: the configuration is refused otherwise.
std::string boardLabels(const BoardState &board) {
  std::string labels = label("board", board.config.name);
  for (const auto &[name, value] : board.labels) labels += "," + label(name, value);
  return labels;
}

std::string secondsText(int64_t thousandths) {
  const std::string fraction = std::to_string(1000 + std::max<int64_t>(thousandths, 0) % 1000).substr(1);
  return std::to_string(std::max<int64_t>(thousandths, 0) / 1000) + "." + fraction;
}

std::string wholeText(const Sent &sent) {
  return std::visit([](auto number) { return std::to_string(number); }, *sent.number);
}

// As Prometheus writes what is no number in decimal.
std::string numberText(const std::string &text) {
  if (text == "inf") return "+Inf";
  if (text == "-inf") return "-Inf";
  return text == "nan" || text == "-nan" ? "NaN" : text;
}

// ---- states

bool isAmong(const std::set<int64_t> &numbers, const Sent &sent, bool areBits) {
  const auto *const asSigned = std::get_if<int64_t>(&*sent.number);
  const auto *const asUnsigned = std::get_if<uint64_t>(&*sent.number);
  if (!asSigned && !asUnsigned) return false;
  const uint64_t bits = asSigned ? static_cast<uint64_t>(*asSigned) : *asUnsigned;
  if (!areBits) return (asSigned || bits <= INT64_MAX) && numbers.count(static_cast<int64_t>(bits)) != 0;
  const auto isSet = [&](int64_t bit) { return bit < static_cast<int64_t>(8 * sent.size) && (bits >> bit & 1) != 0; };
  return std::any_of(numbers.begin(), numbers.end(), isSet);
}

// ---- one run

// Adds what a run says to the samples of its board.
class RunSamples {
 public:
  using Add = std::function<void(size_t family, const std::string &labels, const std::string &number)>;

  RunSamples(const MetricNames &metrics, const Names &names, const ServerRun &run, Add add)
      : metrics_(metrics), names_(names), run_(run), lookup_(names, run), add_(std::move(add)) {}

  void addAll() {
    for (const Value &value : run_.values) addValue(value);
    if (!run_.selfTest) return;
    for (const ItemResult &result : judge(names_, run_).items) {
      if (result.tests.count == 0) continue;
      add_(kTestPassed, label("item", result.item), result.tests.failed == 0 ? "1" : "0");
    }
  }

 private:
  void addValue(const Value &value) {
    const Key *const key = lookup_.key(value);
    const Sent sent = sentOf(value);
    if (!key || (!key->fields.empty() && sent.number)) return addUnnamed(value, sent);
    if (key->fields.empty()) return addNamed(value, key->meaning, sent);
    std::vector<Shown> fields;
    present(names_, key, sent, fields);
    for (const Shown &field : fields) {
      if (!field.misfit) addNamed(value, *field.meaning, field.sent);
    }
  }

  // A number that its name does not fit is one without a name.
  void addNamed(const Value &value, const Meaning &meaning, const Sent &sent) {
    const MetricPlan *const plan = metrics_.find(&meaning);
    if (plan && plan->isState) return addStates(value, *plan, sent);
    if (!plan && meaning.kind) return addUnnamed(value, sent);
    if (!plan || !sent.number) return;
    shown_.clear();
    present(names_, &plan->number, sent, shown_);
    add_(plan->family, sectionOf(value), numberText(shown_[0].number));
  }

  void addStates(const Value &value, const MetricPlan &plan, const Sent &sent) {
    const std::string section = sectionOf(value);
    const std::string before = section.empty() ? "" : section + ",";
    if (plan.words.empty()) {
      const std::string text = sent.number ? wholeText(sent) : std::string(sent.bytes);
      return add_(plan.family, before + label("state", text), "1");
    }
    if (!sent.number) return;
    for (const auto &[word, numbers] : plan.words) {
      add_(plan.family, before + label("state", word), isAmong(numbers, sent, plan.isBits) ? "1" : "0");
    }
  }

  void addUnnamed(const Value &value, const Sent &sent) {
    if (!sent.number) return;
    const std::string_view name = itemName(run_, value);
    const std::string item = name.empty() ? std::to_string(value.item) : std::string(name);
    std::string section = sectionOf(value);
    if (section.empty()) section = "section=\"0\"";
    add_(run_.selfTest ? kUnnamedTest : kUnnamed,
         label("item", item) + "," + section + ",key=\"" + std::to_string(value.key) + "\"", wholeText(sent));
  }

  // Nothing for what stands outside of any section.
  std::string sectionOf(const Value &value) const {
    const std::string name = lookup_.section(value);
    if (!name.empty()) return label("section", name);
    return value.section == 0 ? "" : "section=\"" + std::to_string(value.section) + "\"";
  }

  const MetricNames &metrics_;
  const Names &names_;
  const ServerRun &run_;
  const RunNames lookup_;
  const Add add_;
  std::vector<Shown> shown_;
};

}  // namespace

// ---- one answer

Metrics::Tables::Tables(const Config &config, const NamesBook &book)
    : names(book.all()), polls(config.polls), longestRun(config.limits.run) {}

struct Metrics::Answer {
  Answer(const Tables &all, const NamesBook &names, int64_t moment)
      : tables(all), book(names), now(moment), samples(all.names.families()) {}

  void addBoard(const BoardState &board);
  bool begin(const BoardState &board);
  void addFacts(const FleetRun &run, const FleetRun *lastWhole, bool isUp);
  void addNumbers(const BoardState &board, const FleetRun &run);
  void addHealth(const Health &health, size_t boardCount, uint64_t leftOutBefore);
  const Poll *pollOf(const BoardState &board, int type) const;
  bool isFresh(const FleetRun &run, const Poll *poll) const;
  void leaveOut(std::string what);

  const Tables &tables;
  const NamesBook &book;
  const int64_t now;
  Samples samples;
  std::unordered_set<std::string> boards;  // their labels
  uint64_t leftOut = 0;
  std::string example;  // of what was left out
};

void Metrics::Answer::leaveOut(std::string what) {
  ++leftOut;
  example = std::move(what);
}

// Names of boards are unique, but maybe not as far as a label goes.
bool Metrics::Answer::begin(const BoardState &board) {
  const bool isNew = boards.insert(labelValue(board.config.name)).second;
  if (isNew) {
    samples.begin(boardLabels(board));
  } else {
    leaveOut("board " + board.config.name + ", whose name begins as that of another");
  }
  return isNew;
}

const Poll *Metrics::Answer::pollOf(const BoardState &board, int type) const {
  for (const Poll &poll : tables.polls) {
    if (poll.type == type && hasLabels(board.config.labels, poll.labels)) return &poll;
  }
  return nullptr;
}

// Two periods without a run: what the last one said is no news any more.
bool Metrics::Answer::isFresh(const FleetRun &run, const Poll *poll) const {
  const milliseconds time = poll ? 2 * poll->every + tables.longestRun : milliseconds(kByHand);
  return run.started + time.count() >= now;
}

// Of what several types of request bring, the newest counts. A run by hand that is old leaves nothing: no other is
// missed.
void Metrics::Answer::addBoard(const BoardState &board) {
  if (!begin(board)) return;
  std::vector<const FleetRun *> runs;
  for (size_t type = 0; type < board.last.size(); ++type) {
    const FleetRun *const run = board.last[type].get();
    if (!run) continue;
    const Poll *const poll = pollOf(board, run->type);
    const bool isNews = isFresh(*run, poll);
    if (!poll && !isNews) continue;
    const bool isUp = isWhole(*run) && isNews;
    addFacts(*run, board.lastWhole[type].get(), isUp);
    if (isUp) runs.push_back(run);
  }
  std::sort(runs.begin(), runs.end(), [](const auto *a, const auto *b) { return a->started > b->started; });
  for (const FleetRun *const run : runs) addNumbers(board, *run);
}

void Metrics::Answer::addFacts(const FleetRun &run, const FleetRun *lastWhole, bool isUp) {
  const std::string type = "type=\"" + std::to_string(run.type) + "\"";
  samples.add(kUp, type, isUp ? "1" : "0");
  samples.add(kRunSeconds, type, secondsText(run.duration));
  samples.add(kRunMessages, type, std::to_string(run.messages));
  samples.add(kRunBytes, type, std::to_string(sentBytes(run)));
  if (lastWhole) samples.add(kLastWholeRunAge, type, secondsText(now - lastWhole->started));
}

void Metrics::Answer::addNumbers(const BoardState &board, const FleetRun &run) {
  if (run.leftOut > 0) return leaveOut("numbers of board " + board.config.name + ": its runs are too large");
  const DecodingTurn turn(run.stream.size());
  const ServerRun content = decode(run);
  const std::string identity = content.identity ? content.identity->bytes.substr(0, 2) : board.identity;
  const NamesPointer names = book.of(board.config, identity);
  if (!tables.names.knows(*names)) return leaveOut("numbers of board " + board.config.name + ": new names");
  RunSamples(tables.names, *names, content, [&](size_t family, const std::string &labels, const std::string &number) {
    if (samples.add(family, labels, number, run.type)) return;
    leaveOut(tables.names.families()[family].name + "{" + labels + "} of board " + board.config.name);
  }).addAll();
}

void Metrics::Answer::addHealth(const Health &health, size_t boardCount, uint64_t leftOutBefore) {
  samples.begin("");
  const auto add = [this](size_t family, uint64_t number) { samples.add(family, "", std::to_string(number)); };
  add(kFleetBoards, boardCount);
  add(kFleetHeldBoards, health.heldBoards);
  add(kFleetStoreUp, health.store.empty() ? 1 : 0);
  add(kFleetLeasesUp, health.leases.empty() ? 1 : 0);
  add(kFleetRunsUnderWay, health.runsUnderWay);
  add(kFleetWaitingRuns, health.waitingRuns);
  add(kFleetWaitingBytes, health.waitingBytes);
  add(kFleetStartedRuns, health.startedRuns);
  add(kFleetWholeRuns, health.wholeRuns);
  add(kFleetDroppedRuns, health.droppedRuns);
  add(kFleetRefusedRuns, health.refusedRuns);
  add(kFleetRefusedEvents, health.refusedEvents);
  add(kFleetSkippedPolls, health.skippedPolls);
  add(kFleetStrangers, health.strangers);
  add(kFleetStartedAlarms, health.startedAlarms);
  add(kFleetFailedAlarms, health.failedAlarms);
  add(kFleetDroppedAlarms, health.droppedAlarms);
  add(kFleetSeriesLeftOut, leftOutBefore + leftOut);
}

// ---- the public functions

Metrics::Metrics(const Config &config, const NamesBook &names)
    : names_(names), tables_(std::make_shared<const Tables>(config, names)) {}

void Metrics::configure(const Config &config) {
  auto tables = std::make_shared<const Tables>(config, names_);
  const std::lock_guard lock(mutex_);
  tables_ = std::move(tables);
}

std::shared_ptr<const Metrics::Tables> Metrics::tables() const {
  const std::lock_guard lock(mutex_);
  return tables_;
}

void Metrics::write(const Boards &boards, const Health &health, int64_t now, const Pieces &take) {
  const std::shared_ptr<const Tables> all = tables();
  Answer answer(*all, names_, now);
  std::vector<BoardState> states = boards.all();
  for (BoardState &state : states) {
    if (state.isHeld) answer.addBoard(state);
    state = {};  // what is done with takes no memory
  }
  answer.addHealth(health, states.size(), leftOut());
  countLeftOut(answer);
  answer.samples.write(take);
}

void Metrics::writeProbe(const BoardState &board, const FleetRun &run, int64_t now, const Pieces &take) {
  const std::shared_ptr<const Tables> all = tables();
  Answer answer(*all, names_, now);
  answer.begin(board);
  const auto type = static_cast<size_t>(run.type);
  answer.addFacts(run, isWhole(run) ? &run : board.lastWhole.at(type).get(), isWhole(run));
  if (isWhole(run)) answer.addNumbers(board, run);
  countLeftOut(answer);
  answer.samples.write(take);
}

uint64_t Metrics::leftOut() const {
  const std::lock_guard lock(mutex_);
  return leftOut_;
}

void Metrics::countLeftOut(const Answer &answer) {
  if (answer.leftOut == 0) return;
  const std::lock_guard lock(mutex_);
  leftOut_ += answer.leftOut;
  const auto now = std::chrono::steady_clock::now();
  if (now < nextWord_) return;
  nextWord_ = now + kBetweenWords;
  spdlog::warn("metrics: {} samples are left out, for they are there already or too many; the last: {}", answer.leftOut,
               answer.example);
}

std::string serviceDiscovery(const Boards &boards) {
  nlohmann::json groups = nlohmann::json::array();
  for (const BoardState &board : boards.all()) {
    nlohmann::json labels = {{"__meta_kep_board", board.config.name},
                             {"__meta_kep_held", board.isHeld ? "true" : "false"}};
    for (const auto &[name, value] : board.labels) labels["__meta_kep_label_" + name] = value;
    groups.push_back({{"targets", {board.config.host + ":" + std::to_string(board.config.port)}}, {"labels", labels}});
  }
  return groups.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace kepfleet
