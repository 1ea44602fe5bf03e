#include "push/PushHub.h"

#include <deque>
#include <iostream>
#include <set>

#include "push/DeviceToken.h"

namespace rd::push {

namespace beast = http::beast;
namespace asio = http::asio;
namespace websocket = beast::websocket;
namespace json = boost::json;

// One device connection. Everything but the constructor runs on the
// connection's strand.
class PushSession : public std::enable_shared_from_this<PushSession> {
 public:
  PushSession(beast::tcp_stream stream, std::shared_ptr<PushHub> hub)
      : ws_(std::move(stream)), hub_(std::move(hub)), close_timer_(ws_.get_executor()) {}

  void start(http::Request req) {
    ws_.set_option(
        websocket::stream_base::timeout{std::chrono::seconds(10), std::chrono::seconds(60), true});
    ws_.set_option(websocket::stream_base::decorator([](websocket::response_type& res) {
      res.set(http::bhttp::field::server, "rongdian-server");
    }));
    ws_.read_message_max(64 * 1024);
    ws_.async_accept(req, [self = shared_from_this()](beast::error_code ec) {
      if (ec) return self->finish();
      self->read();
    });
  }

  // Hands over the device's pending payloads; the ones already sent on this
  // connection are skipped.
  void offer(const std::string& token, std::vector<PendingPush> items) {
    asio::post(ws_.get_executor(), [self = shared_from_this(), token, items = std::move(items)] {
      if (self->token_ != token || self->closing_) return;
      for (const auto& p : items) {
        if (!self->sent_.insert(p.id).second) continue;
        boost::system::error_code ec;
        json::value payload = json::parse(p.payload, ec);
        if (ec) payload = json::string(p.payload);
        self->queue(json::object{{"push", std::move(payload)}, {"id", p.id}});
      }
    });
  }

  void close() {
    asio::post(ws_.get_executor(), [self = shared_from_this()] {
      if (self->closing_) return;
      self->closing_ = true;
      self->ws_.async_close(websocket::close_code::going_away, [self](beast::error_code) {});
      // A device that does not answer the close is cut off.
      self->close_timer_.expires_after(std::chrono::seconds(2));
      self->close_timer_.async_wait([self](beast::error_code ec) {
        if (!ec) beast::get_lowest_layer(self->ws_).close();
      });
    });
  }

 private:
  void read() {
    ws_.async_read(in_, [self = shared_from_this()](beast::error_code ec, std::size_t) {
      if (ec) return self->finish();
      std::string text = beast::buffers_to_string(self->in_.data());
      self->in_.consume(self->in_.size());
      self->handle(text);
      self->read();
    });
  }

  void handle(const std::string& text) {
    boost::system::error_code ec;
    json::value msg = json::parse(text, ec);
    if (ec || !msg.is_object()) return reply_error("expected a JSON object");
    const auto& obj = msg.as_object();
    // A usable token wins; "register" alone (or with an unusable token) makes a new one.
    const auto* reg = obj.if_contains("register");
    bool wants_new = reg && reg->is_bool() && reg->as_bool();
    if (const auto* tok = obj.if_contains("token")) {
      if (tok->is_string() && is_device_token(tok->as_string()))
        return use_token(std::string(tok->as_string()));
      if (!wants_new) return reply_error("malformed device token");
    }
    if (wants_new) return use_token(make_device_token());
    if (const auto* ack = obj.if_contains("ack")) {
      if (token_.empty()) return reply_error("register or present a token first");
      std::vector<std::int64_t> ids;
      auto add = [&ids](const json::value& v) {
        // Some JSON writers send whole numbers as doubles.
        boost::system::error_code bad;
        auto n = v.to_number<std::int64_t>(bad);
        if (!bad) ids.push_back(n);
      };
      if (ack->is_array())
        for (const auto& v : ack->as_array()) add(v);
      else
        add(*ack);
      if (ids.empty()) return reply_error("ack needs a push id");
      // Confirmed once the payloads are gone from the store.
      hub_->run_work([self = shared_from_this(), token = token_, ids] {
        for (auto id : ids) self->hub_->store().remove(token, id);
        asio::post(self->ws_.get_executor(), [self, ids] {
          json::array done(ids.begin(), ids.end());
          self->queue(json::object{{"acked", std::move(done)}});
        });
      });
      return;
    }
    reply_error("unknown message; expected register, token or ack");
  }

  void use_token(std::string token) {
    if (!token_.empty()) hub_->unbind(token_, this);
    token_ = token;
    sent_.clear();
    hub_->bind(token_, shared_from_this());
    queue(json::object{{"device_token", token_}});
    // Whatever waited while the device was away.
    hub_->run_work([hub = hub_, token] { hub->deliver(token); });
  }

  void reply_error(const std::string& why) { queue(json::object{{"error", why}}); }

  void queue(const json::value& v) {
    out_.push_back(json::serialize(v));
    if (!writing_) write_next();
  }

  void write_next() {
    if (out_.empty() || closing_) {
      writing_ = false;
      return;
    }
    writing_ = true;
    ws_.text(true);
    ws_.async_write(asio::buffer(out_.front()),
                    [self = shared_from_this()](beast::error_code ec, std::size_t) {
                      self->out_.pop_front();
                      if (ec) {
                        self->writing_ = false;
                        return;  // the read side notices the broken connection
                      }
                      self->write_next();
                    });
  }

  void finish() {
    close_timer_.cancel();
    if (!token_.empty()) hub_->unbind(token_, this);
    hub_->forget(this);
  }

  websocket::stream<beast::tcp_stream> ws_;
  std::shared_ptr<PushHub> hub_;
  asio::steady_timer close_timer_;
  beast::flat_buffer in_;
  std::deque<std::string> out_;
  bool writing_ = false;
  bool closing_ = false;
  std::string token_;
  std::set<std::int64_t> sent_;
};

PushHub::PushHub(std::unique_ptr<PendingStore> store, asio::thread_pool& workers)
    : store_(std::move(store)), workers_(workers) {}

PushHub::~PushHub() { store_->stop(); }

void PushHub::start() {
  // The store stops its watcher before this object goes away, so `this` is safe here.
  store_->watch([this](const std::string& token) { deliver(token); });
}

void PushHub::send(const std::vector<std::string>& device_tokens, const std::string& payload) {
  for (const auto& token : device_tokens) {
    if (!is_device_token(token)) continue;  // not one this gateway ever hands out
    try {
      store_->add(token, payload);
    } catch (const std::exception& e) {
      std::cerr << "rongdian-server: keeping a push failed: " << e.what() << "\n";
    }
  }
}

void PushHub::accept(beast::tcp_stream stream, http::Request req) {
  {
    std::lock_guard lock(mu_);
    if (stopping_) return;  // the stream closes as it goes out of scope
  }
  auto s = std::make_shared<PushSession>(std::move(stream), shared_from_this());
  {
    std::lock_guard lock(mu_);
    all_[s.get()] = s;
  }
  s->start(std::move(req));
}

void PushHub::close_all() {
  std::vector<std::shared_ptr<PushSession>> sessions;
  {
    std::lock_guard lock(mu_);
    stopping_ = true;
    for (auto& [p, w] : all_)
      if (auto s = w.lock()) sessions.push_back(std::move(s));
  }
  for (auto& s : sessions) s->close();
}

std::size_t PushHub::connected(const std::string& token) const {
  std::lock_guard lock(mu_);
  return by_token_.count(token);
}

void PushHub::bind(const std::string& token, const std::shared_ptr<PushSession>& s) {
  std::lock_guard lock(mu_);
  by_token_.emplace(token, s);
}

void PushHub::unbind(const std::string& token, const PushSession* s) {
  std::lock_guard lock(mu_);
  auto [b, e] = by_token_.equal_range(token);
  for (auto it = b; it != e;) {
    auto locked = it->second.lock();
    if (!locked || locked.get() == s)
      it = by_token_.erase(it);
    else
      ++it;
  }
}

void PushHub::forget(const PushSession* s) {
  std::lock_guard lock(mu_);
  all_.erase(s);
}

void PushHub::deliver(const std::string& token) {
  if (token.empty()) {
    std::set<std::string> tokens;
    {
      std::lock_guard lock(mu_);
      for (const auto& [t, w] : by_token_) tokens.insert(t);
    }
    for (const auto& t : tokens) deliver(t);
    return;
  }
  std::vector<std::shared_ptr<PushSession>> here;
  {
    std::lock_guard lock(mu_);
    auto [b, e] = by_token_.equal_range(token);
    for (auto it = b; it != e; ++it)
      if (auto s = it->second.lock()) here.push_back(std::move(s));
  }
  if (here.empty()) return;
  std::vector<PendingPush> items;
  try {
    items = store_->list(token);
  } catch (const std::exception& e) {
    std::cerr << "rongdian-server: reading pending pushes failed: " << e.what() << "\n";
    return;
  }
  for (auto& s : here) s->offer(token, items);
}

void PushHub::run_work(std::function<void()> fn) {
  asio::post(workers_, [fn = std::move(fn)] {
    try {
      fn();
    } catch (const std::exception& e) {
      std::cerr << "rongdian-server: push gateway: " << e.what() << "\n";
    }
  });
}

}  // namespace rd::push
