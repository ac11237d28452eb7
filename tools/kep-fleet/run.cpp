// run.cpp: the words for outcomes and events, and what a stream says.

#include "kep-fleet/run.hpp"

namespace kepfleet {

namespace {

constexpr size_t kLarge = size_t{256} << 10;
std::mutex largeOnes;

}  // namespace

std::string_view nameOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::kWhole: return "whole";
    case Outcome::kDamaged: return "damaged";
    case Outcome::kNoAnswer: return "no answer";
    case Outcome::kBrokenOff: return "broken off";
    case Outcome::kTestFailed: break;
  }
  return "test failed";
}

std::string_view nameOf(EventKind kind) {
  switch (kind) {
    case EventKind::kLost: return "lost";
    case EventKind::kFound: return "found";
    case EventKind::kTestFailed: return "test failed";
    case EventKind::kTestPassed: return "test passed";
    case EventKind::kItemGone: return "item gone";
    case EventKind::kIdentityChanged: return "identity changed";
    case EventKind::kDamaged: break;
  }
  return "damaged";
}

size_t sentBytes(const Run &run) { return run.stream.size() + run.leftOut; }

bool isWhole(const Run &run) { return run.outcome == Outcome::kWhole || run.outcome == Outcome::kTestFailed; }

kepserver::Run decode(const Run &run) {
  kepserver::Expectation expectation;
  expectation.kind = run.type == kSelfTest ? kepserver::RunKind::kSelfTest : kepserver::RunKind::kCollection;
  kepserver::StreamDecoder decoder(expectation);
  decoder.feed(run.stream.data(), run.stream.size());
  decoder.finish();
  return decoder.takeRun();
}

DecodingTurn::DecodingTurn(size_t bytes) {
  if (bytes > kLarge) lock_ = std::unique_lock<std::mutex>(largeOnes);
}

std::string identityOf(const kepserver::Run &content) {
  return content.identity ? content.identity->bytes.substr(0, 2) : "";
}

}  // namespace kepfleet
