#include <algorithm>
#include <iostream>
#include <thread>

#include "Services.h"
#include "store/Store.h"

namespace rd::store {

namespace {

// Requests one instance has waiting on the database at once, at most: several
// instances share the database's connection limit.
constexpr int kMaxWorkers = 32;

// Worker threads by the database's kind: on SQLite a request hardly waits, so
// one per core keeps them busy; on PostgreSQL each write waits for its commit
// to reach the disk (and every request for a round trip), and writes that wait
// side by side share their flushes, so several per core.
int workers_for(const std::string& engine, int cores) {
  if (engine == "sqlite") return cores;
  return std::min(cores * 4, kMaxWorkers);
}

}  // namespace

void install(server::Services& s) {
  const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  s.store = open_store(s.config.database, s.config.data_dir, cores + 2);
  if (s.config.database.empty())
    std::cerr << "rongdian-server: --database is the local-development default (SQLite in "
              << s.config.data_dir << "/rongdian.db)\n";
  int workers = s.config.threads;
  if (workers <= 0) {
    workers = workers_for(s.store->engine(), cores);
    s.server.set_worker_threads(workers);
    std::cerr << "rongdian-server: " << workers << " worker threads (" << cores << " cores, "
              << s.store->engine() << ")\n";
  }
  // One connection per worker thread, and a few for the other subsystems.
  s.store->set_connections(workers + 2);
  s.store->on_write([&m = s.metrics](std::chrono::nanoseconds t) {
    m.count("rongdian_store_write_seconds_total", std::chrono::duration<double>(t).count());
  });
}

}  // namespace rd::store
