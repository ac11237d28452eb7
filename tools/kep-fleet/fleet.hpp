// fleet.hpp: the server as a whole: asks boards on schedule, and hands on what they say.
//
// One thread, the network's, owns the schedule and the collector; the judge's decodes the large runs, so that they hold
// up no board; the keeper's writes to the store, and the leases' renews them where the store is shared. What other
// threads ask for is posted to the network's.
#pragma once

#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "kep-fleet/alarm.hpp"
#include "kep-fleet/boards.hpp"
#include "kep-fleet/collector.hpp"
#include "kep-fleet/config.hpp"
#include "kep-fleet/control.hpp"
#include "kep-fleet/keeper.hpp"
#include "kep-fleet/lease_keeper.hpp"
#include "kep-fleet/names_book.hpp"
#include "kep-fleet/schedule.hpp"
#include "kep-fleet/store.hpp"

namespace kepfleet {

class Fleet : public Control {
 public:
  // Opens a connection to the store, as openStore(); a shared store gets two.
  using OpenStore = std::function<std::unique_ptr<Store>(const std::string &where, std::chrono::milliseconds patience)>;

  // Reads the names files, opens the store and takes the port. Throws ConfigError and StoreError.
  explicit Fleet(const Config &config, const OpenStore &open = openStore);
  ~Fleet() override;

  void start();

  // For one thread, as stop(). Throws ConfigError, and then everything stays as it was.
  void reload(const Config &config);

  // kLate: all is stored, but the leases stay until they end, or a large run is still being decoded. kLost: the store
  // has not taken all. Unless it is kGood, a thread goes on that the destructor would wait for: the process is then
  // best ended at once.
  enum class End { kGood, kLate, kLost };

  // Breaks off what is under way, and has what came before stored.
  End stop();

  const Boards &boards() const { return boards_; }
  const NamesBook &names() const { return names_; }
  uint16_t port() const { return collector_.port(); }

  Asked ask(const std::string &board, int type, Done done) override;
  Asked probe(const std::string &host, uint16_t port, int type, Done done) override;
  Health health() const override;

 private:
  std::optional<int64_t> recallRuns(Store &store);
  void configureBoards(const Config &config);
  void hold(const std::string &board, uint64_t lease);
  void letGo(const std::string &board);
  void takeLeases(const std::vector<Lease> &leases, std::chrono::milliseconds until);
  void checkLeases();
  void watchLeases();

  void tick();
  void arm();
  // A run of the schedule, or beside it, from the request until it is judged.
  struct Ticket {
    uint64_t number = 0;
    Moment asked{0};
    Done done;
  };

  void begin(const std::string &board, int type, Done done);
  void finish(Run &&run, const Ticket &ticket);
  void judge(Run &&run, const Ticket &ticket);
  void settle(Boards::Judged &&judged, const Ticket &ticket);
  bool waitForJudge(std::chrono::milliseconds patience);
  void putUnjudged();
  void announce(const Event &event);

  using Answer = std::function<void(Asked)>;
  Asked onNetwork(std::function<void(const Answer &)> what);
  Asked askNow(const std::string &board, int type, const Done &done);
  void findAndProbe(const std::string &host, uint16_t port, int type, const Done &done, const Answer &answer);
  Asked probeNow(const std::string &host, const asio::ip::udp::endpoint &place, int type, const Done &done);
  static Moment now();

  struct Place {
    BoardConfig config;
    std::vector<Interval> intervals;
    uint64_t lease = 0;
    uint64_t ticket = 0;  // of its run; 0: there is none, or it was let go
    bool isHeld = false;
  };

  // The network thread's, and before it starts.
  std::unordered_map<std::string, Place> places_;
  Moment spread_{0};  // over which boards are asked for the first time
  std::set<asio::ip::udp::endpoint> probed_;
  uint64_t tickets_ = 0;
  std::map<uint64_t, RunPointer> judging_;    // runs that are being judged, or wait for that, by their tickets
  size_t judgingBytes_ = 0;                   // of them
  std::chrono::milliseconds leasesUntil_{0};  // by the boot clock, kLeaseMargin before they end
  bool isDiscarding_ = false;  // what ends now was broken off by ourselves, and says nothing of its board

  NamesBook names_;
  Boards boards_;
  Config config_;  // reload's
  asio::io_context context_;
  asio::executor_work_guard<asio::io_context::executor_type> work_;
  asio::steady_timer timer_, leaseTimer_;
  std::optional<Moment> armed_;  // when timer_ will tick
  bool isBreathing_ = false;     // there is more to ask, a moment later
  Schedule schedule_;
  Collector collector_;
  std::unique_ptr<LeaseKeeper> leaseKeeper_;  // none: the store belongs to this instance
  std::unique_ptr<Keeper> keeper_;
  Alarm alarm_;
  asio::thread_pool judge_{1};
  std::thread thread_;
  std::atomic<bool> isEnding_{false};
  std::atomic<size_t> heldBoards_{0};
  std::atomic<uint64_t> startedRuns_{0}, wholeRuns_{0}, refusedRuns_{0}, skippedPolls_{0};
};

}  // namespace kepfleet
