// POST /v2/detection/detect on loopback: latency percentiles and photos per
// second with concurrent clients sending 200x250 single-face JPEGs, the
// server's CPU use, and its memory over the run.
//
//   bench_detect [--clients N] [--requests N] [--long]
//   (--long: 10,000 requests)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "FaceCrops.h"
#include "support/ServerProcess.h"

using Clock = std::chrono::steady_clock;

namespace {

long rss_kib(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  return -1;
}

double cpu_seconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string s((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto close = s.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream f(s.substr(close + 2));
  std::string field;
  unsigned long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && (f >> field); ++i) {
    if (i == 14) utime = std::stoul(field);
    if (i == 15) stime = std::stoul(field);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// One keep-alive connection that posts the photo and reads the answer.
class Client {
 public:
  explicit Client(unsigned short port) : port_(port) {}
  ~Client() {
    if (fd_ >= 0) ::close(fd_);
  }
  // Returns the HTTP status (0 on failure).
  int post(const std::string& request) {
    for (int attempt = 0; attempt < 2; ++attempt) {
      if (fd_ < 0 && !connect()) return 0;
      if (send_all(request)) {
        int status = read_response();
        if (status) return status;
      }
      ::close(fd_);
      fd_ = -1;
    }
    return 0;
  }

 private:
  bool connect() {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port_);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
      ::close(fd_);
      fd_ = -1;
      return false;
    }
    buf_.clear();
    return true;
  }
  bool send_all(const std::string& s) {
    std::size_t off = 0;
    while (off < s.size()) {
      ssize_t n = ::send(fd_, s.data() + off, s.size() - off, MSG_NOSIGNAL);
      if (n <= 0) return false;
      off += static_cast<std::size_t>(n);
    }
    return true;
  }
  int read_response() {
    char tmp[16384];
    for (;;) {
      auto head_end = buf_.find("\r\n\r\n");
      if (head_end != std::string::npos) {
        std::size_t len = 0;
        auto cl = buf_.find("Content-Length: ");
        if (cl == std::string::npos) cl = buf_.find("content-length: ");
        if (cl != std::string::npos && cl < head_end)
          len = std::strtoul(buf_.c_str() + cl + 16, nullptr, 10);
        if (buf_.size() >= head_end + 4 + len) {
          int status = std::atoi(buf_.c_str() + 9);
          buf_.erase(0, head_end + 4 + len);
          return status;
        }
      }
      ssize_t n = ::recv(fd_, tmp, sizeof tmp, 0);
      if (n <= 0) return 0;
      buf_.append(tmp, static_cast<std::size_t>(n));
    }
  }
  unsigned short port_;
  int fd_ = -1;
  std::string buf_;
};

std::string request_for(const std::string& jpeg) {
  const std::string boundary = "Boundary-6c1b2a54-2f9e-4d8e-9d0b-3c7e1f0a5b21";
  std::string body = "--" + boundary +
                     "\r\nContent-Disposition: form-data; name=\"img\"; filename=\"image.jpeg\"\r\n"
                     "Content-Type: image/jpeg\r\n\r\n" +
                     jpeg + "\r\n--" + boundary + "--\r\n";
  return "POST /v2/detection/detect?api_key=rongdian-dev-key&api_secret=rongdian-dev-secret"
         "&mode=normal&attribute=age,race,gender,smiling HTTP/1.1\r\nHost: 127.0.0.1\r\n"
         "Content-Type: multipart/form-data; boundary=" +
         boundary + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace

int main(int argc, char** argv) {
  int clients = 8, requests = 400;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--clients" && i + 1 < argc)
      clients = std::max(1, std::atoi(argv[++i]));
    else if (a == "--requests" && i + 1 < argc)
      requests = std::max(1, std::atoi(argv[++i]));
    else if (a == "--long")
      requests = 10000;
    else {
      std::cerr << "usage: bench_detect [--clients N] [--requests N] [--long]\n";
      return 2;
    }
  }
  const std::string root = RD_MODELS_DIR;
  std::vector<std::string> bodies;
  {
    rd::engine::FaceEngine engine(root + "/model");
    for (const auto& p : rdbench::single_face_crops(engine, root))
      bodies.push_back(request_for(p.jpeg));
  }
  if (bodies.empty()) {
    std::cerr << "bench_detect: no sample photos under " << root << "\n";
    return 1;
  }
  rdtest::ServerProcess server;
  if (!server.ok()) {
    std::cerr << "bench_detect: the server did not start:\n" << server.startup_output();
    return 1;
  }
  // Warm-up: every network set of the pool gets used once.
  {
    std::vector<std::thread> warm;
    for (int c = 0; c < clients; ++c)
      warm.emplace_back([&, c] {
        Client cl(server.port());
        for (int i = 0; i < 3; ++i)
          cl.post(bodies[static_cast<std::size_t>(c + i) % bodies.size()]);
      });
    for (auto& t : warm) t.join();
  }

  const pid_t pid = server.pid();
  const long rss_start = rss_kib(pid);
  std::printf(
      "detect endpoint: %d requests from %d clients (keep-alive), %zu different 200x250 photos\n",
      requests, clients, bodies.size());
  std::printf("server memory after warm-up: %.1f MiB\n", rss_start / 1024.0);

  std::atomic<int> next{0}, failures{0};
  std::mutex mu;
  std::vector<double> latencies;
  latencies.reserve(static_cast<std::size_t>(requests));
  std::vector<std::pair<int, long>> memory;  // (requests done, RSS KiB)
  std::atomic<bool> done{false};
  std::thread sampler([&] {
    while (!done) {
      std::this_thread::sleep_for(std::chrono::milliseconds(250));
      std::lock_guard lock(mu);
      memory.push_back({static_cast<int>(latencies.size()), rss_kib(pid)});
    }
  });
  const double cpu0 = cpu_seconds(pid);
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c)
    threads.emplace_back([&] {
      Client cl(server.port());
      std::vector<double> mine;
      for (int i; (i = next++) < requests;) {
        auto t0 = Clock::now();
        int status = cl.post(bodies[static_cast<std::size_t>(i) % bodies.size()]);
        double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
        if (status != 200) ++failures;
        std::lock_guard lock(mu);
        latencies.push_back(ms);
      }
    });
  for (auto& t : threads) t.join();
  const double wall = std::chrono::duration<double>(Clock::now() - start).count();
  const double cpu = cpu_seconds(pid) - cpu0;
  done = true;
  sampler.join();
  const long rss_end = rss_kib(pid);

  std::sort(latencies.begin(), latencies.end());
  auto pct = [&](double p) {
    return latencies[std::min(latencies.size() - 1,
                              static_cast<std::size_t>(p * latencies.size()))];
  };
  std::printf("latency: p50 %.1f ms, p90 %.1f ms, p99 %.1f ms, max %.1f ms\n", pct(0.50), pct(0.90),
              pct(0.99), latencies.back());
  std::printf("throughput: %.1f photos/s; failures: %d\n", requests / wall, failures.load());
  std::printf("server CPU: %.2f cores busy of %u\n", cpu / wall,
              std::thread::hardware_concurrency());
  std::printf("server memory (RSS) over the run:");
  const std::size_t step = std::max<std::size_t>(1, memory.size() / 10);
  for (std::size_t i = 0; i < memory.size(); i += step)
    std::printf(" %d:%.1f", memory[i].first, memory[i].second / 1024.0);
  std::printf(" MiB\nserver memory: %.1f MiB at start, %.1f MiB at the end (%+.1f MiB)\n",
              rss_start / 1024.0, rss_end / 1024.0, (rss_end - rss_start) / 1024.0);
  return failures ? 1 : 0;
}
