// config.cpp: replies of any bytes to the configuration query, from anyone, too late or never. The system calls of its
// socket are wrapped, as its ports are fixed and its broadcast needs a network.
//
// The module keeps its server for the life of the process, so every input begins with an answer from the same one.
#include <fuzzer/FuzzedDataProvider.h>
#include <kep/ZuConfig.h>
#include <netinet/in.h>
#include <poll.h>

#include <cerrno>
#include <deque>
#include <optional>
#include <sstream>

#include "ini.hpp"
#include "query.hpp"
#include "require.hpp"

namespace {

struct Reply {
  uint32_t host;
  uint16_t port;
  std::string text;
};

enum class Failure { kNone, kSend, kReceive };

std::deque<Reply> sg_waiting;  // at the board's socket
Failure sg_failure = Failure::kNone;
unsigned sg_signals = 0;                                              // that interrupt the calls to come
std::string sg_server = std::to_string(INADDR_BROADCAST) + ":8999 ";  // whoever answered last
std::string sg_sent;                                                  // one query: to whom, and its text

bool fails(bool otherwise) {
  errno = sg_signals > 0 ? EINTR : EIO;
  return sg_signals > 0 ? sg_signals-- > 0 : otherwise;
}

std::string describe(uint32_t host, uint16_t port) { return std::to_string(host) + ":" + std::to_string(port) + " "; }

}  // namespace

extern "C" int __wrap_bind(int, const sockaddr *, socklen_t) { return 0; }

extern "C" ssize_t __wrap_sendto(int, const void *data, size_t size, int, const sockaddr *to, socklen_t) {
  if (fails(sg_failure == Failure::kSend)) return -1;
  const auto *server = reinterpret_cast<const sockaddr_in *>(to);
  sg_sent += describe(ntohl(server->sin_addr.s_addr), ntohs(server->sin_port));
  sg_sent.append(static_cast<const char *>(data), size);
  return static_cast<ssize_t>(size);
}

extern "C" int __wrap_poll(pollfd *fds, nfds_t, int timeoutMs) {
  require(timeoutMs >= 0 && timeoutMs <= 1000 ? "" : "waits longer than a second");
  if (fails(false)) return -1;
  fds->revents = sg_waiting.empty() ? 0 : POLLIN;
  return sg_waiting.empty() ? 0 : 1;  // time passes at once
}

extern "C" ssize_t __wrap_recvfrom(int, void *data, size_t size, int, sockaddr *from, socklen_t *) {
  if (fails(sg_failure == Failure::kReceive)) return -1;
  const Reply reply = sg_waiting.front();
  sg_waiting.pop_front();
  sg_server = describe(reply.host, reply.port);
  auto *sender = reinterpret_cast<sockaddr_in *>(from);
  sender->sin_addr.s_addr = htonl(reply.host);
  sender->sin_port = htons(reply.port);
  return static_cast<ssize_t>(reply.text.copy(static_cast<char *>(data), size));  // a datagram's rest is lost
}

namespace {

// Bytes of the input, or one of them over and over, to reach the limit of 1000.
std::string textFrom(FuzzedDataProvider &in) {
  const size_t size = in.ConsumeIntegral<uint8_t>();
  return size <= 200 ? in.ConsumeBytesAsString(size) : std::string(size + 772, in.ConsumeIntegral<char>());
}

std::string rewritten(const std::string &file) {
  std::istringstream in(file);
  std::string text;
  for (const auto &[name, setting] : kepconfig::parseIni(in)) {
    text += "[" + name.first + "]\n" + name.second + "=" + setting.value + "\n";
  }
  return text;
}

// What the tool takes for a query or for a file, it reads without loss.
void checkTool(const std::string &text) {
  if (const auto query = kepconfig::parseQuery(text)) requireEqual(kepconfig::formatQuery(*query), text);
  std::string settings;
  try {
    settings = rewritten(text);
  } catch (const kepconfig::IniError &) {
  }
  requireEqual(rewritten(settings), settings);
}

void ask(FuzzedDataProvider &in) {
  const std::string section = textFrom(in).c_str(), key = textFrom(in).c_str();
  const bool wantsText = in.ConsumeBool();
  const auto number = in.ConsumeIntegral<int32_t>();
  const std::string preset = wantsText ? textFrom(in).c_str() : std::to_string(number);
  const std::string query = "=>config " + section + " " + key + " " + preset;
  const bool fits = query.size() <= 1000;
  const std::string sent = fits && sg_failure != Failure::kSend ? sg_server + query : "";
  std::optional<std::string> reply;  // empty: the default holds
  if (fits && sg_failure == Failure::kNone && !sg_waiting.empty() && !sg_waiting.front().text.empty()) {
    reply = sg_waiting.front().text.substr(0, 1000).c_str();
  }
  sg_sent = "";
  if (wantsText) {
    std::vector<char> out(std::max<size_t>(1001, preset.size() + 1), '#');
    ZuConfig_GetString(section.c_str(), key.c_str(), preset.c_str(), out.data());
    requireEqual(out.data(), reply.value_or(preset));
  } else {
    const uint32_t value = ZuConfig_GetUInt(section.c_str(), key.c_str(), static_cast<uint32_t>(number));
    const long long expected = reply ? std::strtoll(reply->c_str(), nullptr, 0) : number;
    requireEqual(std::to_string(value), std::to_string(static_cast<uint32_t>(expected)));
  }
  requireEqual(sg_sent, sent);
  const auto isName = [](const std::string &text) { return !text.empty() && text.find(' ') == std::string::npos; };
  if (fits && isName(section) && isName(key)) require(kepconfig::parseQuery(query) ? "" : "the server cannot read it");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider in(data, size);
  sg_failure = Failure::kNone;
  sg_signals = 0;
  sg_waiting = {{0x0A000005, 9001, "here"}};
  const std::string expected = sg_server + "=>config s k d";
  sg_sent = "";
  require(ZuConfig_Get("s", "k", "d") == 4 ? "" : "the answer is lost");
  requireEqual(sg_sent, expected);
  while (in.remaining_bytes() > 0) {
    for (unsigned count = in.ConsumeIntegralInRange(0u, 3u); count > 0; --count) {
      const auto host = in.ConsumeIntegralInRange<uint32_t>(0, INADDR_BROADCAST - 1);
      sg_waiting.push_back({host, in.ConsumeIntegral<uint16_t>(), textFrom(in)});
      checkTool(sg_waiting.back().text);
    }
    sg_failure = in.PickValueInArray({Failure::kNone, Failure::kNone, Failure::kSend, Failure::kReceive});
    sg_signals = in.ConsumeIntegralInRange(0u, 3u);
    ask(in);
  }
  return 0;
}
