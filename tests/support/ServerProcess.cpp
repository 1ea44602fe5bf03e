#include "support/ServerProcess.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>

namespace rdtest {

TempDir::TempDir() {
  auto base = std::filesystem::temp_directory_path() / "rongdian-tests";
  std::filesystem::create_directories(base);
  std::random_device rd;
  for (int i = 0; i < 100; ++i) {
    auto p = base / ("t" + std::to_string(::getpid()) + "-" + std::to_string(rd()));
    if (std::filesystem::create_directory(p)) {
      path_ = p.string();
      return;
    }
  }
  throw std::runtime_error("cannot make a temporary folder");
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

ServerProcess::ServerProcess(std::vector<std::string> extra_args, std::string data_dir) {
  if (data_dir.empty()) {
    owned_dir_ = std::make_unique<TempDir>();
    data_dir_ = owned_dir_->path();
  } else {
    data_dir_ = std::move(data_dir);
  }
  // The tests run on the built-in development keys. RD_TEST_SERVER_BINARY
  // runs another build (a benchmark's "before").
  const char* other = std::getenv("RD_TEST_SERVER_BINARY");
  std::vector<std::string> args = {other && *other ? other : RD_SERVER_BINARY,
                                   "--listen",
                                   "127.0.0.1:0",
                                   "--data",
                                   data_dir_,
                                   "--quiet",
                                   "--development"};
  args.insert(args.end(), extra_args.begin(), extra_args.end());

  int out[2];
  if (pipe(out) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    close(out[1]);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  // Wait for the "listening on http://HOST:PORT" line.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  std::string buf;
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd p{out[0], POLLIN, 0};
    if (poll(&p, 1, 200) <= 0) {
      int status;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        break;
      }
      continue;
    }
    char chunk[512];
    ssize_t n = read(out[0], chunk, sizeof chunk);
    if (n <= 0) break;
    buf.append(chunk, static_cast<std::size_t>(n));
    auto pos = buf.find("listening on http://");
    if (pos != std::string::npos && buf.find('\n', pos) != std::string::npos) {
      auto colon = buf.find(':', pos + std::strlen("listening on http://"));
      port_ = static_cast<unsigned short>(std::atoi(buf.c_str() + colon + 1));
      break;
    }
  }
  output_ = buf;
  // Keep draining the server's stdout so it never blocks on a full pipe.
  int fd = out[0];
  if (fork() == 0) {
    char sink[4096];
    while (read(fd, sink, sizeof sink) > 0) {
    }
    _exit(0);
  }
  close(fd);
}

ServerProcess::~ServerProcess() {
  if (pid_ > 0) stop();
}

std::string ServerProcess::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

int ServerProcess::stop(int timeout_ms) {
  if (pid_ <= 0) return -1;
  ::kill(pid_, SIGTERM);
  int status = 0;
  if (wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout_ms)) {
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  kill_now();
  return -1;
}

void ServerProcess::kill_now() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  int status;
  waitpid(pid_, &status, 0);
  pid_ = -1;
}

std::string HttpReply::header(const std::string& name) const {
  auto lower = [](std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), ::tolower);
    return s;
  };
  for (const auto& [k, v] : headers)
    if (lower(k) == lower(name)) return v;
  return {};
}

HttpReply http_request(unsigned short port, const std::string& method, const std::string& target,
                       const std::string& body,
                       const std::vector<std::pair<std::string, std::string>>& headers) {
  HttpReply reply;
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return reply;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return reply;
  }
  std::string req = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n";
  bool has_length = false;
  for (const auto& [k, v] : headers) {
    req += k + ": " + v + "\r\n";
    std::string lk = k;
    std::transform(lk.begin(), lk.end(), lk.begin(), ::tolower);
    if (lk == "content-length") has_length = true;
  }
  if (!has_length && (!body.empty() || method == "POST"))
    req += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  req += "\r\n" + body;
  std::size_t sent = 0;
  while (sent < req.size()) {
    ssize_t n = send(fd, req.data() + sent, req.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<std::size_t>(n);
  }
  std::string raw;
  char buf[16384];
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 30000) <= 0) break;
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) break;
    raw.append(buf, static_cast<std::size_t>(n));
  }
  close(fd);
  auto head_end = raw.find("\r\n\r\n");
  if (head_end == std::string::npos || raw.compare(0, 5, "HTTP/") != 0) return reply;
  reply.status = std::atoi(raw.c_str() + raw.find(' ') + 1);
  std::string head = raw.substr(0, head_end);
  std::size_t pos = head.find("\r\n");
  while (pos != std::string::npos && pos < head.size()) {
    std::size_t next = head.find("\r\n", pos + 2);
    std::string line =
        head.substr(pos + 2, next == std::string::npos ? std::string::npos : next - pos - 2);
    auto colon = line.find(':');
    if (colon != std::string::npos) {
      std::string v = line.substr(colon + 1);
      while (!v.empty() && v.front() == ' ') v.erase(v.begin());
      reply.headers.emplace_back(line.substr(0, colon), v);
    }
    pos = next;
  }
  std::string rest = raw.substr(head_end + 4);
  if (reply.header("Transfer-Encoding") == "chunked") {
    std::string out;
    std::size_t i = 0;
    while (i < rest.size()) {
      std::size_t eol = rest.find("\r\n", i);
      if (eol == std::string::npos) break;
      std::size_t len = std::strtoul(rest.c_str() + i, nullptr, 16);
      if (len == 0) break;
      out += rest.substr(eol + 2, len);
      i = eol + 2 + len + 2;
    }
    reply.body = out;
  } else {
    reply.body = rest;
  }
  return reply;
}

bool wait_until(const std::function<bool()>& cond, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!cond()) {
    if (std::chrono::steady_clock::now() >= deadline) return cond();
    usleep(10000);
  }
  return true;
}

}  // namespace rdtest
