#include <algorithm>
#include <iostream>
#include <thread>

#include "Services.h"
#include "store/Store.h"

namespace rd::store {

namespace {

// Requests one instance has in progress at once, at most.
constexpr int kMaxWorkers = 64;

// Worker threads by the database's kind: on SQLite a request hardly waits, so
// one per core keeps them busy. On PostgreSQL each request waits for its
// round trips and each write for the commit of its batch (store/GroupWrite.h);
// the writes that wait together make the next batch, so many per core.
int workers_for(const std::string& engine, int cores) {
  if (engine == "sqlite") return cores;
  return std::min(cores * 16, kMaxWorkers);
}

// Database connections: one per worker on SQLite. On PostgreSQL, whose
// connections several instances share (each a server process there), enough
// for reads to keep its cores busy, one for each kind of batch (one of each
// is under way at a time) and two for the other subsystems.
int connections_for(const std::string& engine, int cores, int workers) {
  if (engine == "sqlite") return workers + 2;
  return std::min(workers, cores * 4) + 2 + 2;
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
  s.store->set_connections(connections_for(s.store->engine(), cores, workers));
  s.store->on_write([&m = s.metrics](std::chrono::nanoseconds t) {
    m.count("rongdian_store_write_seconds_total", std::chrono::duration<double>(t).count());
  });
}

}  // namespace rd::store
