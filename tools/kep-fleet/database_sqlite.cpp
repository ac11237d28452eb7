// database_sqlite.cpp: an SQLite file. It is written ahead of (WAL), so that readers and the writer do not wait for
// each other, and what is committed outlives the process.

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <unordered_map>

#include "common/process.hpp"
#include "kep-fleet/database.hpp"
#include "kep-fleet/store.hpp"

namespace kepfleet {

namespace {

constexpr int kBusyMilliseconds = 2'000;
constexpr int kInstructions = 100'000;   // of SQLite's, between two looks for a signal
constexpr int64_t kPagesAtOnce = 1'000;  // given back in one step: 4 MB

struct Close {
  void operator()(sqlite3 *database) const { sqlite3_close_v2(database); }
  void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Close>;

class SqliteRow : public Row {
 public:
  explicit SqliteRow(sqlite3_stmt *statement) : statement_(statement) {}
  int64_t integer(int column) const override { return sqlite3_column_int64(statement_, column); }
  std::string_view bytes(int column) const override {
    const void *data = sqlite3_column_blob(statement_, column);
    return data == nullptr ? std::string_view()
                           : std::string_view(static_cast<const char *>(data),
                                              static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
  }

 private:
  sqlite3_stmt *statement_;
};

// Leaves a statement as it is to be before its next use, whatever happens in between.
struct Reset {
  sqlite3_stmt *statement;
  ~Reset() {
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
  }
};

class Sqlite final : public Database {
 public:
  Sqlite(const std::string &path, Access access) : path_(path) {
    if (access == Access::kWrite) makeFile();
    sqlite3 *database = nullptr;
    const int flags = access == Access::kWrite ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY;
    const int opened = sqlite3_open_v2(path.c_str(), &database, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(database);
    check(opened);
    check(sqlite3_extended_result_codes(database, 1));
    check(sqlite3_busy_timeout(database, kBusyMilliseconds));
    // A command that reads, or copies, ends at a signal however large the store is; the server waits for its own.
    const auto isSignalled = [](void *) { return kepcommand::signalled() ? 1 : 0; };
    if (access == Access::kRead) sqlite3_progress_handler(database, kInstructions, isSignalled, nullptr);
    // A commit is in the file's log before it returns; the log is flushed to the disk when it is merged into the file,
    // which is as often as a burst of index pages pays for.
    if (access == Access::kWrite) {
      script(
          "PRAGMA auto_vacuum = INCREMENTAL; PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;"
          "PRAGMA wal_autocheckpoint = 4000; PRAGMA journal_size_limit = 67108864; PRAGMA cache_size = -16000");
    }
  }

  int64_t execute(const std::string &sql, const std::vector<Value> &values,
                  const std::function<void(const Row &)> &take) override {
    sqlite3_stmt *statement = prepared(sql);
    const Reset reset{statement};
    for (size_t i = 0; i < values.size(); ++i) bind(statement, static_cast<int>(i) + 1, values[i]);
    const SqliteRow row(statement);
    int stepped;
    while ((stepped = sqlite3_step(statement)) == SQLITE_ROW) {
      if (take) take(row);
    }
    if (stepped != SQLITE_DONE) check(stepped);
    return sqlite3_changes64(database_.get());
  }

  void script(const std::string &sql) override {
    check(sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr));
  }

  void begin() override { execute("BEGIN IMMEDIATE", {}, nullptr); }
  void commit() override { execute("COMMIT", {}, nullptr); }
  void rollback() noexcept override {
    // After some errors SQLite has rolled back by itself.
    if (!sqlite3_get_autocommit(database_.get())) {
      sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }

  // The system gives the lock back however the process ends. It is on a file of its own, which stays: closing any
  // descriptor of the database itself would end SQLite's locks.
  void claim() override {
    const std::string path = std::filesystem::weakly_canonical(path_).string() + "-lock";
    lock_.file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock_.file < 0) fail(path);
    if (flock(lock_.file, LOCK_EX | LOCK_NB) == 0) return;
    if (errno != EWOULDBLOCK) fail(path);
    throw StoreError(path_ + ": another kep-fleet collects into this file");
  }

  bool shrink() override {
    const int64_t all = pragma("PRAGMA page_count"), unused = pragma("PRAGMA freelist_count");
    const int64_t reserve = all / 8 + 64;  // it is filled again by what comes next
    if (unused <= reserve) return false;
    script("PRAGMA incremental_vacuum(" + std::to_string(std::min(unused - reserve, kPagesAtOnce)) + ")");
    // A file that was made by other means may give nothing back.
    return unused - reserve > kPagesAtOnce && pragma("PRAGMA freelist_count") < unused;
  }

  bool isShared() const override { return false; }

 private:
  void check(int result) const {
    if (result == SQLITE_OK) return;
    throw StoreError(path_ + ": " + (database_ ? sqlite3_errmsg(database_.get()) : sqlite3_errstr(result)));
  }

  // What boards say is nobody else's to read.
  void makeFile() const {
    std::filesystem::path folder;
    for (const auto &part : std::filesystem::path(path_).parent_path()) {
      folder /= part;
      if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) fail(folder.string());
    }
    const int file = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) fail(path_);
    close(file);
  }

  [[noreturn]] static void fail(const std::string &path) {
    throw StoreError(path + ": " + std::error_code(errno, std::generic_category()).message());
  }

  sqlite3_stmt *prepared(const std::string &sql) {
    Statement &kept = statements_[sql];
    if (!kept) {
      sqlite3_stmt *statement = nullptr;
      const int result = sqlite3_prepare_v3(database_.get(), sql.c_str(), static_cast<int>(sql.size()),
                                            SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
      kept.reset(statement);
      check(result);
    }
    return kept.get();
  }

  // Parameters count in the order in which they first appear, which is that of their numbers.
  void bind(sqlite3_stmt *statement, int place, const Value &value) const {
    if (const auto *integer = std::get_if<int64_t>(&value)) {
      check(sqlite3_bind_int64(statement, place, *integer));
    } else {
      const auto &bytes = std::get<std::string_view>(value);
      const char *data = bytes.empty() ? "" : bytes.data();  // no bytes are not NULL
      check(sqlite3_bind_blob64(statement, place, data, bytes.size(), SQLITE_STATIC));
    }
  }

  int64_t pragma(const std::string &sql) {
    int64_t value = 0;
    execute(sql, {}, [&](const Row &row) { value = row.integer(0); });
    return value;
  }

  struct Lock {
    int file = -1;
    ~Lock() {
      if (file >= 0) close(file);
    }
  };

  std::string path_;
  Lock lock_;
  std::unique_ptr<sqlite3, Close> database_;
  std::unordered_map<std::string, Statement> statements_;  // closed before the database
};

// A file whose copying is not finished is removed.
class NewFile {
 public:
  explicit NewFile(const std::string &path)
      : path_(path), descriptor_(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) {
    if (descriptor_ < 0) fail();
  }
  ~NewFile() {
    close(descriptor_);
    if (isDone_) return;
    unlink(path_.c_str());
    unlink((path_ + "-journal").c_str());
  }
  NewFile(const NewFile &) = delete;
  NewFile &operator=(const NewFile &) = delete;

  void finish() {
    if (fsync(descriptor_) != 0) fail();
    isDone_ = true;
  }

 private:
  [[noreturn]] void fail() const {
    throw StoreError(path_ + ": " + std::error_code(errno, std::generic_category()).message());
  }

  std::string path_;
  int descriptor_;
  bool isDone_ = false;
};

}  // namespace

std::unique_ptr<Database> openSqlite(const std::string &path, Access access) {
  return std::make_unique<Sqlite>(path, access);
}

void backupStore(const std::string &where, const std::string &file) {
  if (isPostgres(where)) throw StoreError("A PostgreSQL database is copied by pg_dump");
  // One snapshot: copying page by page would begin again with every write.
  const auto database = openSqlite(where, Access::kRead);
  NewFile copy(file);
  std::string quoted;
  for (const char c : file) quoted += c == '\'' ? "''" : std::string(1, c);
  try {
    database->script("VACUUM INTO '" + quoted + "'");
  } catch (const StoreError &error) {
    throw StoreError("cannot copy to " + file + ": " + error.what());
  }
  copy.finish();
}

}  // namespace kepfleet
