// Photo storage: upload tokens made with OpenSSL (independently of the
// server's code), uploads over HTTP, downloads byte for byte, the backup
// upload address, and the refusals.
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>

#include "storage/PhotoFiles.h"
#include "storage_testing.h"

namespace {

using rdtest::b64url;
using rdtest::sample_jpeg;
using rdtest::upload;
using Field = rdtest::FormField;

const std::string kAk = "test-ak", kSk = "test-sk", kBucket = "photos";

std::string make_token(const std::string& policy_json, const std::string& ak = kAk,
                       const std::string& sk = kSk) {
  return rdtest::make_upload_token(policy_json, ak, sk);
}

std::string policy(const std::string& scope, long long deadline_offset = 3600) {
  return rdtest::upload_policy(scope, deadline_offset);
}

std::string small_png() {
  cv::Mat img(40, 30, CV_8UC3, cv::Scalar(10, 200, 30));
  std::vector<uchar> out;
  cv::imencode(".png", img, out);
  return std::string(out.begin(), out.end());
}

std::string error_of(const rdtest::HttpReply& r) {
  boost::system::error_code ec;
  auto v = boost::json::parse(r.body, ec);
  if (ec || !v.is_object() || !v.as_object().contains("error"))
    return "<no error in: " + r.body + ">";
  return std::string(v.at("error").as_string());
}

std::vector<std::string> photo_files(const std::string& data_dir) {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(data_dir + "/photos", ec))
    if (e.path().filename().string().front() != '.')  // the storage's own records
      out.push_back(e.path().filename().string());
  return out;
}

class Storage : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = new rdtest::ServerProcess(
        {"--storage-access-key", kAk, "--storage-secret-key", kSk, "--storage-bucket", kBucket});
    ASSERT_TRUE(server_->ok()) << server_->startup_output();
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  static unsigned short port() { return server_->port(); }
  static rdtest::ServerProcess* server_;
};
rdtest::ServerProcess* Storage::server_ = nullptr;

TEST_F(Storage, TokenVerification) {
  const std::string jpeg = sample_jpeg();
  ASSERT_GT(jpeg.size(), 1000u);
  auto try_token = [&](const std::string& token, const std::string& key) {
    return upload(port(), {{"key", key}, {"token", token}, {"file", jpeg, true}});
  };

  auto good = try_token(make_token(policy(kBucket)), "good.jpeg");
  EXPECT_EQ(good.status, 200) << good.body;

  auto expired = try_token(make_token(policy(kBucket, -10)), "expired.jpeg");
  EXPECT_EQ(expired.status, 401);
  EXPECT_EQ(error_of(expired), "expired token");

  auto wrong_secret = try_token(make_token(policy(kBucket), kAk, "not-the-secret"), "ws.jpeg");
  EXPECT_EQ(wrong_secret.status, 401);
  auto unknown_key = try_token(make_token(policy(kBucket), "someone-else", kSk), "uk.jpeg");
  EXPECT_EQ(unknown_key.status, 401);

  auto wrong_bucket = try_token(make_token(policy("other-bucket")), "wb.jpeg");
  EXPECT_EQ(wrong_bucket.status, 631);
  EXPECT_EQ(error_of(wrong_bucket), "no such bucket");

  // A policy swapped for another (later deadline, other bucket) after signing.
  std::string token = make_token(policy(kBucket, -10));
  std::string tampered = token.substr(0, token.rfind(':') + 1) + b64url(policy(kBucket, 86400));
  EXPECT_EQ(try_token(tampered, "tp.jpeg").status, 401);

  for (const std::string& bad :
       {std::string(), std::string("garbage"), std::string("a:b"),
        kAk + "::", kAk + ":!!!!:" + b64url(policy(kBucket)), make_token("not json"),
        make_token("{\"scope\":\"" + kBucket + "\"}"), make_token("{\"deadline\":99999999999}"),
        make_token("[1,2]")}) {
    auto r = try_token(bad, "malformed.jpeg");
    EXPECT_EQ(r.status, 401) << "token '" << bad << "': " << r.body;
    EXPECT_NE(error_of(r).rfind("<no error", 0), 0u);
  }
  // A missing token field is refused too.
  EXPECT_EQ(upload(port(), {{"key", "nt.jpeg"}, {"file", jpeg, true}}).status, 401);

  // Only the good upload left a file behind.
  EXPECT_EQ(photo_files(server_->data_dir()), std::vector<std::string>{"good.jpeg"});
}

TEST_F(Storage, UploadThenDownloadByteForByte) {
  const std::string jpeg = sample_jpeg();
  auto up = upload(port(), {{"key", "abc123.jpeg"},
                            {"token", make_token(policy(kBucket))},
                            {"x:note", "ignored"},
                            {"file", jpeg, true}});
  ASSERT_EQ(up.status, 200) << up.body;
  auto reply = boost::json::parse(up.body).as_object();
  EXPECT_EQ(reply.at("key").as_string(), "abc123.jpeg");
  std::string hash(reply.at("hash").as_string());
  EXPECT_EQ(hash.size(), 28u);

  // The URL the app makes: prefix + key + "?attname=".
  auto got = rdtest::http_request(port(), "GET", "/files/abc123.jpeg?attname=");
  ASSERT_EQ(got.status, 200);
  EXPECT_EQ(got.body, jpeg);
  EXPECT_EQ(got.header("Content-Type"), "image/jpeg");
  EXPECT_EQ(got.header("Content-Length"), std::to_string(jpeg.size()));
  EXPECT_EQ(got.header("ETag"), "\"" + hash + "\"");
  EXPECT_EQ(got.header("Cache-Control"), "public, no-cache");  // no item uses it yet
  EXPECT_EQ(got.header("Content-Disposition"), "");

  auto again = rdtest::http_request(port(), "GET", "/files/abc123.jpeg", {},
                                    {{"If-None-Match", "\"" + hash + "\""}});
  EXPECT_EQ(again.status, 304);
  EXPECT_TRUE(again.body.empty());

  // The name is decoded from the query ("+" is a space) and encoded again.
  auto named = rdtest::http_request(port(), "GET", "/files/abc123.jpeg?attname=my+%E7%85%A7.jpg");
  EXPECT_EQ(named.header("Content-Disposition"), "attachment; filename*=UTF-8''my%20%E7%85%A7.jpg");

  auto head = rdtest::http_request(port(), "HEAD", "/files/abc123.jpeg");
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.header("Content-Length"), std::to_string(jpeg.size()));

  // PNG, and no key: the content hash names the object.
  const std::string png = small_png();
  auto up_png = upload(port(), {{"token", make_token(policy(kBucket))}, {"file", png, true}});
  ASSERT_EQ(up_png.status, 200) << up_png.body;
  auto png_reply = boost::json::parse(up_png.body).as_object();
  EXPECT_EQ(png_reply.at("key"), png_reply.at("hash"));
  auto got_png =
      rdtest::http_request(port(), "GET", "/files/" + std::string(png_reply.at("key").as_string()));
  EXPECT_EQ(got_png.body, png);
  EXPECT_EQ(got_png.header("Content-Type"), "image/png");

  EXPECT_EQ(rdtest::http_request(port(), "GET", "/files/never-uploaded.jpeg").status, 404);
}

TEST_F(Storage, ExistingKeysAreReplacedOnlyUnderTheirOwnScope) {
  const std::string jpeg = sample_jpeg(), png = small_png();
  std::string token = make_token(policy(kBucket));
  ASSERT_EQ(upload(port(), {{"key", "k1.jpeg"}, {"token", token}, {"file", jpeg, true}}).status,
            200);
  auto second = upload(port(), {{"key", "k1.jpeg"}, {"token", token}, {"file", png, true}});
  EXPECT_EQ(second.status, 614);
  EXPECT_EQ(error_of(second), "file exists");
  EXPECT_EQ(rdtest::http_request(port(), "GET", "/files/k1.jpeg").body, jpeg);

  // "bucket:key" fixes the key: no key field takes it, another key is
  // refused, and the same key again replaces the file.
  std::string fixed = make_token(policy(kBucket + ":fixed.png"));
  auto other = upload(port(), {{"key", "other.png"}, {"token", fixed}, {"file", png, true}});
  EXPECT_EQ(other.status, 403);
  auto up = upload(port(), {{"token", fixed}, {"file", png, true}});
  ASSERT_EQ(up.status, 200) << up.body;
  EXPECT_EQ(boost::json::parse(up.body).at("key").as_string(), "fixed.png");
  ASSERT_EQ(upload(port(), {{"token", fixed}, {"file", jpeg, true}}).status, 200);
  auto replaced = rdtest::http_request(port(), "GET", "/files/fixed.png");
  EXPECT_EQ(replaced.body, jpeg);
  EXPECT_EQ(replaced.header("Cache-Control"), "public, no-cache");  // not published: may change
}

// Any UTF-8 key: kept inside the photo folder under a name of its own, and
// served back under its URL-encoded path.
TEST_F(Storage, AnyUtf8KeyIsSafeOnDiskAndInUrls) {
  const std::string token = make_token(policy(kBucket));
  std::string long_key;
  while (long_key.size() + 3 <= 750) long_key += "照";
  const std::vector<std::string> keys = {"../escape.jpeg",   "a/b.jpeg", "a%2Fb.jpeg", ".hidden",
                                         "sp ace 照片.jpeg", "q?x=1#f",  long_key};
  std::vector<std::string> bodies;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    // A distinct photo per key, so that a collision would show.
    cv::Mat img(20, 20 + static_cast<int>(i), CV_8UC3,
                cv::Scalar(static_cast<double>(i * 30), 0, 0));
    std::vector<uchar> out;
    cv::imencode(".png", img, out);
    bodies.emplace_back(out.begin(), out.end());
    auto r = upload(port(), {{"key", keys[i]}, {"token", token}, {"file", bodies[i], true}});
    ASSERT_EQ(r.status, 200) << keys[i] << ": " << r.body;
    EXPECT_EQ(boost::json::parse(r.body).at("key").as_string(), keys[i]);
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    std::string path;
    for (unsigned char c : keys[i]) {
      static constexpr char hex[] = "0123456789ABCDEF";
      if (std::isalnum(c) || c == '/' || c == '.' || c == '-')
        path += static_cast<char>(c);
      else
        path += std::string("%") + hex[c >> 4] + hex[c & 15];
    }
    auto got = rdtest::http_request(port(), "GET", "/files/" + path);
    EXPECT_EQ(got.status, 200) << keys[i];
    EXPECT_EQ(got.body, bodies[i]) << keys[i];
  }
  // Nothing outside the photo folder, no folders or hidden files in it.
  EXPECT_FALSE(std::filesystem::exists(server_->data_dir() + "/escape.jpeg"));
  for (const auto& e : std::filesystem::directory_iterator(server_->data_dir() + "/photos"))
    if (e.is_directory()) {
      EXPECT_EQ(e.path().filename().string().front(), '.') << e.path();
    }
}

TEST_F(Storage, BadFilesAndKeysAreRefusedAndLeaveNothing) {
  auto before = photo_files(server_->data_dir());
  std::string token = make_token(policy(kBucket));

  auto not_photo = upload(port(), {{"key", "a.txt"}, {"token", token}, {"file", "hello", true}});
  EXPECT_EQ(not_photo.status, 400);
  std::string jpeg = sample_jpeg();
  // Cut off (its last rows would decode grey), or with something after its
  // real end, also when that ends in an end marker of its own (a polyglot).
  for (const std::string& bad :
       {jpeg.substr(0, 300), jpeg.substr(0, jpeg.size() - 40),
        jpeg + "<?php system($_GET['c']); ?>", jpeg + "<?php system($_GET['c']); ?>\xFF\xD9",
        small_png() + "<script>alert(1)</script>"}) {
    auto r = upload(port(), {{"key", "t.jpeg"}, {"token", token}, {"file", bad, true}});
    EXPECT_EQ(r.status, 400) << bad.size() << " bytes: " << r.body;
  }
  EXPECT_EQ(upload(port(), {{"key", "nofile.jpeg"}, {"token", token}}).status, 400);

  // Over the byte limit (the body itself stays within what the route reads).
  std::string big = jpeg + std::string(rd::storage::kMaxPhotoBytes + 1 - jpeg.size(), '\0');
  auto too_big = upload(port(), {{"key", "big.jpeg"}, {"token", token}, {"file", big, true}});
  EXPECT_EQ(too_big.status, 413) << too_big.body;

  // A small PNG whose header claims 3000 x 3000 pixels (more than any
  // client sends).
  std::string bomb = small_png();
  const unsigned char side[4] = {0x00, 0x00, 0x0b, 0xb8};
  bomb.replace(16, 4, reinterpret_cast<const char*>(side), 4);
  bomb.replace(20, 4, reinterpret_cast<const char*>(side), 4);
  auto pixels = upload(port(), {{"key", "bomb.png"}, {"token", token}, {"file", bomb, true}});
  EXPECT_EQ(pixels.status, 413) << pixels.body;

  // Keys that are not UTF-8, empty or too long.
  for (std::string key : {std::string(), std::string("\xFF\xFE.jpeg"), std::string("\xC0\xAF"),
                          std::string(751, 'k')}) {
    auto r = upload(port(), {{"key", key}, {"token", token}, {"file", jpeg, true}});
    EXPECT_EQ(r.status, 400) << "key '" << key << "'";
  }
  EXPECT_EQ(photo_files(server_->data_dir()), before);

  // Downloads that try to leave the photo folder.
  std::ofstream(server_->data_dir() + "/secret.txt") << "not a photo";
  for (std::string target : {"/files/../secret.txt", "/files/..%2Fsecret.txt",
                             "/files/%2e%2e/secret.txt", "/files/.tmp-x", "/files/"}) {
    auto r = rdtest::http_request(port(), "GET", target);
    EXPECT_TRUE(r.status == 400 || r.status == 404) << target << " -> " << r.status;
    EXPECT_EQ(r.body.find("not a photo"), std::string::npos) << target;
  }
}

TEST(StorageBackup, PrimaryFailsThenBackupTakesTheUpload) {
  rdtest::ServerProcess server({"--storage-access-key", kAk, "--storage-secret-key", kSk,
                                "--storage-bucket", kBucket, "--storage-fail-primary", "503"});
  ASSERT_TRUE(server.ok()) << server.startup_output();
  const std::string jpeg = sample_jpeg();
  std::vector<Field> form = {
      {"key", "retry.jpeg"}, {"token", make_token(policy(kBucket))}, {"file", jpeg, true}};
  auto primary = upload(server.port(), form, "/upload");
  EXPECT_EQ(primary.status, 503);
  EXPECT_TRUE(photo_files(server.data_dir()).empty());
  auto backup = upload(server.port(), form, "/upload-backup");
  ASSERT_EQ(backup.status, 200) << backup.body;
  EXPECT_EQ(rdtest::http_request(server.port(), "GET", "/files/retry.jpeg").body, jpeg);
}

TEST(StorageFiles, PhotosOfUrlsAndAtomicPut) {
  rdtest::TempDir dir;
  rd::storage::PhotoFiles files(dir.path() + "/photos", "http://127.0.0.1:9/files/",
                                "http://example.test/files/");
  using Put = rd::storage::PhotoFiles::Put;
  EXPECT_EQ(files.put("a.jpeg", "one"), Put::Stored);
  EXPECT_EQ(files.put("a.jpeg", "two"), Put::Exists);
  EXPECT_EQ(*files.read("a.jpeg"), "one");
  EXPECT_EQ(files.put("b.jpeg", "x"), Put::Stored);
  EXPECT_EQ(files.put("", "x"), Put::Failed);
  EXPECT_EQ(files.put("../c.jpeg", "x"), Put::Stored);  // a name like any other
  EXPECT_FALSE(std::filesystem::exists(dir.path() + "/c.jpeg"));
  EXPECT_TRUE(files.remove("../c.jpeg"));

  auto key = [&](const std::string& url) {
    auto ref = files.photo_of_url(url);
    return ref && ref->local ? ref->key : std::string("-");
  };
  EXPECT_EQ(key("http://elsewhere/files/a.jpeg"), "-");
  EXPECT_EQ(key("http://127.0.0.1:9/files/%FF.jpeg"), "-");
  EXPECT_EQ(key("http://127.0.0.1:9/files/a.jpeg?attname="), "a.jpeg");
  EXPECT_EQ(key("http://example.test/files/b.jpeg"), "b.jpeg");  // the app's build prefix
  EXPECT_TRUE(files.remove("a.jpeg"));
  EXPECT_FALSE(files.read("a.jpeg"));
  EXPECT_FALSE(files.remove("a.jpeg"));  // already gone

  // With the outside storage, only its prefix names photos, and none of them are here.
  rd::storage::PhotoFiles outside(dir.path() + "/photos", "http://127.0.0.1:9/files/",
                                  "https://cdn.example.com/", true);
  EXPECT_FALSE(outside.photo_of_url("http://127.0.0.1:9/files/b.jpeg"));
  auto ref = outside.photo_of_url("https://cdn.example.com/dir/k.jpeg?attname=");
  ASSERT_TRUE(ref);
  EXPECT_EQ(ref->key, "dir/k.jpeg");
  EXPECT_FALSE(ref->local);
  EXPECT_FALSE(outside.photo_of_url("https://cdn.example.com/?attname="));
  EXPECT_FALSE(outside.photo_of_url("https://cdn.example.com/a b.jpeg"));
  EXPECT_TRUE(files.remove("b.jpeg"));

  // No temporary files are left behind; stale ones vanish at start.
  std::ofstream(dir.path() + "/photos/.tmp-abc") << "half";
  rd::storage::PhotoFiles reopened(dir.path() + "/photos", "http://h/files/");
  EXPECT_TRUE(photo_files(dir.path()).empty());
}

}  // namespace
