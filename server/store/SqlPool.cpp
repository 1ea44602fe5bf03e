// The store's connection pool and rows, for both engines.
#include <cstdlib>

#include "store/SqlStore.h"

namespace rd::store::sql {

std::int64_t Row::i(std::size_t n) const {
  if (n >= cols.size() || !cols[n]) return 0;
  return std::strtoll(cols[n]->c_str(), nullptr, 10);
}

const std::string& Row::s(std::size_t n) const {
  static const std::string empty;
  if (n >= cols.size() || !cols[n]) return empty;
  return *cols[n];
}

// ---------------------------------------------------------------- pool

Pool::Pool(std::function<std::unique_ptr<Conn>()> factory, int size)
    : factory_(std::move(factory)), size_(size < 1 ? 1 : size) {}

Pool::~Pool() = default;

Pool::Lease::~Lease() {
  if (pool_ && conn_) pool_->put(std::move(conn_));
}

Pool::Lease Pool::get() {
  std::unique_lock lock(mu_);
  cv_.wait(lock, [&] { return !idle_.empty() || open_ < size_; });
  if (!idle_.empty()) {
    auto c = std::move(idle_.back());
    idle_.pop_back();
    return Lease(*this, std::move(c));
  }
  ++open_;
  lock.unlock();
  try {
    return Lease(*this, factory_());
  } catch (...) {
    lock.lock();
    --open_;
    cv_.notify_one();
    throw;
  }
}

void Pool::resize(int size) {
  std::lock_guard lock(mu_);
  size_ = size < 1 ? 1 : size;
  cv_.notify_all();
}

void Pool::put(std::unique_ptr<Conn> c) {
  std::lock_guard lock(mu_);
  if (c->usable())
    idle_.push_back(std::move(c));
  else
    --open_;  // dropped; a fresh one is opened on demand
  cv_.notify_one();
}

}  // namespace rd::store::sql
