#include <iostream>
#include <thread>

#include "Services.h"
#include "store/Store.h"

namespace rd::store {

void install(server::Services& s) {
  int workers = s.config.threads > 0
                    ? s.config.threads
                    : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  // One connection per worker thread, and a few for the other subsystems.
  s.store = open_store(s.config.database, s.config.data_dir, workers + 2);
  if (s.config.database.empty())
    std::cerr << "rongdian-server: --database is the local-development default (SQLite in "
              << s.config.data_dir << "/rongdian.db)\n";
}

}  // namespace rd::store
