// The account service's state: one SQLite database file.
//
// One connection, shared by every thread of the host. Every read and every
// change runs inside Store::Transaction, which holds the store's mutex for its
// whole length: SQLite would serialise the writers anyway, and holding one
// lock keeps each service rule (look up, check, change) atomic. A transaction
// is committed only when its body returns 0; a process killed in the middle
// leaves the database as it was before the transaction.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

namespace pellixsim {

// One prepared statement; parameters are bound in order with Bind().
class Statement {
 public:
  Statement(sqlite3* db, const char* sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& Bind(const std::string& text);
  Statement& Bind(const char* text);  // null binds SQL NULL
  Statement& Bind(int64_t value);
  // Next row: true while there is one. Throws StoreError on a failure.
  bool Step();
  // Runs a statement that returns no row.
  void Run();
  std::string Text(int column) const;  // "" for NULL
  int64_t Int(int column) const;
  bool IsNull(int column) const;

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
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
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Runs body(db) as one write transaction, serialised with every other. The
  // transaction commits when body returns 0 and rolls back otherwise, or when
  // body throws. Returns body's result; a storage failure (including one that
  // body throws as StoreError) gives `storageError`.
  template <typename Body>
  uint32_t Transaction(uint32_t storageError, Body body) {
    std::lock_guard<std::mutex> lock(mu_);
    if (!Exec("BEGIN IMMEDIATE")) return storageError;
    uint32_t result;
    try {
      result = body(db_);
    } catch (const StoreError& e) {
      Note(e.what());
      Exec("ROLLBACK");
      return storageError;
    }
    if (result != 0) {
      Exec("ROLLBACK");
      return result;
    }
    if (!Exec("COMMIT")) {
      Exec("ROLLBACK");
      return storageError;
    }
    return 0;
  }

  // The last storage failure.
  std::string LastFailure() const;
  // `report` is called with each storage failure as it happens (under the
  // store's lock: it must not call back into the store).
  void OnFailure(std::function<void(const std::string&)> report) { report_ = std::move(report); }

 private:
  explicit Store(sqlite3* db) : db_(db) {}
  bool Exec(const char* sql);
  void Note(const std::string& failure);

  sqlite3* db_;
  mutable std::mutex mu_;
  std::string lastFailure_;  // under mu_
  std::function<void(const std::string&)> report_;
};

}  // namespace pellixsim
