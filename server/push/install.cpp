#include <filesystem>
#include <stdexcept>

#include "Services.h"
#include "push/PushHub.h"

namespace rd::push {

void install(server::Services& s) {
  if (s.config.push_pending_limit < 1)
    throw std::runtime_error("--push-pending-limit needs at least 1");
  // Where an earlier version kept the pushes of a SQLite install.
  if (s.store->engine() == "sqlite")
    import_pending_file((std::filesystem::path(s.config.data_dir) / "push.sqlite").string(),
                        *s.store, s.config.push_pending_limit);
  auto store = open_pending_store(s.store, s.config.database);
  if (s.config.push_queue_kb <= 0 || s.config.push_queue_mb <= 0)
    throw std::runtime_error("--push-queue-kb and --push-queue-mb need at least 1");
  PushLimits limits;
  limits.queue_per_connection = std::size_t(s.config.push_queue_kb) * 1024;
  limits.queue_total = std::size_t(s.config.push_queue_mb) * 1024 * 1024;
  auto hub = std::make_shared<PushHub>(std::move(store), limits, s.metrics);
  hub->start();
  s.push = hub;
  std::weak_ptr<PushHub> weak = hub;
  s.router.add_upgrade(
      "/push",
      [weak](http::beast::tcp_stream stream, http::Request req, std::shared_ptr<http::Slot> slot) {
        if (auto h = weak.lock()) h->accept(std::move(stream), std::move(req), std::move(slot));
      },
      "push");
  s.server.add_stop_hook([weak] {
    if (auto h = weak.lock()) h->close_all();
  });
}

}  // namespace rd::push
