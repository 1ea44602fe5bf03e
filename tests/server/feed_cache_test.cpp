// The feeds' first pages and the top item are served from replies kept in
// memory; every write shows in them at once, on the instance that took it
// and on another one on the same PostgreSQL database.
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include "api_testing.h"
#include "store/Store.h"

namespace json = boost::json;
using rdtest::ApiReply;
using rdtest::ApiServer;

namespace {

// What the app asks for at start.
struct Feeds {
  ApiReply newest, ranking, top;
};

Feeds feeds(const ApiServer& s) {
  return {s.call("rd_list_items", {{"limit", 10}, {"page", 1}}),
          s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"sort_by", "sort_by"}}),
          s.call("rd_get_item", {})};
}

// The ids of a list reply in order, as text.
std::vector<std::string> ids(const ApiReply& r) {
  std::vector<std::string> out;
  if (auto* items = r.body.if_contains("items"))
    for (const auto& it : items->as_array())
      out.push_back(std::to_string(it.as_object().at("id").as_int64()));
  return out;
}

std::int64_t field(const ApiReply& list, const std::string& id, const char* name) {
  for (const auto& it : list.body.at("items").as_array())
    if (std::to_string(it.as_object().at("id").as_int64()) == id)
      return it.as_object().at(name).as_int64();
  ADD_FAILURE() << "item " << id << " not listed: " << json::serialize(list.body);
  return -1;
}

// Each write on `writer`, then the feeds of `reader` (warmed before): both
// servers, or the same one twice.
void writes_show_at_once(ApiServer& writer, ApiServer& reader) {
  const std::string user = writer.register_user("13800138200");
  const std::string low = writer.add_item(user, 100, "低分");
  const std::string high = writer.add_item(user, 900, "高分");
  Feeds f = feeds(reader);
  ASSERT_EQ(ids(f.newest), (std::vector<std::string>{high, low}));
  ASSERT_EQ(ids(f.ranking), (std::vector<std::string>{high, low}));

  // Published: first in the newest feed.
  const std::string fresh = writer.add_item(user, 500, "新的");
  f = feeds(reader);
  EXPECT_EQ(ids(f.newest), (std::vector<std::string>{fresh, high, low}));
  EXPECT_EQ(ids(f.ranking), (std::vector<std::string>{high, fresh, low}));

  // Liked past the top by five people: first in the ranking and the top item;
  // counted, every time.
  for (int n = 1; n <= 5; ++n) {
    const std::string fan = writer.register_user("1380013821" + std::to_string(n));
    auto like =
        writer.call("rd_like_item", {{"item_id", fresh}, {"user_id", fan}, {"is_liked", true}});
    ASSERT_FALSE(like.is_error()) << json::serialize(like.body);
    f = feeds(reader);
    EXPECT_EQ(field(f.newest, fresh, "num_like"), n);
    EXPECT_EQ(field(f.ranking, fresh, "num_look_score"), 500 + 100 * n);
  }
  EXPECT_EQ(ids(f.ranking).front(), fresh);
  EXPECT_EQ(std::to_string(f.top.number("id")), fresh);
  EXPECT_EQ(f.top.number("num_look_score"), 1000);

  // Commented, by its owner and by somebody else: the count moves.
  const std::string fan = writer.register_user("13800138220");
  for (const auto& [who, n] : {std::pair{user, 1}, std::pair{fan, 2}}) {
    auto c = writer.call("rd_add_comments",
                         {{"item_id", low}, {"user_id", who}, {"comments", "好看好看"}});
    ASSERT_FALSE(c.is_error()) << json::serialize(c.body);
    EXPECT_EQ(field(feeds(reader).newest, low, "num_comments"), n);
  }

  // Removed: gone from both feeds and the top.
  auto rm = writer.call("rd_remove_item", {{"item_id", fresh}, {"user_id", user}});
  ASSERT_FALSE(rm.is_error()) << json::serialize(rm.body);
  f = feeds(reader);
  EXPECT_EQ(ids(f.newest), (std::vector<std::string>{high, low}));
  EXPECT_EQ(ids(f.ranking), (std::vector<std::string>{high, low}));
  EXPECT_EQ(std::to_string(f.top.number("id")), high);
}

class FeedCache : public ::testing::TestWithParam<std::string> {};

TEST_P(FeedCache, EveryWriteShowsInTheFeedsAtOnce) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  writes_show_at_once(s, s);
}

INSTANTIATE_TEST_SUITE_P(Engines, FeedCache, ::testing::Values("sqlite", "postgresql"));

TEST(FeedCacheScaleOut, AWriteOnOneInstanceShowsOnTheOtherAtOnce) {
  ApiServer a("postgresql");
  RD_REQUIRE_SERVER(a);
  rdtest::TempDir data;
  ApiServer b(a.database_url(), data.path(), {});
  ASSERT_TRUE(b.process().ok()) << b.process().startup_output();
  writes_show_at_once(a, b);
}

// The store's change count, which the kept replies are checked against.
class ChangeCount : public ::testing::Test {
 protected:
  void SetUp() override {
    RD_REQUIRE_DATABASE(db_);
    a_ = rd::store::open_store(db_.url(), "", 2);
    b_ = rd::store::open_store(db_.url(), "", 2);
    // The owner and three voters: a vote counts once per user.
    for (int i = 1; i <= 4; ++i) {
      rd::store::User u;
      u.id = "u" + std::to_string(i);
      u.mobile = "1380013830" + std::to_string(i);
      u.nickname = "小明" + std::to_string(i);
      u.password_hash = "x";
      ASSERT_TRUE(a_->create_user(u));
    }
    rd::store::Item it;
    it.user_id = "u1";
    it.base_image_url = "http://127.0.0.1/files/p.jpg";
    auto added = a_->add_item(it);
    ASSERT_TRUE(added);
    item_ = added->id;
  }

  // Runs `sql` on a connection of its own (as an operator's tool would).
  void sql(const std::string& text) {
    PGconn* c = PQconnectdb(db_.url().c_str());
    PGresult* r = PQexec(c, text.c_str());
    EXPECT_TRUE(PQresultStatus(r) == PGRES_COMMAND_OK || PQresultStatus(r) == PGRES_TUPLES_OK)
        << PQresultErrorMessage(r);
    PQclear(r);
    PQfinish(c);
  }

  rdtest::TestDatabase db_{"postgresql"};
  std::shared_ptr<rd::store::Store> a_, b_;
  std::int64_t item_ = 0;
};

TEST_F(ChangeCount, MovesWithEveryWriteToTheDatabaseWhoeverMadeIt) {
  auto before = a_->change_count();
  ASSERT_TRUE(before);
  EXPECT_EQ(a_->change_count(), before) << "moved without a write";
  b_->vote(item_, "u2", true, 1);
  auto after_other = a_->change_count();
  EXPECT_NE(after_other, before);
  a_->vote(item_, "u3", true, 2);
  auto after_own = a_->change_count();
  EXPECT_NE(after_own, after_other);
  // An operator's tool tells the instances as docs/deploy.md says.
  sql("UPDATE items SET description = 'psql' WHERE id = " + std::to_string(item_) +
      "; NOTIFY rongdian_changes");
  EXPECT_NE(a_->change_count(), after_own);
}

TEST_F(ChangeCount, ALostNotificationConnectionCountsAsAChange) {
  auto before = a_->change_count();
  ASSERT_TRUE(before);
  // Every listening session is cut off, then a write comes in meanwhile.
  sql("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = current_database() "
      "AND application_name = 'rongdian changes'");
  b_->vote(item_, "u4", true, 1);
  auto after = a_->change_count();
  EXPECT_NE(after, before);
  // Once listening again, counts hold still while nothing is written.
  ASSERT_TRUE(rdtest::wait_until([&] { return bool(after = a_->change_count()); }, 5000));
  EXPECT_EQ(a_->change_count(), after);
}

}  // namespace
