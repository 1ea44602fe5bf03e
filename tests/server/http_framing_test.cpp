// How the server answers clients that do not follow HTTP to the letter
// ("Expect: 100-continue", bodies that end early or are malformed, stalled
// heads) and floods of processor-bound requests, and what /healthz says when a
// part of the server fails.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "api_testing.h"
#include "raw_testing.h"

namespace {

using rdtest::Raw;

const std::string kJsonHead =
    "POST /api?cmd=rd_get_item HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n";

TEST(HttpFraming, ContinueIsAnsweredBeforeTheBody) {
  rdtest::ServerProcess s;
  ASSERT_TRUE(s.ok()) << s.startup_output();
  Raw c(s.port());
  ASSERT_TRUE(c.connected());
  const std::string body = R"({"cmd":"rd_get_item"})";
  c.send(kJsonHead + "Expect: 100-continue\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n");
  EXPECT_EQ(c.read("\r\n\r\n", 3000).rfind("HTTP/1.1 100 Continue\r\n", 0), 0u);
  c.send(body);
  const std::string reply = c.read("}");
  EXPECT_NE(reply.find("HTTP/1.1 200 OK"), std::string::npos) << reply;
}

TEST(HttpFraming, BrokenBodiesAndStalledHeadsGetAJsonErrorThenClose) {
  rdtest::ServerProcess s({"--request-timeout", "1", "--idle-timeout", "1"});
  ASSERT_TRUE(s.ok()) << s.startup_output();
  const auto error_reply = [](const std::string& r, const char* status) {
    return r.rfind(std::string("HTTP/1.1 ") + status, 0) == 0 &&
           r.find("Connection: close") != std::string::npos &&
           r.find(R"({"error":)") != std::string::npos;
  };
  {  // A body shorter than its Content-Length, then the client stops sending.
    Raw c(s.port());
    c.send(kJsonHead + "Content-Length: 100\r\n\r\n{\"cmd\":");
    c.end_sending();
    const std::string r = c.read();
    EXPECT_TRUE(error_reply(r, "400")) << r;
  }
  {  // Malformed chunks.
    Raw c(s.port());
    c.send(kJsonHead + "Transfer-Encoding: chunked\r\n\r\nzz\r\n{}\r\n0\r\n\r\n");
    const std::string r = c.read();
    EXPECT_TRUE(error_reply(r, "400")) << r;
  }
  {  // A target with a broken escape, or one that is not a path.
    for (const char* target : {"/api?cmd=%zz", "/files/a%2", "api"}) {
      Raw c(s.port());
      c.send(std::string("GET ") + target + " HTTP/1.1\r\nHost: x\r\n\r\n");
      const std::string r = c.read();
      EXPECT_TRUE(error_reply(r, "400")) << target << ": " << r;
    }
  }
  {  // A body that never comes in full.
    Raw c(s.port());
    c.send(kJsonHead + "Content-Length: 100\r\n\r\n{");
    const std::string r = c.read();
    EXPECT_TRUE(error_reply(r, "408")) << r;
  }
  {  // Half a head, then nothing.
    Raw c(s.port());
    c.send("POST /api?cmd=rd_get_item HTTP/1.1\r\nHost:");
    const std::string r = c.read();
    EXPECT_TRUE(error_reply(r, "408")) << r;
  }
  {  // An idle keep-alive connection closes without a word.
    Raw c(s.port());
    EXPECT_EQ(c.read(), "");
  }
}

TEST(Busy, AFloodOfLoginsIsBoundedAndLeavesTheRestAnswering) {
  rdtest::ServerProcess s({"--cpu-threads", "1", "--cpu-queue", "2"});
  ASSERT_TRUE(s.ok()) << s.startup_output();
  constexpr int kLogins = 8;
  std::atomic<int> done{0}, busy{0};
  std::vector<std::thread> clients;
  for (int i = 0; i < kLogins; ++i)
    clients.emplace_back([&, i] {
      const auto r = rdtest::http_request(s.port(), "POST", "/api?cmd=rd_login_user",
                                          R"({"cmd":"rd_login_user","mobile":"1380013810)" +
                                              std::to_string(i) + R"(","password":"guess"})");
      if (r.status == 503 && r.body.find(R"("message")") != std::string::npos) ++busy;
      ++done;
    });
  // While the passwords are hashed, the health check is answered by the
  // workers (before the last login comes back).
  while (done == 0 && busy == 0) std::this_thread::yield();
  const auto health = rdtest::http_request(s.port(), "GET", "/healthz");
  const int done_by_then = done;
  for (auto& t : clients) t.join();
  EXPECT_EQ(health.status, 200);
  EXPECT_LT(done_by_then, kLogins);
  EXPECT_GE(busy, 1);            // more than the queue holds: refused at once
  EXPECT_LE(busy, kLogins - 1);  // the first one runs
}

using rdtest::metric;

TEST(Connections, AtTheCapTheLongestIdleOneMakesRoom) {
  rdtest::ServerProcess s({"--max-connections", "4"});
  ASSERT_TRUE(s.ok()) << s.startup_output();
  std::vector<std::unique_ptr<Raw>> idle;
  for (int i = 0; i < 4; ++i) {
    idle.push_back(std::make_unique<Raw>(s.port()));
    ASSERT_TRUE(idle.back()->connected());
  }
  // (accepted in the order they came; the fifth asks for something)
  Raw probe(s.port());
  probe.send("GET /healthz HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_NE(probe.read("}").find("200 OK"), std::string::npos);
  // The first idle connection was closed for it: it reads the end at once.
  EXPECT_EQ(idle.front()->read({}, 3000), "");
  EXPECT_GE(metric(s.port(), "rongdian_connections_closed_for_room_total"), 1);
}

TEST(Connections, OutOfDescriptorsTheServerWaitsInsteadOfSpinning) {
#ifdef __SANITIZE_ADDRESS__
  // The sanitizers probe memory through a pipe of their own; with no
  // descriptor left they report false errors. The plain build runs this.
  GTEST_SKIP() << "needs descriptors the sanitizers take for themselves";
#endif
  rdtest::ServerProcess s({"--max-connections", "10000"});
  ASSERT_TRUE(s.ok()) << s.startup_output();
  // Few descriptors for the running server: the accepts below fail.
  const std::string limit =
      "prlimit --pid " + std::to_string(s.pid()) + " --nofile=48:48 >/dev/null 2>&1";
  if (std::system(limit.c_str()) != 0) GTEST_SKIP() << "prlimit cannot lower the server's limit";
  std::vector<std::unique_ptr<Raw>> held;
  for (int i = 0; i < 80; ++i) held.push_back(std::make_unique<Raw>(s.port()));
  // Connections that wait for their turn in the backlog are taken once the
  // idle ones give their descriptors back; then the server answers again.
  // (/metrics needs no file of its own; /healthz opens the database and the
  // photo folder, which may still find no descriptor free.)
  Raw late(s.port());
  late.send("GET /metrics HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  EXPECT_NE(late.read({}, 20000).find("200 OK"), std::string::npos);
  held.clear();
  // Each failed accept is followed by a pause, not tried again at once.
  const double failures = metric(s.port(), "rongdian_accept_errors_total");
  EXPECT_GE(failures, 1);
  EXPECT_LT(failures, 1000);
}

TEST(Health, SaysWhichPartFailed) {
  rdtest::ServerProcess s;
  ASSERT_TRUE(s.ok()) << s.startup_output();
  auto health = rdtest::http_request(s.port(), "GET", "/healthz");
  EXPECT_EQ(health.status, 200);
  EXPECT_EQ(health.body, R"({"status":"ok"})");

  // The photo folder gone (a lost mount): photos cannot be kept.
  const auto photos = std::filesystem::path(s.data_dir()) / "photos";
  std::filesystem::rename(photos, photos.string() + ".away");
  health = rdtest::http_request(s.port(), "GET", "/healthz");
  EXPECT_EQ(health.status, 503);
  EXPECT_NE(health.body.find(R"("storage":)"), std::string::npos) << health.body;
  EXPECT_EQ(health.body.find(R"("database":)"), std::string::npos) << health.body;
  std::filesystem::rename(photos.string() + ".away", photos);
  EXPECT_EQ(rdtest::http_request(s.port(), "GET", "/healthz").status, 200);
}

TEST(Health, ADatabaseThatDoesNotAnswerIsReported) {
  rdtest::TestDatabase db("postgresql");
  RD_REQUIRE_DATABASE(db);
  rdtest::ServerProcess s({"--database", db.url()});
  ASSERT_TRUE(s.ok()) << s.startup_output();
  EXPECT_EQ(rdtest::http_request(s.port(), "GET", "/healthz").status, 200);
  // No new connections to the database, and the server's cut off (the test
  // database is dropped without connecting to it).
  db.exec(
      "UPDATE pg_database SET datallowconn = false WHERE datname = current_database();"
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
      "WHERE datname = current_database() AND pid <> pg_backend_pid()");
  auto health = rdtest::http_request(s.port(), "GET", "/healthz");
  EXPECT_EQ(health.status, 503);
  EXPECT_NE(health.body.find(R"("database":)"), std::string::npos) << health.body;
}

}  // namespace
