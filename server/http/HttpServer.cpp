#include "http/HttpServer.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <unordered_map>

#include "http/Session.h"

namespace rd::http {

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
