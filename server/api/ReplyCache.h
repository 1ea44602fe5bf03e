// Replies kept as sent: the public feeds' first pages, which every app start
// asks for, are then neither read from the database nor encoded again while
// nothing changed. A kept reply is tagged with the store's change count taken
// before it was read (store::Store::change_count) and served only while the
// count stays the same, so any write, on this instance or on another one on
// the same PostgreSQL database, retires it. Writes the instances do not tell
// each other of (made with other tools, or cut off by a crash between their
// commit and their notification) show once the kept reply is kMaxAge old.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace rd::store {
class Store;
}

namespace rd::api {

class ReplyCache {
 public:
  static constexpr auto kMaxAge = std::chrono::seconds(10);

  explicit ReplyCache(std::size_t max_replies = 64) : max_(max_replies) {}

  // The reply for `key`: the kept one while the store saw no write since it
  // was rendered, else render()'s, kept for the next time.
  std::string reply(const std::string& key, store::Store& store,
                    const std::function<std::string()>& render);
  // The reply kept for `key` if it was rendered at the store's change count
  // `count`, less than kMaxAge ago.
  std::optional<std::string> find(const std::string& key, std::uint64_t count);

 private:
  struct Kept {
    std::uint64_t count = 0;
    std::string body;
    std::chrono::steady_clock::time_point at;
  };
  std::size_t max_;
  std::mutex mu_;
  std::unordered_map<std::string, Kept> kept_;
};

}  // namespace rd::api
