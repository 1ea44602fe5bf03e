// HTTP/1.1 server core of rongdian-server: keep-alive connections on Asio,
// request handlers on a worker pool, per-route body limits, idle timeouts,
// connections and request bodies in memory bounded per address block and in
// total, metrics and one log line per request, and a stop that ends within
// seconds.
#pragma once

#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <boost/json.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "http/Limits.h"
#include "http/Metrics.h"

namespace rd::http {

namespace beast = boost::beast;
namespace bhttp = boost::beast::http;
namespace asio = boost::asio;
using tcp = asio::ip::tcp;

using Request = bhttp::request<bhttp::string_body>;
using Response = bhttp::response<bhttp::string_body>;

// What a handler learns about the request besides the message itself.
struct Context {
  std::string remote_address;                     // peer IP as text
  std::string path;                               // target without the query, percent-decoded
  std::multimap<std::string, std::string> query;  // decoded query parameters
  std::string label;  // metrics label (route label, or e.g. the api command)

  // First value of a query parameter, or nullptr.
  const std::string* param(const std::string& name) const;
};

using Handler = std::function<Response(const Request&, Context&)>;
// How a request taken by a quick handler is answered: once, from any thread;
// the request and its Context stay alive until then.
class Answer {
 public:
  virtual ~Answer() = default;
  virtual void reply(Response res) = 0;
  virtual void pass() = 0;  // the route's handler answers after all, on the worker pool
};
// Runs on the connection's thread before the route's handler and must not
// block or throw: true when it took the request (and answers through the
// Answer), false to leave it to the handler.
using QuickHandler = std::function<bool(const Request&, Context&, std::shared_ptr<Answer>)>;
// Runs on the connection's thread once the request head is read, before the
// body, and must not block: a response refuses the request (e.g. a wrong key
// in the query) without the body being kept; nullopt lets it go on.
using Precheck = std::function<std::optional<Response>(const Request& head, Context&)>;
// The connection's place in the server's counts; whoever owns the socket
// holds it while the socket is open.
using Slot = ConnectionCounts::Slot;
// Takes over the connection after the request head and body were read (used
// for WebSocket upgrades). Runs on the connection's executor.
using UpgradeHandler = std::function<void(beast::tcp_stream, Request, std::shared_ptr<Slot>)>;
// Reshapes the server core's own error body ({"error": TEXT}) for a route
// that stands in for a service whose clients read that service's error
// fields: the 400/408/413 of a request that went wrong, the 503 "busy", the
// 500 of a handler that failed.
using ErrorShape = std::function<boost::json::object(unsigned status, boost::json::object core)>;

struct Route {
  bhttp::verb method = bhttp::verb::unknown;  // unknown: any method
  std::string path;                           // exact path, or prefix when `prefix`
  bool prefix = false;
  std::size_t body_limit = 64 * 1024;
  std::string label;
  Handler handler;
  QuickHandler quick;
  Precheck precheck;
  UpgradeHandler upgrade;
  // True for requests whose handler is processor-bound (password hashing,
  // detection, image decoding): they run on the server's bounded CPU pool,
  // away from the workers that answer everything else.
  std::function<bool(const Request&, const Context&)> heavy;
  ErrorShape error_shape;
};

class Router {
 public:
  void add(bhttp::verb method, std::string path, Handler h, std::string label = {},
           std::size_t body_limit = 64 * 1024);
  void add_prefix(bhttp::verb method, std::string prefix, Handler h, std::string label = {},
                  std::size_t body_limit = 64 * 1024);
  // Gives the route added for `method` and `path` a quick handler.
  void add_quick(bhttp::verb method, const std::string& path, QuickHandler q);
  // Marks requests of the route added for `method` and `path` as heavy (see
  // Route::heavy); an empty predicate marks them all.
  void set_heavy(bhttp::verb method, const std::string& path,
                 std::function<bool(const Request&, const Context&)> heavy = {});
  // Gives the route added for `method` and `path` a check of its head.
  void set_precheck(bhttp::verb method, const std::string& path, Precheck p);
  // Gives the route added for `method` and `path` its own error shape.
  void set_error_shape(bhttp::verb method, const std::string& path, ErrorShape shape);
  // A GET with "Upgrade: websocket" on `path` is handed to `h`.
  void add_upgrade(std::string path, UpgradeHandler h, std::string label = {});

  // The route for a method and path; nullptr when none. `path_known` tells
  // whether some route has that path with another method (405 rather than 404).
  const Route* find(bhttp::verb method, const std::string& path, bool upgrade,
                    bool& path_known) const;

 private:
  // The route added for `method` and `path`; throws std::logic_error naming `what` when none.
  Route& route(bhttp::verb method, const std::string& path, const char* what);
  std::vector<Route> routes_;
};

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

// "10.0.0.0/8,::1/128,127.0.0.1" (one address is its own /32 or /128) as
// networks in IPv6 form (IPv4 ones mapped); throws std::invalid_argument
// naming a bad entry.
std::vector<asio::ip::network_v6> parse_networks(const std::string& list);
// The client's address: the peer's, or, when the peer is a trusted proxy, the
// last address in X-Forwarded-For that is not itself a trusted proxy.
std::string client_address(const asio::ip::address& peer, std::string_view forwarded_for,
                           const std::vector<asio::ip::network_v6>& trusted);

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

// Helpers for handlers.
Response json_response(const Request& req, bhttp::status status, const boost::json::value& body);
Response text_response(const Request& req, bhttp::status status, std::string body,
                       std::string content_type = "text/plain; charset=utf-8");
// A response with a non-standard numeric status code (e.g. 614 or 579).
Response json_response(const Request& req, unsigned status, const boost::json::value& body);
// 503 {"error":"busy", "message": ...} with Retry-After: 1.
Response busy_response(const Request& req);
// What a request's Transfer-Encoding asks that this server cannot do: 0 when
// nothing (none, or "chunked" alone), 400 when "chunked" is not the last
// coding or comes twice, 501 for any other coding (gzip, ...).
unsigned transfer_encoding_problem(std::string_view codings);

}  // namespace rd::http
