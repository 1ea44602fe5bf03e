// Two instances on one PostgreSQL database and nothing else shared: a photo
// uploaded through one is published, served and deleted through the other, a
// comment taken by one reaches the owner's phone on the other, and an instance killed
// in the middle of a load leaves the database whole (every acknowledged write
// there, no comment without its push, every counter equal to its rows).
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "api_testing.h"
#include "push_testing.h"

namespace json = boost::json;
using rdtest::ApiServer;

namespace {

const std::string kPhone =
    "<0000000a 0000000b 0000000c 0000000d 0000000e 0000000f 00000010 00000011>";

// The first column of the first row of `sql`, as a number.
std::int64_t scalar(const std::string& url, const std::string& sql) {
  PGconn* c = PQconnectdb(url.c_str());
  PGresult* r = PQexec(c, sql.c_str());
  std::int64_t n = -1;
  if (PQresultStatus(r) == PGRES_TUPLES_OK && PQntuples(r) == 1)
    n = std::stoll(PQgetvalue(r, 0, 0));
  else
    ADD_FAILURE() << sql << ": " << PQresultErrorMessage(r);
  PQclear(r);
  PQfinish(c);
  return n;
}

// Both behind one address, as behind the proxy.
const std::vector<std::string> kFlags = {"--push-pending-limit", "100000", "--public-url",
                                         "http://127.0.0.1:9"};

struct Pair {
  ApiServer a{"postgresql", kFlags};
  rdtest::TempDir data_b;  // a folder of its own: nothing shared but the database
  std::unique_ptr<ApiServer> b;
  std::string owner;
  Pair() {
    if (!a.available() || !a.process().ok()) return;
    b = std::make_unique<ApiServer>(a.database_url(), data_b.path(), kFlags);
    owner = a.register_user("13700000100", "secret", "主人");
    a.call("rd_login_user",
           {{"mobile", "13700000100"}, {"password", "secret"}, {"device_token", kPhone}});
  }
};

TEST(TwoInstances, APhotoIsServedByBothWithoutASharedFolder) {
  Pair p;
  RD_REQUIRE_SERVER(p.a);
  ASSERT_TRUE(p.b->process().ok()) << p.b->process().startup_output();
  const std::string photo = rdtest::small_png(7);
  const std::string url = p.a.upload_photo(photo);
  const std::string target = url.substr(url.find("/files/"));
  auto added = p.b->call("rd_add_item", {{"user_id", p.owner},
                                         {"base_image_url", url},
                                         {"num_look_score", 3000},
                                         {"description", "一张"},
                                         {"is_enabled_photo", true}});
  ASSERT_FALSE(added.is_error()) << json::serialize(added.body);
  const std::string id = std::to_string(added.body.at("item").at("id").as_int64());
  for (ApiServer* s : {&p.a, p.b.get()}) {
    auto got = rdtest::http_request(s->process().port(), "GET", target);
    EXPECT_EQ(got.status, 200);
    EXPECT_EQ(got.body, photo);
  }
  // One item per photo, whichever instance is asked; deleted with its item.
  auto again = p.a.call("rd_add_item", {{"user_id", p.owner},
                                        {"base_image_url", url},
                                        {"num_look_score", 3000},
                                        {"description", "又一张"},
                                        {"is_enabled_photo", true}});
  EXPECT_TRUE(again.is_error());
  ASSERT_FALSE(p.a.call("rd_remove_item", {{"item_id", id}, {"user_id", p.owner}}).is_error());
  EXPECT_EQ(rdtest::http_request(p.b->process().port(), "GET", target).status, 404);
}

TEST(TwoInstances, AFoldersPhotosMoveIntoTheDatabaseAtStart) {
  rdtest::TestDatabase db("postgresql");
  RD_REQUIRE_DATABASE(db);
  rdtest::TempDir old, fresh;
  std::filesystem::create_directories(old.path() + "/photos");
  const std::string photo = rdtest::small_png(3);
  std::ofstream(old.path() + "/photos/old%20one.png", std::ios::binary) << photo;
  ApiServer first(db.url(), old.path(), {});
  ASSERT_TRUE(first.process().ok()) << first.process().startup_output();
  ApiServer second(db.url(), fresh.path(), {});
  ASSERT_TRUE(second.process().ok()) << second.process().startup_output();
  auto got = rdtest::http_request(second.process().port(), "GET", "/files/old%20one.png");
  EXPECT_EQ(got.status, 200);
  EXPECT_EQ(got.body, photo);
}

TEST(TwoInstances, ACommentTakenByOneIsPushedToThePhoneOnTheOther) {
  Pair p;
  RD_REQUIRE_SERVER(p.a);
  ASSERT_TRUE(p.b->process().ok()) << p.b->process().startup_output();
  const std::string item = p.a.add_item(p.owner, 1000);
  rdtest::Device phone(p.a.process().port());
  phone.present(kPhone);
  const std::string fan = p.b->register_user("13700000101", "secret", "路人");
  auto c =
      p.b->call("rd_add_comments", {{"item_id", item}, {"user_id", fan}, {"comments", "好看"}});
  ASSERT_FALSE(c.is_error()) << json::serialize(c.body);
  auto msg = phone.recv();
  ASSERT_TRUE(msg.is_object()) << "no push";
  EXPECT_EQ(msg.at("push").at("aps").at("alert").as_string(), "路人 评论了你的照片：好看");
  EXPECT_EQ(msg.at("push").at("aps").at("badge").as_int64(), 1);
}

TEST(TwoInstances, AnInstanceKilledMidLoadLeavesTheDatabaseWhole) {
  Pair p;
  RD_REQUIRE_SERVER(p.a);
  ASSERT_TRUE(p.b->process().ok()) << p.b->process().startup_output();
  std::vector<std::string> items;
  for (int i = 0; i < 10; ++i) items.push_back(p.a.add_item(p.owner, 1000));
  std::vector<std::string> fans;
  for (int i = 0; i < 6; ++i) fans.push_back(p.a.register_user("1370000020" + std::to_string(i)));

  // Each fan, on one instance or the other, likes every item and comments on
  // it, until his instance stops answering; the owner comments on his own
  // photos meanwhile (no unread count, no push).
  std::mutex mu;
  std::set<std::int64_t> acked_comments;
  std::set<std::pair<std::string, std::string>> acked_likes;
  std::atomic<int> acked{0};
  std::vector<std::thread> load;
  for (std::size_t f = 0; f <= fans.size(); ++f)
    load.emplace_back([&, f] {
      const ApiServer& s = f % 2 ? *p.b : p.a;
      if (f == fans.size()) {  // the owner
        for (int round = 0; round < 3; ++round)
          for (const auto& item : items) {
            auto c = s.call("rd_add_comments",
                            {{"item_id", item}, {"user_id", p.owner}, {"comments", "自己看"}});
            if (c.status == 0) return;
            std::lock_guard lock(mu);
            if (c.number("id") > 0) acked_comments.insert(c.number("id"));
          }
        return;
      }
      for (int round = 0; round < 3; ++round)
        for (const auto& item : items) {
          auto like =
              s.call("rd_like_item", {{"item_id", item}, {"user_id", fans[f]}, {"is_liked", true}});
          auto c = s.call("rd_add_comments",
                          {{"item_id", item}, {"user_id", fans[f]}, {"comments", "好看好看"}});
          if (like.status == 0 || c.status == 0) return;  // the instance is gone
          std::lock_guard lock(mu);
          if (!like.is_error()) acked_likes.insert({item, fans[f]});
          if (c.number("id") > 0) acked_comments.insert(c.number("id"));
          ++acked;
        }
    });
  ASSERT_TRUE(rdtest::wait_until([&] { return acked >= 20; }, 60000));
  p.a.process().kill_now();
  for (auto& t : load) t.join();
  ASSERT_GT(acked_comments.size(), 20u);

  const std::string& db = p.a.database_url();
  std::string ids;
  for (auto id : acked_comments) ids += (ids.empty() ? "" : ",") + std::to_string(id);
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM comments WHERE id IN (" + ids + ")"),
            std::int64_t(acked_comments.size()));
  for (const auto& [item, fan] : acked_likes)
    EXPECT_EQ(scalar(db, "SELECT count(*) FROM votes WHERE item_id = " + item + " AND user_id = '" +
                             fan + "'"),
              1);
  // Every fan's comment has its push; the counters are their rows.
  const std::string fans_comments =
      "SELECT count(*) FROM comments WHERE user_id <> '" + p.owner + "'";
  EXPECT_EQ(scalar(db, fans_comments),
            scalar(db, "SELECT count(*) FROM push_pending WHERE device_token = '" + kPhone + "'"));
  EXPECT_EQ(scalar(db, "SELECT unread FROM users WHERE id = '" + p.owner + "'"),
            scalar(db, fans_comments));
  EXPECT_EQ(scalar(db,
                   "SELECT count(*) FROM items i WHERE num_comments <> (SELECT count(*) FROM "
                   "comments c WHERE c.item_id = i.id) OR num_like <> (SELECT count(*) FROM votes "
                   "v WHERE v.item_id = i.id) OR num_look_score <> 1000 + 100 * num_like"),
            0);

  // A removed item takes its comments along, and so does an account that the
  // operator removes.
  ASSERT_GT(scalar(db, "SELECT count(*) FROM comments WHERE item_id = " + items[0]), 0);
  ASSERT_FALSE(
      p.b->call("rd_remove_item", {{"item_id", items[0]}, {"user_id", p.owner}}).is_error());
  EXPECT_EQ(scalar(db, "WITH gone AS (DELETE FROM users WHERE id = '" + fans[1] +
                           "' RETURNING 1) SELECT count(*) FROM gone"),
            1);
  EXPECT_EQ(scalar(db,
                   "SELECT count(*) FROM comments c WHERE NOT EXISTS (SELECT FROM items i WHERE "
                   "i.id = c.item_id) OR NOT EXISTS (SELECT FROM users u WHERE u.id = c.user_id)"),
            0);
}

}  // namespace
