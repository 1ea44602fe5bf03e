// The embedded engine: one SQLite file in WAL mode with foreign keys on.
// Readers run in parallel on pooled connections; writers take turns inside
// this process (no busy waits), and the busy timeout covers other processes.
#include <sqlite3.h>

#include <filesystem>
#include <unordered_map>

#include "store/Schema.h"
#include "store/SqlStore.h"

namespace rd::store {

namespace {

class SqliteConn : public sql::Conn {
 public:
  explicit SqliteConn(const std::string& path) {
    int rc =
        sqlite3_open_v2(path.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
      std::string msg = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
      sqlite3_close(db_);
      db_ = nullptr;
      throw Error("cannot open the SQLite database " + path + ": " + msg);
    }
    sqlite3_busy_timeout(db_, 10000);
    sqlite3_extended_result_codes(db_, 1);
    exec_script(
        "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA foreign_keys = ON;");
  }

  ~SqliteConn() override {
    for (auto& [sql, st] : stmts_) sqlite3_finalize(st);
    sqlite3_close(db_);
  }

  std::vector<sql::Row> query(const std::string& text,
                              const std::vector<sql::Param>& params) override {
    sqlite3_stmt* st = prepare(text);
    sqlite3_reset(st);
    sqlite3_clear_bindings(st);
    for (std::size_t i = 0; i < params.size(); ++i) {
      int idx = static_cast<int>(i + 1);
      int rc = SQLITE_OK;
      if (auto* n = std::get_if<std::int64_t>(&params[i]))
        rc = sqlite3_bind_int64(st, idx, *n);
      else if (auto* s = std::get_if<std::string>(&params[i]))
        rc = sqlite3_bind_text(st, idx, s->data(), static_cast<int>(s->size()), SQLITE_TRANSIENT);
      else
        rc = sqlite3_bind_null(st, idx);
      if (rc != SQLITE_OK) fail("bind", rc);
    }
    std::vector<sql::Row> rows;
    int cols = sqlite3_column_count(st);
    for (;;) {
      int rc = sqlite3_step(st);
      if (rc == SQLITE_DONE) break;
      if (rc != SQLITE_ROW) {
        sqlite3_reset(st);
        fail("step", rc);
      }
      sql::Row r;
      r.cols.reserve(static_cast<std::size_t>(cols));
      for (int c = 0; c < cols; ++c) {
        if (sqlite3_column_type(st, c) == SQLITE_NULL) {
          r.cols.emplace_back(std::nullopt);
        } else {
          auto* p = reinterpret_cast<const char*>(sqlite3_column_text(st, c));
          r.cols.emplace_back(
              std::string(p, static_cast<std::size_t>(sqlite3_column_bytes(st, c))));
        }
      }
      rows.push_back(std::move(r));
    }
    sqlite3_reset(st);
    return rows;
  }

  void exec_script(const std::string& text) override {
    char* err = nullptr;
    int rc = sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &err);
    if (rc != SQLITE_OK) {
      std::string msg = err ? err : sqlite3_errstr(rc);
      sqlite3_free(err);
      throw Error("SQLite: " + msg);
    }
  }

  void begin_write() override { exec_script("BEGIN IMMEDIATE"); }
  void commit() override { exec_script("COMMIT"); }
  void rollback() noexcept override {
    if (!sqlite3_get_autocommit(db_)) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }

 private:
  sqlite3_stmt* prepare(const std::string& text) {
    auto it = stmts_.find(text);
    if (it != stmts_.end()) return it->second;
    sqlite3_stmt* st = nullptr;
    int rc = sqlite3_prepare_v3(db_, text.c_str(), static_cast<int>(text.size()),
                                SQLITE_PREPARE_PERSISTENT, &st, nullptr);
    if (rc != SQLITE_OK) fail("prepare", rc);
    stmts_.emplace(text, st);
    return st;
  }

  [[noreturn]] void fail(const char* what, int rc) {
    std::string msg = std::string("SQLite ") + what + ": " + sqlite3_errmsg(db_);
    if (rc == SQLITE_CONSTRAINT_UNIQUE || rc == SQLITE_CONSTRAINT_PRIMARYKEY)
      throw sql::UniqueViolation(msg);
    if (rc == SQLITE_CONSTRAINT_FOREIGNKEY) throw sql::ForeignKeyViolation(msg);
    throw Error(msg);
  }

  sqlite3* db_ = nullptr;
  std::unordered_map<std::string, sqlite3_stmt*> stmts_;
};

}  // namespace

std::shared_ptr<Store> open_sqlite(const std::string& path, int connections) {
  std::error_code ec;
  auto parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent, ec);
  sql::Dialect d;
  d.name = "sqlite";
  d.migrations = {sql::schema_v1("INTEGER PRIMARY KEY AUTOINCREMENT", "INTEGER"),
                  sql::schema_v2("INTEGER PRIMARY KEY AUTOINCREMENT", "INTEGER"),
                  sql::schema_v3("INTEGER"),
                  sql::schema_v4(),
                  sql::schema_v5("INTEGER PRIMARY KEY AUTOINCREMENT",
                                 "INTEGER NOT NULL DEFAULT (strftime('%s','now'))"),
                  sql::schema_v6("INTEGER"),
                  sql::schema_voice_rows()};
  d.serialize_writes = true;
  return std::make_shared<sql::SqlStore>(
      std::move(d), [path] { return std::make_unique<SqliteConn>(path); }, connections);
}

}  // namespace rd::store
