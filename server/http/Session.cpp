#include "http/Session.h"

#include <boost/url/parse.hpp>
#include <iostream>

namespace rd::http {

namespace {

// Bodies of refused requests are read and dropped up to this size before the
// answer; past it the connection closes after the answer.
constexpr std::uint64_t kDrainMax = 32 << 20;

}  // namespace

Server::Session::Session(Server& server, tcp::socket socket, asio::ip::address peer,
                         std::shared_ptr<Slot> slot, bool last)
    : server_(server),
      stream_(std::move(socket)),
      timer_(stream_.get_executor()),
      slot_(std::move(slot)),
      peer_(peer),
      remote_(peer.to_string()),
      last_(last) {}

class Server::Session::QuickAnswer : public Answer {
 public:
  explicit QuickAnswer(std::shared_ptr<Session> s) : s_(std::move(s)) {}
  void reply(Response res) override { s_->answer(std::move(res)); }
  void pass() override { s_->run_handler(); }

 private:
  std::shared_ptr<Session> s_;
};

void Server::Session::close_for_room() {
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

void Server::Session::shutdown_if_idle() {
  asio::post(stream_.get_executor(), [self = shared_from_this()] {
    if (self->idle_) {
      beast::error_code ec;
      self->stream_.socket().shutdown(tcp::socket::shutdown_both, ec);
      self->stream_.close();
    }
  });
}

void Server::Session::set_phase(Phase p) {
  phase_ = p;
  since_ = std::chrono::steady_clock::now().time_since_epoch().count();
}

void Server::Session::read_head() {
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

void Server::Session::arm_timer(std::chrono::seconds after) {
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

void Server::Session::on_head(beast::error_code ec) {
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
    if (problem == 501) return refuse(501, "Transfer-Encoding not supported", head.version(), "-");
    if (problem || head.count(bhttp::field::content_length))
      return refuse(400, "bad request: malformed Transfer-Encoding", head.version(), "-");
  }
  bool upgrade = beast::websocket::is_upgrade(head);
  bool known = false;
  route_ = server_.router_.find(head.method(), ctx_.path, upgrade, known);
  arm_timer(server_.opts_.request_timeout);
  if (!route_) {
    ctx_.label = "unmatched";
    return drain_then_send(
        json_response(head, known ? bhttp::status::method_not_allowed : bhttp::status::not_found,
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

void Server::Session::read_body() {
  bhttp::async_read(
      stream_, buffer_, *parser_,
      [self = shared_from_this()](beast::error_code ec, std::size_t) { self->on_body(ec); });
}

void Server::Session::drain_then_send(Response res) {
  const auto& head = parser_->get();
  req_ = {};
  req_.base() = head.base();  // method, version and keep-alive for send()
  const std::string label = ctx_.label;
  if (parser_->is_done()) return send(std::move(res), label, req_.keep_alive());
  const auto length = parser_->content_length();
  if (beast::iequals(head[bhttp::field::expect], "100-continue") || (length && *length > kDrainMax))
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

void Server::Session::refuse(unsigned status, const std::string& error, unsigned version,
                             const std::string& label) {
  Request req;
  req.version(version);
  send(shaped(json_response(req, status, boost::json::object{{"error", error}})), label, false);
}

Response Server::Session::shaped(Response res) const {
  if (!route_ || !route_->error_shape) return res;
  boost::system::error_code ec;
  auto core = boost::json::parse(res.body(), ec);
  if (ec || !core.is_object()) return res;
  res.body() =
      boost::json::serialize(route_->error_shape(res.result_int(), std::move(core.as_object())));
  res.prepare_payload();
  return res;
}

void Server::Session::fail_head(beast::error_code ec) {
  // A malformed request head.
  refuse(ec == bhttp::error::header_limit ? 431 : 400, "bad request: " + ec.message(), 11, "-");
}

void Server::Session::bad_target() {
  // Not a path with an optional query, or a broken escape in it.
  refuse(400, "bad request: malformed target", parser_->get().version(), "-");
}

void Server::Session::too_large() {
  refuse(413, "request body too large", parser_->get().version(), route_label());
}

void Server::Session::on_body(beast::error_code ec) {
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
  if (route_->quick && route_->quick(req_, ctx_, std::make_shared<QuickAnswer>(shared_from_this())))
    return;
  run_handler();
}

void Server::Session::run_handler() {
  set_phase(Answering);
  if (route_->heavy && route_->heavy(req_, ctx_)) return run_heavy();
  // Run the handler on the worker pool, then come back to write.
  asio::post(server_.workers(),
             [self = shared_from_this()] { self->answer(self->call_handler()); });
}

Response Server::Session::call_handler() {
  try {
    return route_->handler(req_, ctx_);
  } catch (const std::exception& e) {
    std::cerr << "rongdian-server: handler for " << ctx_.path << " failed: " << e.what() << "\n";
    return shaped(json_response(req_, bhttp::status::internal_server_error,
                                boost::json::object{{"error", "internal error"}}));
  }
}

void Server::Session::run_heavy() {
  if (server_.cpu_pending_.fetch_add(1) >= server_.cpu_limit_) {
    --server_.cpu_pending_;
    return answer(shaped(busy_response(req_)));
  }
  asio::post(server_.cpu(), [self = shared_from_this()] {
    Response res = self->call_handler();
    --self->server_.cpu_pending_;
    self->answer(std::move(res));
  });
}

void Server::Session::answer(Response res) {
  asio::post(stream_.get_executor(), [self = shared_from_this(), res = std::move(res)]() mutable {
    bool keep = self->req_.keep_alive() && res.keep_alive();
    std::string label = self->ctx_.label;
    self->send(std::move(res), label, keep);
  });
}

void Server::Session::send(Response res, const std::string& label, bool keep_alive) {
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

void Server::Session::on_write(beast::error_code ec, bool keep_alive) {
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  server_.metrics_.observe(label_, status_, secs);
  log(status_, label_, secs);
  req_ = {};
  body_grant_.reset();
  if (ec || !keep_alive) return close();
  read_head();
}

void Server::Session::log(unsigned status, const std::string& label, double secs) {
  if (!server_.opts_.log_requests) return;
  std::string line = remote_ + " " + std::string(req_.method_string()) + " " + ctx_.path + " " +
                     label + " " + std::to_string(status) + " " +
                     std::to_string(static_cast<long long>(secs * 1e6)) + "us\n";
  std::clog << line << std::flush;
}

void Server::Session::close() {
  timer_.cancel();
  beast::error_code ec;
  stream_.socket().shutdown(tcp::socket::shutdown_send, ec);
  stream_.close();
}

}  // namespace rd::http
