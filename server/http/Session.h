// One client connection of the HTTP core: reads a request head, checks it
// against its route and the server's limits, reads the body, has the route
// answer (on a pool, at once, or by taking the connection over), writes the
// response and waits for the next request. Used by Server only.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "http/HttpServer.h"

namespace rd::http {

class Server::Session : public std::enable_shared_from_this<Server::Session> {
 public:
  // `last`: accepted past the connection cap, into the reserve: one request, then close.
  Session(Server& server, tcp::socket socket, asio::ip::address peer, std::shared_ptr<Slot> slot,
          bool last);

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
  void close_for_room();

  // Called on stop: a connection waiting for its next request is closed now;
  // one busy with a request closes after answering it.
  void shutdown_if_idle();

 private:
  // A body that is read and thrown away (see drain_then_send).
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

  void set_phase(Phase p);

  void read_head();

  // Reading a request is timed here rather than by the stream, whose
  // timeout closes the socket: a late client still gets its 408.
  void arm_timer(std::chrono::seconds after);

  void on_head(beast::error_code ec);

  void read_body();

  // Sends `res` once the rest of the request's body is read and thrown away:
  // a client that writes its whole body before it reads (as most do) then
  // hears the answer instead of a reset, and nothing of the body is kept. A
  // body longer than kDrainMax, or one held back for "100 Continue", is not
  // waited for: the connection closes after the answer.
  void drain_then_send(Response res);

  // Answers a request that goes no further with a JSON error, then closes.
  void refuse(unsigned status, const std::string& error, unsigned version,
              const std::string& label);
  // The core's own error answer in the matched route's shape, if it has one.
  Response shaped(Response res) const;
  std::string route_label() const { return route_ ? route_->label : "-"; }

  void timed_out() { refuse(408, "request timed out", 11, route_label()); }

  void fail_head(beast::error_code ec);

  void bad_target();

  void too_large();

  void on_body(beast::error_code ec);

  // The Answer a quick handler gets.
  class QuickAnswer;
  // Runs the route's handler, on the worker pool.
  void run_handler();
  // The route's handler's response, or a 500 when it throws.
  Response call_handler();

  // On the CPU pool, when it has room; else a 503 at once.
  void run_heavy();

  // From any thread: the response is written on the connection's.
  void answer(Response res);

  void send(Response res, const std::string& label, bool keep_alive);

  void on_write(beast::error_code ec, bool keep_alive);

  void log(unsigned status, const std::string& label, double secs = 0);

  void close();

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

}  // namespace rd::http
