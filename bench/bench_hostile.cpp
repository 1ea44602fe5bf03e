// What the worst hostile clients cost rongdian-server, measured on loopback
// against a real server on a free port (attackers from 127.0.x.0/24 blocks of
// their own, the legitimate client from 127.0.0.1):
//   - push acknowledgements: time per "ack" of 256 ids, /healthz while six
//     devices flood acks, and how long SIGTERM then takes to end the server;
//   - a device that sends "register" frames and never reads: server memory
//     after a few seconds of it, and once it is gone;
//   - 40 detection bodies of 15 MiB less a byte with a wrong key: the
//     server's peak memory;
//   - 500 slowloris connections from one block: a legitimate request's time.
// Prints figures only. With --before OLD_BINARY each figure is also taken on
// that server and the ratio printed.
//   bench_hostile [--server BINARY] [--before BINARY] [--seconds N]
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <boost/json.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../tests/server/raw_testing.h"
#include "support/ServerProcess.h"

namespace {

using rdtest::Raw;
using Clock = std::chrono::steady_clock;
namespace json = boost::json;

int g_seconds = 5;

double ms_since(Clock::time_point t) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

std::string address(int block, int host) {
  return "127.0." + std::to_string(block) + "." + std::to_string(host);
}

double timed_health(unsigned short port) {
  const auto t = Clock::now();
  const auto r = rdtest::http_request(port, "GET", "/healthz");
  return r.status == 200 ? ms_since(t) : -1;
}

struct Figures {
  double ack_ms = 0;            // per ack of 256 ids, answered
  double health_flood_ms = 0;   // slowest /healthz during the flood (-1: no answer)
  double stop_flood_ms = 0;     // SIGTERM to exit during the flood (-1: had to be killed)
  double reader_mib = 0;        // server memory growth from a device that never reads
  double reader_after_mib = 0;  // ... once that device is gone
  double bodies_mib = 0;        // peak memory growth from the wrong-key bodies
  double slowloris_ms = 0;      // slowest legitimate request among 500 slowloris connections
};

// Starts a server of `binary` (the build's when empty).
std::unique_ptr<rdtest::ServerProcess> start(const std::string& binary) {
  if (binary.empty())
    ::unsetenv("RD_TEST_SERVER_BINARY");
  else
    ::setenv("RD_TEST_SERVER_BINARY", binary.c_str(), 1);
  auto s = std::make_unique<rdtest::ServerProcess>();
  if (!s->ok()) {
    std::fprintf(stderr, "bench_hostile: the server did not start:\n%s\n",
                 s->startup_output().c_str());
    std::exit(1);
  }
  return s;
}

std::string ack_frame() {
  json::array ids;
  for (int i = 0; i < 256; ++i) ids.push_back(1'000'000 + i);
  return Raw::frame(json::serialize(json::object{{"ack", ids}}));
}

void acks(const std::string& binary, Figures& f) {
  auto s = start(binary);
  const std::string frame = ack_frame();
  {  // One device, one ack at a time.
    Raw d(s->port(), address(90, 1));
    d.upgrade();
    d.send(Raw::frame(R"({"register":true})"));
    d.read("}");
    constexpr int kAcks = 50;
    const auto t = Clock::now();
    int answered = 0;
    for (int i = 0; i < kAcks; ++i) {
      d.forget();
      d.send(frame);
      answered += d.read(R"("acked")", 30000).find(R"("acked")") != std::string::npos;
    }
    f.ack_ms = answered ? ms_since(t) / answered : -1;
  }
  // Six devices flood acks (reading the answers) for the set time.
  std::atomic<bool> stop{false};
  std::vector<std::unique_ptr<Raw>> devices;
  std::vector<std::thread> threads;
  std::string burst;
  for (int i = 0; i < 100; ++i) burst += frame;
  for (int i = 0; i < 6; ++i) {
    devices.push_back(std::make_unique<Raw>(s->port(), address(91 + i, 1)));
    devices.back()->upgrade();
    devices.back()->send(Raw::frame(R"({"register":true})"));
    const int fd = devices.back()->fd();
    threads.emplace_back([fd] {
      char buf[65536];
      while (::recv(fd, buf, sizeof buf, 0) > 0) {
      }
    });
    threads.emplace_back([&, raw = devices.back().get()] {
      while (!stop && raw->send_all(burst)) {
      }
    });
  }
  const auto end = Clock::now() + std::chrono::seconds(g_seconds);
  double worst = 0;
  while (Clock::now() < end) {
    const double ms = timed_health(s->port());
    worst = ms < 0 ? -1 : std::max(worst, ms);
    if (ms < 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  f.health_flood_ms = worst;
  const auto t = Clock::now();
  const int status = s->stop(60000);
  f.stop_flood_ms = status == -1 ? -1 : ms_since(t);
  stop = true;
  for (auto& d : devices) ::shutdown(d->fd(), SHUT_RDWR);
  for (auto& th : threads) th.join();
}

void never_reads(const std::string& binary, Figures& f) {
  auto s = start(binary);
  const long before = rdtest::rss_kib(s->pid());
  {
    Raw d(s->port(), address(100, 1), 4096);
    d.upgrade();
    std::string burst;
    for (int i = 0; i < 1000; ++i) burst += Raw::frame(R"({"register":true})");
    const auto end = Clock::now() + std::chrono::seconds(g_seconds);
    ::timeval tv{1, 0};
    ::setsockopt(d.fd(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    while (Clock::now() < end && d.send_all(burst)) {
    }
    f.reader_mib = (rdtest::rss_kib(s->pid()) - before) / 1024.0;
  }
  std::this_thread::sleep_for(std::chrono::seconds(2));
  f.reader_after_mib = (rdtest::rss_kib(s->pid()) - before) / 1024.0;
}

void wrong_key_bodies(const std::string& binary, Figures& f) {
  auto s = start(binary);
  const long before = rdtest::rss_kib(s->pid(), "VmHWM:");
  constexpr std::size_t kBody = 15 * 1024 * 1024 - 1;
  const std::string head =
      "POST /v2/detection/detect?api_key=wrong&api_secret=wrong HTTP/1.1\r\nHost: x\r\n"
      "Content-Type: multipart/form-data; boundary=b\r\nContent-Length: " +
      std::to_string(kBody) + "\r\n\r\n";
  const std::string body(kBody, 'x');
  std::vector<std::thread> clients;
  for (int i = 0; i < 40; ++i)
    clients.emplace_back([&, i] {
      Raw c(s->port(), address(110 + i / 4, i % 4 + 1));
      if (c.send_all(head) && c.send_all(body)) c.read("}", 30000);
    });
  for (auto& t : clients) t.join();
  f.bodies_mib = (rdtest::rss_kib(s->pid(), "VmHWM:") - before) / 1024.0;
}

void slowloris(const std::string& binary, Figures& f) {
  auto s = start(binary);
  std::vector<std::unique_ptr<Raw>> attack;
  for (int i = 0; i < 500; ++i) {
    attack.push_back(std::make_unique<Raw>(s->port(), address(120 + i / 250, i % 250 + 1)));
    attack.back()->send("GET /healthz HTTP/1.1\r\nHo");
  }
  double worst = 0;
  for (int i = 0; i < 20; ++i) {
    for (auto& a : attack) ::send(a->fd(), "s", 1, MSG_NOSIGNAL);  // a byte now and then
    const double ms = timed_health(s->port());
    worst = ms < 0 ? -1 : std::max(worst, ms);
    if (ms < 0) break;
  }
  f.slowloris_ms = worst;
}

Figures measure(const std::string& binary) {
  Figures f;
  acks(binary, f);
  never_reads(binary, f);
  wrong_key_bodies(binary, f);
  slowloris(binary, f);
  return f;
}

void line(const char* what, double now, const Figures* before, double Figures::*field,
          const char* unit) {
  std::printf("  %-58s %10.2f %s", what, now, unit);
  if (before) {
    const double was = before->*field;
    std::printf("   (before %.2f %s", was, unit);
    if (now > 0 && was > 0) std::printf(", ratio %.1fx", was / now);
    std::printf(")");
  }
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  std::string server, before_binary;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--server" && i + 1 < argc) {
      server = argv[++i];
    } else if (a == "--before" && i + 1 < argc) {
      before_binary = argv[++i];
    } else if (a == "--seconds" && i + 1 < argc) {
      g_seconds = std::max(1, std::atoi(argv[++i]));
    } else {
      std::fprintf(stderr,
                   "usage: bench_hostile [--server BINARY] [--before BINARY] [--seconds N]\n");
      return 2;
    }
  }
  std::unique_ptr<Figures> before;
  if (!before_binary.empty()) before = std::make_unique<Figures>(measure(before_binary));
  const Figures now = measure(server);
  std::printf("rongdian-server against hostile clients on loopback (-1: no answer / killed)\n");
  const Figures* b = before.get();
  line("ack of 256 ids, until answered", now.ack_ms, b, &Figures::ack_ms, "ms");
  line("slowest /healthz while 6 devices flood acks", now.health_flood_ms, b,
       &Figures::health_flood_ms, "ms");
  line("SIGTERM to exit during that flood", now.stop_flood_ms, b, &Figures::stop_flood_ms, "ms");
  line("memory grown by a device that never reads", now.reader_mib, b, &Figures::reader_mib, "MiB");
  line("... 2 s after it is gone", now.reader_after_mib, b, &Figures::reader_after_mib, "MiB");
  line("peak memory grown by 40 wrong-key 15 MiB detect bodies", now.bodies_mib, b,
       &Figures::bodies_mib, "MiB");
  line("slowest /healthz among 500 slowloris connections", now.slowloris_ms, b,
       &Figures::slowloris_ms, "ms");
  std::fflush(stdout);
  std::system("uptime");
  return 0;
}
