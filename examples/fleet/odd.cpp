// odd.cpp: boards that misbehave. The library would not send what they do, so they write the wire themselves, and wait
// for nobody: each answer is a connection with bytes to go out, a portion at a time, as a clock ticks.
#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "plan.hpp"

namespace {

using namespace std::string_view_literals;

constexpr int64_t kTickMs = 100;
constexpr int kPause = 10;      // ticks between two portions of a slow board
constexpr int kLongest = 600;   // ticks that an answer may take
constexpr size_t kNoise = 400;  // bytes
constexpr size_t kIdentitySize = 16;
constexpr int kSelfTest = 3;  // a type of request

struct Request {
  uint32_t length, type, sequence, port;
};

struct Odd {
  uint32_t number;
  uint32_t turn;  // times asked: some behave now so, now so
};

struct Answer {
  int fd;
  std::string bytes;
  size_t sent, portion;
  int pause, ticks;  // between portions; since it began
};

const Plan *plan;
std::vector<Answer> answers;
uint32_t sequence, noise = 1;

// ---- what they send

std::string big(uint32_t value, size_t size = 4) {
  std::string bytes(size, '\0');
  for (size_t i = size; i-- > 0; value >>= 8) bytes[i] = static_cast<char>(value & 0xFF);
  return bytes;
}

std::string message(uint32_t type, uint32_t number, const std::string &payload) {
  return big(static_cast<uint32_t>(12 + payload.size())) + big(type) + big(number) + payload;
}

std::string text(uint32_t item, uint32_t key, std::string_view value) {
  return '\x83' + big(item) + big(0) + big(key) + big(static_cast<uint32_t>(value.size()), 2) + std::string(value);
}

// Texts that do harm where they are taken for markup, script, a terminal's commands, lines, formulas or UTF-8.
// The item that others know as well takes them to where names files and labels are made of values.
const std::vector<std::string_view> kHostileNames = {"system"sv, "<svg onload=owned=1"sv, "\x1b[2J\xff\r\n\"'`"sv};
constexpr std::string_view kHostileTexts[] = {
    "<script>owned=1</script>"sv,    "<img src=x onerror=owned=1>"sv,   "\"><a href=javascript:owned=1>'`${owned=1}"sv,
    "\x1b]0;owned\x07\x1b[31m"sv,    "\xff\xfe\xc3\x28 \xed\xa0\x80"sv, "nothing\0behind\0"sv,
    "\r\nSet-Cookie: owned=1\r\n"sv, "=1+cmd|' /C calc'!A0"sv,          "\xe2\x80\xae\xe2\x81\xa6gnp.owned"sv,
    "} 1e999\nkep_up{} 1\n# "sv};

std::string dataOf(const Odd &odd, uint32_t item) {
  if (plan->kindOf(odd.number) != Kind::kHostile) {
    return text(item, 1, item == 0 ? plan->nameOf(odd.number) : std::to_string(odd.turn));
  }
  std::string data;
  uint32_t key = 0;
  for (const std::string_view value : kHostileTexts) data += text(item, ++key, value);
  return data + text(item, key + 1, std::string(300, 'W')) + text(item, key + 2, "");
}

// A run in good order.
std::string runOf(const Odd &odd, const Request &request) {
  static const std::vector<std::string_view> kNames = {"system"sv, "odd"sv};
  const std::vector<std::string_view> &names = plan->kindOf(odd.number) == Kind::kHostile ? kHostileNames : kNames;
  std::string run = message(0, request.sequence, big(kIdentity, 2) + big(0, 2));
  std::string catalogue;
  for (uint32_t i = 0; i < names.size(); ++i) {
    catalogue += big(i) + big(static_cast<uint32_t>(names[i].size()), 2) + std::string(names[i]);
  }
  if (request.type != kSelfTest) run += message(1, ++sequence, catalogue);
  for (uint32_t i = 0; i < names.size(); ++i) {
    const std::string heading = request.type == kSelfTest ? text(0xFFFF, 0, names[i]) : "";
    run += message(2, ++sequence, heading + dataOf(odd, i));
  }
  return run + message(2, ++sequence, "");
}

char drawByte() {
  noise = noise * 1664525U + 1013904223U;
  return static_cast<char>(noise >> 24);
}

// In turn: nothing but noise, noise behind a good beginning, and a run with a few bytes changed.
std::string spoilt(std::string run, uint32_t turn) {
  if (turn % 3 == 2) {
    for (int i = 0; i < 3; ++i) {
      const size_t place = static_cast<uint8_t>(drawByte()) % (run.size() - kIdentitySize);
      run[kIdentitySize + place] = drawByte();
    }
    return run;
  }
  run.resize(turn % 3 == 0 ? 0 : kIdentitySize);
  while (run.size() < kNoise) run += drawByte();
  return run;
}

// ---- connections

// The connection goes on behind this, and its first bytes find out whether it was made.
void connectBack(const Odd &odd, const sockaddr_in &server, const std::string &bytes, size_t portion, int pause) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  if (!bindToBoard(fd, *plan, odd.number, 0) ||
      (connect(fd, reinterpret_cast<const sockaddr *>(&server), sizeof server) != 0 && errno != EINPROGRESS)) {
    close(fd);
    return;
  }
  answers.push_back({fd, bytes, 0, portion, pause, 0});
}

void answer(Odd *odd, const Request &request, const sockaddr_in &server) {
  std::string run = runOf(*odd, request);
  const uint32_t turn = odd->turn++;
  size_t portion = run.size();
  int pause = 1;
  switch (plan->kindOf(odd->number)) {
    case Kind::kSlow:
      portion = run.size() / 5 + 1;
      pause = kPause;
      break;
    case Kind::kTrickling: portion = 1; break;
    case Kind::kBreaking: run.resize(run.size() * 2 / 3); break;
    case Kind::kRepeating:
      if (turn % 2 == 0) {
        run += run;
      } else {
        connectBack(*odd, server, run, portion, pause);
      }
      break;
    case Kind::kGarbage: run = spoilt(std::move(run), turn); break;
    default: break;
  }
  connectBack(*odd, server, run, portion, pause);
}

void takeRequest(Odd *odd, int fd) {
  Request request{};
  sockaddr_in server{};
  socklen_t size = sizeof server;
  const ssize_t got = recvfrom(fd, &request, sizeof request, 0, reinterpret_cast<sockaddr *>(&server), &size);
  if (got != sizeof request || plan->isAway(odd->number)) return;
  server.sin_port = htons(static_cast<uint16_t>(ntohl(request.port)));
  request = {ntohl(request.length), ntohl(request.type), ntohl(request.sequence), 0};
  answer(odd, request, server);
}

// Returns false when the answer is over: all is sent and the server has closed, or it is broken, or takes too long.
bool goOn(Answer *one) {
  char acks[64];
  ssize_t got;
  while ((got = recv(one->fd, acks, sizeof acks, 0)) > 0) {
  }
  const bool isOpen = got < 0 && (errno == EAGAIN || errno == ENOTCONN);
  if (!isOpen || one->ticks++ > kLongest) return false;
  if (one->ticks % one->pause != 0 || one->sent == one->bytes.size()) return true;
  const size_t size = std::min(one->portion, one->bytes.size() - one->sent);
  const ssize_t sent = send(one->fd, one->bytes.data() + one->sent, size, MSG_NOSIGNAL);
  if (sent < 0) return errno == EAGAIN;
  one->sent += static_cast<size_t>(sent);
  if (one->sent == one->bytes.size()) shutdown(one->fd, SHUT_WR);
  return true;
}

void tick() {
  const auto isOver = [](Answer &one) {
    if (goOn(&one)) return false;
    close(one.fd);
    return true;
  };
  answers.erase(std::remove_if(answers.begin(), answers.end(), isOver), answers.end());
}

int64_t nowMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

void playOdd(const Plan &thePlan, const std::vector<uint32_t> &numbers, int ready) {
  plan = &thePlan;
  std::vector<Odd> boards;
  std::vector<int> fds;
  for (const uint32_t number : numbers) {
    boards.push_back({number, 0});
    fds.push_back(openBoard(thePlan, number));  // a dead board is there, and never looks
    if (thePlan.kindOf(number) == Kind::kDead) fds.back() = -1;
  }
  const int poll = watch(fds);
  tellReady(ready);
  for (int64_t next = 0;;) {
    epoll_event events[64];
    const int64_t left = std::max<int64_t>(next - nowMs(), 0);
    const int count = epoll_wait(poll, events, 64, answers.empty() ? -1 : static_cast<int>(left));
    for (int i = 0; i < count; ++i) takeRequest(&boards[events[i].data.u32], fds[events[i].data.u32]);
    if (nowMs() < next) continue;
    tick();
    next = nowMs() + kTickMs;
  }
}
