// The account service's state: one SQLite database file in WAL mode.
//
// Changes run inside Store::Transaction on the one writing connection, under
// the store's write lock for the whole transaction: SQLite would serialise
// the writers anyway, and holding one lock keeps each service rule (look up,
// check, change) atomic. Reads that change nothing run inside Store::Read (or
// ReadOne, a single statement) on a read-only connection of their own,
// beside each other and beside the writer: each sees the database as the
// last commit before its first read left it, never a transaction under way.
// A transaction is committed only when its body returns 0; a process killed
// in the middle leaves the database as it was before the transaction.
//
// Every connection keeps the statements prepared on it for as long as it
// lives: parsing the SQL again cost a request more than running it.
#pragma once

#include <sqlite3.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace pellixsim {

// One connection and the statements prepared on it. Used by one thread at a
// time: the store hands it out.
class Connection {
 public:
  explicit Connection(sqlite3* db) : db_(db) {}
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  sqlite3* handle() const { return db_; }
  int64_t LastInsertId() const { return sqlite3_last_insert_rowid(db_); }
  int Changes() const { return sqlite3_changes(db_); }

 private:
  friend class Statement;
  struct Kept {
    std::string sql;  // the key's text
    sqlite3_stmt* stmt;
    bool inUse;
  };
  sqlite3* db_;
  std::unordered_map<std::string_view, std::unique_ptr<Kept>> kept_;  // by SQL text
};

// One statement; parameters are bound in order with Bind(). On a Connection
// it is the connection's kept statement for that SQL, reset when this ends
// (or one of its own while the kept one is in use); on a bare handle it is
// prepared for this use alone.
class Statement {
 public:
  Statement(Connection& connection, const char* sql);
  Statement(sqlite3* db, const char* sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& Bind(const std::string& text);
  Statement& Bind(const char* text);  // null binds SQL NULL
  Statement& Bind(int64_t value);
  // Binds `text` without a copy: it must stay as it is until the statement
  // has run. For rows by the thousand.
  Statement& BindUnowned(std::string_view text);
  // Makes the statement ready to be bound and run again.
  Statement& Again();
  // Next row: true while there is one. Throws StoreError on a failure.
  bool Step();
  // Runs a statement that returns no row.
  void Run();
  std::string Text(int column) const;  // "" for NULL
  // The same, without a copy: valid until the next Step.
  std::string_view View(int column) const;
  int64_t Int(int column) const;
  bool IsNull(int column) const;

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
  Connection::Kept* kept_ = nullptr;  // the connection's, when borrowed
  int next_ = 1;
};

// What a failing SQLite call throws inside a transaction.
struct StoreError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Store {
 public:
  // Opens the database at `path`, creating it and its tables when absent.
  // nullptr with *error set when the file cannot be opened or written, is
  // not a database, fails its integrity check, has a newer schema, or holds
  // a table that is not the service's or not as the service makes it.
  static std::unique_ptr<Store> Open(const std::string& path, std::string* error);
  // The generation that the last ImportService recorded in the database at
  // `path`, read without opening a Store: "" when none, or no database. The
  // host asks it to settle the device files it finds staged for an import
  // (host/state.h). False with *error when the file cannot be read as a
  // database.
  static bool ReadGeneration(const std::string& path, std::string* generation, std::string* error);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Runs body(connection) as one write transaction, serialised with every
  // other. The transaction commits when body returns 0 and rolls back
  // otherwise, or when body throws. Returns body's result; a storage failure
  // (including one that body throws as StoreError) gives `storageError`.
  template <typename Body>
  uint32_t Transaction(uint32_t storageError, Body body) {
    std::lock_guard<std::mutex> lock(writing_);
    return Run(*writer_, "BEGIN IMMEDIATE", storageError, body);
  }
  // As Transaction, and the commit is on disk when it returns (synchronous
  // FULL for this one transaction): what the host renames after the commit
  // must not outlive it in a power cut. Every commit survives a killed
  // process anyway.
  template <typename Body>
  uint32_t DurableTransaction(uint32_t storageError, Body body) {
    std::lock_guard<std::mutex> lock(writing_);
    if (!Exec(*writer_, "PRAGMA synchronous=FULL")) return storageError;
    const uint32_t result = Run(*writer_, "BEGIN IMMEDIATE", storageError, body);
    Exec(*writer_, "PRAGMA synchronous=NORMAL");
    return result;
  }
  // Runs body(connection) as one read transaction, at the same time as other
  // reads and the writer, on one of kReaders read-only connections (waiting
  // for one while all are in use); a body that would write fails with
  // `storageError`. Returns as Transaction does.
  template <typename Body>
  uint32_t Read(uint32_t storageError, Body body) {
    const Lent reader(this);
    return Run(*reader.connection, "BEGIN", storageError, body);
  }
  // Runs body(statement) for the one statement `sql` as Read runs a body,
  // without BEGIN and COMMIT around it: a statement alone reads one
  // committed state, and the hottest read spends no time on two more.
  template <typename Body>
  uint32_t ReadOne(uint32_t storageError, const char* sql, Body body) {
    const Lent reader(this);
    try {
      Statement statement(*reader.connection, sql);
      return body(statement);
    } catch (const StoreError& e) {
      Note(e.what());
      return storageError;
    }
  }

  // The last storage failure.
  std::string LastFailure() const;
  // `report` is called with each storage failure as it happens, one call at
  // a time, under a lock of the store's: it must not call back into the
  // store. Set it before the first transaction.
  void OnFailure(std::function<void(const std::string&)> report) { report_ = std::move(report); }

 private:
  // Read connections, opened with the store: one per request under way on
  // an ordinary machine, and a bound on the descriptors they hold.
  static constexpr size_t kReaders = 8;
  // A read connection, taken for as long as this lives.
  struct Lent {
    explicit Lent(Store* store);
    ~Lent();
    Lent(const Lent&) = delete;
    Lent& operator=(const Lent&) = delete;
    Store* store;
    std::unique_ptr<Connection> connection;
  };

  Store(std::string path, sqlite3* db) : path_(std::move(path)), writer_(new Connection(db)) {}
  template <typename Body>
  uint32_t Run(Connection& c, const char* begin, uint32_t storageError, Body& body) {
    if (!Exec(c, begin)) return storageError;
    uint32_t result;
    try {
      result = body(c);
    } catch (const StoreError& e) {
      Note(e.what());
      Exec(c, "ROLLBACK");
      return storageError;
    } catch (...) {
      // The connection serves the next transaction.
      Exec(c, "ROLLBACK");
      throw;
    }
    if (result != 0) {
      Exec(c, "ROLLBACK");
      return result;
    }
    if (!Exec(c, "COMMIT")) {
      Exec(c, "ROLLBACK");
      return storageError;
    }
    return 0;
  }
  bool Exec(Connection& c, const char* sql);
  void Note(const std::string& failure);

  const std::string path_;
  std::mutex writing_;
  std::unique_ptr<Connection> writer_;  // under writing_
  std::mutex readers_;
  std::condition_variable returned_;
  std::vector<std::unique_ptr<Connection>> idle_;  // under readers_
  mutable std::mutex failures_;
  std::string lastFailure_;  // under failures_
  std::function<void(const std::string&)> report_;
};

}  // namespace pellixsim
