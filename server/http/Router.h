// Routes: which handler answers a method and path, and how (on the worker
// pool, the CPU pool, at once on the connection's thread, or by taking the
// connection over), with each route's body limit and metrics label.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "http/Limits.h"
#include "http/Message.h"

namespace rd::http {

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

}  // namespace rd::http
