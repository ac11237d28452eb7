// database_postgres.cpp: a PostgreSQL database, by libpq. Nothing waits for it without an end: not for a connection,
// not for an answer, and the database waits for no client that stands still within a transaction.

#include <libpq-fe.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <unordered_map>

#include "kep-fleet/database.hpp"
#include "kep-fleet/store.hpp"

namespace kepfleet {

namespace {

constexpr int64_t kLeastToConnect = 2, kMostToConnect = 5;  // seconds; libpq has no fewer
constexpr Oid kInt8 = 20, kBytes = 17;                      // fixed in the server's catalogue

struct Free {
  void operator()(PGconn *connection) const { PQfinish(connection); }
  void operator()(PGresult *result) const { PQclear(result); }
};
using Result = std::unique_ptr<PGresult, Free>;

// Everything comes in binary: integers of 2, 4 or 8 bytes, bytes as they are.
class PostgresRow : public Row {
 public:
  PostgresRow(const PGresult *result, int row) : result_(result), row_(row) {}
  int64_t integer(int column) const override {
    const std::string_view value = bytes(column);
    if (value.empty()) return 0;
    uint64_t number = (value[0] & 0x80) != 0 ? ~uint64_t{0} : 0;
    for (const char byte : value) number = number << 8 | static_cast<uint8_t>(byte);
    return static_cast<int64_t>(number);
  }
  std::string_view bytes(int column) const override {
    return {PQgetvalue(result_, row_, column), static_cast<size_t>(PQgetlength(result_, row_, column))};
  }

 private:
  const PGresult *result_;
  int row_;
};

// A statement's parameters as libpq takes them.
struct Parameters {
  std::vector<std::array<char, 8>> integers;
  std::vector<Oid> types;
  std::vector<const char *> values;
  std::vector<int> lengths, formats;

  explicit Parameters(const std::vector<Value> &from) : integers(from.size()), formats(from.size(), 1) {
    for (size_t i = 0; i < from.size(); ++i) {
      if (const auto *integer = std::get_if<int64_t>(&from[i])) {
        for (size_t k = 0; k < 8; ++k)
          integers[i][k] = static_cast<char>(static_cast<uint64_t>(*integer) >> (56 - 8 * k));
        add(kInt8, integers[i].data(), 8);
      } else {
        const auto &bytes = std::get<std::string_view>(from[i]);
        add(kBytes, bytes.empty() ? "" : bytes.data(), static_cast<int>(bytes.size()));
      }
    }
  }

  void add(Oid type, const char *value, int length) {
    types.push_back(type);
    values.push_back(value);
    lengths.push_back(length);
  }
  int count() const { return static_cast<int>(values.size()); }
};

class Postgres final : public Database {
 public:
  Postgres(std::string url, Access access, std::chrono::milliseconds patience)
      : url_(std::move(url)), access_(access), patience_(patience) {
    connect();
  }

  int64_t execute(const std::string &sql, const std::vector<Value> &values,
                  const std::function<void(const Row &)> &take) override {
    ensureConnected();
    const Parameters parameters(values);
    const std::string name = prepared(sql, parameters);
    const Result result = ask([&](PGconn *c) {
      return PQsendQueryPrepared(c, name.c_str(), parameters.count(), parameters.values.data(),
                                 parameters.lengths.data(), parameters.formats.data(), 1);
    });
    for (int row = 0; take && row < PQntuples(result.get()); ++row) take(PostgresRow(result.get(), row));
    const char *changed = PQcmdTuples(result.get());
    return *changed == '\0' ? 0 : std::stoll(changed);
  }

  void script(const std::string &sql) override {
    ensureConnected();
    ask([&](PGconn *c) { return PQsendQuery(c, sql.c_str()); });
  }

  void begin() override {
    script("BEGIN");
    isInTransaction_ = true;
  }
  void commit() override {
    script("COMMIT");
    isInTransaction_ = false;
  }
  void rollback() noexcept override {
    isInTransaction_ = false;
    if (!isUp()) return;
    try {
      script("ROLLBACK");
    } catch (const StoreError &) {
      connection_.reset();
    }
  }

  void claim() override {}
  bool shrink() override { return false; }
  bool isShared() const override { return true; }

 private:
  [[noreturn]] void fail(std::string reason) const {
    while (!reason.empty() && reason.back() == '\n') reason.pop_back();
    throw StoreError("PostgreSQL: " + reason);
  }

  // What the URL says comes last and counts.
  void connect() {
    statements_.clear();
    static constexpr const char *kKeys[] = {"connect_timeout",
                                            "keepalives_idle",
                                            "keepalives_interval",
                                            "keepalives_count",
                                            "tcp_user_timeout",
                                            "application_name",
                                            "dbname",
                                            nullptr};
    const std::string toConnect =
        std::to_string(std::clamp<int64_t>(patience_.count() / 1000, kLeastToConnect, kMostToConnect));
    const char *values[] = {toConnect.c_str(), "5", "5", "3", "20000", "kep-fleet", url_.c_str(), nullptr};
    connection_.reset(PQconnectdbParams(kKeys, values, 1));
    if (!isUp()) {
      const std::string reason = connection_ ? PQerrorMessage(connection_.get()) : "no memory";
      connection_.reset();
      fail(reason);
    }
    PQsetNoticeProcessor(
        connection_.get(), [](void *, const char *) {}, nullptr);
    PQsetnonblocking(connection_.get(), 1);
    // An instance that is suspended or cut off within a transaction must not keep what it has locked.
    // Statements are planned once, not for each day's partition anew.
    script(
        "SET lock_timeout = '10s'; SET idle_in_transaction_session_timeout = '3s'; SET jit = off;"
        "SET plan_cache_mode = force_generic_plan; SET statement_timeout = " +
        std::to_string(patience_.count()) +
        "; SET default_transaction_read_only = " + (access_ == Access::kRead ? "on" : "off"));
  }

  bool isUp() const { return connection_ && PQstatus(connection_.get()) == CONNECTION_OK; }

  // A connection that the server has closed meanwhile says so when it is read: first its last words, then its end.
  void ensureConnected() {
    if (isInTransaction_) {
      if (!isUp()) fail("the connection is lost");
      return;
    }
    if (isUp() && PQconsumeInput(connection_.get()) && PQconsumeInput(connection_.get()) && isUp()) return;
    connection_.reset();
    connect();
  }

  std::string prepared(const std::string &sql, const Parameters &parameters) {
    const auto found = statements_.find(sql);
    if (found != statements_.end()) return found->second;
    std::string name = "s" + std::to_string(statements_.size());
    ask([&](PGconn *c) {
      return PQsendPrepare(c, name.c_str(), sql.c_str(), parameters.count(), parameters.types.data());
    });
    statements_.emplace(sql, name);
    return name;
  }

  // Sends something, waits for all its results and returns the last one. A connection that does not answer is closed:
  // what it did not say is not known.
  template <typename Send>
  Result ask(const Send &send) {
    PGconn *c = connection_.get();
    const auto end = std::chrono::steady_clock::now() + patience_;
    if (!send(c)) abandon();
    Result last;
    std::string error;
    while (Result result = nextResult(end)) {
      const auto status = PQresultStatus(result.get());
      if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK && error.empty()) {
        error = PQresultErrorMessage(result.get());
        if (error.empty()) error = "an unexpected answer";
      }
      last = std::move(result);
    }
    if (!error.empty()) fail(error);
    if (!last) abandon();
    return last;
  }

  // Empty: there are no more.
  Result nextResult(std::chrono::steady_clock::time_point end) {
    PGconn *c = connection_.get();
    int unsent;
    while ((unsent = PQflush(c)) != 0 || PQisBusy(c)) {
      if (unsent < 0 || !wait(c, unsent != 0, end) || !PQconsumeInput(c)) abandon();
    }
    return Result(PQgetResult(c));
  }

  static bool wait(PGconn *c, bool isSending, std::chrono::steady_clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd socket = {PQsocket(c), static_cast<short>(isSending ? POLLIN | POLLOUT : POLLIN), 0};
    poll(&socket, 1, static_cast<int>(left.count()));
    return true;
  }

  [[noreturn]] void abandon() {
    std::string reason = PQerrorMessage(connection_.get());
    connection_.reset();
    fail(reason.empty() ? "no answer" : reason);
  }

  std::string url_;
  Access access_;
  std::chrono::milliseconds patience_;
  std::unique_ptr<PGconn, Free> connection_;
  std::unordered_map<std::string, std::string> statements_;  // their names on this connection
  bool isInTransaction_ = false;
};

}  // namespace

bool isPostgres(const std::string &where) {
  return where.rfind("postgresql://", 0) == 0 || where.rfind("postgres://", 0) == 0;
}

std::unique_ptr<Database> openPostgres(const std::string &url, Access access, std::chrono::milliseconds patience) {
  return std::make_unique<Postgres>(url, access, patience);
}

}  // namespace kepfleet
