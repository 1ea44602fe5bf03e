#include "api_testing.h"

#include <opencv2/imgcodecs.hpp>

#include "BuildConfig.h"
#include "storage_testing.h"

namespace rdtest {

namespace json = boost::json;

ApiReply parse_reply(const HttpReply& r) {
  ApiReply out;
  out.status = r.status;
  json::error_code ec;
  auto v = json::parse(r.body, ec);
  if (!ec && v.is_object()) out.body = v.as_object();
  return out;
}

ApiServer::ApiServer(const std::string& engine, std::vector<std::string> extra)
    : db_(std::make_unique<TestDatabase>(engine)),
      data_(std::make_unique<TempDir>()),
      extra_(std::move(extra)) {
  if (!db_->available()) return;
  db_url_ = db_->url();
  data_dir_ = data_->path();
  restart();
}

ApiServer::ApiServer(const std::string& database_url, const std::string& data_dir,
                     std::vector<std::string> extra)
    : db_url_(database_url), data_dir_(data_dir), extra_(std::move(extra)) {
  restart();
}

std::string small_png(int variant) {
  cv::Mat img(40, 30, CV_8UC3, cv::Scalar(10 + variant % 200, 200, 30 + variant / 200 % 200));
  std::vector<uchar> out;
  cv::imencode(".png", img, out);
  return std::string(out.begin(), out.end());
}

void ApiServer::restart() {
  proc_.reset();
  // Tests sign up many accounts and vote much from loopback: no budgets for
  // those unless a test sets its own (a later flag wins).
  std::vector<std::string> args = {
      "--database",       db_url_, "--trust-claimed-scores", "--signup-rate", "0",
      "--vote-rate-item", "0"};
  args.insert(args.end(), extra_.begin(), extra_.end());
  proc_ = std::make_unique<ServerProcess>(args, data_dir_);
}

ApiReply ApiServer::call(const std::string& cmd, json::object body, Headers headers) const {
  body["cmd"] = cmd;
  headers.emplace_back("HTTP_ACCESS_TOKEN", "anonymous");
  return parse_reply(
      http_request(proc_->port(), "POST", "/api?cmd=" + cmd, json::serialize(body), headers));
}

ApiServer::Headers bearer(const std::string& user_id) {
  return {{"Authorization", "Bearer " + user_id}};
}

ApiReply ApiServer::raw(const std::string& target, const std::string& body) const {
  return parse_reply(
      http_request(proc_->port(), "POST", target, body, {{"HTTP_ACCESS_TOKEN", "anonymous"}}));
}

std::string ApiServer::register_user(const std::string& mobile, const std::string& password,
                                     const std::string& nickname) {
  auto r = call("rd_register_user", {{"mobile", mobile},
                                     {"password", password},
                                     {"nickname", nickname},
                                     {"device_token",
                                      "<0123abcd 0123abcd 0123abcd 0123abcd "
                                      "0123abcd 0123abcd 0123abcd 0123abcd>"},
                                     {"device", "ios"}});
  EXPECT_FALSE(r.is_error()) << json::serialize(r.body);
  return r.text("id");
}

std::string ApiServer::upload_photo(const std::string& bytes) {
  const std::string key = "photo" + std::to_string(++uploads_) + ".png";
  auto token = make_upload_token(upload_policy(rd::build::kStorageBucket),
                                 rd::build::kStorageAccessKey, rd::build::kStorageSecretKey);
  auto r = upload(proc_->port(), {{"key", key},
                                  {"token", token},
                                  {"file", bytes.empty() ? small_png(uploads_) : bytes, true}});
  EXPECT_EQ(r.status, 200) << r.body;
  std::string base = proc_->url();
  for (std::size_t i = 0; i + 1 < extra_.size(); ++i)
    if (extra_[i] == "--public-url") base = extra_[i + 1];
  return base + "/files/" + key + "?attname=";
}

std::string ApiServer::add_item(const std::string& user_id, std::int64_t score,
                                const std::string& description, bool enabled) {
  auto r = call("rd_add_item", {{"user_id", user_id},
                                {"base_image_url", upload_photo()},
                                {"num_look_score", score},
                                {"description", description},
                                {"is_enabled_photo", enabled}});
  EXPECT_FALSE(r.is_error()) << json::serialize(r.body);
  auto* item = r.body.if_contains("item");
  if (!item || !item->is_object()) return {};
  return std::to_string(item->as_object().at("id").as_int64());
}

}  // namespace rdtest
