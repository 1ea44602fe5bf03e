// The api under concurrent load, kill -9 and SIGTERM, on both engines.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "api/Guards.h"
#include "api_testing.h"
#include "raw_testing.h"
#include "store/Store.h"

namespace json = boost::json;
using rdtest::ApiServer;

namespace {

class ApiLoad : public ::testing::TestWithParam<std::string> {};

// `n` accounts written straight into the server's database (signing up
// through the api takes an Argon2id hash each).
std::vector<std::string> make_users(const ApiServer& s, int n) {
  auto store = rd::store::open_store(s.database_url(), "", 1);
  std::vector<std::string> ids;
  for (int i = 0; i < n; ++i) {
    rd::store::User u;
    u.id = rd::api::new_user_id();
    u.mobile = std::to_string(13700000000 + i);
    u.nickname = "点赞" + std::to_string(i);
    u.password_hash = "-";
    EXPECT_TRUE(store->create_user(u));
    ids.push_back(u.id);
  }
  return ids;
}

TEST_P(ApiLoad, TwoHundredConcurrentLikesCountOncePerUser) {
  // Four hundred connections from one address block at once: more than one
  // block may hold while a busy machine answers slowly.
  ApiServer s(GetParam(), {"--max-connections-per-block", "0"});
  RD_REQUIRE_SERVER(s);
  std::string user = s.register_user("13800139000");
  std::string item = s.add_item(user, 0);
  const auto fans = make_users(s, 200);
  // Two hundred users at once, each twice: every first like counts, no second one.
  std::atomic<int> ok{0}, repeated{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 400; ++i)
    threads.emplace_back([&, i] {
      auto r = s.call("rd_like_item",
                      {{"item_id", item}, {"user_id", fans[i % 200]}, {"is_liked", true}});
      if (r.status == 200 && !r.is_error()) ++ok;
      if (r.status == 200 && r.error() == "already_voted") ++repeated;
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(ok, 200);
  EXPECT_EQ(repeated, 200);
  auto now = s.call("rd_list_items", {{"limit", 1}, {"page", 1}, {"item_id", item}});
  auto& it = now.body.at("items").as_array().at(0).as_object();
  EXPECT_EQ(it.at("num_look_score"), 20000);
  EXPECT_EQ(it.at("num_like"), 200);
}

TEST_P(ApiLoad, AcknowledgedWritesSurviveKillNine) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  std::string user = s.register_user("13800139010");
  std::string item = s.add_item(user, 0);
  const auto voters = make_users(s, 4);

  std::mutex mu;
  std::set<std::string> acked;
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int w = 0; w < 4; ++w)
    writers.emplace_back([&, w] {
      for (int n = 0; !stop; ++n) {
        std::string text = "w" + std::to_string(w) + "-" + std::to_string(n);
        auto c =
            s.call("rd_add_comments", {{"item_id", item}, {"user_id", user}, {"comments", text}});
        if (c.status == 200 && !c.is_error()) {
          std::lock_guard lock(mu);
          acked.insert(text);
        }
        // Each writer's user changes his vote back and forth.
        s.call("rd_like_item",
               {{"item_id", item}, {"user_id", voters[w]}, {"is_liked", n % 2 == 0}});
      }
    });
  rdtest::wait_until([&] {  // the load going
    std::lock_guard lock(mu);
    return acked.size() >= 50;
  });
  s.process().kill_now();  // mid-load, no warning
  stop = true;
  for (auto& t : writers) t.join();
  ASSERT_GT(acked.size(), 10u) << "the load never got going";

  s.restart();
  ASSERT_TRUE(s.process().ok()) << s.process().startup_output();
  std::set<std::string> found;
  for (int page = 1;; ++page) {
    auto r = s.call("rd_list_comments", {{"item_id", item}, {"limit", 50}, {"page", page}});
    ASSERT_FALSE(r.is_error()) << json::serialize(r.body);
    auto& list = r.body.at("comments").as_array();
    if (list.empty()) break;
    for (auto& c : list) found.insert(std::string(c.at("comments").as_string()));
  }
  for (const auto& text : acked) EXPECT_TRUE(found.count(text)) << "lost comment " << text;
  auto after = s.call("rd_list_items", {{"limit", 1}, {"page", 1}, {"item_id", item}});
  auto& it = after.body.at("items").as_array().at(0).as_object();
  // One vote per writer stands (each raises the like count), and the score
  // agrees with the counts.
  const auto like = it.at("num_like").as_int64(), dislike = it.at("num_dislike").as_int64();
  EXPECT_EQ(like, 4);
  EXPECT_EQ(it.at("num_look_score").as_int64(), (like - 2 * dislike) * 100);
  EXPECT_EQ(it.at("num_comments").as_int64(), static_cast<std::int64_t>(found.size()));
}

INSTANTIATE_TEST_SUITE_P(Engines, ApiLoad, ::testing::Values("sqlite", "postgresql"),
                         [](const auto& info) { return info.param; });

TEST(ApiStop, SigtermFinishesRequestsInFlight) {
  // Registrations are slow on purpose (Argon2id), so several are still being
  // worked on when the signal comes.
  ApiServer s("sqlite", {"--auth-rate-address", "0", "--threads", "2"});
  RD_REQUIRE_SERVER(s);
  constexpr int kClients = 6;
  const auto body = [](int i) {
    return json::object{
        {"mobile", "1380013920" + std::to_string(i)}, {"password", "p"}, {"nickname", "晚到"}};
  };
  std::vector<rdtest::ApiReply> replies(kClients);
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i)
    clients.emplace_back([&, i] { replies[i] = s.call("rd_register_user", body(i)); });
  // Every client's request has reached the server: their bodies are held in
  // its memory until answered (a sign-up takes far longer than the wait).
  const double held = kClients * double(json::serialize(body(0)).size());
  EXPECT_TRUE(rdtest::wait_until(
      [&] { return rdtest::metric(s.process().port(), "rongdian_body_bytes_in_memory") >= held; }));
  EXPECT_EQ(s.process().stop(), 0);
  for (auto& t : clients) t.join();
  for (int i = 0; i < kClients; ++i) {
    EXPECT_EQ(replies[i].status, 200) << "client " << i;
    EXPECT_EQ(replies[i].text("id").size(), 32u) << "client " << i;
  }
  s.restart();  // and every one of them was stored
  ASSERT_TRUE(s.process().ok());
  for (int i = 0; i < kClients; ++i)
    EXPECT_EQ(s.call("rd_register_user", {{"mobile", "1380013920" + std::to_string(i)},
                                          {"password", "another"},
                                          {"nickname", "x"}})
                  .error(),
              "mobile_taken");
}

}  // namespace
