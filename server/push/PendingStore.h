// Where the push gateway keeps payloads until their device acknowledges them:
// the store's database (store::Store's pending pushes), beside the comments
// that make them. Several server instances on one PostgreSQL database tell
// each other about new payloads with LISTEN/NOTIFY.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "store/Store.h"

namespace rd::push {

using store::PendingPush;

class PendingStore {
 public:
  // Called with a device token whenever any instance stored a payload for it
  // (an empty token: some may have gone unheard, look at every device).
  using AddedFn = std::function<void(const std::string& device_token)>;

  virtual ~PendingStore() = default;
  // The device's payloads, oldest first.
  virtual std::vector<PendingPush> list(const std::string& device_token) = 0;
  // Forgets those of `ids` that are the device's.
  virtual void remove(const std::string& device_token, const std::vector<std::int64_t>& ids) = 0;
  // This instance kept payloads for these devices.
  virtual void added(const std::vector<std::string>& device_tokens) = 0;
  // Starts reporting additions to `fn` (from any thread).
  virtual void watch(AddedFn fn) = 0;
  // Stops the reports; no call to the watcher runs after this returns.
  virtual void stop() = 0;
};

// On `database` "postgresql://..." or "postgres://..." it also listens for
// the other instances' payloads. Throws std::runtime_error with a clear text
// when the database cannot be reached.
std::unique_ptr<PendingStore> open_pending_store(std::shared_ptr<store::Store> store,
                                                 const std::string& database);

// Payloads an earlier version kept in a SQLite file of their own (`path`) move
// into the store, and the file is renamed "<path>.imported"; nothing happens
// when there is no such file. Throws std::runtime_error when it cannot be read.
void import_pending_file(const std::string& path, store::Store& store, int keep);

}  // namespace rd::push
