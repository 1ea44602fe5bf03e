// The photo storage against an uploader who never publishes: unpublished
// uploads are bounded per address block and removed after their time, a
// published photo stays, and when the disk runs low the photo store refuses
// while accounts, comments, likes and feedback go on.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>

#include "BuildConfig.h"
#include "api_testing.h"
#include "storage_testing.h"

namespace {

namespace fs = std::filesystem;
using rdtest::ApiServer;

// A photo of about `kb` KB that no other call makes (noise from `seed`).
std::string noise_jpeg(int seed, int side = 180) {
  cv::Mat img(side, side, CV_8UC3);
  cv::theRNG().state = static_cast<std::uint64_t>(seed) + 1;
  cv::randu(img, cv::Scalar::all(0), cv::Scalar::all(255));
  std::vector<uchar> out;
  cv::imencode(".jpg", img, out, {cv::IMWRITE_JPEG_QUALITY, 95});
  return std::string(out.begin(), out.end());
}

rdtest::HttpReply upload_as_app(unsigned short port, const std::string& key,
                                const std::string& bytes) {
  auto token =
      rdtest::make_upload_token(rdtest::upload_policy(rd::build::kStorageBucket),
                                rd::build::kStorageAccessKey, rd::build::kStorageSecretKey);
  return rdtest::upload(port, {{"key", key}, {"token", token}, {"file", bytes, true}});
}

std::size_t photo_count(const std::string& data_dir) {
  std::size_t n = 0;
  for (const auto& e : fs::directory_iterator(data_dir + "/photos"))
    if (e.is_regular_file() && e.path().filename().string().front() != '.') ++n;
  return n;
}

TEST(StorageLimits, UnpublishedUploadsAreBoundedPerBlockAndSweptButPublishedOnesStay) {
  ApiServer s("sqlite",
              {"--storage-unpublished-per-block", "3", "--storage-unpublished-seconds", "2"});
  RD_REQUIRE_SERVER(s);
  const unsigned short port = s.process().port();
  const std::string user = s.register_user("13800138300");

  // One is published at once; three more fill the block's room.
  const std::string published = s.upload_photo(noise_jpeg(1));
  ASSERT_FALSE(s.call("rd_add_item", {{"user_id", user},
                                      {"base_image_url", published},
                                      {"num_look_score", 5000},
                                      {"description", "留下"},
                                      {"is_enabled_photo", true}})
                   .is_error());
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(upload_as_app(port, "loose" + std::to_string(i) + ".jpeg", noise_jpeg(10 + i)).status,
              200);
  auto over = upload_as_app(port, "one-too-many.jpeg", noise_jpeg(20));
  EXPECT_EQ(over.status, 429) << over.body;
  EXPECT_EQ(photo_count(s.process().data_dir()), 4u);
  EXPECT_EQ(rdtest::http_request(port, "GET", "/files/one-too-many.jpeg").status, 404);

  // Never published: gone after their time, which frees the block's room;
  // the published photo stays and its item still shows it.
  ASSERT_TRUE(rdtest::wait_until([&] { return photo_count(s.process().data_dir()) == 1; }, 20000));
  EXPECT_EQ(rdtest::http_request(port, "GET", "/files/loose0.jpeg").status, 404);
  EXPECT_EQ(rdtest::http_request(port, "GET", published.substr(published.find("/files/"))).status,
            200);
  EXPECT_EQ(upload_as_app(port, "later.jpeg", noise_jpeg(21)).status, 200);
}

// A small file system of its own (tmpfs, so root only) for the data folder.
class SmallDisk {
 public:
  explicit SmallDisk(const std::string& dir, const char* size) : dir_(dir) {
    fs::create_directories(dir);
    mounted_ =
        ::mount("tmpfs", dir.c_str(), "tmpfs", 0, (std::string("size=") + size).c_str()) == 0;
  }
  ~SmallDisk() {
    if (mounted_) ::umount2(dir_.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }

 private:
  std::string dir_;
  bool mounted_ = false;
};

TEST(StorageLimits, AFullPhotoStoreLeavesRoomForAccountsAndItems) {
  rdtest::TempDir base;
  SmallDisk disk(base.path() + "/data", "8m");
  if (!disk.mounted()) GTEST_SKIP() << "mounting a small tmpfs needs root";
  const std::string data = base.path() + "/data";
  ApiServer s("sqlite:" + data + "/rongdian.db", data,
              {"--trust-claimed-scores", "--storage-reserve-mb", "3",
               "--storage-unpublished-per-block", "1000", "--feedback-rate", "0"});
  ASSERT_TRUE(s.process().ok()) << s.process().startup_output();
  const unsigned short port = s.process().port();
  const std::string owner = s.register_user("13800138310");
  const std::string item = s.add_item(owner, 5000);
  ASSERT_FALSE(item.empty());

  // Uploads of about 100 KB until the photo store says it is full: it does
  // so with a clear error before the disk is.
  int stored = 0;
  rdtest::HttpReply last;
  for (int i = 0; i < 200; ++i) {
    last = upload_as_app(port, "fill" + std::to_string(i) + ".jpeg", noise_jpeg(100 + i));
    if (last.status != 200) break;
    ++stored;
  }
  EXPECT_EQ(last.status, 507) << last.body;
  EXPECT_NE(last.body.find("full"), std::string::npos) << last.body;
  EXPECT_GT(stored, 10);

  // Everything else that writes still works.
  const std::string guest = s.register_user("13800138311", "secret", "路人");
  ASSERT_FALSE(guest.empty());
  auto comment =
      s.call("rd_add_comments", {{"item_id", item}, {"user_id", guest}, {"comments", "真好看呀"}});
  EXPECT_FALSE(comment.is_error()) << boost::json::serialize(comment.body);
  auto like = s.call("rd_like_item", {{"item_id", item}, {"user_id", guest}, {"is_liked", true}});
  EXPECT_FALSE(like.is_error()) << boost::json::serialize(like.body);
  auto feedback = rdtest::upload(port, {{"text", "照片传不上去了"}}, "/feedback");
  EXPECT_EQ(feedback.status, 200) << feedback.body;
  EXPECT_EQ(rdtest::http_request(port, "GET", "/healthz").status, 200);
}

}  // namespace

namespace {

// The server's own score of a stored photo is kept beside it: the photo is
// decoded once, however often items are tried on it. (The note is changed by
// hand here; the next publish believes it, so the photo was not scored again.)
TEST(StoredPhotos, AreScoredOnceAndThenReadFromTheirNote) {
  ApiServer s("sqlite", {"--trust-claimed-scores=0"});
  RD_REQUIRE_SERVER(s);
  const std::string user = s.register_user("13800138320");
  const std::string url =
      s.upload_photo(rdtest::read_file(std::string(RD_MODELS_DIR) + "/demo/sample2.jpg"));
  auto publish = [&](std::int64_t score) {
    return s.call("rd_add_item", {{"user_id", user},
                                  {"base_image_url", url},
                                  {"num_look_score", score},
                                  {"description", "一次"},
                                  {"is_enabled_photo", true}});
  };
  EXPECT_EQ(publish(1).error(), "score_mismatch");
  const fs::path notes = fs::path(s.process().data_dir()) / "photos" / ".notes";
  std::vector<fs::path> files;
  for (const auto& e : fs::directory_iterator(notes)) files.push_back(e.path());
  ASSERT_EQ(files.size(), 1u);
  std::string hash;
  std::ifstream(files[0]) >> hash;
  ASSERT_EQ(hash.size(), 28u);
  std::ofstream(files[0], std::ios::trunc) << hash << " 0 1";
  auto published = publish(1);
  EXPECT_FALSE(published.is_error()) << boost::json::serialize(published.body);
}

}  // namespace
