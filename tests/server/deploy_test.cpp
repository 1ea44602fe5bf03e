// The scale-out set-up of docs/deploy.md, for real: two instances on one
// PostgreSQL database and one data folder, nginx with docs/deploy/nginx.conf
// in front of them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "api_testing.h"

namespace json = boost::json;
using namespace rdtest;

namespace {

unsigned short free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

// nginx with the documented configuration, listening on `port` and
// balancing over `upstreams`.
class Proxy {
 public:
  Proxy(unsigned short port, const std::vector<unsigned short>& upstreams) : port_(port) {
    std::ifstream in(std::string(RD_SOURCE_DIR) + "/docs/deploy/nginx.conf");
    std::stringstream ss;
    ss << in.rdbuf();
    std::string conf = ss.str();
    std::string servers;
    for (auto p : upstreams) servers += "    server 127.0.0.1:" + std::to_string(p) + ";\n";
    conf = std::regex_replace(conf, std::regex(R"(( *server 127\.0\.0\.1:808[1-9];\n)+)"), servers);
    conf = std::regex_replace(conf, std::regex(R"(listen 127\.0\.0\.1:8080;)"),
                              "listen 127.0.0.1:" + std::to_string(port) + ";");
    conf = std::regex_replace(conf, std::regex(R"(worker_processes auto;)"),
                              "worker_processes 1;\nuser root;");
    if (conf.find(std::to_string(upstreams.front())) == std::string::npos) return;
    std::ofstream(dir_.path() + "/nginx.conf") << conf;
    pid_ = fork();
    if (pid_ == 0) {
      std::string globals =
          "daemon off; pid " + dir_.path() + "/nginx.pid; error_log " + dir_.path() + "/error.log;";
      execl("/usr/sbin/nginx", "nginx", "-p", dir_.path().c_str(), "-c",
            (dir_.path() + "/nginx.conf").c_str(), "-g", globals.c_str(), nullptr);
      _exit(127);
    }
    wait_until([&] { return http_request(port_, "GET", "/healthz").status == 200; });
  }
  ~Proxy() {
    if (pid_ > 0) {
      kill(pid_, SIGQUIT);
      int st;
      waitpid(pid_, &st, 0);
    }
  }
  std::string error_log() const {
    std::ifstream in(dir_.path() + "/error.log");
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }

  ApiReply call(const std::string& cmd, json::object body) const {
    body["cmd"] = cmd;
    return parse_reply(http_request(port_, "POST", "/api?cmd=" + cmd, json::serialize(body),
                                    {{"HTTP_ACCESS_TOKEN", "anonymous"}}));
  }

 private:
  TempDir dir_;
  unsigned short port_;
  pid_t pid_ = -1;
};

// Requests an instance has answered, from its /metrics.
long served(ApiServer& s) {
  const std::string m = http_request(s.process().port(), "GET", "/metrics").body;
  long total = 0;
  std::regex line(R"re(rongdian_requests_total\{route="api:[^"]*",status="\d+"\} (\d+))re");
  for (std::sregex_iterator it(m.begin(), m.end(), line), end; it != end; ++it)
    total += std::stol((*it)[1]);
  return total;
}

}  // namespace

TEST(ScaleOut, TwoInstancesBehindTheProxyServeOneSystem) {
  TestDatabase db("postgresql");
  RD_REQUIRE_DATABASE(db);
  TempDir shared;
  const unsigned short proxy_port = free_port();
  const std::string public_url = "http://127.0.0.1:" + std::to_string(proxy_port);
  ApiServer a(db.url(), shared.path(),
              {"--public-url", public_url, "--trusted-proxy", "127.0.0.1/32"});
  ApiServer b(db.url(), shared.path(),
              {"--public-url", public_url, "--trusted-proxy", "127.0.0.1/32"});
  ASSERT_TRUE(a.process().ok()) << a.process().startup_output();
  ASSERT_TRUE(b.process().ok()) << b.process().startup_output();
  Proxy proxy(proxy_port, {a.process().port(), b.process().port()});
  ASSERT_EQ(http_request(proxy_port, "GET", "/healthz").status, 200) << proxy.error_log();

  // A user registered through the proxy exists for both instances.
  auto reg = proxy.call(
      "rd_register_user",
      {{"mobile", "13700000001"}, {"password", "pw1"}, {"nickname", "阿甲"}, {"device", "ios"}});
  ASSERT_FALSE(reg.is_error()) << json::serialize(reg.body);
  const std::string id = reg.text("id");
  for (ApiServer* s : {&a, &b}) {
    auto login = s->call("rd_login_user", {{"mobile", "13700000001"}, {"password", "pw1"}});
    EXPECT_FALSE(login.is_error()) << json::serialize(login.body);
    EXPECT_EQ(login.text("id"), id);
  }

  // Published on one, listed by the other and by the proxy.
  const std::string item = a.add_item(id, 5000, "两台一起");
  ASSERT_FALSE(item.empty());
  auto listed = b.call("rd_list_items", {{"page", 1}, {"limit", 10}});
  ASSERT_TRUE(listed.body.contains("items")) << json::serialize(listed.body);
  ASSERT_EQ(listed.body.at("items").as_array().size(), 1u);
  EXPECT_EQ(std::to_string(listed.body.at("items").as_array()[0].as_object().at("id").as_int64()),
            item);

  // Likes of ten users through the proxy land on both instances and add up in the one database.
  std::vector<std::string> fans;
  for (int i = 0; i < 10; ++i) fans.push_back(a.register_user("1370000010" + std::to_string(i)));
  const long before_a = served(a), before_b = served(b);
  for (const auto& fan : fans) {
    auto like =
        proxy.call("rd_like_item", {{"item_id", item}, {"user_id", fan}, {"is_liked", true}});
    EXPECT_FALSE(like.is_error()) << json::serialize(like.body);
  }
  EXPECT_GT(served(a) - before_a, 0) << "the proxy sent nothing to the first instance";
  EXPECT_GT(served(b) - before_b, 0) << "the proxy sent nothing to the second instance";
  auto top = proxy.call("rd_get_item", {});
  EXPECT_EQ(top.number("num_look_score"), 5000 + 10 * 100) << json::serialize(top.body);
}
