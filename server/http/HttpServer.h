// HTTP/1.1 server core of rongdian-server: keep-alive connections on Asio,
// request handlers on a worker pool, per-route body limits, idle timeouts,
// connections and request bodies in memory bounded per address block and in
// total, metrics and one log line per request, and a stop that ends within
// seconds.
#pragma once

#include <atomic>
#include <boost/asio.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "http/ClientAddress.h"
#include "http/Limits.h"
#include "http/Message.h"
#include "http/Metrics.h"
#include "http/Router.h"

namespace rd::http {

struct ServerOptions {
  std::string host = "127.0.0.1";
  unsigned short port = 8080;  // 0 picks a free port; see Server::port()
  int io_threads = 1;
  int worker_threads = 0;  // 0: one per core
  std::chrono::seconds idle_timeout{30};
  std::chrono::seconds request_timeout{30};
  // Requests in flight at a stop get this long; whatever still runs a few
  // seconds later is abandoned and the process ends.
  std::chrono::seconds stop_grace{10};
  // Connections at most, push sockets included; past it the longest idle or
  // slowest-reading one is closed for a new one (from the address block that
  // holds the most). 0: the descriptor limit less those open at start and a
  // reserve.
  int max_connections = 0;
  int max_connections_per_block = 256;  // per address block (IPv4 /24, IPv6 /64); 0: no cap
  // Request bodies held in memory at most, in total and per address block of
  // the clients sending them; past it a request gets 503 (0: no cap).
  std::size_t body_memory = std::size_t(256) << 20;
  std::size_t body_memory_per_block = std::size_t(32) << 20;
  int cpu_threads = 0;  // threads of the CPU pool; 0: one per core
  int cpu_queue = 0;    // heavy requests waiting or running at most; 0: 16 per CPU thread
  bool log_requests = true;
  // Peers whose X-Forwarded-For names the client (a proxy in front of this
  // server); the client address of anyone else is the peer's own.
  std::vector<asio::ip::network_v6> trusted_proxies;
};

class Server {
 public:
  Server(ServerOptions opts, const Router& router, Metrics& metrics);
  ~Server();

  // Binds and listens; throws std::runtime_error when the address is unusable.
  void listen();
  unsigned short port() const { return bound_port_; }

  // Serves until stop() (or SIGINT/SIGTERM when install_signal_handlers() was called).
  void run();
  // Stops accepting, lets requests in flight finish (up to stop_grace), then returns from run().
  void stop();
  void install_signal_handlers();
  // Runs on the io thread when stop() begins (e.g. to close WebSocket connections).
  void add_stop_hook(std::function<void()> hook);

  asio::io_context& io() { return ioc_; }
  asio::thread_pool& workers() { return *workers_; }
  asio::thread_pool& cpu() { return *cpu_; }
  const ConnectionCounts& connections() const { return *conns_; }
  // A worker pool of `n` threads (0: one per core) in place of the first;
  // only before anything took workers() and before run().
  void set_worker_threads(int n);

 private:
  class Session;
  void do_accept();
  void accepted(tcp::socket socket);
  void accept_failed(const boost::system::error_code& ec);
  // Closes the least needed connection of `block` (any block: of the one
  // holding the most); false when none could go.
  bool make_room(const std::string& block = {});
  int connection_cap() const;
  void wait_for_sessions();
  void arm_watchdog();

  ServerOptions opts_;
  const Router& router_;
  Metrics& metrics_;
  asio::io_context ioc_;
  std::unique_ptr<asio::thread_pool> workers_;
  std::unique_ptr<asio::thread_pool> cpu_;
  int cpu_limit_ = 0;
  std::atomic<int> cpu_pending_{0};
  tcp::acceptor acceptor_;
  asio::signal_set signals_;
  asio::steady_timer grace_timer_;
  std::atomic<bool> stopping_{false};
  std::chrono::steady_clock::time_point stop_deadline_;
  std::vector<std::function<void()>> stop_hooks_;
  unsigned short bound_port_ = 0;
  std::mutex sessions_mu_;
  std::vector<std::weak_ptr<Session>> sessions_;
  std::unique_ptr<asio::executor_work_guard<asio::io_context::executor_type>> guard_;
  std::shared_ptr<ConnectionCounts> conns_;
  std::shared_ptr<ByteBudget> bodies_;
  long fd_reserve_ = 128;  // descriptors kept back from connections (see connection_cap)
  asio::steady_timer accept_retry_;
  std::chrono::milliseconds accept_backoff_{0};
  std::chrono::steady_clock::time_point accept_logged_{};
  long accept_failures_unlogged_ = 0;
  // Ends the process when a stop overruns its grace by far.
  std::thread watchdog_;
  std::mutex watchdog_mu_;
  std::condition_variable watchdog_cv_;
  bool stopped_ = false;
};

}  // namespace rd::http
