// http.hpp: the fleet's HTTP side: the page, its data, /metrics, /probe, /sd and /healthz.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kep-fleet/boards.hpp"
#include "kep-fleet/config.hpp"
#include "kep-fleet/control.hpp"
#include "kep-fleet/metrics.hpp"
#include "kep-fleet/names_book.hpp"
#include "kep-fleet/store.hpp"

namespace kepfleet {

// What Prometheus is told; a route whose function is missing is not there. They are called by several threads.
struct Exports {
  std::function<void(const Pieces &take)> metrics;
  std::function<void(const BoardState &board, const Run &run, const Pieces &take)> probe;
  std::function<std::string()> discovery;
};

// Serves on threads of its own from start() to stop(). What it is given outlives it, but for the configuration: of
// that it takes how HTTP is served, where the store is and how long runs last, for good.
class HttpServer {
 public:
  HttpServer(const Config &config, const Boards &boards, const NamesBook &names, Control &control,
             Exports exports = {});
  ~HttpServer();

  // Throws ConfigError when the address cannot be had.
  void start();
  int port() const;  // that serves, also where the configuration says 0

  // Breaks off what is served. False: an answer waits for the store, as the destructor would for it.
  bool stop();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace kepfleet
