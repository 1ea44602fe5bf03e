// Push gateway: device tokens, delivery to connected devices, pending
// payloads for offline ones (bounded, kept across restarts), the socket
// protocol's refusals and a graceful stop with devices connected (two
// instances delivering to each other's devices: two_instances_test.cpp).
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <regex>
#include <thread>

#include "Services.h"
#include "push/DeviceToken.h"
#include "push/Gateway.h"
#include "push_testing.h"
#include "store/Store.h"
#include "support/ServerProcess.h"

using namespace rdtest;  // Device, and the asio, beast, websocket and json namespaces

namespace {

// A rongdian-server core with only the store and the push gateway, in this
// process, so the test can keep pushes and hand them to the gateway as the
// backend does.
class PushServer {
 public:
  PushServer(const std::string& data_dir, const std::string& database = {},
             int pending_limit = 50) {
    cfg_.data_dir = data_dir;
    cfg_.database = database;
    cfg_.push_pending_limit = pending_limit;
    rd::http::ServerOptions o;
    o.host = "127.0.0.1";
    o.port = 0;
    o.worker_threads = 2;
    o.log_requests = false;
    o.stop_grace = std::chrono::seconds(3);
    srv_ = std::make_unique<rd::http::Server>(o, router_, metrics_);
    srv_->listen();
    services_ = std::make_unique<rd::server::Services>(
        rd::server::Services{cfg_, router_, metrics_, *srv_, nullptr, nullptr, nullptr, nullptr});
    services_->store = rd::store::open_store(database, data_dir, 4);
    rd::push::install(*services_);
    thread_ = std::thread([this] { srv_->run(); });
  }
  ~PushServer() {
    srv_->stop();
    thread_.join();
    services_.reset();
  }
  unsigned short port() const { return srv_->port(); }
  // Keeps `payload` for each device and tells the gateway.
  void send(const std::vector<std::string>& tokens, const std::string& payload) {
    for (const auto& t : tokens) services_->store->add_push(t, payload, cfg_.push_pending_limit);
    services_->push->pushed(tokens);
  }

 private:
  rd::server::Config cfg_;
  rd::http::Metrics metrics_;
  rd::http::Router router_;
  std::unique_ptr<rd::http::Server> srv_;
  std::unique_ptr<rd::server::Services> services_;
  std::thread thread_;
};

std::string comment_payload(const std::string& text, int badge) {
  return json::serialize(
      json::object{{"aps", json::object{{"alert", "小明 评论了你的照片：" + text},
                                        {"badge", badge},
                                        {"sound", "default"}}}});
}

// The alert text of a push message, checking its shape on the way.
std::string alert_of(const json::value& msg) {
  if (!msg.is_object() || !msg.as_object().contains("push") || !msg.as_object().contains("id"))
    return "<not a push: " + json::serialize(msg) + ">";
  return std::string(msg.at("push").at("aps").at("alert").as_string());
}

// The check and the pattern the database picks devices by agree.
TEST(PushToken, TextFormAndCheck) {
  const std::regex form(rd::push::kDeviceTokenPattern, std::regex::extended);
  std::string a = rd::push::make_device_token(), b = rd::push::make_device_token();
  EXPECT_TRUE(std::regex_search(a, form)) << a;
  EXPECT_NE(a, b);
  EXPECT_TRUE(rd::push::is_device_token(a));
  std::string upper = a;
  upper[1] = 'A';
  upper[2] = 'B';
  for (const std::string& bad : {std::string(), a.substr(1), a.substr(0, 72), upper,
                                 std::string("<") + std::string(71, '0') + ">",
                                 std::string(a).replace(9, 1, "-"), a + " ", "x" + a}) {
    EXPECT_FALSE(rd::push::is_device_token(bad)) << bad;
    EXPECT_FALSE(std::regex_search(bad, form)) << bad;
  }
}

TEST(Push, ConnectedDeviceGetsThePushAndOthersDoNot) {
  rdtest::TempDir dir;
  PushServer server(dir.path());
  Device phone(server.port()), other(server.port());
  std::string token = phone.register_new();
  std::string other_token = other.register_new();
  EXPECT_TRUE(rd::push::is_device_token(token));
  EXPECT_NE(token, other_token);

  server.send({token}, comment_payload("好看", 1));
  auto msg = phone.recv();
  EXPECT_EQ(alert_of(msg), "小明 评论了你的照片：好看");
  EXPECT_EQ(msg.at("push").at("aps").at("badge").as_int64(), 1);
  EXPECT_EQ(msg.at("push").at("aps").at("sound").as_string(), "default");
  phone.ack(msg.at("id"));

  // A second push follows in order.
  server.send({token}, comment_payload("第二条", 2));
  EXPECT_EQ(alert_of(phone.recv()), "小明 评论了你的照片：第二条");

  // The app's hello on reconnecting: register, with the token it keeps. Both
  // connections of the token get the next push; an id may come back as a double.
  Device tablet(server.port());
  tablet.send({{"register", true}, {"token", token}});
  EXPECT_EQ(tablet.recv().at("device_token").as_string(), token);
  EXPECT_EQ(alert_of(tablet.recv()), "小明 评论了你的照片：第二条");  // still not acknowledged
  server.send({token}, comment_payload("第三条", 3));
  EXPECT_EQ(alert_of(phone.recv()), "小明 评论了你的照片：第三条");
  auto third = tablet.recv();
  EXPECT_EQ(alert_of(third), "小明 评论了你的照片：第三条");
  tablet.send({{"ack", static_cast<double>(third.at("id").as_int64())}});
  EXPECT_EQ(tablet.recv(), json::value(json::object{{"acked", json::array{third.at("id")}}}));
  server.send({other_token}, comment_payload("给别人", 1));
  EXPECT_EQ(alert_of(other.recv()), "小明 评论了你的照片：给别人");
}

TEST(Push, OfflineDeviceGetsTheNewestPendingOnReconnect) {
  rdtest::TempDir dir;
  std::string token;
  {
    PushServer server(dir.path(), {}, 2);
    {
      Device phone(server.port());
      token = phone.register_new();
    }
    for (int i = 1; i <= 3; ++i) server.send({token}, comment_payload(std::to_string(i), i));

    Device phone(server.port());
    phone.present(token);
    auto first = phone.recv(), second = phone.recv();
    EXPECT_EQ(alert_of(first), "小明 评论了你的照片：2");  // only the newest two are kept
    EXPECT_EQ(alert_of(second), "小明 评论了你的照片：3");
    phone.ack(first.at("id"));
  }
  // What was not acknowledged survives a restart.
  PushServer restarted(dir.path(), {}, 2);
  Device phone(restarted.port());
  phone.present(token);
  auto again = phone.recv();
  EXPECT_EQ(alert_of(again), "小明 评论了你的照片：3");
  phone.ack(json::array{again.at("id")});
  restarted.send({token}, comment_payload("4", 4));
  EXPECT_EQ(alert_of(phone.recv()), "小明 评论了你的照片：4");
}

TEST(Push, PendingPushesOfTheEarlierFileMoveIntoTheDatabase) {
  rdtest::TempDir dir;
  const std::string token = rd::push::make_device_token();
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dir.path() + "/push.sqlite").c_str(), &db), SQLITE_OK);
  const std::string rows =
      "CREATE TABLE push_pending (id INTEGER PRIMARY KEY AUTOINCREMENT, device_token TEXT NOT "
      "NULL, payload TEXT NOT NULL, created_at INTEGER NOT NULL DEFAULT 0);"
      "INSERT INTO push_pending (device_token, payload) VALUES ('" +
      token + "', '" + comment_payload("旧一", 1) + "'), ('" + token + "', '" +
      comment_payload("旧二", 2) + "');";
  ASSERT_EQ(sqlite3_exec(db, rows.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  PushServer server(dir.path());
  EXPECT_TRUE(std::filesystem::exists(dir.path() + "/push.sqlite.imported"));
  EXPECT_FALSE(std::filesystem::exists(dir.path() + "/push.sqlite"));
  Device phone(server.port());
  phone.present(token);
  EXPECT_EQ(alert_of(phone.recv()), "小明 评论了你的照片：旧一");
  EXPECT_EQ(alert_of(phone.recv()), "小明 评论了你的照片：旧二");
}

TEST(Push, BadMessagesGetAnErrorAndTheConnectionStays) {
  rdtest::TempDir dir;
  PushServer server(dir.path());
  Device phone(server.port());
  for (const json::value& bad :
       {json::value(json::object{{"token", "<ABCDEF>"}}), json::value(json::array{1, 2}),
        json::value(json::object{{"ack", 1}}), json::value(json::object{{"hello", 1}}),
        json::value(json::object{{"register", false}})}) {
    phone.send(bad);
    auto reply = phone.recv();
    ASSERT_TRUE(reply.is_object()) << json::serialize(bad);
    EXPECT_TRUE(reply.as_object().contains("error")) << json::serialize(reply);
  }
  std::string token = phone.register_new();
  EXPECT_TRUE(rd::push::is_device_token(token));
}

TEST(Push, ServerStopsGracefullyWithDevicesConnected) {
  rdtest::ServerProcess server;
  ASSERT_TRUE(server.ok()) << server.startup_output();
  Device phone(server.port());
  phone.register_new();
  json::value last;
  std::thread reader([&] { last = phone.recv(); });  // the app is always reading
  EXPECT_EQ(server.stop(), 0);
  reader.join();
  EXPECT_TRUE(last.is_null());
  EXPECT_EQ(phone.last_error, websocket::error::closed);
}

}  // namespace
