// Raw loopback connections to a test server: HTTP written by hand, from a
// chosen source address (127.0.0.0/8 holds many /24 address blocks), and a
// WebSocket client that writes frames without reading the answers.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>

#include "support/ServerProcess.h"

namespace rdtest {

class Raw {
 public:
  // `from`: the source address, e.g. "127.0.3.1"; empty: the system's choice.
  explicit Raw(unsigned short port, const std::string& from = {}, int receive_buffer = 0)
      : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    if (receive_buffer > 0)
      ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    if (!from.empty()) {
      sockaddr_in src{};
      src.sin_family = AF_INET;
      ::inet_pton(AF_INET, from.c_str(), &src.sin_addr);
      ::bind(fd_, reinterpret_cast<sockaddr*>(&src), sizeof src);
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~Raw() { ::close(fd_); }
  Raw(const Raw&) = delete;
  Raw& operator=(const Raw&) = delete;

  bool connected() const { return connected_; }
  int fd() const { return fd_; }
  void send(const std::string& s) {
    ASSERT_EQ(::send(fd_, s.data(), s.size(), MSG_NOSIGNAL), ssize_t(s.size()));
  }
  // Writes all of `s` (blocking); false when the peer reset or closed first.
  bool send_all(const std::string& s) {
    for (std::size_t at = 0; at < s.size();) {
      const ssize_t n = ::send(fd_, s.data() + at, s.size() - at, MSG_NOSIGNAL);
      if (n <= 0) return false;
      at += std::size_t(n);
    }
    return true;
  }
  void end_sending() { ::shutdown(fd_, SHUT_WR); }
  // What arrives until `until` is in it, the peer closes, or `ms` pass.
  std::string read(const std::string& until = {}, int ms = 10000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < end) {
      if (!until.empty() && got_.find(until) != std::string::npos) break;
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      char buf[4096];
      const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) {
        closed_ = true;
        break;
      }
      got_.append(buf, size_t(n));
    }
    return got_;
  }
  void forget() { got_.clear(); }  // what read() gathered so far
  // True once the peer has closed (read() saw the end).
  bool closed() const { return closed_; }

  // The WebSocket handshake on `path`; true when the server switched protocols.
  bool upgrade(const std::string& path = "/push") {
    send("GET " + path +
         " HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
         "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    const std::string head = read("\r\n\r\n");
    got_.clear();
    return head.rfind("HTTP/1.1 101", 0) == 0;
  }
  // One masked text frame (the mask is zero: the text goes as it is).
  static std::string frame(const std::string& text) {
    std::string f = "\x81";
    const std::size_t n = text.size();
    if (n < 126) {
      f += char(0x80 | n);
    } else {
      f += char(0x80 | 126);
      f += char(n >> 8);
      f += char(n & 0xff);
    }
    f += std::string(4, '\0');
    return f + text;
  }

 private:
  int fd_;
  bool connected_ = false;
  bool closed_ = false;
  std::string got_;
};

// The value of a counter or gauge on /metrics, 0 when absent.
inline double metric(unsigned short port, const std::string& name) {
  const auto text = http_request(port, "GET", "/metrics").body;
  const auto at = text.find("\n" + name + " ");
  return at == std::string::npos ? 0 : std::stod(text.substr(at + name.size() + 2));
}

// The status of an HTTP reply's first line, 0 when there is none.
inline int status_of(const std::string& reply) {
  return reply.rfind("HTTP/1.1 ", 0) == 0 ? std::atoi(reply.c_str() + 9) : 0;
}

// A process's resident set now and at its peak, in KiB (from /proc).
inline long rss_kib(pid_t pid, const char* field = "VmRSS:") {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string key;
  long value = 0;
  while (in >> key) {
    if (key == field) {
      in >> value;
      return value;
    }
    in.ignore(1 << 10, '\n');
  }
  return 0;
}

}  // namespace rdtest
