// The /api commands over HTTP against a real rongdian-server, on SQLite and
// PostgreSQL: every command, its reply shape, and its error replies.
#include <gtest/gtest.h>

#include <regex>

#include "api_testing.h"
#include "store/Store.h"

namespace json = boost::json;
using rdtest::ApiServer;

namespace {

class Api : public ::testing::TestWithParam<std::string> {};

std::vector<std::string> ids_of(const rdtest::ApiReply& r, const char* list = "items") {
  std::vector<std::string> out;
  for (auto& v : r.body.at(list).as_array())
    out.push_back(std::to_string(v.as_object().at("id").as_int64()));
  return out;
}

json::object paging(int limit, int page) { return {{"limit", limit}, {"page", page}}; }

TEST_P(Api, AccountsRegisterLogInAndGetUser) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  auto reg = s.call("rd_register_user", {{"mobile", "13800138000"},
                                         {"password", "p"},
                                         {"nickname", "小明"},
                                         {"device_token", "<aa>"},
                                         {"device", "ios"}});
  ASSERT_FALSE(reg.is_error()) << json::serialize(reg.body);
  std::string id = reg.text("id");
  EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f]{32}"))) << id;
  EXPECT_EQ(reg.text("mobile"), "13800138000");
  EXPECT_EQ(reg.text("nickname"), "小明");
  EXPECT_EQ(reg.number("num_comments"), 0);
  EXPECT_EQ(reg.number("num_score"), 0);
  EXPECT_FALSE(reg.body.contains("password"));
  EXPECT_FALSE(reg.body.contains("password_hash"));
  EXPECT_FALSE(reg.body.contains("username"));  // would make the app ask for a new password

  auto twice = s.call("rd_register_user",
                      {{"mobile", "13800138000"}, {"password", "x"}, {"nickname", "又是我"}});
  EXPECT_EQ(twice.error(), "mobile_taken");
  EXPECT_EQ(twice.text("message"), "该手机号已注册");
  EXPECT_EQ(twice.status, 200);  // the app shows "message" only for a 200 reply

  auto login = s.call("rd_login_user", {{"mobile", "13800138000"},
                                        {"password", "p"},
                                        {"device_token", "<bb>"},
                                        {"device", "ios"},
                                        {"reset", false}});
  ASSERT_FALSE(login.is_error()) << json::serialize(login.body);
  EXPECT_EQ(login.text("id"), id);
  EXPECT_EQ(s.call("rd_login_user", {{"mobile", "13800138000"}, {"password", "P"}}).error(),
            "wrong_password");
  auto nobody = s.call("rd_login_user", {{"mobile", "13900000000"}, {"password", "p"}});
  EXPECT_EQ(nobody.error(), "wrong_password");  // no hint which numbers exist
  EXPECT_EQ(s.call("rd_register_user", {{"mobile", "12ab"}, {"password", "p"}, {"nickname", "x"}})
                .error(),
            "bad_mobile");
  EXPECT_EQ(
      s.call("rd_register_user", {{"mobile", "13800138001"}, {"password", "p"}, {"nickname", ""}})
          .error(),
      "bad_field");

  auto me = s.call("rd_get_user", {{"user_id", id}});
  EXPECT_EQ(me.text("id"), id);
  EXPECT_EQ(me.text("nickname"), "小明");
  EXPECT_EQ(s.call("rd_get_user", {{"user_id", "13800138000"}}).error(), "unknown_user");
  EXPECT_EQ(s.call("rd_get_user", {{"user_id", std::string(32, 'a')}}).error(), "unknown_user");

  // Only an Argon2id hash is kept, and both devices are remembered.
  auto store = rd::store::open_store(s.database_url(), s.process().data_dir(), 1);
  auto u = store->user_by_id(id);
  ASSERT_TRUE(u);
  EXPECT_EQ(u->password_hash.rfind("$argon2id$", 0), 0u) << u->password_hash;
  EXPECT_EQ(store->device_tokens(id), (std::vector<std::string>{"<aa>", "<bb>"}));
}

TEST_P(Api, ResetSetsThePasswordOnlyForFlaggedAccounts) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  std::string id = s.register_user("13800138010", "old");
  // (From the phone that keeps the account's session; AResetMustProveTheOwner
  // has the others.)
  auto attempt = [&](const std::string& pw, bool reset) {
    return s.call("rd_login_user",
                  {{"mobile", "13800138010"},
                   {"password", pw},
                   {"device_token", "<t>"},
                   {"device", "ios"},
                   {"reset", reset}},
                  rdtest::bearer(id));
  };
  EXPECT_EQ(attempt("new", true).error(), "wrong_password");  // not flagged: must match

  auto store = rd::store::open_store(s.database_url(), s.process().data_dir(), 1);
  ASSERT_TRUE(store->mark_needs_new_password("13800138010", "laoming", "payment"));
  auto flagged = s.call("rd_get_user", {{"user_id", id}});
  EXPECT_EQ(flagged.text("username"), "laoming");
  EXPECT_EQ(flagged.text("user_type"), "payment");

  auto reset = attempt("new", true);
  ASSERT_FALSE(reset.is_error()) << json::serialize(reset.body);
  EXPECT_EQ(reset.text("id"), id);
  EXPECT_EQ(attempt("old", false).error(), "wrong_password");
  EXPECT_FALSE(attempt("new", false).is_error());
  EXPECT_EQ(attempt("third", true).error(), "wrong_password");  // the flag was used up
}

TEST_P(Api, ItemsArePublishedListedPagedAndRanked) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  std::string a = s.register_user("13800138020", "p", "阿甲");
  std::string b = s.register_user("13800138021", "p", "阿乙");
  const std::string photo = s.upload_photo();
  auto first = s.call("rd_add_item", {{"user_id", a},
                                      {"base_image_url", photo},
                                      {"num_look_score", 8123},
                                      {"description", "第一张"},
                                      {"is_enabled_photo", true}});
  ASSERT_FALSE(first.is_error()) << json::serialize(first.body);
  EXPECT_EQ(first.text("id"), a);  // the reply is the poster's user object
  std::string i1 = std::to_string(first.body.at("item").at("id").as_int64());
  std::string i2 = s.add_item(b, 9000, "第二张", false);
  std::string i3 = s.add_item(a, 100, "第三张");

  auto newest = s.call("rd_list_items", paging(10, 1));
  EXPECT_EQ(ids_of(newest), (std::vector<std::string>{i3, i2, i1}));
  auto ranked = s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"sort_by", "sort_by"}});
  EXPECT_EQ(ids_of(ranked), (std::vector<std::string>{i2, i1, i3}));
  EXPECT_EQ(ids_of(s.call("rd_list_items", paging(2, 2))), (std::vector<std::string>{i1}));
  auto past = s.call("rd_list_items", paging(2, 3));
  EXPECT_EQ(json::serialize(past.body), R"({"items":[]})");

  // The item record as the app reads it; the poster shows only by nickname.
  auto& item = ranked.body.at("items").as_array()[1].as_object();
  EXPECT_EQ(item.at("base_image_url"), photo.c_str());
  EXPECT_EQ(item.at("description"), "第一张");
  EXPECT_EQ(item.at("num_look_score"), 8123);
  EXPECT_EQ(item.at("num_like"), 0);
  EXPECT_EQ(item.at("num_dislike"), 0);
  EXPECT_EQ(item.at("num_comments"), 0);
  EXPECT_EQ(item.at("is_enabled_photo"), true);
  EXPECT_EQ(item.at("user"), (json::object{{"nickname", "阿甲"}}));
  std::regex reading(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})");
  EXPECT_TRUE(std::regex_match(std::string(item.at("created_at").as_string()), reading));
  EXPECT_TRUE(std::regex_match(std::string(item.at("updated_at").as_string()), reading));
  for (auto& v : newest.body.at("items").as_array()) {
    EXPECT_FALSE(v.as_object().contains("user_id"));
    EXPECT_FALSE(v.as_object().at("user").as_object().contains("id"));
    EXPECT_FALSE(v.as_object().at("user").as_object().contains("mobile"));
  }

  // Own photos by mobile with the session (as the app sends) or by id; an
  // item's owner by item id.
  EXPECT_EQ(ids_of(s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"user_id", "13800138020"}},
                          rdtest::bearer(a))),
            (std::vector<std::string>{i3, i1}));
  EXPECT_EQ(ids_of(s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"user_id", b}})),
            (std::vector<std::string>{i2}));
  EXPECT_EQ(ids_of(s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"item_id", i2}})),
            (std::vector<std::string>{i2}));
  EXPECT_TRUE(s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"user_id", "13999999999"}})
                  .body.at("items")
                  .as_array()
                  .empty());
  EXPECT_EQ(s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"item_id", "999"}}).error(),
            "unknown_item");

  auto top = s.call("rd_get_item", {});
  EXPECT_EQ(std::to_string(top.number("id")), i2);
  EXPECT_EQ(top.body.at("user"), (json::object{{"nickname", "阿乙"}}));
}

TEST_P(Api, PageSizeIsCappedAndTopItemNeedsItems) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  auto none = s.call("rd_get_item", {});
  EXPECT_EQ(none.error(), "no_items");
  EXPECT_FALSE(none.text("message").empty());
  std::string a = s.register_user("13800138030");
  for (int i = 0; i < 52; ++i) s.add_item(a, i);
  EXPECT_EQ(s.call("rd_list_items", paging(1000, 1)).body.at("items").as_array().size(), 50u);
  EXPECT_EQ(s.call("rd_list_items", paging(1000, 2)).body.at("items").as_array().size(), 2u);
}

TEST_P(Api, EachUserVotesOnceAndMayChangeHisVote) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  std::string a = s.register_user("13800138040");
  std::string b = s.register_user("13800138041");
  std::string item = s.add_item(s.register_user("13800138042"), 120);
  auto vote = [&](bool like, const std::string& user, const std::string& id) {
    return s.call("rd_like_item", {{"item_id", id}, {"user_id", user}, {"is_liked", like}});
  };
  auto liked = vote(true, a, item);
  ASSERT_FALSE(liked.is_error()) << json::serialize(liked.body);
  EXPECT_EQ(liked.number("num_look_score"), 220);
  EXPECT_EQ(liked.number("num_like"), 1);

  // A repeat is refused with a text the app shows, and counts nothing.
  auto again = vote(true, a, item);
  EXPECT_EQ(again.error(), "already_voted");
  EXPECT_EQ(again.text("message"), "你已经赞过这张照片了");
  EXPECT_EQ(again.status, 200);

  // A dislike replaces the like (the store's tests have the counts both ways).
  auto disliked = vote(false, a, item);
  ASSERT_FALSE(disliked.is_error()) << json::serialize(disliked.body);
  EXPECT_EQ(disliked.number("num_look_score"), 20);
  EXPECT_EQ(vote(false, a, item).text("message"), "你已经给过这张照片差评了");
  EXPECT_EQ(vote(true, a, item).number("num_look_score"), 220);

  // Another user's vote is his own.
  EXPECT_EQ(vote(true, b, item).number("num_look_score"), 320);
  EXPECT_EQ(vote(true, "13800138040", item).error(), "unknown_user");
  EXPECT_EQ(vote(true, a, "12345").error(), "unknown_item");
  EXPECT_EQ(
      s.call("rd_like_item", {{"item_id", item}, {"user_id", a}, {"is_liked", "yes"}}).error(),
      "bad_field");
}

TEST_P(Api, CommentsCountForTheOwnerUntilHeOpensHisPhotos) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  std::string owner = s.register_user("13800138050", "p", "主人");
  std::string guest = s.register_user("13800138051", "p", "路人");
  std::string item = s.add_item(owner, 500);
  auto comment = [&](const std::string& text) {
    return s.call("rd_add_comments", {{"item_id", item}, {"user_id", guest}, {"comments", text}});
  };
  EXPECT_EQ(comment("好").error(), "bad_field");
  EXPECT_EQ(comment(std::string(61 * 3, 'x').substr(0, 61)).error(), "bad_field");
  std::string sixty;
  for (int i = 0; i < 60; ++i) sixty += "美";
  auto ok60 = comment(sixty);
  ASSERT_FALSE(ok60.is_error()) << json::serialize(ok60.body);
  EXPECT_EQ(ok60.text("comments"), sixty);
  EXPECT_EQ(ok60.body.at("user"), (json::object{{"nickname", "路人"}}));
  // An emoji is two characters to the app, as here.
  std::string emoji59 = sixty.substr(0, 59 * 3) + "\xF0\x9F\x98\x80";
  EXPECT_EQ(comment(emoji59).error(), "bad_field");
  // White space alone is no comment; around one it is not kept.
  EXPECT_EQ(comment("   ").error(), "bad_field");
  EXPECT_EQ(comment("\xE3\x80\x80好\t").error(), "bad_field");  // an ideographic space
  EXPECT_EQ(comment(" \xC2\xA0好看 \n").text("comments"), "好看");
  EXPECT_EQ(
      s.call("rd_add_comments", {{"item_id", "777"}, {"user_id", guest}, {"comments", "好看"}})
          .error(),
      "unknown_item");
  EXPECT_EQ(s.call("rd_add_comments", {{"item_id", item}, {"user_id", "x"}, {"comments", "好看"}})
                .error(),
            "unknown_user");

  auto list = s.call("rd_list_comments", {{"item_id", item}, {"limit", 10}, {"page", 1}});
  ASSERT_EQ(list.body.at("comments").as_array().size(), 2u);
  auto& newest = list.body.at("comments").as_array()[0].as_object();
  EXPECT_EQ(newest.at("comments"), "好看");
  EXPECT_EQ(std::to_string(newest.at("item_id").as_int64()), item);
  EXPECT_FALSE(newest.at("user").as_object().contains("id"));
  EXPECT_EQ(json::serialize(
                s.call("rd_list_comments", {{"item_id", item}, {"limit", 10}, {"page", 2}}).body),
            R"({"comments":[]})");
  EXPECT_EQ(s.call("rd_list_comments", {{"item_id", "555"}, {"limit", 10}, {"page", 1}}).error(),
            "unknown_item");

  auto item_now = s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"item_id", item}});
  EXPECT_EQ(item_now.body.at("items").as_array()[0].at("num_comments"), 2);
  EXPECT_EQ(s.call("rd_get_user", {{"user_id", owner}}).number("num_comments"), 2);
  // His own comment is on the photo but nothing unread for him.
  EXPECT_FALSE(
      s.call("rd_add_comments", {{"item_id", item}, {"user_id", owner}, {"comments", "谢谢大家"}})
          .is_error());
  EXPECT_EQ(s.call("rd_get_user", {{"user_id", owner}}).number("num_comments"), 2);
  // Someone else looking at the owner's photos leaves the count alone...
  s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"item_id", item}});
  // ... and so does the owner's second page; his first page clears it.
  s.call("rd_list_items", {{"limit", 10}, {"page", 2}, {"user_id", "13800138050"}},
         rdtest::bearer(owner));
  EXPECT_EQ(s.call("rd_get_user", {{"user_id", owner}}).number("num_comments"), 2);
  s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"user_id", "13800138050"}},
         rdtest::bearer(owner));
  EXPECT_EQ(s.call("rd_get_user", {{"user_id", owner}}).number("num_comments"), 0);
}

TEST_P(Api, OnlyTheOwnerRemovesAnItem) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  std::string owner = s.register_user("13800138060");
  std::string other = s.register_user("13800138061");
  std::string item = s.add_item(owner, 1);
  auto remove = [&](const std::string& user) {
    return s.call("rd_remove_item", {{"item_id", item}, {"user_id", user}});
  };
  EXPECT_EQ(remove(other).error(), "not_owner");
  EXPECT_EQ(remove("13800138060").error(), "unknown_user");  // a mobile is no session
  auto gone = remove(owner);
  EXPECT_FALSE(gone.is_error()) << json::serialize(gone.body);
  EXPECT_EQ(remove(owner).error(), "unknown_item");
  EXPECT_TRUE(s.call("rd_list_items", paging(10, 1)).body.at("items").as_array().empty());
}

TEST_P(Api, BadRequestsGetClearErrors) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  EXPECT_EQ(s.call("rd_delete_everything", {}).error(), "unknown_command");
  EXPECT_EQ(s.raw("/api?cmd=rd_get_item", "{not json").error(), "bad_json");
  EXPECT_EQ(s.raw("/api?cmd=rd_get_item", "[1,2]").error(), "bad_json");
  auto missing = s.call("rd_list_items", {{"page", 1}});
  EXPECT_EQ(missing.error(), "missing_field");
  EXPECT_NE(missing.text("message").find("limit"), std::string::npos);
  EXPECT_EQ(s.call("rd_list_items", {{"limit", "ten"}, {"page", 1}}).error(), "bad_field");
  EXPECT_EQ(s.call("rd_list_items", paging(10, 0)).error(), "bad_field");
  EXPECT_EQ(
      s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"item_id", "1; DROP TABLE items"}})
          .error(),
      "bad_field");
  std::string a = s.register_user("13800138070");
  EXPECT_EQ(s.call("rd_add_item", {{"user_id", a},
                                   {"base_image_url", "file:///etc/passwd"},
                                   {"num_look_score", 1},
                                   {"description", "x"},
                                   {"is_enabled_photo", true}})
                .error(),
            "bad_field");
  EXPECT_EQ(s.call("rd_add_item", {{"user_id", a},
                                   {"base_image_url", s.upload_photo()},
                                   {"num_look_score", 1},
                                   {"description", std::string(101, 'x')},
                                   {"is_enabled_photo", true}})
                .error(),
            "bad_field");
  // Quotes and SQL in text are only text.
  std::string sneaky = "'); DELETE FROM users; --";
  std::string item = s.add_item(a, 5, sneaky);
  EXPECT_EQ(s.call("rd_list_items", paging(10, 1)).body.at("items").as_array()[0].at("description"),
            sneaky.c_str());
  EXPECT_EQ(s.call("rd_get_user", {{"user_id", a}}).text("id"), a);
  // The body's "cmd" names the command when the URL does not.
  EXPECT_EQ(std::to_string(s.raw("/api", R"({"cmd":"rd_get_item"})").number("id")), item);
  // Oversized bodies are refused before any work.
  auto big = rdtest::http_request(s.process().port(), "POST", "/api?cmd=rd_get_item",
                                  std::string(100 * 1024, ' '));
  EXPECT_EQ(big.status, 413);
  // Commands are counted by name, errors by code.
  auto metrics = rdtest::http_request(s.process().port(), "GET", "/metrics").body;
  EXPECT_NE(metrics.find("route=\"api:rd_list_items\""), std::string::npos);
  EXPECT_NE(
      metrics.find("rongdian_api_errors_total{command=\"rd_list_items\",error=\"bad_field\"}"),
      std::string::npos);
  EXPECT_NE(metrics.find("command=\"unknown\",error=\"unknown_command\""), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Engines, Api, ::testing::Values("sqlite", "postgresql"),
                         [](const auto& info) { return info.param; });

// Server-wide settings; one engine is enough for these.

TEST(ApiSettings, WrongPasswordsSlowTheGuesserNotTheOwner) {
  // Behind a proxy on loopback: the client is whom X-Forwarded-For names.
  ApiServer s("sqlite", {"--login-free-failures", "3", "--login-delay-ms", "4000",
                         "--auth-rate-address", "8", "--trusted-proxy", "127.0.0.1/32"});
  RD_REQUIRE_SERVER(s);
  s.register_user("13800138080", "right");
  auto login = [&](const std::string& mobile, const std::string& password,
                   const std::string& client) {
    return rdtest::parse_reply(rdtest::http_request(
        s.process().port(), "POST", "/api?cmd=rd_login_user",
        json::serialize(
            json::object{{"cmd", "rd_login_user"}, {"mobile", mobile}, {"password", password}}),
        {{"X-Forwarded-For", "198.51.100.1, " + client}}));
  };
  const std::string guesser = "203.0.113.9", owner = "192.0.2.4";
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(login("13800138080", "guess", guesser).error(), "wrong_password");
  auto blocked = login("13800138080", "right", guesser);  // even the right one must wait
  EXPECT_EQ(blocked.error(), "rate_limited");
  EXPECT_FALSE(blocked.text("message").empty());
  // The owner on his own phone is not locked out, and other numbers are free.
  EXPECT_FALSE(login("13800138080", "right", owner).is_error());
  EXPECT_EQ(login("13800138081", "guess", guesser).error(), "wrong_password");
  // Every address has its cap of attempts a minute: the guesser's ninth is refused.
  EXPECT_EQ(login("13800138082", "guess", guesser).error(), "wrong_password");
  EXPECT_EQ(login("13800138083", "guess", guesser).error(), "wrong_password");
  EXPECT_EQ(login("13800138084", "guess", guesser).error(), "wrong_password");
  EXPECT_EQ(login("13800138085", "guess", guesser).error(), "rate_limited");
}

TEST(ApiSettings, ForwardedForCountsOnlyFromTrustedProxies) {
  ApiServer s("sqlite", {"--login-free-failures", "1", "--login-delay-ms", "4000"});
  RD_REQUIRE_SERVER(s);
  auto login = [&](const std::string& forwarded) {
    return rdtest::parse_reply(
        rdtest::http_request(s.process().port(), "POST", "/api?cmd=rd_login_user",
                             R"({"cmd":"rd_login_user","mobile":"13800138090","password":"guess"})",
                             {{"X-Forwarded-For", forwarded}}));
  };
  EXPECT_EQ(login("203.0.113.1").error(), "wrong_password");
  // A made-up header from a client that is no proxy changes nothing.
  EXPECT_EQ(login("203.0.113.2").error(), "rate_limited");
}

TEST(ApiSettings, HiddenPhotosAndTimeZone) {
  ApiServer s("sqlite", {"--hide-disabled", "--time-zone", "Asia/Shanghai"});
  RD_REQUIRE_SERVER(s);
  std::string a = s.register_user("13800138090");
  std::string shown = s.add_item(a, 1, "看得见", true);
  std::string hidden = s.add_item(a, 2, "看不见", false);
  EXPECT_EQ(ids_of(s.call("rd_list_items", paging(10, 1))), (std::vector<std::string>{shown}));
  EXPECT_EQ(std::to_string(s.call("rd_get_item", {}).number("id")), shown);
  // The owner still sees both.
  EXPECT_EQ(ids_of(s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"user_id", a}})),
            (std::vector<std::string>{hidden, shown}));

  // "created_at" is the Shanghai wall clock (UTC+8, no daylight saving).
  std::string created = s.call("rd_get_user", {{"user_id", a}}).text("created_at");
  std::tm tm{};
  ASSERT_TRUE(strptime(created.c_str(), "%Y-%m-%d %H:%M:%S", &tm)) << created;
  long diff = static_cast<long>(timegm(&tm)) - static_cast<long>(std::time(nullptr));
  EXPECT_NEAR(diff, 8 * 3600, 120) << created;

  rdtest::ServerProcess bad({"--time-zone", "Mars/Olympus"});
  EXPECT_FALSE(bad.ok());
}

}  // namespace
