// boards.cpp: what changes when a run comes. A run is decoded and judged, and what counts of it is picked out, before
// the lock is taken, as that may take a while.

#include "kep-fleet/boards.hpp"

#include <algorithm>
#include <set>
#include <utility>

#include "server/named_run.hpp"
#include "server/present.hpp"
#include "server/text.hpp"

namespace kepfleet {

namespace {

constexpr size_t kMostLabelBytes = 64;
constexpr size_t kMostTextBytes = 200;  // of an event, and of why a test failed
constexpr size_t kMostStreamBytes = size_t{256} << 20;

// Not more than so many bytes, whole characters of them.
std::string cut(std::string text, size_t most) {
  if (text.size() <= most) return text;
  while (most > 0 && (static_cast<uint8_t>(text[most]) & 0xC0) == 0x80) --most;
  text.resize(most);
  return text;
}

// What failed, as "network interfaces: 0; memory /proc/meminfo: missing".
std::string failuresOf(const kepserver::Names &names, const kepserver::Run &content,
                       const kepserver::Judgement &judgement) {
  std::string text;
  const auto add = [&text](std::string_view item, const std::string &test, const std::string &what) {
    if (text.size() > kMostTextBytes) return;
    text += (text.empty() ? "" : "; ") + kepserver::printable(item) + " " + test + ": " + what;
  };
  const kepserver::Part part = kepserver::wholeOf(content);
  kepserver::NamedRun(names, part, 0).forEach([&](const kepserver::NamedValue &value) {
    for (const kepserver::Shown &shown : value.shown) {
      if (shown.verdict != kepserver::Verdict::kFail) continue;
      add(itemName(content, *value.value), shown.name(), kepserver::printable(shown.text));
    }
  });
  for (const kepserver::MissingTest &test : judgement.missing) add(test.item, test.name, "missing");
  return cut(std::move(text), kMostTextBytes);
}

// What a run that came whole amounts to in the light of its names.
void settle(const kepserver::Names &names, const kepserver::Run &content, Run &run) {
  if (run.outcome != Outcome::kWhole) return;
  if (!content.selfTest) {
    if (!isCutShort(names, content)) return;
    run.outcome = Outcome::kDamaged;
    run.reason = "fewer data messages than the items that report, and the last one";
    return;
  }
  const kepserver::Judgement judgement = kepserver::judge(names, content);
  if (judgement.tests.failed == 0) return;
  run.outcome = Outcome::kTestFailed;
  run.reason = failuresOf(names, content, judgement);
}

// One a line; a name is printable and so has no line end.
std::string catalogueOf(const kepserver::Run &content) {
  std::string names;
  for (const auto &[index, name] : content.catalogue) names += kepserver::printable(name) + "\n";
  return names;
}

std::set<std::string_view> linesOf(std::string_view text) {
  std::set<std::string_view> lines;
  for (size_t end = 0; (end = text.find('\n')) != std::string_view::npos; text.remove_prefix(end + 1)) {
    lines.insert(text.substr(0, end));
  }
  return lines;
}

std::string goneFrom(const std::string &before, const std::string &now) {
  const std::set<std::string_view> there = linesOf(now);
  std::string gone;
  for (const std::string_view name : linesOf(before)) {
    if (there.count(name) == 0 && gone.size() < kMostTextBytes) gone += (gone.empty() ? "" : ", ") + std::string(name);
  }
  return cut(std::move(gone), kMostTextBytes);
}

std::string labelText(const kepserver::Value &value) {
  using kepserver::ValueKind;
  if (value.kind == ValueKind::kInt || value.kind == ValueKind::kLong) return std::to_string(value.number);
  const std::string_view bytes = std::string_view(value.bytes).substr(0, kMostLabelBytes + 4);  // one character more
  const std::string text = value.kind == ValueKind::kString ? kepserver::printable(bytes) : kepserver::hex(bytes);
  return cut(text, kMostLabelBytes);
}

void mergeLabels(BoardState &state, const Labels &own) {
  state.labels = state.config.labels;
  state.labels.insert(own.begin(), own.end());  // what the configuration says of a board goes before
}

}  // namespace

void Boards::configure(const Config &config) {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Entry> before = std::exchange(entries_, {});
  const std::unordered_map<std::string, size_t> placesBefore = std::exchange(places_, {});
  labelFrom_ = config.labelFrom;
  entries_.reserve(config.boards.size());
  for (const BoardConfig &board : config.boards) {
    const auto known = placesBefore.find(board.name);
    Entry entry = known == placesBefore.end() ? Entry() : std::move(before[known->second]);
    for (auto label = entry.own.begin(); label != entry.own.end();) {
      label = isGiven(label->first) ? std::next(label) : entry.own.erase(label);
    }
    entry.state.config = board;
    mergeLabels(entry.state, entry.own);
    places_.emplace(board.name, entries_.size());
    entries_.push_back(std::move(entry));
  }
  ++version_;
}

void Boards::recall(Run run) {
  if (!isNews(run)) return;
  const kepserver::Run content = decode(run);
  update(look(std::move(run), content), false);
}

Boards::Judged Boards::judge(Run run) const {
  const kepserver::Run content = decode(run);
  if (const std::optional<BoardState> state = find(run.board)) {
    settle(*names_.of(state->config, identityOf(content)), content, run);
  }
  return look(std::move(run), content);
}

Boards::Judged Boards::look(Run run, const kepserver::Run &content) const {
  Judged judged;
  judged.isSelfTest = content.selfTest;
  judged.identity = identityOf(content);
  judged.catalogue = catalogueOf(content);
  std::vector<LabelFrom> labelFrom;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    labelFrom = labelFrom_;
  }
  for (const LabelFrom &from : labelFrom) {
    for (const kepserver::Value &value : content.values) {
      if (value.key != from.key || value.section != from.section || itemName(content, value) != from.item) continue;
      if (const std::string text = labelText(value); !text.empty()) judged.labels[from.label] = text;
    }
  }
  judged.kept = std::make_shared<const Run>(run);
  judged.run = std::move(run);
  return judged;
}

Boards::Taken Boards::take(Judged judged) {
  Taken taken;
  taken.events = update(judged, true);
  taken.run = std::move(judged.run);
  return taken;
}

void Boards::setHeld(const std::string &board, bool isHeld) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto place = places_.find(board);
  if (place == places_.end() || entries_[place->second].state.isHeld == isHeld) return;
  entries_[place->second].state.isHeld = isHeld;
  ++version_;
}

std::optional<BoardState> Boards::find(const std::string &board) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto place = places_.find(board);
  if (place == places_.end()) return std::nullopt;
  return entries_[place->second].state;
}

std::vector<BoardState> Boards::all() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<BoardState> states;
  states.reserve(entries_.size());
  for (const Entry &entry : entries_) states.push_back(entry.state);
  return states;
}

size_t Boards::count() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return entries_.size();
}

uint64_t Boards::version() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return version_;
}

bool Boards::isNews(const Run &run) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto place = places_.find(run.board);
  if (place == places_.end() || run.type < 0 || run.type >= kTypes) return false;
  const BoardState &state = entries_[place->second].state;
  const auto type = static_cast<size_t>(run.type);
  const auto isNewer = [&run](const RunPointer &known) { return !known || known->started < run.started; };
  return isNewer(state.last[type]) || (isWhole(run) && isNewer(state.lastWhole[type]));
}

bool Boards::isGiven(const std::string &label) const {
  return std::any_of(labelFrom_.begin(), labelFrom_.end(), [&](const LabelFrom &from) { return from.label == label; });
}

// Where all that is there of the board is too much, this run stays without its stream.
void Boards::makeFit(BoardState &state, const RunPointer &run) const {
  size_t bytes = 0;
  for (size_t type = 0; type < kTypes; ++type) {
    const RunPointer &last = state.last[type], &lastWhole = state.lastWhole[type];
    if (last) bytes += last->stream.size();
    if (lastWhole && lastWhole != last) bytes += lastWhole->stream.size();
  }
  if (bytes <= kMostStreamBytes / entries_.size()) return;
  const auto rest = std::make_shared<const Run>(Run{run->board, run->started, run->type, run->outcome, run->duration,
                                                    run->messages, "", run->reason, run->lease, run->stream.size()});
  const auto type = static_cast<size_t>(run->type);
  for (RunPointer *const place : {&state.last[type], &state.lastWhole[type]}) {
    if (*place == run) *place = rest;
  }
}

// Runs that are recalled come in any order, and may be older than what is known. What comes from a board is newer,
// whatever the clock says, which may have been set back.
std::vector<Event> Boards::update(const Judged &judged, bool isLive) {
  const Run &run = judged.run;
  std::vector<Event> events;
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto place = places_.find(run.board);
  if (place == places_.end() || run.type < 0 || run.type >= kTypes) return events;
  Entry &entry = entries_[place->second];
  const auto type = static_cast<size_t>(run.type);
  const auto isNewer = [&](const RunPointer &known) { return isLive || !known || known->started < run.started; };
  const bool isNewest = isLive || run.started > entry.newest;
  RunPointer &last = entry.state.last[type];
  RunPointer &lastWhole = entry.state.lastWhole[type];
  if (isWhole(run) && isNewer(lastWhole)) {
    lastWhole = judged.kept;
    if (isLive || run.started > entry.newestReport) noteContent(entry, judged, events);
  }
  if (isNewer(last)) {
    last = judged.kept;
    noteOutcome(entry, run, isNewest, events);
  }
  makeFit(entry.state, judged.kept);
  settleProblem(entry, run.started);
  ++version_;
  return events;
}

// One that has not been asked counts as there: its silence is told as that of any other.
void Boards::noteOutcome(Entry &entry, const Run &run, bool isNewest, std::vector<Event> &events) {
  const auto type = static_cast<size_t>(run.type);
  const bool answered = run.outcome != Outcome::kNoAnswer;
  const auto add = [&](EventKind kind) { events.push_back({run.board, run.started, kind, run.reason, run.lease}); };
  if (isNewest) {
    entry.newest = run.started;
    const bool before = std::exchange(entry.state.answers, answered).value_or(true);
    if (before != answered) add(answered ? EventKind::kFound : EventKind::kLost);
  }
  if (!answered) return;
  const bool isBad = run.outcome != Outcome::kWhole;
  const bool wasBad = std::exchange(entry.isBad[type], isBad);
  if (isBad && !wasBad) add(run.type == kSelfTest ? EventKind::kTestFailed : EventKind::kDamaged);
  if (!isBad && wasBad && run.type == kSelfTest) add(EventKind::kTestPassed);
}

void Boards::noteContent(Entry &entry, const Judged &judged, std::vector<Event> &events) {
  const auto add = [&](EventKind kind, const std::string &text) {
    events.push_back({judged.run.board, judged.run.started, kind, text, judged.run.lease});
  };
  if (judged.isSelfTest) return;
  entry.newestReport = judged.run.started;
  std::string &known = entry.state.identity;
  if (!known.empty() && judged.identity != known) {
    add(EventKind::kIdentityChanged, kepserver::hex(known) + " became " + kepserver::hex(judged.identity));
  }
  known = judged.identity;
  if (!entry.catalogue.empty() && judged.catalogue != entry.catalogue) {
    const std::string gone = goneFrom(entry.catalogue, judged.catalogue);
    if (!gone.empty()) add(EventKind::kItemGone, gone);
  }
  entry.catalogue = judged.catalogue;
  for (const auto &[label, text] : judged.labels) {
    if (isGiven(label)) entry.own[label] = text;  // the configuration may be another by now
  }
  mergeLabels(entry.state, entry.own);
}

// What does not answer has no other problem; otherwise the first type that is not well.
void Boards::settleProblem(Entry &entry, int64_t now) {
  BoardState &state = entry.state;
  int kind = 0;
  std::string problem;
  for (size_t type = 0; type < kTypes && kind == 0; ++type) {
    const RunPointer &run = state.last[type];
    if (!run || run->outcome == Outcome::kWhole) continue;
    const bool isNewest = run->started == entry.newest;
    if ((run->outcome == Outcome::kNoAnswer) != (state.answers == false) || (!*state.answers && !isNewest)) continue;
    kind = 1 + static_cast<int>(type) * 8 + static_cast<int>(run->outcome);
    if (run->outcome == Outcome::kNoAnswer) kind = -1;  // the same whatever it was asked for
    problem = type == kSelfTest && run->outcome != Outcome::kNoAnswer ? "self-test: " + run->reason : run->reason;
  }
  if (kind != entry.problemKind || state.since == 0) state.since = now;
  entry.problemKind = kind;
  state.problem = std::move(problem);
}

}  // namespace kepfleet
