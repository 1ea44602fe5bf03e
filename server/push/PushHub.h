// The push gateway: devices hold a WebSocket open on /push (protocol in
// docs/push.md); payloads for a device are kept in a PendingStore until the
// device acknowledges them, so a device that was offline gets them when it
// comes back, and several instances on one PostgreSQL database deliver to
// each other's devices.
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

class PushHub : public Gateway, public std::enable_shared_from_this<PushHub> {
 public:
  PushHub(std::unique_ptr<PendingStore> store, http::asio::thread_pool& workers);
  ~PushHub() override;

  // Starts listening for payloads stored by any instance.
  void start();
  void send(const std::vector<std::string>& device_tokens, const std::string& payload) override;
  // The /push upgrade handler.
  void accept(http::beast::tcp_stream stream, http::Request req);
  // Closes every device connection (the server is stopping).
  void close_all();
  // How many connections present `device_token` here.
  std::size_t connected(const std::string& device_token) const;

  // For the sessions.
  void bind(const std::string& token, const std::shared_ptr<PushSession>& s);
  void unbind(const std::string& token, const PushSession* s);
  void forget(const PushSession* s);
  void deliver(const std::string& token);   // empty: every connected device
  void run_work(std::function<void()> fn);  // on the worker pool
  PendingStore& store() { return *store_; }

 private:
  std::unique_ptr<PendingStore> store_;
  http::asio::thread_pool& workers_;
  mutable std::mutex mu_;
  bool stopping_ = false;
  std::multimap<std::string, std::weak_ptr<PushSession>> by_token_;
  std::map<const PushSession*, std::weak_ptr<PushSession>> all_;
};

}  // namespace rd::push
