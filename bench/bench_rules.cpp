// The account and ranking attacks, as an attacker with ordinary tools would
// run them on loopback against one rongdian-server with its default limits
// behind a "proxy" (X-Forwarded-For names the client, so many addresses can
// be played): numbers probed for someone's hidden photos and unread count,
// passwords guessed on one number from 20 addresses, numbers signed up from
// the addresses of one /24, one picture published again and again, votes on
// one's own photo. Prints what each attack got and how long it took.
//   build/bench/bench_rules
#include <boost/json.hpp>
#include <chrono>
#include <cstdio>
#include <string>

#include "BuildConfig.h"
#include "storage_testing.h"
#include "support/ServerProcess.h"

namespace json = boost::json;

namespace {

rdtest::ServerProcess* server = nullptr;

json::object api(const std::string& cmd, json::object body, const std::string& client,
                 const std::string& authorization = {}) {
  body["cmd"] = cmd;
  std::vector<std::pair<std::string, std::string>> headers{{"X-Forwarded-For", client}};
  if (!authorization.empty()) headers.emplace_back("Authorization", authorization);
  auto r = rdtest::http_request(server->port(), "POST", "/api?cmd=" + cmd, json::serialize(body),
                                headers);
  json::error_code ec;
  auto v = json::parse(r.body, ec);
  return !ec && v.is_object() ? v.as_object() : json::object{};
}

std::string error_of(const json::object& o) {
  auto* e = o.if_contains("error");
  return e && e->is_string() ? std::string(e->get_string()) : std::string();
}
std::string text_of(const json::object& o, const char* key) {
  auto* v = o.if_contains(key);
  return v && v->is_string() ? std::string(v->get_string()) : std::string();
}

std::string signup(const std::string& mobile, const std::string& client) {
  return text_of(
      api("rd_register_user",
          {{"mobile", mobile}, {"password", "pw-" + mobile}, {"nickname", "用户"}}, client),
      "id");
}

// Uploads `bytes` under `key` and publishes it for `user`; the error code or "".
std::string publish(const std::string& user, const std::string& key, const std::string& bytes,
                    bool enabled = true) {
  auto token =
      rdtest::make_upload_token(rdtest::upload_policy(rd::build::kStorageBucket),
                                rd::build::kStorageAccessKey, rd::build::kStorageSecretKey);
  rdtest::upload(server->port(), {{"key", key}, {"token", token}, {"file", bytes, true}});
  return error_of(api("rd_add_item",
                      {{"user_id", user},
                       {"base_image_url", server->url() + "/files/" + key + "?attname="},
                       {"num_look_score", 5000},
                       {"description", "bench"},
                       {"is_enabled_photo", enabled}},
                      "198.51.100.7"));
}

using Clock = std::chrono::steady_clock;
double since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

}  // namespace

int main() {
  rdtest::ServerProcess s(
      {"--trusted-proxy", "127.0.0.1/32", "--hide-disabled", "--trust-claimed-scores"});
  if (!s.ok()) {
    std::fprintf(stderr, "bench_rules: the server did not start:\n%s\n",
                 s.startup_output().c_str());
    return 1;
  }
  server = &s;
  std::printf("rongdian-server's account and ranking rules under attack, default limits\n");

  // The victim: a shown and a hidden photo, a comment he has not read.
  const std::string victim_mobile = "13912340250";
  const std::string victim = signup(victim_mobile, "198.51.100.7");
  const std::string fan = signup("13912349999", "198.51.100.8");
  const std::string face = rdtest::sample_jpeg();
  publish(victim, "victim-shown.jpeg", face);
  // (the same picture with a comment segment: other bytes)
  publish(victim, "victim-hidden.jpeg",
          face.substr(0, 2) + std::string("\xFF\xFE\x00\x03h", 5) + face.substr(2), false);
  auto items = api("rd_list_items", {{"limit", 10}, {"page", 1}}, "198.51.100.8");
  std::string shown_id;
  if (auto* a = items.if_contains("items"); a && a->is_array() && !a->as_array().empty())
    shown_id = std::to_string(a->as_array()[0].at("id").as_int64());
  api("rd_add_comments", {{"item_id", shown_id}, {"user_id", fan}, {"comments", "好看好看"}},
      "198.51.100.8");

  // 1. Numbers probed from one address for photos and the unread count.
  {
    const int n = 500;
    int answered = 0;
    auto t = Clock::now();
    for (int i = 0; i < n; ++i) {
      auto r = api("rd_list_items",
                   {{"limit", 10},
                    {"page", 1},
                    {"user_id", "13912340" + std::to_string(1000 + i).substr(1)}},
                   "203.0.113.5");
      auto* a = r.if_contains("items");
      if (a && a->is_array() && !a->as_array().empty()) ++answered;
    }
    auto me = api("rd_get_user", {{"user_id", victim}}, "198.51.100.7");
    auto* unread = me.if_contains("num_comments");
    std::printf(
        "probe: %d numbers by rd_list_items from one address in %.2f s: photos listed "
        "for %d (the victim's among them: %s); his unread count %s\n",
        n, since(t), answered, answered ? "yes" : "no",
        unread && unread->is_int64() && unread->get_int64() == 1 ? "kept" : "reset by a stranger");
  }

  // 2. Wrong passwords on one number, five from each of 20 addresses (20 networks).
  {
    int answered = 0, refused = 0;
    auto t = Clock::now();
    for (int a = 0; a < 20; ++a)
      for (int k = 0; k < 5; ++k) {
        auto r = api("rd_login_user", {{"mobile", victim_mobile}, {"password", "guess"}},
                     "203.0." + std::to_string(a) + ".9");
        (error_of(r) == "rate_limited" ? refused : answered) += 1;
      }
    auto owner =
        api("rd_login_user", {{"mobile", victim_mobile}, {"password", "pw-" + victim_mobile}},
            "192.0.2.200", "Bearer " + victim);
    std::printf(
        "guesses: 100 wrong passwords on one number from 20 addresses in %.2f s: %d "
        "checked, %d told to wait; the owner's phone then: %s\n",
        since(t), answered, refused, error_of(owner).empty() ? "logs in" : "refused");
  }

  // 3. Sign-ups of 200 numbers from 200 addresses of one /24.
  int squatted = 0;
  std::vector<std::pair<std::string, std::string>> throwaway;  // id, address
  {
    auto t = Clock::now();
    for (int i = 1; i <= 200; ++i) {
      const std::string address = "10.7.7." + std::to_string(i);
      auto id = signup("1370000" + std::to_string(10000 + i).substr(1), address);
      if (!id.empty()) {
        ++squatted;
        throwaway.emplace_back(id, address);
      }
    }
    std::printf("sign-ups: 200 numbers from 200 addresses of one /24 in %.2f s: %d registered\n",
                since(t), squatted);
  }

  // 4. The ranking: one picture again under new keys, the owner's own likes,
  // the throw-away accounts' likes.
  {
    int published = 0;
    auto t = Clock::now();
    const std::string bytes = rdtest::read_file(RD_SOURCE_DIR "/app/ui/sample-face.jpg");
    for (int i = 0; i < 20; ++i)
      if (publish(fan, "again" + std::to_string(i) + ".jpeg", bytes).empty()) ++published;
    std::printf("ranking: one picture published 20 times under new keys in %.2f s: %d items\n",
                since(t), published);
    auto own = api("rd_like_item", {{"item_id", shown_id}, {"user_id", victim}, {"is_liked", true}},
                   "198.51.100.7");
    int liked = 0;
    for (const auto& [id, address] : throwaway)
      if (error_of(api("rd_like_item", {{"item_id", shown_id}, {"user_id", id}, {"is_liked", true}},
                       address))
              .empty())
        ++liked;
    std::printf(
        "ranking: the owner's like of his own photo: %s; the %d throw-away accounts "
        "added %+d points\n",
        error_of(own).empty() ? "counted" : "refused", squatted, liked * 100);
  }
  return 0;
}
