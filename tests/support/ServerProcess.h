// Starts a real rongdian-server on a free loopback port for a test, and
// stops it (SIGTERM, then SIGKILL) when the object goes away.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace rdtest {

// A fresh empty folder under the build's temporary area, removed on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

class ServerProcess {
 public:
  // Extra arguments go after --listen 127.0.0.1:0 --data DIR --quiet.
  explicit ServerProcess(std::vector<std::string> extra_args = {}, std::string data_dir = {});
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  bool ok() const { return port_ != 0; }
  unsigned short port() const { return port_; }
  std::string url() const;  // http://127.0.0.1:PORT
  const std::string& data_dir() const { return data_dir_; }
  const std::string& startup_output() const { return output_; }
  pid_t pid() const { return pid_; }

  // SIGTERM and wait; returns the exit status (-1 when it had to be killed).
  int stop(int timeout_ms = 10000);
  // SIGKILL, no grace.
  void kill_now();

 private:
  std::unique_ptr<TempDir> owned_dir_;
  std::string data_dir_;
  pid_t pid_ = -1;
  unsigned short port_ = 0;
  std::string output_;
};

struct HttpReply {
  int status = 0;  // 0: no answer
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string header(const std::string& name) const;  // case-insensitive, first
};

// One blocking HTTP/1.1 exchange on loopback (Connection: close).
HttpReply http_request(unsigned short port, const std::string& method, const std::string& target,
                       const std::string& body = {},
                       const std::vector<std::pair<std::string, std::string>>& headers = {});

// Checks cond every 10 ms until it holds or timeout_ms pass; returns cond().
bool wait_until(const std::function<bool()>& cond, int timeout_ms = 10000);

}  // namespace rdtest
