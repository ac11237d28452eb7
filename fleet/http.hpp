// http.hpp: the fleet's HTTP side: the page, its data, /metrics, /probe, /sd and /healthz.
#pragma once

#include <memory>

#include "fleet/boards.hpp"
#include "fleet/config.hpp"
#include "fleet/control.hpp"
#include "fleet/names_book.hpp"
#include "fleet/store.hpp"

namespace kepfleet {

// Serves on threads of its own from start() to stop(). What it is given outlives it.
class HttpServer {
 public:
  HttpServer(const Config &config, const Boards &boards, const NamesBook &names, Control &control);
  ~HttpServer();

  // Throws ConfigError when the address cannot be had. `port` is the one that serves, also where the configuration says
  // 0.
  void start();
  int port() const;

  // Breaks off what is served, within a second.
  void stop();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace kepfleet
