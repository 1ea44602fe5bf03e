// Where the push gateway keeps payloads until their device acknowledges them:
// a SQLite file in the data folder, or tables of a PostgreSQL database shared
// by several server instances (which then tell each other about new payloads
// with LISTEN/NOTIFY).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace rd::push {

struct PendingPush {
  std::int64_t id = 0;
  std::string payload;
};

class PendingStore {
 public:
  // Called with a device token whenever any instance stored a payload for it.
  using AddedFn = std::function<void(const std::string& device_token)>;

  virtual ~PendingStore() = default;
  // Keeps `payload` for the device and drops its oldest beyond `limit`.
  virtual std::int64_t add(const std::string& device_token, const std::string& payload) = 0;
  // The device's payloads, oldest first.
  virtual std::vector<PendingPush> list(const std::string& device_token) = 0;
  // Forgets those of `ids` that are the device's, in one statement.
  virtual void remove(const std::string& device_token, const std::vector<std::int64_t>& ids) = 0;
  // Starts reporting additions to `fn` (from any thread).
  virtual void watch(AddedFn fn) = 0;
  // Stops the reports; no call to the watcher runs after this returns.
  virtual void stop() {}
};

// `database` "postgresql://..." or "postgres://...": PostgreSQL; anything else:
// the SQLite file `sqlite_path`.
// Throws std::runtime_error with a clear text when the database cannot be opened.
std::unique_ptr<PendingStore> open_pending_store(const std::string& database,
                                                 const std::string& sqlite_path, int limit);

}  // namespace rd::push
