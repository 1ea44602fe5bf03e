#include "api/ReplyCache.h"

#include "store/Store.h"

namespace rd::api {

std::string ReplyCache::reply(const std::string& key, store::Store& store,
                              const std::function<std::string()>& render) {
  // Taken before the read: a write that commits while the reply is rendered
  // moves the count on, and the reply is not served again.
  auto count = store.change_count();
  if (!count) return render();
  if (auto kept = find(key, *count)) return std::move(*kept);
  std::string body = render();
  std::lock_guard lock(mu_);
  if (kept_.size() >= max_ && !kept_.count(key)) {
    std::erase_if(kept_, [&](const auto& kv) { return kv.second.count != *count; });
    if (kept_.size() >= max_) kept_.clear();
  }
  auto& k = kept_[key];
  // A slower request may come back with an older reading: the newer one stays.
  if (k.count <= *count) k = Kept{*count, body, std::chrono::steady_clock::now()};
  return body;
}

std::optional<std::string> ReplyCache::find(const std::string& key, std::uint64_t count) {
  std::lock_guard lock(mu_);
  auto it = kept_.find(key);
  if (it == kept_.end() || it->second.count != count ||
      std::chrono::steady_clock::now() - it->second.at >= kMaxAge)
    return std::nullopt;
  return it->second.body;
}

}  // namespace rd::api
