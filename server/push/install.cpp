#include <filesystem>

#include "Services.h"
#include "push/PushHub.h"

namespace rd::push {

void install(server::Services& s) {
  auto store = open_pending_store(
      s.config.database, (std::filesystem::path(s.config.data_dir) / "push.sqlite").string(),
      s.config.push_pending_limit);
  auto hub = std::make_shared<PushHub>(std::move(store), s.server.workers());
  hub->start();
  s.push = hub;
  std::weak_ptr<PushHub> weak = hub;
  s.router.add_upgrade(
      "/push",
      [weak](http::beast::tcp_stream stream, http::Request req) {
        if (auto h = weak.lock()) h->accept(std::move(stream), std::move(req));
      },
      "push");
  s.server.add_stop_hook([weak] {
    if (auto h = weak.lock()) h->close_all();
  });
}

}  // namespace rd::push
