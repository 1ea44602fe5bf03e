#include "push/PendingStore.h"

#include <libpq-fe.h>
#include <poll.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace rd::push {

namespace {

// The channel the store notifies on when it kept a push (the payload is the
// device's token).
constexpr const char* kChannel = "rongdian_push";

class DbPending : public PendingStore {
 public:
  explicit DbPending(std::shared_ptr<store::Store> store) : store_(std::move(store)) {}
  ~DbPending() override { stop(); }

  std::vector<PendingPush> list(const std::string& token) override { return store_->pushes(token); }
  void remove(const std::string& token, const std::vector<std::int64_t>& ids) override {
    store_->remove_pushes(token, ids);
  }
  void added(const std::vector<std::string>& tokens) override {
    AddedFn fn;
    {
      std::lock_guard lock(mu_);
      fn = watcher_;
    }
    if (fn)
      for (const auto& t : tokens) fn(t);
  }
  void watch(AddedFn fn) override {
    std::lock_guard lock(mu_);
    watcher_ = std::move(fn);
  }
  void stop() override {
    std::lock_guard lock(mu_);
    watcher_ = nullptr;
  }

 protected:
  std::shared_ptr<store::Store> store_;
  std::mutex mu_;
  AddedFn watcher_;
};

// The same on PostgreSQL: a connection of its own listens for every
// instance's pushes, its own included, which it hears the same way.
class PgPending : public DbPending {
 public:
  PgPending(std::shared_ptr<store::Store> store, std::string url)
      : DbPending(std::move(store)), url_(std::move(url)) {}
  ~PgPending() override { stop(); }

  void added(const std::vector<std::string>&) override {}  // heard like the others'

  void watch(AddedFn fn) override {
    DbPending::watch(std::move(fn));
    conn_ = PQconnectdb(url_.c_str());
    if (PQstatus(conn_) != CONNECTION_OK || !listen())
      throw std::runtime_error(std::string("push database: cannot listen: ") +
                               PQerrorMessage(conn_));
    listener_ = std::thread([this] { listen_loop(); });
  }

  void stop() override {
    stopping_ = true;
    if (listener_.joinable()) listener_.join();
    PQfinish(conn_);
    conn_ = nullptr;
    DbPending::stop();
  }

 private:
  bool listen() {
    PGresult* r = PQexec(conn_, (std::string("LISTEN ") + kChannel).c_str());
    bool ok = PQresultStatus(r) == PGRES_COMMAND_OK;
    PQclear(r);
    return ok;
  }

  void tell(const std::string& token) {
    AddedFn fn;
    {
      std::lock_guard lock(mu_);
      fn = watcher_;
    }
    if (!fn || stopping_) return;
    try {
      fn(token);
    } catch (const std::exception& e) {
      std::cerr << "rongdian-server: push delivery failed: " << e.what() << "\n";
    }
  }

  void listen_loop() {
    while (!stopping_) {
      if (PQstatus(conn_) != CONNECTION_OK) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        PQreset(conn_);
        if (PQstatus(conn_) == CONNECTION_OK && listen())
          tell({});  // notifications may have been missed: look at everyone
        continue;
      }
      pollfd p{PQsocket(conn_), POLLIN, 0};
      if (::poll(&p, 1, 200) < 0) continue;
      if (!PQconsumeInput(conn_)) continue;
      while (PGnotify* n = PQnotifies(conn_)) {
        std::string token = n->extra;
        PQfreemem(n);
        tell(token);
      }
    }
  }

  const std::string url_;
  PGconn* conn_ = nullptr;
  std::thread listener_;
  std::atomic<bool> stopping_{false};
};

}  // namespace

std::unique_ptr<PendingStore> open_pending_store(std::shared_ptr<store::Store> store,
                                                 const std::string& database) {
  if (database.rfind("postgresql://", 0) == 0 || database.rfind("postgres://", 0) == 0)
    return std::make_unique<PgPending>(std::move(store), database);
  return std::make_unique<DbPending>(std::move(store));
}

void import_pending_file(const std::string& path, store::Store& store, int keep) {
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) return;
  sqlite3* db = nullptr;
  sqlite3_stmt* st = nullptr;
  auto fail = [&](const char* what) {
    std::string why = db ? sqlite3_errmsg(db) : "out of memory";
    sqlite3_finalize(st);
    sqlite3_close(db);
    throw std::runtime_error("cannot import the pending pushes of " + path + " (" + what +
                             "): " + why);
  };
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) fail("open");
  if (sqlite3_prepare_v2(db, "SELECT device_token, payload FROM push_pending ORDER BY id", -1, &st,
                         nullptr) != SQLITE_OK)
    fail("read");
  int rc, n = 0;
  while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
    store.add_push(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)),
                   reinterpret_cast<const char*>(sqlite3_column_text(st, 1)), keep);
    ++n;
  }
  if (rc != SQLITE_DONE) fail("read");
  sqlite3_finalize(st);
  sqlite3_close(db);
  std::filesystem::rename(path, path + ".imported", ec);
  if (ec) throw std::runtime_error("cannot rename " + path + ": " + ec.message());
  std::cerr << "rongdian-server: " << n << " pending pushes moved from " << path
            << " into the database\n";
}

}  // namespace rd::push
