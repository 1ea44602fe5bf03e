// What the server core bounds per address block and in total: open
// connections (push sockets among them) and bytes held for clients (request
// bodies in memory, push messages waiting to be sent).
#pragma once

#include <boost/asio/ip/address.hpp>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace rd::http {

// The block an address counts in for the per-block limits: an IPv4 address's
// /24 ("192.0.2.0/24"), an IPv6 address's /64 ("2001:db8:1:2::/64"); an
// IPv4-mapped IPv6 address counts as IPv4. Text that is no address is a block
// of its own.
std::string address_block(const boost::asio::ip::address& a);
std::string address_block(const std::string& address);

// Bytes taken against a total cap and a cap per address block.
class ByteBudget : public std::enable_shared_from_this<ByteBudget> {
 public:
  // 0: no cap.
  ByteBudget(std::size_t total, std::size_t per_block) : total_cap_(total), block_cap_(per_block) {}

  // Takes `n` bytes for `block`; false (and nothing taken) past either cap.
  bool take(const std::string& block, std::size_t n);
  void give(const std::string& block, std::size_t n);
  std::size_t used() const;
  std::size_t used(const std::string& block) const;

  // Bytes held until the grant goes away.
  class Grant {
   public:
    Grant() = default;
    Grant(Grant&& o) noexcept { *this = std::move(o); }
    Grant& operator=(Grant&& o) noexcept;
    ~Grant() { reset(); }
    void reset();

   private:
    friend class ByteBudget;
    std::shared_ptr<ByteBudget> budget_;
    std::string block_;
    std::size_t bytes_ = 0;
  };
  // A grant of `n` bytes for `block`, or false past either cap.
  bool grant(const std::string& block, std::size_t n, Grant& out);

 private:
  const std::size_t total_cap_, block_cap_;
  mutable std::mutex mu_;
  std::size_t used_ = 0;
  std::unordered_map<std::string, std::size_t> by_block_;
};

// Open connections, in total and per address block, and how many of them are
// push sockets. Each connection holds a Slot for as long as its socket is open.
class ConnectionCounts : public std::enable_shared_from_this<ConnectionCounts> {
 public:
  class Slot {
   public:
    ~Slot();
    // The block counted against ("" for a trusted proxy's connections, which
    // carry many clients and are bounded only in total).
    const std::string& block() const { return block_; }
    bool push() const { return push_; }

   private:
    friend class ConnectionCounts;
    Slot(std::shared_ptr<ConnectionCounts> c, std::string block)
        : counts_(std::move(c)), block_(std::move(block)) {}
    std::shared_ptr<ConnectionCounts> counts_;
    std::string block_;
    bool push_ = false;
  };

  // `per_block`: connections per address block at most (0: no cap).
  explicit ConnectionCounts(int per_block) : per_block_(per_block) {}

  std::shared_ptr<Slot> open(std::string block);
  // Makes the slot a push socket's unless push sockets already take three
  // quarters of `total` connections, or of the block's cap: the rest stays for
  // requests (and /healthz).
  bool make_push(Slot& s, int total);

  int open_count() const;
  int push_count() const;
  int in_block(const std::string& block) const;
  int per_block() const { return per_block_; }

 private:
  struct Count {
    int open = 0;
    int push = 0;
  };
  void close(const Slot& s);
  const int per_block_;
  mutable std::mutex mu_;
  Count total_;
  std::unordered_map<std::string, Count> by_block_;
};

}  // namespace rd::http
