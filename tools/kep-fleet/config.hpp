// config.hpp: what the fleet's server is to do: the file, or what stands for one when boards are named on the command
// line. docs/fleet.md explains it by example.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kepfleet {

using Labels = std::map<std::string, std::string>;

struct BoardConfig {
  std::string name;  // unique; the address unless said
  std::string host;  // a name or an IPv4 address
  uint16_t port = 9099;
  Labels labels;
  std::string namesFile;  // empty: by its identity from the folder, or none
};

// One request on a schedule, to the boards that have all of `labels`.
struct Poll {
  int type = 0;  // 3: a self-test
  std::chrono::milliseconds every{15'000};
  Labels labels;
};

struct Limits {
  std::chrono::milliseconds connect{5'000};   // until a board has connected
  std::chrono::milliseconds silence{10'000};  // between two portions of its data
  std::chrono::milliseconds run{60'000};      // from the request to the end
  size_t runBytes = size_t{16} << 20;
  std::chrono::milliseconds longestPause{300'000};  // between two requests to a board that does not answer
  size_t waitingBytes = size_t{64} << 20;           // of runs that wait for the store
};

// A label whose value is what a board sent under a key, such as its firmware's version.
struct LabelFrom {
  std::string label;
  std::string item;
  int32_t section = 0;
  int32_t key = 0;
};

struct HttpConfig {
  std::string address = "127.0.0.1";
  uint16_t port = 9180;
  std::string prefix;              // "/kep": in front of every path, for a proxy; empty: none
  std::vector<std::string> hosts;  // that a Host header may name beside the bound address
  std::string token;               // content of token_file; empty: none
  bool probeAny = false;
};

struct AlarmConfig {
  std::string command;  // empty: none; run by /bin/sh for each event, which it gets as JSON on its standard input
  std::chrono::milliseconds limit{10'000};  // of one command
  size_t atOnce = 4;
};

struct LogConfig {
  std::string level = "info";  // trace, debug, info, warning, error
  bool json = false;
};

struct Config {
  std::string path;  // empty: made from a command line
  std::vector<BoardConfig> boards;
  std::vector<Poll> polls;
  std::vector<LabelFrom> labelFrom;
  std::string namesDir;
  std::string listenAddress = "0.0.0.0";
  uint16_t listenPort = 9098;
  std::string store;                              // a path, or postgresql://...
  std::string instance;                           // how this instance is called among others; made up when empty
  std::chrono::milliseconds lease{15'000};        // of its boards, where the store is shared
  std::map<int, std::chrono::milliseconds> keep;  // by type of request; -1: events
  Limits limits;
  HttpConfig http;
  AlarmConfig alarm;
  LogConfig log;
};

// What is wrong, with the file in front where there is one, and its line unless that is 0: none in particular.
struct ConfigError : std::runtime_error {
  ConfigError(const std::string &file, size_t line, const std::string &reason);
};

// Reads a file; relative paths in it are relative to it. Throws ConfigError.
Config readConfig(const std::string &path);

// The board at HOST or HOST:PORT, which is its name, too. Throws ConfigError.
BoardConfig boardAt(const std::string &place);

// The configuration of a command line that only names boards, HOST or HOST:PORT each. Throws ConfigError.
Config defaultConfig(const std::vector<std::string> &hosts);

// Whether all of `wanted` are among `labels`.
bool hasLabels(const Labels &labels, const Labels &wanted);

}  // namespace kepfleet
