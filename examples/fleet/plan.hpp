// plan.hpp: what the parts of kep-boards share: which board is where and how it behaves, and what may change meanwhile.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

// In the order in which the help lists them; the first three are served by the library.
enum class Kind : uint8_t {
  kGood,
  kFailing,
  kDying,
  kDead,
  kSlow,
  kTrickling,
  kBreaking,
  kRepeating,
  kGarbage,
  kHostile,
  kCount
};

// Of a board, changed by the control file; any number of them.
enum : uint8_t { kIsBroken = 1, kIsAway = 2 };

constexpr uint16_t kIdentity = 0x0B04;  // of every board

struct Plan {
  uint32_t first = 0x7F010001;  // the address of board 1; board n is n - 1 addresses on
  uint16_t port = 9099;
  uint32_t perProcess = 250;
  uint32_t period = 120;  // seconds: of a dying board, which is away for the second half
  bool isSmall = false;
  std::string control, config, names;  // files, empty for none
  std::vector<Kind> kinds;             // board 1 is at 0, here and below
  std::atomic<uint8_t> *states = nullptr;

  uint32_t count() const { return static_cast<uint32_t>(kinds.size()); }
  Kind kindOf(uint32_t number) const { return kinds[number - 1]; }
  bool isServed(uint32_t number) const { return kindOf(number) <= Kind::kDying; }
  std::atomic<uint8_t> &stateOf(uint32_t number) const { return states[number - 1]; }
  std::string addressOf(uint32_t number) const;
  std::string nameOf(uint32_t number) const;
  bool isAway(uint32_t number) const;
};

// Ends the program for a wrong command line, and for --help.
Plan readCommandLine(int argc, char **argv);

// Writes a configuration of kep-fleet with all boards. Returns 0 when the file cannot be written.
bool writeConfig(const Plan &plan);

// Whether a socket got the board's own address; port 0 for any.
bool bindToBoard(int fd, const Plan &plan, uint32_t number, uint16_t port);

// A board's request socket. Ends the process when it cannot be had.
int openBoard(const Plan &plan, uint32_t number);

// An epoll descriptor that tells the place in `fds` of each that is readable; those below 0 are left out.
int watch(const std::vector<int> &fds);

// Says that the boards of this process can be asked.
void tellReady(int ready);

// Both play some boards until the process is ended.
[[noreturn]] void playServed(const Plan &plan, const std::vector<uint32_t> &numbers, int ready);
[[noreturn]] void playOdd(const Plan &plan, const std::vector<uint32_t> &numbers, int ready);
