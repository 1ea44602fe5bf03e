// The push gateway: devices hold a WebSocket open on /push (protocol in
// docs/push.md); payloads for a device are kept in a PendingStore until the
// device acknowledges them, so a device that was offline gets them when it
// comes back, and several instances on one PostgreSQL database deliver to
// each other's devices. What a device connection can make the server do is
// bounded: one message's work at a time on the gateway's own thread, and
// bytes waiting to be sent per connection, per address block and in total.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "http/HttpServer.h"
#include "push/Gateway.h"
#include "push/PendingStore.h"

namespace rd::push {

class PushSession;

struct PushLimits {
  // Bytes of messages waiting to be sent to one connection; a connection that
  // would pass it is not reading and is closed (its pushes stay stored).
  std::size_t queue_per_connection = 256 * 1024;
  // The same over all connections; a quarter of it per address block.
  std::size_t queue_total = 64 * 1024 * 1024;
};

// Ids one "ack" message may carry at most.
inline constexpr std::size_t kMaxAckIds = 256;

class PushHub : public Gateway, public std::enable_shared_from_this<PushHub> {
 public:
  PushHub(std::unique_ptr<PendingStore> store, PushLimits limits, http::Metrics& metrics);
  ~PushHub() override;

  // Starts listening for payloads stored by any instance.
  void start();
  void pushed(const std::vector<std::string>& device_tokens) override;
  // The /push upgrade handler.
  void accept(http::beast::tcp_stream stream, http::Request req, std::shared_ptr<http::Slot> slot);
  // Closes every device connection and drops the work not begun (the server
  // is stopping).
  void close_all();
  // How many connections present `device_token` here.
  std::size_t connected(const std::string& device_token) const;

  // For the sessions.
  void bind(const std::string& token, const std::shared_ptr<PushSession>& s);
  void unbind(const std::string& token, const PushSession* s);
  void forget(const PushSession* s);
  void deliver(const std::string& token);   // empty: every connected device
  void run_work(std::function<void()> fn);  // on the gateway's thread
  PendingStore& store() { return *store_; }
  const PushLimits& limits() const { return limits_; }
  http::ByteBudget& queued() { return *queued_; }
  http::Metrics& metrics() { return metrics_; }

 private:
  std::unique_ptr<PendingStore> store_;
  const PushLimits limits_;
  http::Metrics& metrics_;
  std::shared_ptr<http::ByteBudget> queued_;
  // The store's work for devices (acknowledgements, deliveries on connect)
  // runs here, never on the workers that answer /api and /healthz.
  std::unique_ptr<http::asio::thread_pool> pool_;
  mutable std::mutex mu_;
  bool stopping_ = false;
  std::multimap<std::string, std::weak_ptr<PushSession>> by_token_;
  std::map<const PushSession*, std::weak_ptr<PushSession>> all_;
};

}  // namespace rd::push
