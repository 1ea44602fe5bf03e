// The api's hand-offs to the push gateway and the photo store, in process.
#include <gtest/gtest.h>

#include <boost/json.hpp>

#include "Services.h"
#include "api/Guards.h"
#include "push/Gateway.h"
#include "storage/PhotoStore.h"
#include "store/Store.h"
#include "support/ServerProcess.h"

namespace json = boost::json;
using namespace rd;

namespace {

struct FakeGateway : push::Gateway {
  std::vector<std::vector<std::string>> sent;
  void pushed(const std::vector<std::string>& tokens) override { sent.push_back(tokens); }
};

// Device tokens of the gateway's form.
const std::string kPhone =
    "<11111111 22222222 33333333 44444444 55555555 66666666 77777777 88888888>";
const std::string kPad =
    "<aaaaaaaa 22222222 33333333 44444444 55555555 66666666 77777777 88888888>";

// Every URL under /files/ names a stored photo.
struct FakePhotos : storage::PhotoStore {
  std::vector<std::string> removed;
  bool fail = false;
  std::optional<Ref> photo_of_url(const std::string& url) const override {
    auto at = url.find("/files/");
    if (at == std::string::npos) return std::nullopt;
    return Ref{url.substr(at + 7), true};
  }
  std::optional<std::string> read(const std::string& key) const override { return "photo " + key; }
  bool remove(const std::string& key) override {
    removed.push_back(key);
    if (fail) throw std::runtime_error("disk on fire");
    return true;
  }
  std::optional<std::string> problem() const override { return std::nullopt; }
};

class ApiServices : public ::testing::Test {
 protected:
  ApiServices() : srv_(http::ServerOptions{}, router_, metrics_) {
    cfg_.data_dir = dir_.path();
    services_.store = store::open_store("", dir_.path(), 2);
    services_.push = push_;
    services_.photos = photos_;
    api::install(services_);
  }

  json::object call(const std::string& cmd, json::object body, std::string* label = nullptr) {
    bool known = false;
    const http::Route* route = router_.find(http::bhttp::verb::post, "/api", false, known);
    EXPECT_TRUE(route);
    http::Request req{http::bhttp::verb::post, "/api?cmd=" + cmd, 11};
    req.body() = json::serialize(body);
    http::Context ctx;
    ctx.remote_address = "127.0.0.1";
    ctx.path = "/api";
    ctx.query.emplace("cmd", cmd);
    auto res = route->handler(req, ctx);
    if (label) *label = ctx.label;
    return json::parse(res.body()).as_object();
  }

  std::string user(const std::string& mobile, const std::string& nick, const char* token) {
    json::object body{{"mobile", mobile}, {"password", "p"}, {"nickname", nick}};
    if (token) body["device_token"] = token;
    return std::string(call("rd_register_user", body).at("id").as_string());
  }

  std::string item(const std::string& owner) {
    auto r = call("rd_add_item", {{"user_id", owner},
                                  {"base_image_url", "http://127.0.0.1:8080/files/p" +
                                                         std::to_string(++photos_made_) + ".jpg"},
                                  {"num_look_score", 3000},
                                  {"description", "我"},
                                  {"is_enabled_photo", true}});
    return std::to_string(r.at("item").at("id").as_int64());
  }

  int photos_made_ = 0;
  rdtest::TempDir dir_;
  server::Config cfg_;
  http::Router router_;
  http::Metrics metrics_;
  http::Server srv_;
  std::shared_ptr<FakeGateway> push_ = std::make_shared<FakeGateway>();
  std::shared_ptr<FakePhotos> photos_ = std::make_shared<FakePhotos>();
  server::Services services_{cfg_, router_, metrics_, srv_, nullptr, nullptr, nullptr, nullptr};
};

TEST_F(ApiServices, ACommentIsPushedToEveryDeviceOfTheOwner) {
  std::string owner = user("13800139100", "主人", kPhone.c_str());
  call("rd_login_user", {{"mobile", "13800139100"}, {"password", "p"}, {"device_token", kPad}});
  // A token not of the gateway's form gets nothing kept.
  call("rd_login_user", {{"mobile", "13800139100"}, {"password", "p"}, {"device_token", "<x>"}});
  std::string guest = user("13800139101", "路人甲", nullptr);
  std::string it = item(owner);
  std::string label;
  call("rd_add_comments", {{"item_id", it}, {"user_id", guest}, {"comments", "好看"}}, &label);
  EXPECT_EQ(label, "api:rd_add_comments");
  call("rd_add_comments", {{"item_id", it}, {"user_id", guest}, {"comments", "真好看"}});
  ASSERT_EQ(push_->sent.size(), 2u);
  EXPECT_EQ(push_->sent[0], (std::vector<std::string>{kPhone, kPad}));
  auto kept = services_.store->pushes(kPad);
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(json::parse(kept[1].payload),
            json::parse(R"({"aps": {"alert": "路人甲 评论了你的照片：真好看",
                                              "badge": 2, "sound": "default"}})"));

  // A poster without devices is not pushed to, nor is anyone about his own comment.
  std::string guest_item = item(guest);
  call("rd_add_comments", {{"item_id", guest_item}, {"user_id", owner}, {"comments", "回访"}});
  call("rd_add_comments", {{"item_id", it}, {"user_id", owner}, {"comments", "谢谢"}});
  EXPECT_EQ(push_->sent.size(), 2u);
}

TEST_F(ApiServices, RemovingAnItemRemovesItsPhotoEvenWhenStorageFails) {
  std::string owner = user("13800139110", "主人", nullptr);
  std::string a = item(owner), b = item(owner);
  EXPECT_FALSE(call("rd_remove_item", {{"item_id", a}, {"user_id", owner}}).contains("error"));
  EXPECT_EQ(photos_->removed, (std::vector<std::string>{"p1.jpg"}));
  photos_->fail = true;
  EXPECT_FALSE(call("rd_remove_item", {{"item_id", b}, {"user_id", owner}}).contains("error"));
  EXPECT_FALSE(services_.store->item(std::stoll(b)));
  // Someone else's attempt never reaches the storage.
  std::string c = item(owner);
  std::string other = user("13800139111", "别人", nullptr);
  EXPECT_EQ(call("rd_remove_item", {{"item_id", c}, {"user_id", other}}).at("error"), "not_owner");
  EXPECT_EQ(photos_->removed.size(), 2u);
}

TEST(ApiGuards, TextLengthsCountAsTheAppDoes) {
  EXPECT_EQ(api::utf16_length("ab"), 2u);
  EXPECT_EQ(api::utf16_length("好看"), 2u);
  EXPECT_EQ(api::utf16_length("\xF0\x9F\x98\x80"), 2u);  // one emoji, a surrogate pair
  EXPECT_EQ(api::utf16_length(""), 0u);
}

TEST(ApiGuards, RateLimiterWindowsAreOneMinutePerKey) {
  api::RateLimiter limit(2);
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_TRUE(limit.allow("a", t0));
  EXPECT_TRUE(limit.allow("a", t0));
  EXPECT_FALSE(limit.allow("a", t0 + std::chrono::seconds(59)));
  EXPECT_TRUE(limit.allow("b", t0));
  EXPECT_TRUE(limit.allow("a", t0 + std::chrono::seconds(61)));
  api::RateLimiter none(0);
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(none.allow("x", t0));
}

TEST(ApiGuards, PasswordsAndIds) {
  auto h = api::hash_password("密码");
  EXPECT_EQ(h.rfind("$argon2id$", 0), 0u);
  EXPECT_NE(h, api::hash_password("密码"));  // salted
  EXPECT_TRUE(api::verify_password(h, "密码"));
  EXPECT_FALSE(api::verify_password(h, "密碼"));
  EXPECT_FALSE(api::verify_password("garbage", "密码"));
  auto id = api::new_user_id();
  EXPECT_EQ(id.size(), 32u);
  EXPECT_NE(id, api::new_user_id());
}

}  // namespace
