// runs.hpp: runs of the host against one server after another, each compared with what should become of it.
#pragma once

#include <gtest/gtest.h>

#include "collection/host.hpp"

// What becomes of each message of a run, from the first on; the last letter stands for all that follow. '.': it goes
// through, 'e': it is acknowledged by the connection's end, 's': it is not sent, 'r': it is not acknowledged. "c"
// alone: there is no connection.
using Fates = std::string;

class Runs : public testing::Test {
 protected:
  Runs();
  ~Runs() override;

  // Messages of a run of a type.
  static size_t sizeOf(int32_t type) { return host::Run(type, 0, 0).size(); }

  // Makes a run against this server: its result, texts, log and messages, what it counts and what it holds afterwards.
  // When one breaks off later than the server does, the letter before the last holds for as long as the system says;
  // "s" alone: it says what comes before, too. Returns the run's result.
  int32_t meet(int32_t type, const Manner &manner, Fates fates, bool breaksLater = false);

  // A good one, byte for byte, after which nothing is left of those before.
  void recover(int32_t type) { meet(type, {}, "."); }

  virtual int32_t start(int32_t type, int32_t port) { return host::start(type, port, 77); }

 private:
  using Holdings = std::vector<int64_t>;  // descriptors, blocks and bytes
  static Holdings holdings();

  int32_t lastNumber_;
  Holdings flat_;
};
