#include <algorithm>
#include <iostream>
#include <thread>

#include "Services.h"
#include "store/Store.h"

namespace rd::store {

namespace {

// A request's own processing, about (parsing, the reply, the connection).
constexpr std::chrono::microseconds kRequestWork{50};
// Requests one instance has waiting on the database at once, at most: several
// instances share the database's connection limit.
constexpr int kMaxWorkers = 32;

// Worker threads for a database whose feed reads keep a thread waiting `wait`.
int workers_for(std::chrono::microseconds wait, int cores) {
  // While one request waits on the database, others use the core: a core
  // keeps busy with 1 + wait / work requests under way.
  auto per_core = 1 + (wait.count() + kRequestWork.count() / 2) / kRequestWork.count();
  return static_cast<int>(std::clamp<long long>(cores * per_core, cores, kMaxWorkers));
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
    auto wait = s.store->read_wait();
    workers = workers_for(wait, cores);
    s.server.set_worker_threads(workers);
    std::cerr << "rongdian-server: " << workers << " worker threads (" << cores
              << " cores; a feed read waits " << wait.count() << " us on the database)\n";
  }
  // One connection per worker thread, and a few for the other subsystems.
  s.store->set_connections(workers + 2);
  s.store->on_write([&m = s.metrics](std::chrono::nanoseconds t) {
    m.count("rongdian_store_write_seconds_total", std::chrono::duration<double>(t).count());
  });
}

}  // namespace rd::store
