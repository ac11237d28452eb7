#include "collection/runs.hpp"

#include "support/platform_double.hpp"

namespace {

using Counters = std::vector<uint32_t>;

Counters counters() {
  CollectStats stats;
  Collect_GetStats(&stats);
  return {stats.datagrams, stats.dropped, stats.refused, stats.finishedRuns, stats.failedRuns, stats.messages};
}

// The service's log, which is emptied. Nothing of it may have been echoed before.
std::string takeLog() {
  EXPECT_EQ(platform::takePrinted(), "");
  Collect_ShowLog();
  ZuLogger_ClearInfo(g_collect_param.logger);
  return host::withoutTimes({"\n" + platform::takePrinted()})[0];
}

struct Outcome {
  Outcome(const host::Run &run, const Fates &fates);

  int32_t result = 0;
  uint32_t tried = 0, acknowledged = 0;  // messages
  std::vector<std::string> arrived;
  std::string text, log = "\n";
};

Outcome::Outcome(const host::Run &run, const Fates &fates) {
  if (fates == "c") {
    text = "connect error.\n";
    log += host::line("connect to server fail.");
    return;
  }
  result = 1;
  for (; tried < run.size() && result == 1; ++tried) {
    const char fate = fates[std::min<size_t>(tried, fates.size() - 1)];
    const auto check = run.checks.find(tried);
    if (check != run.checks.end()) log += check->second;
    if (fate != 's') arrived.push_back(run.stream.messages()[tried]);
    acknowledged += fate == '.';
    if (fate == '.' || fate == 'e') continue;
    text += fate == 's' ? "send error.\n" : "recv error.\n";
    if (check == run.checks.end()) continue;
    log += host::line("flush to server fail.");
    result = 0;
  }
}

}  // namespace

Runs::Runs() {
  g_collect_param.logger = ZuLogger_New(255);
  host::registerItems();
  {
    Server server;
    host::start(0, server.port(), 1);  // makes the log's store
    lastNumber_ = wire::wordAt(server.messages().back(), 8);
  }
  platform::takePrinted();
  takeLog();
  flat_ = holdings();
}

Runs::~Runs() {
  CollectClient_End();
  CollectClient_SetTimeout(0, 0, 0);
  host::releaseItems();
  ZuLogger_Release(std::exchange(g_collect_param.logger, nullptr));
}

Runs::Holdings Runs::holdings() { return {openDescriptors(), platform::liveBlocks(), platform::liveBytes()}; }

int32_t Runs::meet(int32_t type, const Manner &manner, Fates fates, bool breaksLater) {
  const host::Run run(type, 77, lastNumber_);
  Counters expected = counters();
  const uint32_t acknowledgedBefore = expected.back();
  std::vector<std::string> arrived;
  std::string text;
  int32_t result;
  {
    Server server(manner);
    StdoutCapture output;
    result = start(type, server.port());
    text = output.take();
    const StdoutCapture refusal;
    CollectClient_Start("nowhere", 0);  // closes the connection of a broken run
    if (fates != "c") {
      arrived = host::withoutTimes(server.messages());
      const bool isPatient = manner.ackSize <= 16 && fates.find('r') == Fates::npos;
      EXPECT_FALSE(isPatient && server.wasHurried());
    }
  }
  const std::string log = takeLog();
  const size_t atLeast = breaksLater ? fates.size() - 1 : SIZE_MAX;
  if (breaksLater && fates == "s") fates = text.rfind("recv", 0) == 0 ? "rs" : "es";
  Outcome outcome(run, fates);
  const auto fits = [&] {
    return text == outcome.text && log == outcome.log && acknowledgedBefore + outcome.acknowledged == counters().back();
  };
  while (breaksLater && fates.size() <= run.size() && !fits()) {
    fates.insert(fates.size() - 1, 1, fates[fates.size() - 2]);
    outcome = Outcome(run, fates);
  }
  outcome.arrived.resize(std::min(outcome.arrived.size(), atLeast));
  EXPECT_EQ(result, outcome.result);
  EXPECT_EQ(text, outcome.text);
  EXPECT_EQ(log, outcome.log);
  EXPECT_EQ(arrived, outcome.arrived);
  ++expected[result == 1 && outcome.acknowledged == outcome.tried ? 3 : 4];
  expected.back() += outcome.acknowledged;
  EXPECT_EQ(counters(), expected);
  Holdings held = flat_;
  if (outcome.result == 0 && outcome.tried > 0) held = {flat_[0], flat_[1] + 1, flat_[2] + 1036 + 4};  // a send buffer
  EXPECT_EQ(holdings(), held);
  if (outcome.tried > 0) lastNumber_ += static_cast<int32_t>(outcome.tried) - 1;  // the first has the request's
  return result;
}
