#include "push/PendingStore.h"

#include <libpq-fe.h>
#include <poll.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace rd::push {

namespace {

// ------------------------------------------------------------------ SQLite

class SqlitePending : public PendingStore {
 public:
  SqlitePending(const std::string& path, int limit) : limit_(limit) {
    if (sqlite3_open_v2(path.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
      std::string why = db_ ? sqlite3_errmsg(db_) : "out of memory";
      sqlite3_close(db_);
      throw std::runtime_error("cannot open push database " + path + ": " + why);
    }
    sqlite3_busy_timeout(db_, 5000);
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA synchronous=NORMAL");
    exec(
        "CREATE TABLE IF NOT EXISTS push_pending ("
        " id INTEGER PRIMARY KEY AUTOINCREMENT,"
        " device_token TEXT NOT NULL,"
        " payload TEXT NOT NULL,"
        " created_at INTEGER NOT NULL DEFAULT (strftime('%s','now')))");
    exec("CREATE INDEX IF NOT EXISTS push_pending_device ON push_pending(device_token, id)");
  }
  ~SqlitePending() override { sqlite3_close(db_); }

  std::int64_t add(const std::string& token, const std::string& payload) override {
    std::int64_t id;
    {
      std::lock_guard lock(mu_);
      exec("BEGIN IMMEDIATE");
      try {
        Stmt ins(db_, "INSERT INTO push_pending(device_token, payload) VALUES(?, ?)");
        ins.text(1, token).text(2, payload).done();
        id = sqlite3_last_insert_rowid(db_);
        Stmt trim(
            db_,
            "DELETE FROM push_pending WHERE device_token = ?1 AND id NOT IN "
            "(SELECT id FROM push_pending WHERE device_token = ?1 ORDER BY id DESC LIMIT ?2)");
        trim.text(1, token);
        sqlite3_bind_int(trim.s, 2, limit_);
        trim.done();
        exec("COMMIT");
      } catch (...) {
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
      }
    }
    AddedFn fn;
    {
      std::lock_guard lock(watch_mu_);
      fn = watcher_;
    }
    if (fn) fn(token);
    return id;
  }

  std::vector<PendingPush> list(const std::string& token) override {
    std::lock_guard lock(mu_);
    Stmt q(db_, "SELECT id, payload FROM push_pending WHERE device_token = ? ORDER BY id");
    q.text(1, token);
    std::vector<PendingPush> out;
    int rc;
    while ((rc = sqlite3_step(q.s)) == SQLITE_ROW)
      out.push_back({sqlite3_column_int64(q.s, 0),
                     reinterpret_cast<const char*>(sqlite3_column_text(q.s, 1))});
    if (rc != SQLITE_DONE) fail("reading pending pushes");
    return out;
  }

  void remove(const std::string& token, const std::vector<std::int64_t>& ids) override {
    if (ids.empty()) return;
    std::string sql = "DELETE FROM push_pending WHERE device_token = ? AND id IN (?";
    for (std::size_t i = 1; i < ids.size(); ++i) sql += ",?";
    sql += ")";
    std::lock_guard lock(mu_);
    Stmt d(db_, sql.c_str());
    d.text(1, token);
    for (std::size_t i = 0; i < ids.size(); ++i)
      sqlite3_bind_int64(d.s, static_cast<int>(i) + 2, ids[i]);
    d.done();
  }

  void watch(AddedFn fn) override {
    std::lock_guard lock(watch_mu_);
    watcher_ = std::move(fn);
  }
  void stop() override { watch(nullptr); }

 private:
  struct Stmt {
    sqlite3_stmt* s = nullptr;
    sqlite3* db;
    Stmt(sqlite3* d, const char* sql) : db(d) {
      if (sqlite3_prepare_v2(db, sql, -1, &s, nullptr) != SQLITE_OK)
        throw std::runtime_error(std::string("push database: ") + sqlite3_errmsg(db));
    }
    ~Stmt() { sqlite3_finalize(s); }
    Stmt& text(int i, const std::string& v) {
      sqlite3_bind_text(s, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
      return *this;
    }
    void done() {
      if (sqlite3_step(s) != SQLITE_DONE)
        throw std::runtime_error(std::string("push database: ") + sqlite3_errmsg(db));
    }
  };

  void exec(const char* sql) {
    char* err = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) != SQLITE_OK) {
      std::string why = err ? err : "unknown error";
      sqlite3_free(err);
      throw std::runtime_error("push database: " + why);
    }
  }
  [[noreturn]] void fail(const char* what) {
    throw std::runtime_error(std::string("push database, ") + what + ": " + sqlite3_errmsg(db_));
  }

  sqlite3* db_ = nullptr;
  int limit_;
  std::mutex mu_;
  std::mutex watch_mu_;
  AddedFn watcher_;
};

// ------------------------------------------------------------------ PostgreSQL

constexpr const char* kChannel = "rongdian_push";

struct PgResult {
  PGresult* r;
  explicit PgResult(PGresult* res) : r(res) {}
  ~PgResult() { PQclear(r); }
  PgResult(const PgResult&) = delete;
  PgResult& operator=(const PgResult&) = delete;
};

class PgPending : public PendingStore {
 public:
  PgPending(const std::string& url, int limit) : url_(url), limit_(limit) {
    conn_ = connect();
    // Several instances may start at once: create the tables under a lock.
    run("SELECT pg_advisory_lock(7202611)", {});
    try {
      run("CREATE TABLE IF NOT EXISTS push_pending ("
          " id BIGSERIAL PRIMARY KEY,"
          " device_token TEXT NOT NULL,"
          " payload TEXT NOT NULL,"
          " created_at TIMESTAMPTZ NOT NULL DEFAULT now())",
          {});
      run("CREATE INDEX IF NOT EXISTS push_pending_device ON push_pending(device_token, id)", {});
    } catch (...) {
      PQclear(PQexec(conn_, "SELECT pg_advisory_unlock(7202611)"));
      throw;
    }
    run("SELECT pg_advisory_unlock(7202611)", {});
  }

  ~PgPending() override {
    stop();
    PQfinish(conn_);
  }

  std::int64_t add(const std::string& token, const std::string& payload) override {
    std::lock_guard lock(mu_);
    // One statement: store, trim to the newest, and tell every instance.
    auto res = run(
        "WITH ins AS (INSERT INTO push_pending(device_token, payload) VALUES($1, $2) RETURNING id),"
        " trimmed AS (DELETE FROM push_pending WHERE device_token = $1 AND id IN"
        "  (SELECT id FROM push_pending WHERE device_token = $1 ORDER BY id DESC OFFSET $3))"
        " SELECT id, pg_notify('" +
            std::string(kChannel) + "', $1) FROM ins",
        {token, payload, std::to_string(limit_ - 1)});
    return std::stoll(PQgetvalue(res->r, 0, 0));
  }

  std::vector<PendingPush> list(const std::string& token) override {
    std::lock_guard lock(mu_);
    auto res =
        run("SELECT id, payload FROM push_pending WHERE device_token = $1 ORDER BY id", {token});
    std::vector<PendingPush> out;
    for (int i = 0; i < PQntuples(res->r); ++i)
      out.push_back({std::stoll(PQgetvalue(res->r, i, 0)), PQgetvalue(res->r, i, 1)});
    return out;
  }

  void remove(const std::string& token, const std::vector<std::int64_t>& ids) override {
    if (ids.empty()) return;
    std::string array = "{";
    for (auto id : ids) array += (array.size() > 1 ? "," : "") + std::to_string(id);
    array += "}";
    std::lock_guard lock(mu_);
    run("DELETE FROM push_pending WHERE device_token = $1 AND id = ANY($2::bigint[])",
        {token, array});
  }

  void watch(AddedFn fn) override {
    watcher_ = std::move(fn);
    listen_conn_ = connect();
    PgResult r(PQexec(listen_conn_, ("LISTEN " + std::string(kChannel)).c_str()));
    if (PQresultStatus(r.r) != PGRES_COMMAND_OK)
      throw std::runtime_error(std::string("push database: LISTEN failed: ") +
                               PQerrorMessage(listen_conn_));
    listener_ = std::thread([this] { listen_loop(); });
  }

  void stop() override {
    stopping_ = true;
    if (listener_.joinable()) listener_.join();
    if (listen_conn_) {
      PQfinish(listen_conn_);
      listen_conn_ = nullptr;
    }
  }

 private:
  PGconn* connect() {
    PGconn* c = PQconnectdb(url_.c_str());
    if (PQstatus(c) != CONNECTION_OK) {
      std::string why = PQerrorMessage(c);
      PQfinish(c);
      throw std::runtime_error("cannot connect to the push database: " + why);
    }
    PQclear(PQexec(c, "SET client_min_messages = warning"));
    return c;
  }

  std::unique_ptr<PgResult> run(const std::string& sql, const std::vector<std::string>& params) {
    for (int attempt = 0;; ++attempt) {
      std::vector<const char*> values;
      for (const auto& p : params) values.push_back(p.c_str());
      auto res = std::make_unique<PgResult>(PQexecParams(conn_, sql.c_str(),
                                                         static_cast<int>(values.size()), nullptr,
                                                         values.data(), nullptr, nullptr, 0));
      auto st = PQresultStatus(res->r);
      if (st == PGRES_COMMAND_OK || st == PGRES_TUPLES_OK) return res;
      // A dropped connection is retried once on a fresh one.
      if (attempt == 0 && PQstatus(conn_) == CONNECTION_BAD) {
        PQreset(conn_);
        if (PQstatus(conn_) == CONNECTION_OK) continue;
      }
      throw std::runtime_error(std::string("push database: ") + PQerrorMessage(conn_));
    }
  }

  void listen_loop() {
    while (!stopping_) {
      if (PQstatus(listen_conn_) != CONNECTION_OK) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        PQreset(listen_conn_);
        if (PQstatus(listen_conn_) == CONNECTION_OK) {
          PQclear(PQexec(listen_conn_, ("LISTEN " + std::string(kChannel)).c_str()));
          if (watcher_) watcher_({});  // notifications may have been missed: check everyone
        }
        continue;
      }
      pollfd p{PQsocket(listen_conn_), POLLIN, 0};
      if (::poll(&p, 1, 200) < 0) continue;
      if (!PQconsumeInput(listen_conn_)) continue;
      while (PGnotify* n = PQnotifies(listen_conn_)) {
        std::string token = n->extra;
        PQfreemem(n);
        if (watcher_ && !stopping_) {
          try {
            watcher_(token);
          } catch (const std::exception& e) {
            std::cerr << "rongdian-server: push delivery failed: " << e.what() << "\n";
          }
        }
      }
    }
  }

  std::string url_;
  int limit_;
  PGconn* conn_ = nullptr;
  PGconn* listen_conn_ = nullptr;
  std::mutex mu_;
  AddedFn watcher_;
  std::thread listener_;
  std::atomic<bool> stopping_{false};
};

}  // namespace

std::unique_ptr<PendingStore> open_pending_store(const std::string& database,
                                                 const std::string& sqlite_path, int limit) {
  if (limit < 1) limit = 1;
  if (database.rfind("postgresql://", 0) == 0 || database.rfind("postgres://", 0) == 0)
    return std::make_unique<PgPending>(database, limit);
  return std::make_unique<SqlitePending>(sqlite_path, limit);
}

}  // namespace rd::push
