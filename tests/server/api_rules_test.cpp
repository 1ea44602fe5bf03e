// What a mobile number, a reset flag, throw-away accounts and many addresses
// may not buy: others' hidden photos and unread counts, an account, a
// ranking, or endless guesses and sign-ups.
#include <gtest/gtest.h>

#include "api/Guards.h"
#include "api_testing.h"
#include "push/DeviceToken.h"
#include "store/Store.h"

namespace json = boost::json;
using rdtest::ApiServer;
using rdtest::bearer;

namespace {

// A server behind a "proxy" on loopback: X-Forwarded-For names the client.
std::vector<std::string> behind_proxy(std::vector<std::string> more) {
  more.insert(more.end(), {"--trusted-proxy", "127.0.0.1/32"});
  return more;
}
ApiServer::Headers from(const std::string& address) { return {{"X-Forwarded-For", address}}; }

json::object login_body(const std::string& mobile, const std::string& password,
                        bool reset = false) {
  return {{"mobile", mobile}, {"password", password}, {"device", "ios"}, {"reset", reset}};
}

json::object signup_body(const std::string& mobile, const std::string& nickname = "新人",
                         const std::string& password = "p") {
  return {{"mobile", mobile}, {"password", password}, {"nickname", nickname}, {"device", "ios"}};
}

std::vector<std::string> ids_of(const rdtest::ApiReply& r) {
  std::vector<std::string> out;
  for (auto& v : r.body.at("items").as_array())
    out.push_back(std::to_string(v.as_object().at("id").as_int64()));
  return out;
}

TEST(RulesPrivacy, OnlyTheOwnerSeesHisHiddenPhotosAndClearsHisCount) {
  ApiServer s("sqlite", {"--hide-disabled"});
  RD_REQUIRE_SERVER(s);
  const std::string mobile = "13800138300";
  std::string owner = s.register_user(mobile, "p", "主人");
  std::string guest = s.register_user("13800138301", "p", "路人");
  std::string shown = s.add_item(owner, 10, "看得见", true);
  std::string hidden = s.add_item(owner, 20, "看不见", false);
  ASSERT_FALSE(
      s.call("rd_add_comments", {{"item_id", shown}, {"user_id", guest}, {"comments", "好看"}})
          .is_error());
  auto own_list = [&](const std::string& who, ApiServer::Headers h = {}) {
    return s.call("rd_list_items", {{"limit", 10}, {"page", 1}, {"user_id", who}}, h);
  };
  auto unread = [&] { return s.call("rd_get_user", {{"user_id", owner}}).number("num_comments"); };

  // A number alone, or with someone else's session, lists nothing and reads nothing:
  // the same answer as for a number nobody has.
  const std::string nothing = json::serialize(own_list("13999999999").body);
  EXPECT_EQ(nothing, R"({"items":[]})");
  EXPECT_EQ(json::serialize(own_list(mobile).body), nothing);
  EXPECT_EQ(json::serialize(own_list(mobile, bearer(guest)).body), nothing);
  EXPECT_EQ(json::serialize(own_list(mobile, bearer("0123456789abcdef0123456789abcdef")).body),
            nothing);
  EXPECT_EQ(unread(), 1);

  // The owner's phone proves his session: all his photos, and his news are read.
  EXPECT_EQ(ids_of(own_list(mobile, bearer(owner))), (std::vector<std::string>{hidden, shown}));
  EXPECT_EQ(unread(), 0);
  EXPECT_EQ(ids_of(own_list(owner)), (std::vector<std::string>{hidden, shown}));
  // The public feeds are as they were, with or without a session.
  EXPECT_EQ(ids_of(s.call("rd_list_items", {{"limit", 10}, {"page", 1}})),
            (std::vector<std::string>{shown}));
  EXPECT_EQ(ids_of(s.call("rd_list_items", {{"limit", 10}, {"page", 1}}, bearer(owner))),
            (std::vector<std::string>{shown}));
}

TEST(RulesAccounts, AResetMustProveTheOwner) {
  ApiServer s("sqlite", {"--login-free-failures", "20"});
  RD_REQUIRE_SERVER(s);
  const std::string mobile = "13800138310";
  const std::string phone = rd::push::make_device_token();
  auto reg = s.call("rd_register_user", signup_body(mobile, "老用户", "old"));
  ASSERT_FALSE(reg.is_error()) << json::serialize(reg.body);
  const std::string id = reg.text("id");
  auto on_phone = login_body(mobile, "old");
  on_phone["device_token"] = phone;
  ASSERT_FALSE(s.call("rd_login_user", on_phone).is_error());  // binds the phone's token

  auto store = rd::store::open_store(s.database_url(), s.process().data_dir(), 1);
  auto flag = [&] { ASSERT_TRUE(store->mark_needs_new_password(mobile, "laoyonghu", "normal")); };
  auto reset = [&](const std::string& password, ApiServer::Headers h = {},
                   const std::string& token = "<t>") {
    auto body = login_body(mobile, password, true);
    body["device_token"] = token;
    return s.call("rd_login_user", body, h);
  };
  flag();

  // A stranger with any password, another account's session or an unbound token gets nowhere.
  std::string other = s.register_user("13800138311");
  EXPECT_EQ(reset("taken-over").error(), "wrong_password");
  EXPECT_EQ(reset("taken-over", bearer(other)).error(), "wrong_password");
  EXPECT_EQ(reset("taken-over", {}, rd::push::make_device_token()).error(), "wrong_password");
  EXPECT_FALSE(s.call("rd_login_user", login_body(mobile, "old")).is_error());
  EXPECT_EQ(s.call("rd_login_user", login_body(mobile, "taken-over")).error(), "wrong_password");

  // The owner: with the phone that kept his session, with his phone's token, or
  // with the password he has.
  auto by_session = reset("new-1", bearer(id));
  ASSERT_FALSE(by_session.is_error()) << json::serialize(by_session.body);
  EXPECT_EQ(by_session.text("id"), id);
  EXPECT_FALSE(s.call("rd_login_user", login_body(mobile, "new-1")).is_error());
  EXPECT_EQ(s.call("rd_login_user", login_body(mobile, "old")).error(), "wrong_password");
  flag();
  EXPECT_FALSE(reset("new-2", {}, phone).is_error());
  EXPECT_FALSE(s.call("rd_login_user", login_body(mobile, "new-2")).is_error());
  flag();
  EXPECT_FALSE(reset("new-2").is_error());
  EXPECT_FALSE(store->user_by_id(id)->needs_new_password);
}

class RulesRanking : public ::testing::TestWithParam<std::string> {};

TEST_P(RulesRanking, NoVotesOnOnesOwnPhotoAndOnePictureOnce) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  std::string owner = s.register_user("13800138320");
  std::string fan = s.register_user("13800138321");
  std::string item = s.add_item(owner, 1000);
  for (bool like : {true, false}) {
    auto own = s.call("rd_like_item", {{"item_id", item}, {"user_id", owner}, {"is_liked", like}});
    EXPECT_EQ(own.error(), "own_photo");
    EXPECT_EQ(own.text("message"), "主人，不要点自己啦");
  }
  EXPECT_FALSE(
      s.call("rd_like_item", {{"item_id", item}, {"user_id", fan}, {"is_liked", true}}).is_error());
  auto now = s.call("rd_list_items", {{"limit", 1}, {"page", 1}, {"item_id", item}});
  EXPECT_EQ(now.body.at("items").as_array().at(0).at("num_look_score"), 1100);

  // The same bytes under new keys are the same photo, whoever publishes them.
  const std::string bytes = rdtest::small_png(777);
  auto publish = [&](const std::string& user, const std::string& url) {
    return s.call("rd_add_item", {{"user_id", user},
                                  {"base_image_url", url},
                                  {"num_look_score", 5000},
                                  {"description", "又是我"},
                                  {"is_enabled_photo", true}});
  };
  auto first = publish(owner, s.upload_photo(bytes));
  ASSERT_FALSE(first.is_error()) << json::serialize(first.body);
  const std::string again_url = s.upload_photo(bytes);
  for (const auto& user : {owner, fan}) {
    auto again = publish(user, again_url);
    EXPECT_EQ(again.error(), "photo_in_use");
    EXPECT_FALSE(again.text("message").empty());
  }
  EXPECT_EQ(
      s.call("rd_list_items", {{"limit", 50}, {"page", 1}}).body.at("items").as_array().size(), 2u);
  // Once the first is removed, the picture may be published again.
  const std::string first_id = std::to_string(first.body.at("item").at("id").as_int64());
  ASSERT_FALSE(s.call("rd_remove_item", {{"item_id", first_id}, {"user_id", owner}}).is_error());
  EXPECT_FALSE(publish(fan, again_url).is_error());
}

INSTANTIATE_TEST_SUITE_P(Engines, RulesRanking, ::testing::Values("sqlite", "postgresql"),
                         [](const auto& info) { return info.param; });

TEST(RulesAddresses, LimitsCountPerAddressBlockToo) {
  ApiServer s("sqlite", behind_proxy({"--auth-rate-address", "2", "--signup-rate", "1"}));
  RD_REQUIRE_SERVER(s);
  auto attempt = [&](const std::string& address) {
    return s.call("rd_login_user", login_body("13800138330", "guess"), from(address)).error();
  };
  // Two a minute per address, eight per block: the ninth address of a /24 waits.
  for (int i = 1; i <= 4; ++i) {
    EXPECT_EQ(attempt("10.1.2." + std::to_string(i)), "wrong_password") << i;
    EXPECT_EQ(attempt("10.1.2." + std::to_string(i)), "wrong_password") << i;
  }
  EXPECT_EQ(attempt("10.1.2.200"), "rate_limited");
  EXPECT_EQ(attempt("::ffff:10.1.2.201"), "rate_limited");  // the same block, written as IPv6
  EXPECT_EQ(attempt("10.1.3.1"), "wrong_password");
  // An IPv6 /64 is one block.
  for (int i = 1; i <= 8; ++i)
    EXPECT_EQ(attempt("2001:db8:0:1::" + std::to_string(i % 4 + 1) + std::string(i > 4 ? "0" : "")),
              "wrong_password")
        << i;
  EXPECT_EQ(attempt("2001:db8:0:1:ffff::9"), "rate_limited");
  EXPECT_EQ(attempt("2001:db8:0:2::1"), "wrong_password");

  // Sign-ups: one an hour per address, four per block.
  auto signup = [&](const std::string& mobile, const std::string& address) {
    return s.call("rd_register_user", signup_body(mobile), from(address)).error();
  };
  EXPECT_EQ(signup("13800138340", "10.9.9.1"), "");
  EXPECT_EQ(signup("13800138341", "10.9.9.1"), "rate_limited");
  for (int i = 2; i <= 4; ++i)
    EXPECT_EQ(signup("1380013835" + std::to_string(i), "10.9.9." + std::to_string(i)), "") << i;
  EXPECT_EQ(signup("13800138360", "10.9.9.5"), "rate_limited");
  EXPECT_EQ(signup("13800138361", "10.9.10.1"), "");
}

TEST(RulesAddresses, OnePhotoTakesFewVotesFromOneNetwork) {
  ApiServer s("sqlite", behind_proxy({"--vote-rate-item", "1"}));
  RD_REQUIRE_SERVER(s);
  std::string owner = s.register_user("13800138420");
  std::string item = s.add_item(owner, 0), other = s.add_item(owner, 0);
  std::vector<std::string> fans;
  for (int i = 0; i < 6; ++i) fans.push_back(s.register_user("1380013843" + std::to_string(i)));
  auto like = [&](const std::string& fan, const std::string& id, const std::string& address) {
    return s
        .call("rd_like_item", {{"item_id", id}, {"user_id", fan}, {"is_liked", true}},
              from(address))
        .error();
  };
  // One vote a day per photo from an address, four from its /24, whoever casts them.
  EXPECT_EQ(like(fans[0], item, "10.5.5.1"), "");
  EXPECT_EQ(like(fans[1], item, "10.5.5.1"), "rate_limited");
  for (int i = 1; i <= 3; ++i)
    EXPECT_EQ(like(fans[i], item, "10.5.5." + std::to_string(i + 1)), "") << i;
  EXPECT_EQ(like(fans[4], item, "10.5.5.9"), "rate_limited");
  EXPECT_EQ(like(fans[4], item, "10.5.6.1"), "");
  EXPECT_EQ(like(fans[5], other, "10.5.5.9"), "");  // another photo has its own count
  // (An item id lists its owner's photos, newest first.)
  auto now = s.call("rd_list_items", {{"limit", 2}, {"page", 1}, {"item_id", item}});
  EXPECT_EQ(now.body.at("items").as_array().at(1).at("num_look_score"), 500);
}

TEST(RulesAccounts, GuessesFromManyAddressesAreSlowedButNotTheOwnersPhone) {
  ApiServer s("sqlite", behind_proxy({"--login-free-failures", "2", "--login-delay-ms", "600000",
                                      "--auth-rate-address", "0", "--signup-rate", "0",
                                      "--signup-rate-total", "5"}));
  RD_REQUIRE_SERVER(s);
  const std::string mobile = "13800138370";
  const std::string phone = rd::push::make_device_token();
  auto reg = s.call("rd_register_user", signup_body(mobile, "本人", "right"), from("192.0.2.1"));
  ASSERT_FALSE(reg.is_error()) << json::serialize(reg.body);
  const std::string id = reg.text("id");
  auto on_phone = login_body(mobile, "right");
  on_phone["device_token"] = phone;
  ASSERT_FALSE(s.call("rd_login_user", on_phone, from("192.0.2.1")).is_error());

  // Two wrong passwords per address are free, eight for the number from all
  // addresses; then every address waits, whatever the password.
  for (int i = 0; i < 8; ++i)
    EXPECT_EQ(s.call("rd_login_user", login_body(mobile, "guess"),
                     from("203.0." + std::to_string(i) + ".7"))
                  .error(),
              "wrong_password")
        << i;
  auto stranger = s.call("rd_login_user", login_body(mobile, "right"), from("198.51.100.1"));
  EXPECT_EQ(stranger.error(), "rate_limited");
  // A sign-up on the number is no way around it.
  EXPECT_EQ(s.call("rd_register_user", signup_body(mobile, "新人", "right"), from("198.51.100.2"))
                .error(),
            "rate_limited");
  // The owner's phone, by its session or its push token, still gets in.
  auto by_session =
      s.call("rd_login_user", login_body(mobile, "right"),
             {{"X-Forwarded-For", "198.51.100.3"}, {"Authorization", "Bearer " + id}});
  EXPECT_EQ(by_session.text("id"), id) << json::serialize(by_session.body);
  EXPECT_EQ(s.call("rd_login_user", on_phone, from("198.51.100.4")).text("id"), id);
  // Other numbers are free.
  EXPECT_EQ(s.call("rd_login_user", login_body("13800138371", "x"), from("198.51.100.1")).error(),
            "wrong_password");

  // Sign-up on a taken number: its own password signs the owner in (a sign-up
  // sent twice), another one is told the number is taken.
  const std::string other = "13800138380";
  ASSERT_FALSE(
      s.call("rd_register_user", signup_body(other, "另一个", "pw"), from("192.0.2.2")).is_error());
  auto twice = s.call("rd_register_user", signup_body(other, "另一个", "pw"), from("192.0.2.3"));
  EXPECT_FALSE(twice.is_error()) << json::serialize(twice.body);
  EXPECT_EQ(twice.text("nickname"), "另一个");
  auto taken = s.call("rd_register_user", signup_body(other, "冒充", "guess"), from("192.0.2.4"));
  EXPECT_EQ(taken.error(), "mobile_taken");
  EXPECT_EQ(taken.text("message"), "该手机号已注册");
  // And sign-ups in all have their ceiling (five an hour here, from anywhere).
  EXPECT_EQ(s.call("rd_register_user", signup_body("13800138390"), from("192.0.3.1")).error(),
            "rate_limited");
}

TEST(RulesAccounts, NicknamesThatSpeakForTheOperatorAreRefused) {
  ApiServer s("sqlite");
  RD_REQUIRE_SERVER(s);
  int n = 0;
  for (const char* name : {"官方客服", "容点官方", "官 方客服", "管理员小王", "ＡＤＭＩＮ", "Admin",
                           "客\xE2\x80\x8B服"}) {
    auto r = s.call("rd_register_user", signup_body("1380013840" + std::to_string(n++), name));
    EXPECT_EQ(r.error(), "reserved_nickname") << name;
    EXPECT_FALSE(r.text("message").empty());
  }
  for (const char* name : {"小明", "客人", "Adam"})
    EXPECT_FALSE(s.call("rd_register_user", signup_body("1380013841" + std::to_string(n++), name))
                     .is_error())
        << name;
}

TEST(RulesGuards, AddressBlocks) {
  using rd::api::address_block;
  EXPECT_EQ(address_block("203.0.113.9"), "203.0.113.0/24");
  EXPECT_EQ(address_block("::ffff:203.0.113.77"), "203.0.113.0/24");
  EXPECT_EQ(address_block("2001:db8:1:2:3:4:5:6"), "2001:db8:1:2::/64");
  EXPECT_EQ(address_block("2001:db8:1:2::"), address_block("2001:db8:1:2:ffff::1"));
  EXPECT_NE(address_block("2001:db8:1:2::"), address_block("2001:db8:1:3::"));
  EXPECT_EQ(address_block("not an address"), "not an address");
}

}  // namespace
