#include "http/Limits.h"

namespace rd::http {

namespace ip = boost::asio::ip;

std::string address_block(const ip::address& a) {
  if (a.is_v4() || (a.is_v6() && a.to_v6().is_v4_mapped())) {
    const auto v4 = a.is_v4() ? a.to_v4() : ip::make_address_v4(ip::v4_mapped, a.to_v6());
    auto bytes = v4.to_bytes();
    bytes[3] = 0;
    return ip::address_v4(bytes).to_string() + "/24";
  }
  auto bytes = a.to_v6().to_bytes();
  for (std::size_t i = 8; i < bytes.size(); ++i) bytes[i] = 0;
  return ip::address_v6(bytes).to_string() + "/64";
}

std::string address_block(const std::string& address) {
  boost::system::error_code ec;
  const auto a = ip::make_address(address, ec);
  return ec ? address : address_block(a);
}

// ---------------------------------------------------------------- bytes

bool ByteBudget::take(const std::string& block, std::size_t n) {
  std::lock_guard lock(mu_);
  std::size_t& mine = by_block_[block];
  if ((total_cap_ && used_ + n > total_cap_) || (block_cap_ && mine + n > block_cap_)) {
    if (mine == 0) by_block_.erase(block);
    return false;
  }
  used_ += n;
  mine += n;
  return true;
}

void ByteBudget::give(const std::string& block, std::size_t n) {
  std::lock_guard lock(mu_);
  auto it = by_block_.find(block);
  if (it == by_block_.end()) return;
  const std::size_t back = std::min(n, it->second);
  used_ -= back;
  if ((it->second -= back) == 0) by_block_.erase(it);
}

std::size_t ByteBudget::used() const {
  std::lock_guard lock(mu_);
  return used_;
}

std::size_t ByteBudget::used(const std::string& block) const {
  std::lock_guard lock(mu_);
  auto it = by_block_.find(block);
  return it == by_block_.end() ? 0 : it->second;
}

bool ByteBudget::grant(const std::string& block, std::size_t n, Grant& out) {
  out.reset();
  if (!take(block, n)) return false;
  out.budget_ = shared_from_this();
  out.block_ = block;
  out.bytes_ = n;
  return true;
}

ByteBudget::Grant& ByteBudget::Grant::operator=(Grant&& o) noexcept {
  if (this != &o) {
    reset();
    budget_ = std::move(o.budget_);
    block_ = std::move(o.block_);
    bytes_ = std::exchange(o.bytes_, 0);
  }
  return *this;
}

void ByteBudget::Grant::reset() {
  if (budget_) budget_->give(block_, bytes_);
  budget_.reset();
  bytes_ = 0;
}

// ---------------------------------------------------------------- connections

std::shared_ptr<ConnectionCounts::Slot> ConnectionCounts::open(std::string block) {
  {
    std::lock_guard lock(mu_);
    ++total_.open;
    if (!block.empty()) ++by_block_[block].open;
  }
  return std::shared_ptr<Slot>(new Slot(shared_from_this(), std::move(block)));
}

ConnectionCounts::Slot::~Slot() { counts_->close(*this); }

void ConnectionCounts::close(const Slot& s) {
  std::lock_guard lock(mu_);
  --total_.open;
  if (s.push_) --total_.push;
  if (s.block_.empty()) return;
  auto it = by_block_.find(s.block_);
  if (it == by_block_.end()) return;
  if (s.push_) --it->second.push;
  if (--it->second.open <= 0) by_block_.erase(it);
}

bool ConnectionCounts::make_push(Slot& s, int total) {
  if (s.push_) return true;
  std::lock_guard lock(mu_);
  if (total_.push + 1 > total * 3 / 4) return false;
  Count* mine = s.block_.empty() ? nullptr : &by_block_[s.block_];
  if (mine && per_block_ > 0 && mine->push + 1 > per_block_ * 3 / 4) return false;
  ++total_.push;
  if (mine) ++mine->push;
  s.push_ = true;
  return true;
}

int ConnectionCounts::open_count() const {
  std::lock_guard lock(mu_);
  return total_.open;
}

int ConnectionCounts::push_count() const {
  std::lock_guard lock(mu_);
  return total_.push;
}

int ConnectionCounts::in_block(const std::string& block) const {
  std::lock_guard lock(mu_);
  auto it = by_block_.find(block);
  return it == by_block_.end() ? 0 : it->second.open;
}

}  // namespace rd::http
