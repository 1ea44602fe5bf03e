#include "push/PushHub.h"

#include <algorithm>
#include <deque>
#include <iostream>
#include <set>

#include "push/DeviceToken.h"

namespace rd::push {

namespace beast = http::beast;
namespace asio = http::asio;
namespace websocket = beast::websocket;
using tcp = http::tcp;
namespace json = boost::json;

// A message from a device is at most this long (an ack of kMaxAckIds ids
// fits many times over).
constexpr std::size_t kMaxMessage = 16 * 1024;
// A write that a device does not take in this time closes its connection.
constexpr auto kWriteTimeout = std::chrono::seconds(30);

// One device connection. Everything but the constructor runs on the
// connection's strand. A message that needs the store (ack, token) is
// handled on the gateway's thread; the next is not read before it is done.
class PushSession : public std::enable_shared_from_this<PushSession> {
 public:
  PushSession(beast::tcp_stream stream, std::shared_ptr<PushHub> hub,
              std::shared_ptr<http::Slot> slot)
      : ws_(std::move(stream)),
        hub_(std::move(hub)),
        slot_(std::move(slot)),
        cutoff_(ws_.get_executor()) {}
  ~PushSession() { hub_->queued().give(slot_->block(), queued_); }

  void start(http::Request req) {
    ws_.set_option(
        websocket::stream_base::timeout{std::chrono::seconds(10), std::chrono::seconds(60), true});
    ws_.set_option(websocket::stream_base::decorator([](websocket::response_type& res) {
      res.set(http::bhttp::field::server, "rongdian-server");
    }));
    ws_.read_message_max(kMaxMessage);
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
      self->ws_.set_option(
          websocket::stream_base::timeout{std::chrono::seconds(2), std::chrono::seconds(60), true});
      self->ws_.async_close(websocket::close_code::going_away, [self](beast::error_code) {});
      // A device that does not answer the close is cut off.
      self->cutoff_.expires_after(std::chrono::seconds(2));
      self->cutoff_.async_wait([self](beast::error_code ec) {
        if (!ec) self->cut();
      });
    });
  }

 private:
  void read() {
    if (closing_) return;
    ws_.async_read(in_, [self = shared_from_this()](beast::error_code ec, std::size_t) {
      if (ec) return self->finish();
      std::string text = beast::buffers_to_string(self->in_.data());
      self->in_.consume(self->in_.size());
      if (self->handle(text)) self->read();
    });
  }

  // True when the next message may be read at once; false when this one's
  // work runs (reading goes on when it is done).
  bool handle(const std::string& text) {
    boost::system::error_code ec;
    json::value msg = json::parse(text, ec);
    if (ec || !msg.is_object()) return reply_error("expected a JSON object");
    const auto& obj = msg.as_object();
    // A usable token wins; "register" alone (or with an unusable token) makes a new one.
    const auto* reg = obj.if_contains("register");
    bool wants_new = reg && reg->is_bool() && reg->as_bool();
    if (const auto* tok = obj.if_contains("token")) {
      if (tok->is_string() && is_device_token(tok->as_string()))
        return use_token(std::string(tok->as_string()), false);
      if (!wants_new) return reply_error("malformed device token");
    }
    if (wants_new) return use_token(make_device_token(), true);
    if (const auto* ack = obj.if_contains("ack")) {
      if (token_.empty()) return reply_error("register or present a token first");
      if (ack->is_array() && ack->as_array().size() > kMaxAckIds)
        return reply_error("at most " + std::to_string(kMaxAckIds) + " ids per ack");
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
      work([self = shared_from_this(), token = token_, ids] {
        std::vector<std::int64_t> unique = ids;
        std::sort(unique.begin(), unique.end());
        unique.erase(std::unique(unique.begin(), unique.end()), unique.end());
        self->hub_->store().remove(token, unique);
        asio::post(self->ws_.get_executor(), [self, ids, unique] {
          for (auto id : unique) self->sent_.erase(id);
          self->queue(json::object{{"acked", json::array(ids.begin(), ids.end())}});
        });
      });
      return false;
    }
    return reply_error("unknown message; expected register, token or ack");
  }

  bool use_token(std::string token, bool fresh) {
    if (!token_.empty()) hub_->unbind(token_, this);
    token_ = token;
    sent_.clear();
    hub_->bind(token_, shared_from_this());
    queue(json::object{{"device_token", token_}});
    if (fresh) return true;  // nothing waits for a token made just now
    // Whatever waited while the device was away.
    work([hub = hub_, token] { hub->deliver(token); });
    return false;
  }

  // Runs `job` on the gateway's thread, then reads the next message.
  void work(std::function<void()> job) {
    hub_->run_work([self = shared_from_this(), job = std::move(job)] {
      struct Resume {
        std::shared_ptr<PushSession> s;
        ~Resume() {
          asio::post(s->ws_.get_executor(), [s = s] { s->read(); });
        }
      } resume{self};
      job();
    });
  }

  bool reply_error(const std::string& why) {
    queue(json::object{{"error", why}});
    return true;
  }

  void queue(const json::value& v) {
    if (closing_) return;
    std::string text = json::serialize(v);
    // A device that lets messages pile up is not reading: it is cut off
    // rather than held in memory (what it missed stays stored).
    if (queued_ + text.size() > hub_->limits().queue_per_connection ||
        !hub_->queued().take(slot_->block(), text.size())) {
      hub_->metrics().count("rongdian_push_slow_readers_closed_total");
      return cut();
    }
    queued_ += text.size();
    out_.push_back(std::move(text));
    if (!writing_) write_next();
  }

  void write_next() {
    if (out_.empty() || closing_) {
      writing_ = false;
      return;
    }
    writing_ = true;
    cutoff_.expires_after(kWriteTimeout);
    cutoff_.async_wait([weak = weak_from_this()](beast::error_code ec) {
      if (auto self = weak.lock(); self && !ec) self->cut();
    });
    ws_.text(true);
    ws_.async_write(asio::buffer(out_.front()),
                    [self = shared_from_this()](beast::error_code ec, std::size_t) {
                      self->release(self->out_.front().size());
                      self->out_.pop_front();
                      if (!self->closing_) self->cutoff_.cancel();
                      if (ec) {
                        self->writing_ = false;
                        return;  // the read side notices the broken connection
                      }
                      self->write_next();
                    });
  }

  void release(std::size_t n) {
    queued_ -= n;
    hub_->queued().give(slot_->block(), n);
  }

  // Closes the socket at once, dropping what waits to be sent (but the
  // message being written, which its write still refers to).
  void cut() {
    closing_ = true;
    while (out_.size() > (writing_ ? 1u : 0u)) {
      release(out_.back().size());
      out_.pop_back();
    }
    out_.shrink_to_fit();
    cutoff_.cancel();
    beast::error_code ec;
    beast::get_lowest_layer(ws_).socket().shutdown(tcp::socket::shutdown_both, ec);
    beast::get_lowest_layer(ws_).close();
  }

  void finish() {
    cutoff_.cancel();
    if (!token_.empty()) hub_->unbind(token_, this);
    hub_->forget(this);
  }

  websocket::stream<beast::tcp_stream> ws_;
  std::shared_ptr<PushHub> hub_;
  std::shared_ptr<http::Slot> slot_;  // counted among the server's connections while open
  asio::steady_timer cutoff_;         // cuts a stalled write, or a close not answered
  beast::flat_buffer in_;
  std::deque<std::string> out_;
  std::size_t queued_ = 0;  // bytes in out_
  bool writing_ = false;
  bool closing_ = false;
  std::string token_;
  std::set<std::int64_t> sent_;
};

PushHub::PushHub(std::unique_ptr<PendingStore> store, PushLimits limits, http::Metrics& metrics)
    : store_(std::move(store)),
      limits_(limits),
      metrics_(metrics),
      queued_(std::make_shared<http::ByteBudget>(limits.queue_total, limits.queue_total / 4)),
      pool_(std::make_unique<asio::thread_pool>(1)) {
  metrics_.gauge("rongdian_push_queued_bytes",
                 [q = std::weak_ptr(queued_)] { return q.lock() ? double(q.lock()->used()) : 0; });
}

PushHub::~PushHub() { store_->stop(); }

void PushHub::start() {
  // The store stops its watcher before this object goes away, so `this` is safe here.
  store_->watch([this](const std::string& token) { deliver(token); });
}

void PushHub::pushed(const std::vector<std::string>& device_tokens) {
  store_->added(device_tokens);
}

void PushHub::accept(beast::tcp_stream stream, http::Request req,
                     std::shared_ptr<http::Slot> slot) {
  {
    std::lock_guard lock(mu_);
    if (stopping_) return;  // the stream closes as it goes out of scope
  }
  auto s = std::make_shared<PushSession>(std::move(stream), shared_from_this(), std::move(slot));
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
  // Work not begun is dropped with the connections it holds (acknowledgements
  // not carried out are asked for again: their pushes come on the next
  // connection).
  pool_->stop();
  pool_->join();
  pool_.reset();
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
  std::lock_guard lock(mu_);
  if (stopping_) return;
  asio::post(*pool_, [fn = std::move(fn)] {
    try {
      fn();
    } catch (const std::exception& e) {
      std::cerr << "rongdian-server: push gateway: " << e.what() << "\n";
    }
  });
}

}  // namespace rd::push
