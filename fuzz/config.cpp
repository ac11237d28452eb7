// config.cpp: a reply of any bytes to the configuration query; for kep-config the same bytes are a query, and its file.
// The system calls of the board's socket are wrapped, as its ports are fixed and its broadcast needs a network.
#include <kep/ZuConfig.h>
#include <netinet/in.h>
#include <poll.h>

#include <sstream>
#include <vector>

#include "ini.hpp"
#include "query.hpp"
#include "require.hpp"

static std::string sg_query, sg_reply;

extern "C" int __wrap_bind(int, const sockaddr *, socklen_t) { return 0; }

extern "C" ssize_t __wrap_sendto(int, const void *data, size_t size, int, const sockaddr *, socklen_t) {
  sg_query.assign(static_cast<const char *>(data), size);
  return static_cast<ssize_t>(size);
}

extern "C" int __wrap_poll(pollfd *fds, nfds_t, int) {
  fds->revents = POLLIN;
  return 1;
}

extern "C" ssize_t __wrap_recvfrom(int, void *data, size_t size, int, sockaddr *from, socklen_t *) {
  reinterpret_cast<sockaddr_in *>(from)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return static_cast<ssize_t>(sg_reply.copy(static_cast<char *>(data), size));  // a datagram's rest is lost
}

static std::string rewritten(const std::string &file) {
  std::istringstream in(file);
  std::string text;
  for (const auto &[name, setting] : kepconfig::parseIni(in)) {
    text += "[" + name.first + "]\n" + name.second + "=" + setting.value + "\n";
  }
  return text;
}

// What the tool takes for a query or for a file, it reads without loss.
static void checkTool(const std::string &text) {
  if (const auto query = kepconfig::parseQuery(text)) requireEqual(kepconfig::formatQuery(*query), text);
  std::string settings;
  try {
    settings = rewritten(text);
  } catch (const kepconfig::IniError &) {
  }
  requireEqual(rewritten(settings), settings);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  sg_reply.assign(reinterpret_cast<const char *>(data), size);
  const std::string value = sg_reply.empty() ? "-5" : sg_reply.substr(0, 1000).c_str();
  std::vector<char> out(1001, '#');
  ZuConfig_GetString("section", "key", "-5", out.data());
  requireEqual(out.data(), value);
  const long long number = std::strtoll(value.c_str(), nullptr, 0);
  requireEqual(std::to_string(ZuConfig_GetInt("section", "key", -5)), std::to_string(static_cast<int32_t>(number)));
  require(kepconfig::parseQuery(sg_query) ? "" : "the server cannot read the query");
  checkTool(sg_reply);
  return 0;
}
