// The server against hostile clients on loopback: floods of push
// acknowledgements, devices that never read, request bodies that would pile
// up in memory, connections that hold descriptors (idle, slowloris, push
// sockets), and Transfer-Encodings it cannot read. Attackers connect from
// /24 blocks of their own in 127.0.0.0/8; the legitimate client from
// 127.0.0.1. Nothing here is timed: the tests count what stays open, what is
// refused and what the server holds, and that it answers meanwhile.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <boost/json.hpp>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "push_testing.h"
#include "raw_testing.h"
#include "support/ServerProcess.h"

namespace {

using rdtest::metric;
using rdtest::Raw;
using rdtest::status_of;
namespace json = boost::json;

std::string address(int block, int host) {
  return "127.0." + std::to_string(block) + "." + std::to_string(host);
}

bool healthy(unsigned short port) {
  return rdtest::http_request(port, "GET", "/healthz").status == 200;
}

// ---------------------------------------------------------------- framing

TEST(TransferEncoding, OnlyChunkedIsRead) {
  rdtest::ServerProcess s;
  ASSERT_TRUE(s.ok()) << s.startup_output();
  const std::string head =
      "POST /api?cmd=rd_get_item HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n";
  const std::string body = R"({"cmd":"rd_get_item"})";
  const std::string chunked = "15\r\n" + body + "\r\n0\r\n\r\n";
  const struct {
    std::string fields;
    int status;
  } cases[] = {
      {"Transfer-Encoding: gzip\r\n", 501},
      {"Transfer-Encoding: gzip, chunked\r\n", 501},
      {"Transfer-Encoding: chunked, identity\r\n", 400},
      {"Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n", 400},
      {"Transfer-Encoding: chunked\r\nContent-Length: 26\r\n", 400},  // framed twice
      {"Transfer-Encoding: Chunked\r\n", 200},
  };
  for (const auto& c : cases) {
    Raw conn(s.port());
    conn.send(head + c.fields + "\r\n" + chunked);
    const std::string reply = conn.read("}");
    EXPECT_EQ(status_of(reply), c.status) << c.fields << reply;
  }
}

// ---------------------------------------------------------------- bodies

TEST(Bodies, RefusedBodiesAreReadBeforeTheAnswerAndNotKept) {
  rdtest::ServerProcess s;
  ASSERT_TRUE(s.ok()) << s.startup_output();
  const auto post = [](const std::string& target, std::size_t size) {
    return "POST " + target +
           " HTTP/1.1\r\nHost: x\r\nContent-Type: multipart/form-data; boundary=b\r\n"
           "Content-Length: " +
           std::to_string(size) + "\r\n\r\n" + std::string(size, 'x');
  };
  // A client that writes its whole body before it reads hears the answer
  // (not a reset), and the connection goes on.
  for (const auto& [target, status] : {std::pair<std::string, int>{"/nowhere", 404},
                                       {"/api?cmd=rd_get_item", 413},
                                       {"/v2/detection/detect?api_key=no&api_secret=no", 401}}) {
    Raw c(s.port());
    ASSERT_TRUE(c.send_all(post(target, 1 << 20))) << target;
    EXPECT_EQ(status_of(c.read("}")), status) << target;
    if (status == 413) continue;  // (past its limit the body is not the route's to frame)
    Raw& same = c;
    same.send("GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_NE(same.read(R"("ok"})").find(R"({"status":"ok"})"), std::string::npos) << target;
  }
  // Detection with a wrong key is refused before the photo is read: eight
  // at once leave the server's peak memory where it was.
  const long peak_before = rdtest::rss_kib(s.pid(), "VmHWM:");
  constexpr std::size_t kPhoto = 12 << 20;
  std::vector<std::thread> clients;
  std::atomic<int> refused{0};
  for (int i = 0; i < 8; ++i)
    clients.emplace_back([&, i] {
      Raw c(s.port(), address(20, i + 1));
      if (c.send_all(post("/v2/detection/detect?api_key=no&api_secret=no", kPhoto)) &&
          status_of(c.read("}")) == 401)
        ++refused;
    });
  for (auto& t : clients) t.join();
  EXPECT_EQ(refused, 8);
  EXPECT_LT(rdtest::rss_kib(s.pid(), "VmHWM:") - peak_before, long(2 * kPhoto / 1024));
}

TEST(Bodies, BytesHeldAreBoundedPerBlockAndInTotal) {
  rdtest::ServerProcess s({"--body-memory-block-mb", "2", "--body-memory-mb", "3"});
  ASSERT_TRUE(s.ok()) << s.startup_output();
  constexpr std::size_t kBody = 1536 * 1024;
  const std::string head =
      "POST /feedback HTTP/1.1\r\nHost: x\r\nContent-Type: multipart/form-data; boundary=b\r\n"
      "Content-Length: " +
      std::to_string(kBody) + "\r\n\r\n";
  const std::string half(kBody / 2, 'x');
  const auto whole = [&](const std::string& from) {
    Raw c(s.port(), from);
    return c.send_all(head + half + half) ? status_of(c.read("}")) : 0;
  };
  // Two bodies held half-sent, from two blocks.
  Raw a(s.port(), address(21, 1)), b(s.port(), address(22, 1));
  a.send(head + half);
  b.send(head + half);
  ASSERT_TRUE(rdtest::wait_until(
      [&] { return metric(s.port(), "rongdian_body_bytes_in_memory") >= 2 * kBody; }));
  EXPECT_EQ(whole(address(21, 2)), 503);  // past the block's 2 MiB
  EXPECT_EQ(whole(address(23, 1)), 503);  // past the 3 MiB in total
  EXPECT_TRUE(healthy(s.port()));         // no body: nothing to hold
  {
    // The detection route's clients read that service's error fields, from
    // the core's refusals too.
    Raw c(s.port(), address(24, 1));
    ASSERT_TRUE(c.send_all("POST /v2/detection/detect HTTP/1.1\r\nHost: x\r\nContent-Length: " +
                           std::to_string(kBody) + "\r\n\r\n" + half + half));
    const std::string reply = c.read("}");
    EXPECT_EQ(status_of(reply), 503);
    EXPECT_NE(reply.find(R"("error_code":1202)"), std::string::npos) << reply;
  }
  // Once a held body is answered its bytes are free again.
  a.send(half);
  EXPECT_NE(status_of(a.read("}")), 503);
  EXPECT_NE(whole(address(23, 1)), 503);
  b.send(half);
  EXPECT_NE(status_of(b.read("}")), 503);
  EXPECT_TRUE(
      rdtest::wait_until([&] { return metric(s.port(), "rongdian_body_bytes_in_memory") == 0; }));
}

// ---------------------------------------------------------------- connections

// How many of `conns` the server has not closed.
int still_open(std::vector<std::unique_ptr<Raw>>& conns) {
  int open = 0;
  for (auto& c : conns) {
    c->read({}, 20);
    open += !c->closed();
  }
  return open;
}

TEST(Connections, OneBlockHoldsNoMoreThanItsShare) {
  rdtest::ServerProcess s({"--max-connections-per-block", "8"});
  ASSERT_TRUE(s.ok()) << s.startup_output();
  // Idle connections, and slowloris ones that send half a head.
  std::vector<std::unique_ptr<Raw>> attack;
  for (int i = 0; i < 40; ++i) {
    attack.push_back(std::make_unique<Raw>(s.port(), address(30, i + 1)));
    if (i % 2) attack.back()->send("GET /healthz HTTP/1.1\r\nHo");
  }
  EXPECT_TRUE(healthy(s.port()));
  EXPECT_LE(still_open(attack), 8);
  EXPECT_GE(metric(s.port(), "rongdian_connections_closed_for_room_total") +
                metric(s.port(), "rongdian_connections_refused_total"),
            32);
  // The block's own newest connection is served.
  Raw late(s.port(), address(30, 99));
  late.send("GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(status_of(late.read("}")), 200);
}

TEST(Connections, PushSocketsCountAndLeaveRoomForRequests) {
  rdtest::ServerProcess s({"--max-connections", "24", "--max-connections-per-block", "8"});
  ASSERT_TRUE(s.ok()) << s.startup_output();
  std::vector<std::unique_ptr<Raw>> devices;
  int upgraded = 0;
  for (int block = 40; block < 44; ++block)
    for (int host = 1; host <= 8; ++host) {
      devices.push_back(std::make_unique<Raw>(s.port(), address(block, host)));
      upgraded += devices.back()->upgrade();
    }
  // Three quarters of the places at most, six per block.
  EXPECT_LE(upgraded, 18);
  EXPECT_GE(upgraded, 12);
  EXPECT_LE(metric(s.port(), "rongdian_push_connections_open"), 18);
  EXPECT_TRUE(healthy(s.port()));
}

TEST(Connections, PushSocketsCannotTakeTheLastDescriptors) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "needs descriptors the sanitizers take for themselves";
#endif
  rdtest::ServerProcess s;
  ASSERT_TRUE(s.ok()) << s.startup_output();
  const std::string limit =
      "prlimit --pid " + std::to_string(s.pid()) + " --nofile=128:128 >/dev/null 2>&1";
  if (std::system(limit.c_str()) != 0) GTEST_SKIP() << "prlimit cannot lower the server's limit";
  std::vector<std::unique_ptr<Raw>> devices;
  for (int i = 0; i < 112; ++i) {
    devices.push_back(std::make_unique<Raw>(s.port(), address(50 + i / 16, i % 16 + 1)));
    devices.back()->upgrade();
  }
  EXPECT_TRUE(healthy(s.port()));
  EXPECT_EQ(metric(s.port(), "rongdian_accept_errors_total"), 0);
}

// ---------------------------------------------------------------- push

TEST(PushLimits, AnAckCarriesABoundedNumberOfIds) {
  rdtest::ServerProcess s;
  ASSERT_TRUE(s.ok()) << s.startup_output();
  rdtest::Device d(s.port());
  d.register_new();
  json::array ids;
  for (int i = 1; i <= 257; ++i) ids.push_back(i);
  d.send({{"ack", ids}});
  EXPECT_TRUE(d.recv().as_object().contains("error"));
  ids.pop_back();
  d.ack(ids);  // 256 at once are fine
}

TEST(PushLimits, AnAckFloodLeavesTheServerAnsweringAndStoppable) {
  rdtest::ServerProcess s;
  ASSERT_TRUE(s.ok()) << s.startup_output();
  json::array ids;
  for (int i = 0; i < 256; ++i) ids.push_back(1'000'000 + i);
  const std::string frame = Raw::frame(json::serialize(json::object{{"ack", ids}}));
  std::string burst;
  for (int i = 0; i < 100; ++i) burst += frame;
  constexpr int kDevices = 6, kBursts = 50;
  std::atomic<int> sent{0}, finished{0};
  std::vector<std::thread> threads;
  std::vector<std::unique_ptr<Raw>> devices;
  for (int i = 0; i < kDevices; ++i) {
    devices.push_back(std::make_unique<Raw>(s.port(), address(60 + i, 1)));
    ASSERT_TRUE(devices.back()->upgrade());
    devices.back()->send(Raw::frame(R"({"register":true})"));
  }
  for (auto& d : devices) {
    const int fd = d->fd();
    threads.emplace_back([fd] {  // reads and drops every answer
      char buf[65536];
      while (::recv(fd, buf, sizeof buf, 0) > 0) {
      }
    });
    threads.emplace_back([&, raw = d.get()] {
      for (int b = 0; b < kBursts && raw->send_all(burst); ++b) ++sent;
      ++finished;
    });
  }
  ASSERT_TRUE(rdtest::wait_until([&] { return sent >= kDevices; }));
  EXPECT_TRUE(healthy(s.port()));
  EXPECT_EQ(
      rdtest::http_request(s.port(), "POST", "/api?cmd=rd_get_item", R"({"cmd":"rd_get_item"})")
          .status,
      200);
  EXPECT_EQ(finished, 0);  // the flood still runs
  // SIGTERM ends the server within its grace, flood or not.
  EXPECT_NE(s.stop(25000), -1);
  for (auto& d : devices) ::shutdown(d->fd(), SHUT_RDWR);
  for (auto& t : threads) t.join();
}

TEST(PushLimits, ADeviceThatNeverReadsIsCutOff) {
  rdtest::ServerProcess s({"--push-queue-kb", "16"});
  ASSERT_TRUE(s.ok()) << s.startup_output();
  Raw d(s.port(), address(70, 1), 4096);
  ASSERT_TRUE(d.upgrade());
  // Each "register" is answered with a new token the device never reads.
  std::string burst;
  for (int i = 0; i < 1000; ++i) burst += Raw::frame(R"({"register":true})");
  bool cut = false;
  for (int i = 0; i < 400 && !cut; ++i) cut = !d.send_all(burst);
  EXPECT_TRUE(cut);
  EXPECT_TRUE(healthy(s.port()));
  EXPECT_GE(metric(s.port(), "rongdian_push_slow_readers_closed_total"), 1);
  EXPECT_TRUE(
      rdtest::wait_until([&] { return metric(s.port(), "rongdian_push_queued_bytes") == 0; }));
}

}  // namespace
