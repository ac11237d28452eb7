// ZuConfig.cpp: one value from a configuration server that is found by broadcast.
#include "kep/ZuConfig.h"

#include <cstdlib>
#include <cstring>

#include "Kep.hpp"
#include "kep/ZuSock.h"
#include "kep/platform.h"

namespace {

constexpr int kQueryPort = 8998;  // ours
constexpr int kServerPort = 8999;
constexpr int kTimeoutMs = 1000;
constexpr int32_t kTextSize = 1000;  // of a query and of a reply
constexpr char kEveryServer[] = "<BROADCAST>";

int _fd = -1;
char _svrAddr[20] = "<BROADCAST>";  // replaced by the first replier's address, as is the port
int _svrPort = kServerPort;
int _has_send;                // the socket has been made, or could not be
char _buffer[kTextSize + 1];  // the query, then the reply and its terminator

// Whether a query may go out: the first one, or any once a server has answered.
bool mayAsk() {
  if (_has_send) return _fd >= 0 && std::strcmp(_svrAddr, kEveryServer) != 0;
  _fd = ZuSock_UDP_Create("0.0.0.0", kQueryPort);
  _has_send = 1;
  return _fd >= 0;
}

}  // namespace

int32_t ZuConfig_Get(const char *section, const char *key, const char *defaultText) {
  const Waiting mark(__func__);
  if (!section || !key || !defaultText) return -1;
  const int length = PLM_snprintf(_buffer, sizeof _buffer, "=>config %s %s %s", section, key, defaultText);
  if (length < 0 || length > kTextSize) return -1;  // before the first broadcast is spent on it
  if (!mayAsk()) return -1;
  return ZuSock_UDP_GetMessage(_fd, _svrAddr, &_svrPort, _buffer, length, kTextSize, kTimeoutMs);
}

int32_t ZuConfig_GetString(const char *section, const char *key, const char *defaultText, char *out) {
  const char *value = ZuConfig_Get(section, key, defaultText) > 0 ? _buffer : defaultText;
  if (out && value) std::memmove(out, value, std::strlen(value) + 1);  // hosts pass one text as both
  return 1;
}

int32_t ZuConfig_GetInt(const char *section, const char *key, int32_t defaultValue) {
  char defaultText[100];
  PLM_snprintf(defaultText, sizeof defaultText, "%d", static_cast<int>(defaultValue));
  if (ZuConfig_Get(section, key, defaultText) <= 0) return defaultValue;
  return static_cast<int32_t>(std::strtoll(_buffer, nullptr, 0));
}

uint32_t ZuConfig_GetUInt(const char *section, const char *key, uint32_t defaultValue) {
  return static_cast<uint32_t>(ZuConfig_GetInt(section, key, static_cast<int32_t>(defaultValue)));
}
