#include "store.h"

#include <unistd.h>

#include <map>
#include <vector>

namespace pellixsim {
namespace {

// 2: the table `generation`.
constexpr int kSchemaVersion = 2;

// E-mail addresses are unique regardless of letter case (`email_key` is the
// lower-case form); the address is kept as it was registered.
const char kSchema[] = R"sql(
CREATE TABLE IF NOT EXISTS accounts(
  id INTEGER PRIMARY KEY,
  email TEXT NOT NULL,
  email_key TEXT NOT NULL UNIQUE,
  salt TEXT NOT NULL,
  hash TEXT NOT NULL,
  iterations INTEGER NOT NULL,
  full_name TEXT NOT NULL,
  country TEXT NOT NULL DEFAULT '',
  notify_language TEXT NOT NULL DEFAULT 'enu',
  timezone TEXT NOT NULL DEFAULT '',
  enews INTEGER NOT NULL DEFAULT 0,
  critical_release INTEGER NOT NULL DEFAULT 0,
  enews_local_promotion INTEGER NOT NULL DEFAULT 0,
  critical_version_list TEXT NOT NULL DEFAULT '',
  activated INTEGER NOT NULL DEFAULT 1,
  registered_from TEXT NOT NULL DEFAULT '',
  created INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS auth_keys(
  auth_key TEXT PRIMARY KEY,
  account_id INTEGER NOT NULL REFERENCES accounts(id),
  serial TEXT NOT NULL,
  issued INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS bindings(
  serial TEXT PRIMARY KEY,
  account_id INTEGER NOT NULL REFERENCES accounts(id),
  auth_key TEXT NOT NULL,
  since INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS access_tokens(
  token TEXT PRIMARY KEY,
  account_id INTEGER NOT NULL REFERENCES accounts(id),
  expires INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS grants(
  code TEXT PRIMARY KEY,
  account_id INTEGER NOT NULL REFERENCES accounts(id),
  client_id TEXT NOT NULL,
  redirect_uri TEXT NOT NULL,
  challenge TEXT NOT NULL,
  expires INTEGER NOT NULL,
  used INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS purchases(
  id INTEGER PRIMARY KEY,
  account_id INTEGER NOT NULL REFERENCES accounts(id),
  app TEXT NOT NULL,
  serial TEXT NOT NULL,
  price TEXT NOT NULL,
  currency TEXT NOT NULL,
  paypal TEXT NOT NULL,
  date TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS limits(
  name TEXT PRIMARY KEY,
  value INTEGER NOT NULL);
-- The generation of the host's whole state that the last import of the
-- service made (snapshot.h ImportService): one row, none before the first.
CREATE TABLE IF NOT EXISTS generation(
  id TEXT NOT NULL);
)sql";

std::string Failure(sqlite3* db, const std::string& what) { return what + ": " + sqlite3_errmsg(db); }

// Each table of a database with its columns, "name TYPE" with NOT NULL and
// PRIMARY KEY where they apply, in order.
using Tables = std::map<std::string, std::vector<std::string>>;
Tables TablesOf(sqlite3* db) {
  Tables tables;
  Statement columns(db,
                    "SELECT m.name, c.name, c.type, c.\"notnull\", c.pk FROM sqlite_schema AS m "
                    "JOIN pragma_table_info(m.name) AS c WHERE m.type = 'table' AND m.name NOT LIKE 'sqlite_%' "
                    "ORDER BY m.name, c.cid");
  while (columns.Step())
    tables[columns.Text(0)].push_back(columns.Text(1) + " " + columns.Text(2) + (columns.Int(3) ? " NOT NULL" : "") +
                                      (columns.Int(4) ? " PRIMARY KEY" : ""));
  return tables;
}

std::string Join(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
  return text;
}

// What makes `db` another program's database rather than the service's, or
// "": a table the service does not keep, or one of its tables made otherwise.
// Tables that are missing are made at start, as in a new database.
std::string NotTheService(sqlite3* db) {
  sqlite3* model = nullptr;
  Tables expected;
  if (sqlite3_open(":memory:", &model) == SQLITE_OK &&
      sqlite3_exec(model, kSchema, nullptr, nullptr, nullptr) == SQLITE_OK)
    expected = TablesOf(model);
  sqlite3_close(model);
  if (expected.empty()) throw StoreError("cannot lay out the service's tables");
  for (const auto& table : TablesOf(db)) {
    auto ours = expected.find(table.first);
    if (ours == expected.end()) return "it has a table \"" + table.first + "\", which the service does not keep";
    if (ours->second != table.second)
      return "its table \"" + table.first + "\" has the columns (" + Join(table.second) + "), the service's (" +
             Join(ours->second) + ")";
  }
  return "";
}

}  // namespace

Connection::~Connection() {
  for (auto& kept : kept_) sqlite3_finalize(kept.second->stmt);
  sqlite3_close_v2(db_);
}

Statement::Statement(Connection& connection, const char* sql) : db_(connection.db_) {
  auto kept = connection.kept_.find(sql);
  if (kept != connection.kept_.end() && !kept->second->inUse) {
    kept_ = kept->second.get();
  } else {
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr) != SQLITE_OK)
      throw StoreError(Failure(db_, sql));
    // The kept one is in use further up the stack (a body that runs the
    // same SQL while it steps through its rows): this one is for this use.
    if (kept != connection.kept_.end()) return;
    auto made = std::make_unique<Connection::Kept>(Connection::Kept{sql, stmt_, false});
    kept_ = made.get();
    connection.kept_.emplace(kept_->sql, std::move(made));
  }
  kept_->inUse = true;
  stmt_ = kept_->stmt;
}

Statement::Statement(sqlite3* db, const char* sql) : db_(db) {
  if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) throw StoreError(Failure(db, sql));
}

Statement::~Statement() {
  if (!kept_) {
    sqlite3_finalize(stmt_);
    return;
  }
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
  kept_->inUse = false;
}

Statement& Statement::Bind(const std::string& text) {
  sqlite3_bind_text(stmt_, next_++, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  return *this;
}
Statement& Statement::Bind(const char* text) {
  if (text) return Bind(std::string(text));
  sqlite3_bind_null(stmt_, next_++);
  return *this;
}
Statement& Statement::Bind(int64_t value) {
  sqlite3_bind_int64(stmt_, next_++, value);
  return *this;
}
Statement& Statement::BindUnowned(std::string_view text) {
  // An empty view may have no data, which SQLite would take for NULL.
  sqlite3_bind_text(stmt_, next_++, text.data() ? text.data() : "", static_cast<int>(text.size()), SQLITE_STATIC);
  return *this;
}
Statement& Statement::Again() {
  sqlite3_reset(stmt_);
  next_ = 1;
  return *this;
}

bool Statement::Step() {
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  throw StoreError(Failure(db_, sqlite3_sql(stmt_)));
}
void Statement::Run() {
  while (Step()) {
  }
}

std::string Statement::Text(int column) const {
  const unsigned char* text = sqlite3_column_text(stmt_, column);
  return text ? std::string(reinterpret_cast<const char*>(text), sqlite3_column_bytes(stmt_, column)) : "";
}
std::string_view Statement::View(int column) const {
  const unsigned char* text = sqlite3_column_text(stmt_, column);
  return text ? std::string_view(reinterpret_cast<const char*>(text),
                                 static_cast<size_t>(sqlite3_column_bytes(stmt_, column)))
              : std::string_view();
}
int64_t Statement::Int(int column) const { return sqlite3_column_int64(stmt_, column); }
bool Statement::IsNull(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }

std::unique_ptr<Store> Store::Open(const std::string& path, std::string* error) {
  sqlite3* db = nullptr;
  // Each connection is used by one thread at a time: SQLite's own lock per
  // call would only cost.
  int rc =
      sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  std::unique_ptr<Store> store(db ? new Store(path, db) : nullptr);
  if (rc != SQLITE_OK) {
    *error = path + ": cannot open: " + (db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
    return nullptr;
  }
  sqlite3_busy_timeout(db, 5000);
  sqlite3_extended_result_codes(db, 1);
  try {
    // A file that is not a database fails here, on its first read.
    int64_t schema = 0;
    std::string verdict = "no answer";
    {
      Statement version(db, "PRAGMA user_version");
      if (version.Step()) schema = version.Int(0);
    }
    if (schema > kSchemaVersion) {
      *error = path + ": written by a newer version (schema " + std::to_string(schema) + ")";
      return nullptr;
    }
    {
      Statement check(db, "PRAGMA quick_check");
      if (check.Step()) verdict = check.Text(0);
    }
    if (verdict != "ok") {
      *error = path + ": damaged: " + verdict;
      return nullptr;
    }
    const std::string foreign = NotTheService(db);
    if (!foreign.empty()) {
      *error = path + ": not the account service's database: " + foreign;
      return nullptr;
    }
    // WAL with NORMAL sync: a killed process loses nothing committed, and
    // readers neither wait for the writer nor see its transaction under way.
    Statement(db, "PRAGMA journal_mode=WAL").Run();
    if (!store->Exec(*store->writer_, "PRAGMA synchronous=NORMAL") ||
        !store->Exec(*store->writer_, "PRAGMA foreign_keys=ON")) {
      *error = path + ": " + store->LastFailure();
      return nullptr;
    }
  } catch (const StoreError& e) {
    *error = path + ": not a usable database: " + e.what();
    return nullptr;
  }
  // Creating the tables is also the first write: an unwritable file or folder
  // is refused here rather than on the first request.
  uint32_t created = store->Transaction(1, [](Connection& c) -> uint32_t {
    char* message = nullptr;
    if (sqlite3_exec(c.handle(), kSchema, nullptr, nullptr, &message) != SQLITE_OK) {
      std::string failure = message ? message : "cannot create tables";
      sqlite3_free(message);
      throw StoreError(failure);
    }
    Statement(c.handle(), ("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str()).Run();
    return 0;
  });
  if (created != 0) {
    *error = path + ": cannot write: " + store->LastFailure();
    return nullptr;
  }
  for (size_t i = 0; i < kReaders; ++i) {
    sqlite3* reader = nullptr;
    rc = sqlite3_open_v2(path.c_str(), &reader, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    if (reader) store->idle_.emplace_back(new Connection(reader));
    if (rc != SQLITE_OK) {
      *error = path + ": cannot open for reading: " + (reader ? sqlite3_errmsg(reader) : sqlite3_errstr(rc));
      return nullptr;
    }
    // A reader waits only while a checkpoint starts the log anew.
    sqlite3_busy_timeout(reader, 5000);
    sqlite3_extended_result_codes(reader, 1);
    // Its first read opens the log and reads the schema: done here, so that
    // a request finds it ready and the host's descriptors stay as many.
    try {
      Statement(reader, "SELECT COUNT(*) FROM sqlite_schema").Run();
    } catch (const StoreError& e) {
      *error = path + ": cannot read: " + e.what();
      return nullptr;
    }
  }
  return store;
}

bool Store::ReadGeneration(const std::string& path, std::string* generation, std::string* error) {
  generation->clear();
  if (access(path.c_str(), F_OK) != 0) return true;  // no database, no import
  sqlite3* db = nullptr;
  // Read-write, as Open: the first connection after a killed process
  // recovers the log's index.
  const int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  try {
    if (rc != SQLITE_OK) throw StoreError(db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
    sqlite3_busy_timeout(db, 5000);
    // A database older than the table has had no import that staged files.
    Statement known(db, "SELECT COUNT(*) FROM sqlite_schema WHERE type = 'table' AND name = 'generation'");
    if (known.Step() && known.Int(0) > 0) {
      Statement id(db, "SELECT id FROM generation");
      if (id.Step()) *generation = id.Text(0);
    }
  } catch (const StoreError& e) {
    *error = path + ": cannot read: " + e.what();
    sqlite3_close_v2(db);
    return false;
  }
  sqlite3_close_v2(db);
  return true;
}

Store::~Store() = default;

bool Store::Exec(Connection& c, const char* sql) {
  try {
    Statement(c, sql).Run();
    return true;
  } catch (const StoreError& e) {
    Note(e.what());
    return false;
  }
}

Store::Lent::Lent(Store* s) : store(s) {
  std::unique_lock<std::mutex> lock(store->readers_);
  store->returned_.wait(lock, [this] { return !store->idle_.empty(); });
  connection = std::move(store->idle_.back());
  store->idle_.pop_back();
}

Store::Lent::~Lent() {
  {
    std::lock_guard<std::mutex> lock(store->readers_);
    store->idle_.push_back(std::move(connection));
  }
  store->returned_.notify_one();
}

void Store::Note(const std::string& failure) {
  std::lock_guard<std::mutex> lock(failures_);
  lastFailure_ = failure;
  if (report_) report_(failure);
}

std::string Store::LastFailure() const {
  std::lock_guard<std::mutex> lock(failures_);
  return lastFailure_;
}

}  // namespace pellixsim
