#include "http/HttpServer.h"

#include <sys/resource.h>

#include <algorithm>
#include <boost/url/parse.hpp>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <thread>

namespace rd::http {

// ---------------------------------------------------------------- helpers

const std::string* Context::param(const std::string& name) const {
  auto it = query.find(name);
  return it == query.end() ? nullptr : &it->second;
}

Response json_response(const Request& req, bhttp::status status, const boost::json::value& body) {
  return json_response(req, static_cast<unsigned>(status), body);
}

Response json_response(const Request& req, unsigned status, const boost::json::value& body) {
  Response res;
  res.result(status);
  res.version(req.version());
  res.keep_alive(req.keep_alive());
  res.set(bhttp::field::content_type, "application/json; charset=utf-8");
  res.set(bhttp::field::server, "rongdian-server");
  res.body() = boost::json::serialize(body);
  res.prepare_payload();
  return res;
}

Response text_response(const Request& req, bhttp::status status, std::string body,
                       std::string content_type) {
  Response res{status, req.version()};
  res.keep_alive(req.keep_alive());
  res.set(bhttp::field::content_type, content_type);
  res.set(bhttp::field::server, "rongdian-server");
  res.body() = std::move(body);
  res.prepare_payload();
  return res;
}

Response busy_response(const Request& req) {
  auto res =
      json_response(req, bhttp::status::service_unavailable,
                    boost::json::object{{"error", "busy"}, {"message", "服务器繁忙，请稍后再试"}});
  res.set(bhttp::field::retry_after, "1");
  return res;
}

unsigned transfer_encoding_problem(std::string_view codings) {
  bool chunked = false;  // "chunked" was seen: it must be the last
  while (!codings.empty()) {
    const auto comma = codings.find(',');
    std::string_view coding = codings.substr(0, comma);
    codings = comma == std::string_view::npos ? std::string_view() : codings.substr(comma + 1);
    if (const auto semi = coding.find(';'); semi != std::string_view::npos)
      coding = coding.substr(0, semi);
    while (!coding.empty() && (coding.front() == ' ' || coding.front() == '\t'))
      coding.remove_prefix(1);
    while (!coding.empty() && (coding.back() == ' ' || coding.back() == '\t'))
      coding.remove_suffix(1);
    if (coding.empty()) continue;
    if (chunked) return 400;  // something after "chunked": the body cannot be framed
    if (!beast::iequals(coding, "chunked")) return 501;
    chunked = true;
  }
  return 0;
}

// ---------------------------------------------------------------- router

void Router::add(bhttp::verb method, std::string path, Handler h, std::string label,
                 std::size_t body_limit) {
  Route r;
  r.method = method;
  r.label = label.empty() ? path : label;
  r.path = std::move(path);
  r.body_limit = body_limit;
  r.handler = std::move(h);
  routes_.push_back(std::move(r));
}

void Router::add_prefix(bhttp::verb method, std::string prefix, Handler h, std::string label,
                        std::size_t body_limit) {
  add(method, std::move(prefix), std::move(h), std::move(label), body_limit);
  routes_.back().prefix = true;
}

Route& Router::route(bhttp::verb method, const std::string& path, const char* what) {
  for (Route& r : routes_)
    if (r.method == method && r.path == path && r.handler) return r;
  throw std::logic_error("no route " + path + " " + what);
}

void Router::add_quick(bhttp::verb method, const std::string& path, QuickHandler q) {
  route(method, path, "for a quick handler").quick = std::move(q);
}

void Router::set_heavy(bhttp::verb method, const std::string& path,
                       std::function<bool(const Request&, const Context&)> heavy) {
  route(method, path, "to mark heavy").heavy =
      heavy ? std::move(heavy) : [](const Request&, const Context&) { return true; };
}

void Router::set_precheck(bhttp::verb method, const std::string& path, Precheck p) {
  route(method, path, "for a precheck").precheck = std::move(p);
}

void Router::set_error_shape(bhttp::verb method, const std::string& path, ErrorShape shape) {
  route(method, path, "for an error shape").error_shape = std::move(shape);
}

void Router::add_upgrade(std::string path, UpgradeHandler h, std::string label) {
  Route r;
  r.method = bhttp::verb::get;
  r.label = label.empty() ? path : label;
  r.path = std::move(path);
  r.upgrade = std::move(h);
  routes_.push_back(std::move(r));
}

const Route* Router::find(bhttp::verb method, const std::string& path, bool upgrade,
                          bool& path_known) const {
  path_known = false;
  for (const Route& r : routes_) {
    bool match = r.prefix ? path.compare(0, r.path.size(), r.path) == 0 : path == r.path;
    if (!match) continue;
    if (static_cast<bool>(r.upgrade) != upgrade) continue;
    path_known = true;
    if (r.method == bhttp::verb::unknown || r.method == method ||
        (r.method == bhttp::verb::get && method == bhttp::verb::head))
      return &r;
  }
  return nullptr;
}

// ---------------------------------------------------------------- client address

namespace {

asio::ip::address_v6 as_v6(const asio::ip::address& a) {
  return a.is_v6() ? a.to_v6() : asio::ip::make_address_v6(asio::ip::v4_mapped, a.to_v4());
}

bool trusted_peer(const asio::ip::address& a, const std::vector<asio::ip::network_v6>& trusted) {
  const auto v6 = as_v6(a);
  for (const auto& n : trusted)
    if (asio::ip::network_v6(v6, 128).is_subnet_of(n) || n.address() == v6) return true;
  return false;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

}  // namespace

std::vector<asio::ip::network_v6> parse_networks(const std::string& list) {
  std::vector<asio::ip::network_v6> out;
  std::string_view rest = list;
  while (!rest.empty()) {
    const auto comma = rest.find(',');
    const std::string entry(trim(rest.substr(0, comma)));
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    if (entry.empty()) continue;
    const auto slash = entry.find('/');
    beast::error_code ec;
    const auto addr = asio::ip::make_address(entry.substr(0, slash), ec);
    int bits = addr.is_v4() ? 32 : 128;
    if (!ec && slash != std::string::npos) {
      const std::string len = entry.substr(slash + 1);
      char* end = nullptr;
      bits = int(std::strtol(len.c_str(), &end, 10));
      if (len.empty() || *end || bits < 0 || bits > (addr.is_v4() ? 32 : 128))
        throw std::invalid_argument("bad network '" + entry + "'");
    }
    if (ec) throw std::invalid_argument("bad network '" + entry + "'");
    const int v6bits = addr.is_v4() ? bits + 96 : bits;
    out.push_back(
        asio::ip::network_v6(as_v6(addr), static_cast<unsigned short>(v6bits)).canonical());
  }
  return out;
}

std::string client_address(const asio::ip::address& peer, std::string_view forwarded_for,
                           const std::vector<asio::ip::network_v6>& trusted) {
  if (trusted.empty() || forwarded_for.empty() || !trusted_peer(peer, trusted))
    return peer.to_string();
  // Each proxy appends the address it got the request from: walk back from
  // the right past our own proxies; the first other one is the client.
  std::string client = peer.to_string();
  while (!forwarded_for.empty()) {
    const auto comma = forwarded_for.rfind(',');
    const std::string_view hop =
        trim(comma == std::string_view::npos ? forwarded_for : forwarded_for.substr(comma + 1));
    forwarded_for =
        comma == std::string_view::npos ? std::string_view() : forwarded_for.substr(0, comma);
    beast::error_code ec;
    const auto a = asio::ip::make_address(std::string(hop), ec);
    if (ec) break;  // not an address: stop at what we could trust
    client = a.to_string();
    if (!trusted_peer(a, trusted)) break;
  }
  return client;
}

// ---------------------------------------------------------------- session

namespace {

// A body that is read and thrown away (see Session::drain_then_send).
struct DiscardBody {
  struct value_type {};
  class reader {
   public:
    template <bool isRequest, class Fields>
    reader(bhttp::header<isRequest, Fields>&, value_type&) {}
    void init(const boost::optional<std::uint64_t>&, beast::error_code& ec) { ec = {}; }
    template <class Buffers>
    std::size_t put(const Buffers& b, beast::error_code& ec) {
      ec = {};
      return beast::buffer_bytes(b);
    }
    void finish(beast::error_code& ec) { ec = {}; }
  };
};

// Bodies of refused requests are read and dropped up to this size before the
// answer; past it the connection closes after the answer.
constexpr std::uint64_t kDrainMax = 32 << 20;

}  // namespace

class Server::Session : public std::enable_shared_from_this<Server::Session> {
 public:
  // `last`: accepted past the connection cap, into the reserve: one request, then close.
  Session(Server& server, tcp::socket socket, asio::ip::address peer, std::shared_ptr<Slot> slot,
          bool last)
      : server_(server),
        stream_(std::move(socket)),
        timer_(stream_.get_executor()),
        slot_(std::move(slot)),
        peer_(peer),
        remote_(peer.to_string()),
        last_(last) {}

  void start() { read_head(); }
  const std::string& block() const { return slot_->block(); }

  // What the session is doing, for choosing one to close when connections run
  // out: waiting for a request (idle), reading one, or answering one; since when.
  enum Phase { Idle, Reading, Answering };
  Phase phase() const { return phase_; }
  bool closing() const { return leaving_; }  // chosen to make room already
  std::chrono::steady_clock::time_point since() const {
    return std::chrono::steady_clock::time_point(
        std::chrono::steady_clock::duration(since_.load()));
  }
  // From any thread: closes the connection unless it has begun answering.
  void close_for_room() {
    leaving_ = true;
    asio::post(stream_.get_executor(), [self = shared_from_this()] {
      if (self->phase_ == Answering) {
        self->leaving_ = false;
        return;
      }
      self->timer_.cancel();
      beast::error_code ec;
      self->stream_.socket().shutdown(tcp::socket::shutdown_both, ec);
      self->stream_.socket().close(ec);
    });
  }

  // Called on stop: a connection waiting for its next request is closed now;
  // one busy with a request closes after answering it.
  void shutdown_if_idle() {
    asio::post(stream_.get_executor(), [self = shared_from_this()] {
      if (self->idle_) {
        beast::error_code ec;
        self->stream_.socket().shutdown(tcp::socket::shutdown_both, ec);
        self->stream_.close();
      }
    });
  }

 private:
  void set_phase(Phase p) {
    phase_ = p;
    since_ = std::chrono::steady_clock::now().time_since_epoch().count();
  }

  void read_head() {
    idle_ = true;
    set_phase(Idle);
    if (server_.stopping_) return close();
    parser_.emplace();
    parser_->header_limit(16 * 1024);
    // Beast checks Content-Length against the limit as soon as the head is
    // parsed, before the route (and so its own limit) is known: no limit for
    // the head, the route's limit is set and checked in on_head.
    parser_->body_limit(boost::none);
    arm_timer(server_.opts_.idle_timeout);
    bhttp::async_read_header(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->on_head(ec); });
  }

  // Reading a request is timed here rather than by the stream, whose
  // timeout closes the socket: a late client still gets its 408.
  void arm_timer(std::chrono::seconds after) {
    stream_.expires_never();
    timed_out_ = false;
    timer_.expires_after(after);
    timer_.async_wait([weak = weak_from_this()](beast::error_code ec) {
      auto self = weak.lock();
      if (ec || !self) return;
      self->timed_out_ = true;
      beast::error_code ignored;
      self->stream_.socket().cancel(ignored);
    });
  }

  void on_head(beast::error_code ec) {
    idle_ = false;
    route_ = nullptr;  // the previous request's, on a kept-alive connection
    set_phase(Reading);
    started_ = std::chrono::steady_clock::now();
    if (ec && timed_out_) ec = beast::error::timeout;
    if (ec) {
      // A client that sent part of a head and then stalled is told so; an
      // idle keep-alive connection just closes.
      if (ec == beast::error::timeout && parser_->got_some()) return timed_out();
      if (ec == bhttp::error::end_of_stream || ec == beast::error::timeout ||
          ec == asio::error::operation_aborted || ec == asio::error::connection_reset ||
          ec == asio::error::eof || ec == asio::error::bad_descriptor)
        return close();
      return fail_head(ec);
    }
    auto& head = parser_->get();
    ctx_ = Context{};
    ctx_.remote_address =
        client_address(peer_, head["X-Forwarded-For"], server_.opts_.trusted_proxies);
    // The path and query, decoded; a "+" in the query is a space, as forms send it.
    auto target = boost::urls::parse_origin_form(head.target());
    if (!target) return bad_target();
    ctx_.path = target->path();
    for (const auto& p : target->params()) ctx_.query.emplace(p.key, p.value);
    // Codings other than "chunked" are not undone here, and a body framed
    // both ways is a smuggling attempt: neither can be read as meant.
    if (head.count(bhttp::field::transfer_encoding)) {
      std::string codings;  // every Transfer-Encoding field, in order
      for (auto [f, end] = head.equal_range(bhttp::field::transfer_encoding); f != end; ++f)
        codings += std::string(f->value()) + ",";
      const unsigned problem = transfer_encoding_problem(codings);
      if (problem == 501)
        return refuse(501, "Transfer-Encoding not supported", head.version(), "-");
      if (problem || head.count(bhttp::field::content_length))
        return refuse(400, "bad request: malformed Transfer-Encoding", head.version(), "-");
    }
    bool upgrade = beast::websocket::is_upgrade(head);
    bool known = false;
    route_ = server_.router_.find(head.method(), ctx_.path, upgrade, known);
    arm_timer(server_.opts_.request_timeout);
    if (!route_) {
      ctx_.label = "unmatched";
      return drain_then_send(json_response(
          head, known ? bhttp::status::method_not_allowed : bhttp::status::not_found,
          boost::json::object{{"error", known ? "method not allowed" : "not found"}}));
    }
    ctx_.label = route_->label;
    const std::size_t limit = route_->body_limit;
    parser_->body_limit(limit);
    const auto length = parser_->content_length();
    if (length && *length > limit)
      return drain_then_send(
          shaped(json_response(head, bhttp::status::payload_too_large,
                               boost::json::object{{"error", "request body too large"}})));
    if (route_->precheck)
      if (auto refused = route_->precheck(head, ctx_)) return drain_then_send(std::move(*refused));
    // The body's bytes are held until the answer is written: counted against
    // the client's address block and the total (a chunked body of unknown
    // length as its route's limit).
    const std::size_t holds = length ? std::size_t(*length) : parser_->chunked() ? limit : 0;
    if (holds && !server_.bodies_->grant(address_block(ctx_.remote_address), holds, body_grant_)) {
      server_.metrics_.count("rongdian_bodies_refused_total");
      return drain_then_send(shaped(busy_response(head)));
    }
    // A client that waits for "100 Continue" before its body gets it now
    // that the head was accepted.
    if (beast::iequals(head[bhttp::field::expect], "100-continue") && !parser_->is_done()) {
      auto cont = std::make_shared<bhttp::response<bhttp::empty_body>>(bhttp::status::continue_,
                                                                       head.version());
      bhttp::async_write(stream_, *cont,
                         [self = shared_from_this(), cont](beast::error_code ec, std::size_t) {
                           if (ec) return self->close();
                           self->read_body();
                         });
      return;
    }
    read_body();
  }

  void read_body() {
    bhttp::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->on_body(ec); });
  }

  // Sends `res` once the rest of the request's body is read and thrown away:
  // a client that writes its whole body before it reads (as most do) then
  // hears the answer instead of a reset, and nothing of the body is kept. A
  // body longer than kDrainMax, or one held back for "100 Continue", is not
  // waited for: the connection closes after the answer.
  void drain_then_send(Response res) {
    const auto& head = parser_->get();
    req_ = {};
    req_.base() = head.base();  // method, version and keep-alive for send()
    const std::string label = ctx_.label;
    if (parser_->is_done()) return send(std::move(res), label, req_.keep_alive());
    const auto length = parser_->content_length();
    if (beast::iequals(head[bhttp::field::expect], "100-continue") ||
        (length && *length > kDrainMax))
      return send(std::move(res), label, false);
    drain_.emplace(std::move(*parser_));
    drain_->body_limit(kDrainMax);
    auto sp = std::make_shared<Response>(std::move(res));
    bhttp::async_read(stream_, buffer_, *drain_,
                      [self = shared_from_this(), sp, label](beast::error_code ec, std::size_t) {
                        self->timer_.cancel();
                        self->drain_.reset();
                        self->send(std::move(*sp), label, !ec && self->req_.keep_alive());
                      });
  }

  // Answers a request that goes no further with a JSON error, then closes.
  void refuse(unsigned status, const std::string& error, unsigned version,
              const std::string& label) {
    Request req;
    req.version(version);
    send(shaped(json_response(req, status, boost::json::object{{"error", error}})), label, false);
  }

  // The core's own error answer in the matched route's shape, if it has one.
  Response shaped(Response res) const {
    if (!route_ || !route_->error_shape) return res;
    boost::system::error_code ec;
    auto core = boost::json::parse(res.body(), ec);
    if (ec || !core.is_object()) return res;
    res.body() =
        boost::json::serialize(route_->error_shape(res.result_int(), std::move(core.as_object())));
    res.prepare_payload();
    return res;
  }
  std::string route_label() const { return route_ ? route_->label : "-"; }

  void timed_out() { refuse(408, "request timed out", 11, route_label()); }

  void fail_head(beast::error_code ec) {
    // A malformed request head.
    refuse(ec == bhttp::error::header_limit ? 431 : 400, "bad request: " + ec.message(), 11, "-");
  }

  void bad_target() {
    // Not a path with an optional query, or a broken escape in it.
    refuse(400, "bad request: malformed target", parser_->get().version(), "-");
  }

  void too_large() {
    refuse(413, "request body too large", parser_->get().version(), route_label());
  }

  void on_body(beast::error_code ec) {
    timer_.cancel();
    if (ec && timed_out_) ec = beast::error::timeout;
    if (ec == bhttp::error::body_limit) return too_large();
    if (ec) {
      if (ec == beast::error::timeout) return timed_out();
      if (ec == asio::error::operation_aborted || ec == asio::error::connection_reset ||
          ec == asio::error::bad_descriptor)
        return close();
      // A body that ends early (the peer stopped sending before its
      // Content-Length) or is malformed (bad chunks): 400, then close.
      return refuse(400, "bad request body: " + ec.message(), 11, route_label());
    }
    req_ = parser_->release();
    if (route_->upgrade) {
      // The socket stays counted, now among the push sockets, which may not
      // take every place.
      if (!server_.conns_->make_push(*slot_, server_.connection_cap())) {
        server_.metrics_.count("rongdian_upgrades_refused_total");
        return send(busy_response(req_), route_->label, false);
      }
      server_.metrics_.observe(route_->label, 101, 0);
      log(101, route_->label);
      stream_.expires_never();
      body_grant_.reset();
      auto handler = route_->upgrade;
      return handler(std::move(stream_), std::move(req_), slot_);
    }
    if (route_->quick &&
        route_->quick(req_, ctx_, std::make_shared<QuickAnswer>(shared_from_this())))
      return;
    run_handler();
  }

  class QuickAnswer : public Answer {
   public:
    explicit QuickAnswer(std::shared_ptr<Session> s) : s_(std::move(s)) {}
    void reply(Response res) override { s_->answer(std::move(res)); }
    void pass() override { s_->run_handler(); }

   private:
    std::shared_ptr<Session> s_;
  };

  void run_handler() {
    set_phase(Answering);
    if (route_->heavy && route_->heavy(req_, ctx_)) return run_heavy();
    // Run the handler on the worker pool, then come back to write.
    asio::post(server_.workers(), [self = shared_from_this()] {
      Response res;
      try {
        res = self->route_->handler(self->req_, self->ctx_);
      } catch (const std::exception& e) {
        std::cerr << "rongdian-server: handler for " << self->ctx_.path << " failed: " << e.what()
                  << "\n";
        res = self->shaped(json_response(self->req_, bhttp::status::internal_server_error,
                                         boost::json::object{{"error", "internal error"}}));
      }
      self->answer(std::move(res));
    });
  }

  // On the CPU pool, when it has room; else a 503 at once.
  void run_heavy() {
    if (server_.cpu_pending_.fetch_add(1) >= server_.cpu_limit_) {
      --server_.cpu_pending_;
      return answer(shaped(busy_response(req_)));
    }
    asio::post(server_.cpu(), [self = shared_from_this()] {
      Response res;
      try {
        res = self->route_->handler(self->req_, self->ctx_);
      } catch (const std::exception& e) {
        std::cerr << "rongdian-server: handler for " << self->ctx_.path << " failed: " << e.what()
                  << "\n";
        res = self->shaped(json_response(self->req_, bhttp::status::internal_server_error,
                                         boost::json::object{{"error", "internal error"}}));
      }
      --self->server_.cpu_pending_;
      self->answer(std::move(res));
    });
  }

  // From any thread: the response is written on the connection's.
  void answer(Response res) {
    asio::post(stream_.get_executor(), [self = shared_from_this(), res = std::move(res)]() mutable {
      bool keep = self->req_.keep_alive() && res.keep_alive();
      std::string label = self->ctx_.label;
      self->send(std::move(res), label, keep);
    });
  }

  void send(Response res, const std::string& label, bool keep_alive) {
    timer_.cancel();
    if (server_.stopping_ || last_) keep_alive = false;
    res.keep_alive(keep_alive);
    if (req_.method() == bhttp::verb::head) {
      res.content_length(res.body().size());
    }
    status_ = res.result_int();
    label_ = label;
    auto sp = std::make_shared<Response>(std::move(res));
    bool head_only = req_.method() == bhttp::verb::head;
    stream_.expires_after(server_.opts_.request_timeout);
    auto done = [self = shared_from_this(), sp, keep_alive](beast::error_code ec, std::size_t) {
      self->on_write(ec, keep_alive);
    };
    if (head_only) {
      auto sr = std::make_shared<bhttp::response_serializer<bhttp::string_body>>(*sp);
      bhttp::async_write_header(
          stream_, *sr,
          [self = shared_from_this(), sp, sr, keep_alive](beast::error_code ec, std::size_t) {
            self->on_write(ec, keep_alive);
          });
    } else {
      bhttp::async_write(stream_, *sp, std::move(done));
    }
  }

  void on_write(beast::error_code ec, bool keep_alive) {
    double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
    server_.metrics_.observe(label_, status_, secs);
    log(status_, label_, secs);
    req_ = {};
    body_grant_.reset();
    if (ec || !keep_alive) return close();
    read_head();
  }

  void log(unsigned status, const std::string& label, double secs = 0) {
    if (!server_.opts_.log_requests) return;
    std::string line = remote_ + " " + std::string(req_.method_string()) + " " + ctx_.path + " " +
                       label + " " + std::to_string(status) + " " +
                       std::to_string(static_cast<long long>(secs * 1e6)) + "us\n";
    std::clog << line << std::flush;
  }

  void close() {
    timer_.cancel();
    beast::error_code ec;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ec);
    stream_.close();
  }

  Server& server_;
  beast::tcp_stream stream_;
  asio::steady_timer timer_;
  std::shared_ptr<Slot> slot_;
  bool timed_out_ = false;
  beast::flat_buffer buffer_;
  std::optional<bhttp::request_parser<bhttp::string_body>> parser_;
  std::optional<bhttp::request_parser<DiscardBody>> drain_;
  ByteBudget::Grant body_grant_;  // the request body's bytes, until answered
  Request req_;
  Context ctx_;
  const Route* route_ = nullptr;
  asio::ip::address peer_;
  std::string remote_;
  const bool last_;
  std::string label_;
  unsigned status_ = 0;
  bool idle_ = true;
  std::atomic<Phase> phase_{Idle};
  std::atomic<bool> leaving_{false};
  std::atomic<std::chrono::steady_clock::rep> since_{0};
  std::chrono::steady_clock::time_point started_;
};

// ---------------------------------------------------------------- server

Server::Server(ServerOptions opts, const Router& router, Metrics& metrics)
    : opts_(std::move(opts)),
      router_(router),
      metrics_(metrics),
      ioc_(opts_.io_threads),
      acceptor_(ioc_),
      signals_(ioc_),
      grace_timer_(ioc_),
      conns_(std::make_shared<ConnectionCounts>(opts_.max_connections_per_block)),
      bodies_(std::make_shared<ByteBudget>(opts_.body_memory, opts_.body_memory_per_block)),
      accept_retry_(ioc_) {
  // As many descriptors as the system lets this process have.
  rlimit nofile{};
  if (::getrlimit(RLIMIT_NOFILE, &nofile) == 0 && nofile.rlim_cur < nofile.rlim_max) {
    nofile.rlim_cur = nofile.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &nofile);
  }
  metrics_.gauge("rongdian_connections_open",
                 [c = std::weak_ptr(conns_)] { return c.lock() ? c.lock()->open_count() : 0; });
  metrics_.gauge("rongdian_push_connections_open",
                 [c = std::weak_ptr(conns_)] { return c.lock() ? c.lock()->push_count() : 0; });
  metrics_.gauge("rongdian_body_bytes_in_memory",
                 [b = std::weak_ptr(bodies_)] { return b.lock() ? double(b.lock()->used()) : 0; });
  set_worker_threads(opts_.worker_threads);
  const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  const int cpu_threads = opts_.cpu_threads > 0 ? opts_.cpu_threads : cores;
  cpu_ = std::make_unique<asio::thread_pool>(cpu_threads);
  cpu_limit_ = opts_.cpu_queue > 0 ? opts_.cpu_queue : 16 * cpu_threads;
}

void Server::set_worker_threads(int n) {
  if (n <= 0) n = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  if (workers_) workers_->join();
  workers_ = std::make_unique<asio::thread_pool>(n);
}

Server::~Server() {
  {
    std::lock_guard lock(watchdog_mu_);
    stopped_ = true;
  }
  watchdog_cv_.notify_all();
  if (watchdog_.joinable()) watchdog_.join();
  cpu_->join();
  workers_->join();
}

// The descriptor limit as it is now (an operator may lower it on a running
// server), less a reserve: those open before the first connection (database,
// files, the listening socket) and room for the files requests open, the
// database connections made later and the connections let in past the cap.
int Server::connection_cap() const {
  if (opts_.max_connections > 0) return opts_.max_connections;
  rlimit nofile{};
  long limit = 65536;
  if (::getrlimit(RLIMIT_NOFILE, &nofile) == 0 && nofile.rlim_cur != RLIM_INFINITY)
    limit = long(nofile.rlim_cur);
  return int(std::clamp(limit - fd_reserve_, 8L, 1L << 20));
}

void Server::listen() {
  beast::error_code ec;
  auto addr = asio::ip::make_address(opts_.host == "localhost" ? "127.0.0.1" : opts_.host, ec);
  if (ec) throw std::runtime_error("bad listen address '" + opts_.host + "': " + ec.message());
  tcp::endpoint ep{addr, opts_.port};
  acceptor_.open(ep.protocol(), ec);
  if (!ec) acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) acceptor_.bind(ep, ec);
  if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec)
    throw std::runtime_error("cannot listen on " + opts_.host + ":" + std::to_string(opts_.port) +
                             ": " + ec.message());
  bound_port_ = acceptor_.local_endpoint().port();
}

void Server::do_accept() {
  acceptor_.async_accept(asio::make_strand(ioc_), [this](beast::error_code ec, tcp::socket socket) {
    if (ec) {
      if (stopping_ || ec == asio::error::operation_aborted) return;
      return accept_failed(ec);
    }
    accept_backoff_ = std::chrono::milliseconds(0);
    accepted(std::move(socket));
    do_accept();
  });
}

// Connections past their block's cap make room in that block, or go; past the
// total cap, room is made in the block holding the most. When no connection
// can go (all are answering) a few more are let in for one request each (a
// health check gets through), and past those the new one goes.
void Server::accepted(tcp::socket socket) {
  // How many connections past the cap may come in for one request each.
  constexpr int kOverflow = 16;
  beast::error_code ec;
  const auto peer = socket.remote_endpoint(ec).address();
  if (ec) return;  // gone already
  // A proxy's connections carry many clients: counted in the total only.
  const bool proxy = !opts_.trusted_proxies.empty() && trusted_peer(peer, opts_.trusted_proxies);
  auto slot = conns_->open(proxy ? std::string() : address_block(peer));
  const std::string& block = slot->block();
  if (!block.empty() && conns_->per_block() > 0 && conns_->in_block(block) > conns_->per_block() &&
      !make_room(block)) {
    metrics_.count("rongdian_connections_refused_total");
    return;  // the socket closes here
  }
  const int cap = connection_cap();
  bool last = false;
  if (conns_->open_count() > cap && !make_room()) {
    if (conns_->open_count() > cap + kOverflow) {
      metrics_.count("rongdian_connections_refused_total");
      return;
    }
    last = true;
  }
  auto s = std::make_shared<Session>(*this, std::move(socket), peer, std::move(slot), last);
  {
    std::lock_guard lock(sessions_mu_);
    std::erase_if(sessions_, [](const auto& w) { return w.expired(); });
    sessions_.push_back(s);
  }
  s->start();
}

// Out of descriptors (or memory) the same accept fails again at once: wait a
// little, longer each time, and say so at most once a second.
void Server::accept_failed(const boost::system::error_code& ec) {
  metrics_.count("rongdian_accept_errors_total");
  ++accept_failures_unlogged_;
  const auto now = std::chrono::steady_clock::now();
  if (now - accept_logged_ >= std::chrono::seconds(1)) {
    std::cerr << "rongdian-server: accept failed: " << ec.message() << " ("
              << accept_failures_unlogged_ << " times since the last report; "
              << conns_->open_count() << " connections open)\n";
    accept_logged_ = now;
    accept_failures_unlogged_ = 0;
  }
  accept_backoff_ = std::clamp(accept_backoff_ * 2, std::chrono::milliseconds(20),
                               std::chrono::milliseconds(1000));
  // Connections waiting for nothing give their descriptors back first.
  make_room();
  accept_retry_.expires_after(accept_backoff_);
  accept_retry_.async_wait([this](beast::error_code e) {
    if (!e && !stopping_) do_accept();
  });
}

// Closes the connection that matters least: the longest idle one, else the
// one that has been reading its request the longest (a slow client); with no
// block given, one of the block that holds the most connections.
bool Server::make_room(const std::string& block) {
  std::shared_ptr<Session> victim;
  {
    std::lock_guard lock(sessions_mu_);
    std::unordered_map<std::string, int> held;
    std::vector<std::shared_ptr<Session>> candidates;
    for (const auto& w : sessions_) {
      auto s = w.lock();
      if (!s || s->phase() == Session::Answering || s->closing()) continue;
      if (!block.empty() && s->block() != block) continue;
      ++held[s->block()];
      candidates.push_back(std::move(s));
    }
    const auto worse = [&held](const Session& a, const Session& b) {
      if (held[a.block()] != held[b.block()]) return held[a.block()] > held[b.block()];
      if (a.phase() != b.phase()) return a.phase() < b.phase();
      return a.since() < b.since();
    };
    for (auto& s : candidates)
      if (!victim || worse(*s, *victim)) victim = std::move(s);
  }
  if (!victim) return false;
  metrics_.count("rongdian_connections_closed_for_room_total");
  victim->close_for_room();
  return true;
}

void Server::install_signal_handlers() {
  signals_.add(SIGINT);
  signals_.add(SIGTERM);
  signals_.async_wait([this](beast::error_code ec, int sig) {
    if (ec) return;
    std::cerr << "rongdian-server: signal " << sig << ", stopping\n";
    stop();
  });
}

void Server::add_stop_hook(std::function<void()> hook) { stop_hooks_.push_back(std::move(hook)); }

void Server::stop() {
  asio::post(ioc_, [this] {
    if (stopping_.exchange(true)) return;
    arm_watchdog();
    beast::error_code ec;
    acceptor_.close(ec);
    accept_retry_.cancel();
    signals_.cancel(ec);
    for (auto& hook : stop_hooks_) hook();
    {
      std::lock_guard lock(sessions_mu_);
      for (auto& w : sessions_)
        if (auto s = w.lock()) s->shutdown_if_idle();
    }
    guard_.reset();
    stop_deadline_ = std::chrono::steady_clock::now() + opts_.stop_grace;
    wait_for_sessions();
  });
}

void Server::wait_for_sessions() {
  bool any = false;
  {
    std::lock_guard lock(sessions_mu_);
    std::erase_if(sessions_, [](const auto& w) { return w.expired(); });
    any = !sessions_.empty() || conns_->open_count() > 0;  // push sockets too
  }
  if (!any) {
    // Timers of connections closed already need not run out.
    ioc_.stop();
    return;
  }
  if (std::chrono::steady_clock::now() >= stop_deadline_) {
    std::cerr
        << "rongdian-server: requests still running after the grace period; stopping anyway\n";
    // Work not begun is dropped; what runs has until the watchdog's turn.
    workers_->stop();
    cpu_->stop();
    ioc_.stop();
    return;
  }
  grace_timer_.expires_after(std::chrono::milliseconds(20));
  grace_timer_.async_wait([this](beast::error_code e) {
    if (!e) wait_for_sessions();
  });
}

// Whatever holds the process up after a stop began (a handler stuck on its
// database, a subsystem that does not let go) is not waited for past a few
// seconds after the grace period.
void Server::arm_watchdog() {
  const auto limit = opts_.stop_grace + std::chrono::seconds(5);
  watchdog_ = std::thread([this, limit] {
    std::unique_lock lock(watchdog_mu_);
    if (watchdog_cv_.wait_for(lock, limit, [this] { return stopped_; })) return;
    std::cerr << "rongdian-server: still not stopped " << limit.count()
              << " s after the stop began; exiting now\n";
    std::_Exit(1);
  });
}

void Server::run() {
  if (!acceptor_.is_open()) listen();
  {
    // What is open now stays open (database, files, the listening socket).
    std::error_code ec;
    long open = 0;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd", ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
      ++open;
    fd_reserve_ = open + 64;
  }
  guard_ = std::make_unique<asio::executor_work_guard<asio::io_context::executor_type>>(
      ioc_.get_executor());
  do_accept();
  std::vector<std::thread> extra;
  for (int i = 1; i < opts_.io_threads; ++i) extra.emplace_back([this] { ioc_.run(); });
  ioc_.run();
  for (auto& t : extra) t.join();
  cpu_->join();
  workers_->join();
}

}  // namespace rd::http
