// database.hpp: SQL, for the store alone: one set of statements for SQLite and PostgreSQL. Parameters are "$1", "$2",
// ..., numbered in the order in which they first appear; integers and bytes are the only types.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kepfleet {

using Value = std::variant<int64_t, std::string_view>;

class Row {
 public:
  virtual ~Row() = default;
  virtual int64_t integer(int column) const = 0;
  virtual std::string_view bytes(int column) const = 0;  // until the row is left
};

// One connection. Every call may throw StoreError, what() says of which store; a shared database is connected to again
// when it can be, but never within a transaction.
class Database {
 public:
  virtual ~Database() = default;

  // Runs one statement, kept prepared: there are to be few. Returns how many rows it changed.
  virtual int64_t execute(const std::string &sql, const std::vector<Value> &values = {},
                          const std::function<void(const Row &)> &take = nullptr) = 0;

  // Runs statements without parameters.
  virtual void script(const std::string &sql) = 0;

  virtual void begin() = 0;
  virtual void commit() = 0;
  virtual void rollback() noexcept = 0;

  // As long as this connection lives, no other process or connection may claim the database. Nothing in one that is
  // shared.
  virtual void claim() = 0;

  // Gives free space back to the file system, in a small step; whether there is more to give back.
  virtual bool shrink() = 0;

  virtual bool isShared() const = 0;  // PostgreSQL
};

// Rolled back unless it is committed.
class Transaction {
 public:
  explicit Transaction(Database &database) : database_(database) { database_.begin(); }
  ~Transaction() {
    if (isOpen_) database_.rollback();
  }
  Transaction(const Transaction &) = delete;
  Transaction &operator=(const Transaction &) = delete;

  void commit() {
    database_.commit();
    isOpen_ = false;
  }

 private:
  Database &database_;
  bool isOpen_ = true;
};

enum class Access { kWrite, kRead };

bool isPostgres(const std::string &where);
std::unique_ptr<Database> openSqlite(const std::string &path, Access access);

// `patience`: with each statement; with a connection likewise, but from two seconds to five.
std::unique_ptr<Database> openPostgres(const std::string &url, Access access, std::chrono::milliseconds patience);

}  // namespace kepfleet
