// What a hostile client may not do to the community: point an item at a photo
// that is not its own to have (and delete it with the item), vote without
// end, publish a score its photo does not have, or receive others' pushes
// with the token every copy of the app signs up with.
#include <gtest/gtest.h>

#include <algorithm>

#include "BuildConfig.h"
#include "Config.h"
#include "api_testing.h"
#include "scoring/FaceScoringCore.h"
#include "push/DeviceToken.h"
#include "push_testing.h"
#include "storage_testing.h"
#include "store/Store.h"

namespace json = boost::json;
using rdtest::ApiServer;

namespace {

class Integrity : public ::testing::TestWithParam<std::string> {};

json::object item_body(const std::string& user, const std::string& url, std::int64_t score = 100) {
  return {{"user_id", user},
          {"base_image_url", url},
          {"num_look_score", score},
          {"description", "看我"},
          {"is_enabled_photo", true}};
}

// The path and query of one of the server's photo URLs.
std::string target_of(const std::string& url) { return url.substr(url.find("/files/")); }

TEST_P(Integrity, ItemsPointOnlyAtStoredPhotosNoOtherItemUses) {
  ApiServer s(GetParam());
  RD_REQUIRE_SERVER(s);
  const unsigned short port = s.process().port();
  std::string a = s.register_user("13800138200", "p", "阿甲");
  std::string b = s.register_user("13800138201", "p", "阿乙");
  const std::string base = s.process().url();

  // Nothing outside this server's storage, nothing not stored, nothing that is no key.
  EXPECT_EQ(s.call("rd_add_item", item_body(a, "http://127.0.0.1/files/p.jpg")).error(),
            "bad_photo");
  auto missing = s.call("rd_add_item", item_body(a, base + "/files/nothere.jpeg?attname="));
  EXPECT_EQ(missing.error(), "no_photo");
  EXPECT_FALSE(missing.text("message").empty());
  // (Any UTF-8 text is a key, "../photos/x" too, and names nothing stored.)
  EXPECT_EQ(s.call("rd_add_item", item_body(a, base + "/files/..%2Fphotos%2Fx")).error(),
            "no_photo");
  EXPECT_EQ(s.call("rd_add_item", item_body(a, base + "/files/%FF%FE")).error(), "bad_photo");

  // A stored photo serves one item; its URL in any form names the same photo.
  const std::string photo = s.upload_photo();
  ASSERT_FALSE(s.call("rd_add_item", item_body(a, photo)).is_error());
  auto taken = s.call("rd_add_item", item_body(b, photo));
  EXPECT_EQ(taken.error(), "photo_in_use");
  EXPECT_FALSE(taken.text("message").empty());
  const std::string key = target_of(photo).substr(7, target_of(photo).find('?') - 7);
  EXPECT_EQ(s.call("rd_add_item", item_body(b, rd::build::kStorageDownloadPrefix + key)).error(),
            "photo_in_use");
  EXPECT_EQ(s.call("rd_add_item", item_body(a, base + "/files/" + key + "#again")).error(),
            "photo_in_use");

  // Two uploads of the same bytes without a key share one: the first item has it.
  const std::string bytes = rdtest::small_png();
  auto token =
      rdtest::make_upload_token(rdtest::upload_policy(rd::build::kStorageBucket),
                                rd::build::kStorageAccessKey, rd::build::kStorageSecretKey);
  std::string shared_keys[2];
  for (auto& k : shared_keys) {
    auto up = rdtest::upload(port, {{"token", token}, {"file", bytes, true}});
    ASSERT_EQ(up.status, 200) << up.body;
    k = std::string(json::parse(up.body).at("key").as_string());
  }
  ASSERT_EQ(shared_keys[0], shared_keys[1]);
  auto b_item = s.call("rd_add_item", item_body(b, base + "/files/" + shared_keys[0]));
  ASSERT_FALSE(b_item.is_error()) << json::serialize(b_item.body);
  EXPECT_EQ(s.call("rd_add_item", item_body(a, base + "/files/" + shared_keys[1])).error(),
            "photo_in_use");

  // Removing the item deletes its photo; then nobody can point at it.
  const std::string b_id = std::to_string(b_item.body.at("item").at("id").as_int64());
  ASSERT_FALSE(s.call("rd_remove_item", {{"item_id", b_id}, {"user_id", b}}).is_error());
  EXPECT_EQ(rdtest::http_request(port, "GET", "/files/" + shared_keys[0]).status, 404);
  EXPECT_EQ(s.call("rd_add_item", item_body(a, base + "/files/" + shared_keys[0])).error(),
            "no_photo");
  // The other photo is still there for its item.
  EXPECT_EQ(rdtest::http_request(port, "GET", target_of(photo)).status, 200);
}

INSTANTIATE_TEST_SUITE_P(Engines, Integrity, ::testing::Values("sqlite", "postgresql"),
                         [](const auto& info) { return info.param; });

// The server's detection answer for a photo, scored as the app scores it.
int app_score(unsigned short port, const std::string& photo) {
  const std::string boundary = "----rdtestDetect";
  std::string body = "--" + boundary +
                     "\r\nContent-Disposition: form-data; name=\"img\"; filename=\"p.jpg\"\r\n"
                     "Content-Type: application/octet-stream\r\n\r\n" +
                     photo + "\r\n--" + boundary + "--\r\n";
  auto r = rdtest::http_request(
      port, "POST",
      std::string("/v2/detection/detect?api_key=") + rd::build::kFaceppKey +
          "&api_secret=" + rd::build::kFaceppSecret + "&attribute=age,gender,race,smiling",
      body, {{"Content-Type", "multipart/form-data; boundary=" + boundary}});
  EXPECT_EQ(r.status, 200) << r.body;
  auto faces = json::parse(r.body).at("face").as_array();
  EXPECT_EQ(faces.size(), 1u);
  const auto& f = faces.at(0).as_object();
  auto num = [](const json::value& v) { return v.is_null() ? 0.0 : v.to_number<double>(); };
  const auto& pos = f.at("position").as_object();
  const auto& attr = f.at("attribute").as_object();
  rd::scoring::FaceMeasures m;
  m.eye_x = num(pos.at("eye_left").at("x"));
  m.eye_y = num(pos.at("eye_left").at("y"));
  m.mouth_x = num(pos.at("mouth_left").at("x"));
  m.mouth_y = num(pos.at("mouth_left").at("y"));
  m.nose_x = num(pos.at("nose").at("x"));
  m.nose_y = num(pos.at("nose").at("y"));
  m.width = num(pos.at("width"));
  m.height = num(pos.at("height"));
  m.age = num(attr.at("age").at("value"));
  m.smile = num(attr.at("smiling").at("value"));
  m.gender = std::string(attr.at("gender").at("value").as_string());
  return rd::scoring::score(m).total;
}

TEST(IntegrityScores, APublishedScoreIsThePhotosOwn) {
  ApiServer s("sqlite", {"--trust-claimed-scores=0"});
  RD_REQUIRE_SERVER(s);
  std::string a = s.register_user("13800138220");
  const std::string face = rdtest::read_file(RD_SOURCE_DIR "/app/ui/sample-face.jpg");
  ASSERT_FALSE(face.empty());
  const int honest = app_score(s.process().port(), face);
  ASSERT_GT(honest, 0);

  // The app's score of the photo, and one within the margin, are published.
  auto ok = s.call("rd_add_item", item_body(a, s.upload_photo(face), honest));
  ASSERT_FALSE(ok.is_error()) << json::serialize(ok.body) << " claimed " << honest;
  EXPECT_EQ(ok.body.at("item").at("num_look_score"), honest);
  // (The same picture with a comment segment: other bytes, the same pixels.)
  const std::string face_again = face.substr(0, 2) +
                                 std::string(
                                     "\xFF\xFE\x00\x08"
                                     "again!",
                                     10) +
                                 face.substr(2);
  EXPECT_FALSE(
      s.call("rd_add_item", item_body(a, s.upload_photo(face_again), honest + 25)).is_error());

  // Anything further off is refused with a text the app shows.
  for (std::int64_t claim :
       {std::int64_t{honest} + 26, std::int64_t{honest} - 26, std::int64_t{1'000'000'000}}) {
    auto bought = s.call("rd_add_item", item_body(a, s.upload_photo(face), claim));
    EXPECT_EQ(bought.error(), "score_mismatch") << claim;
    EXPECT_EQ(bought.text("message"), "容点与照片不符，请重新测一测再发表");
  }
  // A photo without a face has no score to claim.
  auto faceless = s.call("rd_add_item", item_body(a, s.upload_photo(), 6000));
  EXPECT_EQ(faceless.error(), "score_mismatch");
  auto top = s.call("rd_get_item", {});
  EXPECT_EQ(top.number("num_look_score"), honest + 25);
}

TEST(IntegrityScores, TheFlagTakesScoresAsClaimed) {
  ApiServer s("sqlite");  // --trust-claimed-scores, as for the outside detection service
  RD_REQUIRE_SERVER(s);
  std::string a = s.register_user("13800138230");
  EXPECT_FALSE(s.call("rd_add_item", item_body(a, s.upload_photo(), 1'000'000'000)).is_error());
  EXPECT_NE(rd::server::usage().find("--trust-claimed-scores"), std::string::npos);
  EXPECT_NE(rd::server::usage().find("--storage-download-prefix"), std::string::npos);
}

TEST(IntegrityOutsideStorage, ItemsPointOnlyUnderTheOutsidePrefix) {
  ApiServer s("sqlite", {"--storage-download-prefix", "https://cdn.example.com/",
                         "--trust-claimed-scores=0"});
  RD_REQUIRE_SERVER(s);
  std::string a = s.register_user("13800138240");
  std::string b = s.register_user("13800138241");
  // This server's own storage is not where the app keeps its photos now.
  EXPECT_EQ(s.call("rd_add_item", item_body(a, s.upload_photo())).error(), "bad_photo");
  EXPECT_EQ(s.call("rd_add_item", item_body(a, "https://elsewhere.example.com/k.jpeg")).error(),
            "bad_photo");
  // Under the prefix: taken as it is (the server cannot see those photos), once.
  auto added =
      s.call("rd_add_item", item_body(a, "https://cdn.example.com/k1.jpeg?attname=", 7000));
  ASSERT_FALSE(added.is_error()) << json::serialize(added.body);
  EXPECT_EQ(s.call("rd_add_item", item_body(b, "https://cdn.example.com/k1.jpeg")).error(),
            "photo_in_use");
  const std::string id = std::to_string(added.body.at("item").at("id").as_int64());
  EXPECT_FALSE(s.call("rd_remove_item", {{"item_id", id}, {"user_id", a}}).is_error());
}

TEST(IntegrityDevices, TheSignUpTokenIsNeverBound) {
  ApiServer s("sqlite");
  RD_REQUIRE_SERVER(s);
  const std::string fixed = rd::build::kRegisterDeviceToken;
  auto reg = s.call("rd_register_user", {{"mobile", "13800138250"},
                                         {"password", "p"},
                                         {"nickname", "新人"},
                                         {"device_token", fixed},
                                         {"device", "ios"}});
  ASSERT_FALSE(reg.is_error()) << json::serialize(reg.body);
  const std::string id = reg.text("id");
  auto login = s.call("rd_login_user",
                      {{"mobile", "13800138250"}, {"password", "p"}, {"device_token", fixed}});
  ASSERT_FALSE(login.is_error());
  auto store = rd::store::open_store(s.database_url(), s.process().data_dir(), 1);
  EXPECT_TRUE(store->device_tokens(id).empty());

  // The phone binds its own token by asking for the new account; it then
  // serves that account alone, not the one that used it before.
  const std::string own =
      "<0000000a 0000000b 0000000c 0000000d 0000000e 0000000f 00000010 00000011>";
  const std::string before = s.register_user("13800138251");
  ASSERT_FALSE(s.call("rd_login_user",
                      {{"mobile", "13800138251"}, {"password", "secret"}, {"device_token", own}})
                   .is_error());
  const auto holds = [&](const std::string& user) {
    auto tokens = store->device_tokens(user);
    return std::find(tokens.begin(), tokens.end(), own) != tokens.end();
  };
  EXPECT_TRUE(holds(before));
  auto me = s.call("rd_get_user", {{"user_id", id}, {"device_token", own}});
  ASSERT_FALSE(me.is_error()) << json::serialize(me.body);
  EXPECT_EQ(store->device_tokens(id), std::vector<std::string>{own});
  EXPECT_FALSE(holds(before));
  ASSERT_FALSE(s.call("rd_get_user", {{"user_id", id}, {"device_token", fixed}}).is_error());
  EXPECT_EQ(store->device_tokens(id), std::vector<std::string>{own});

  // Whoever presents it on /push is refused.
  EXPECT_FALSE(rd::push::is_device_token(fixed));
  rdtest::Device stranger(s.process().port());
  stranger.send({{"token", fixed}});
  auto answer = stranger.recv();
  ASSERT_TRUE(answer.is_object());
  EXPECT_TRUE(answer.as_object().contains("error")) << json::serialize(answer);
  EXPECT_FALSE(answer.as_object().contains("device_token")) << json::serialize(answer);
}

}  // namespace
