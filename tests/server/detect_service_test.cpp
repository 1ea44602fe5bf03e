// The detection web service in a real rongdian-server process.
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "engine/TestFiles.h"
#include "server/storage_testing.h"
#include "support/ServerProcess.h"

namespace json = boost::json;

namespace {

const char* kQuery = "api_key=rongdian-dev-key&api_secret=rongdian-dev-secret";

rdtest::HttpReply post_image(unsigned short port, const std::string& query,
                             const std::string& image, const std::string& part = "img") {
  const std::string boundary = "Boundary-1b4e28ba-2fa1-11d2-883f-0016d3cca427";
  std::string body = "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + part +
                     "\"; filename=\"image.jpeg\"\r\nContent-Type: image/jpeg\r\n\r\n" + image +
                     "\r\n--" + boundary + "--\r\n";
  return rdtest::http_request(port, "POST", "/v2/detection/detect?" + query, body,
                              {{"Content-Type", "multipart/form-data; boundary=" + boundary}});
}

// Status and error code of an error answer.
std::pair<int, long long> error_of(const rdtest::HttpReply& r) {
  auto v = json::parse(r.body).as_object();
  EXPECT_TRUE(v.contains("error")) << r.body;
  return {r.status, v.at("error_code").as_int64()};
}

// A client of the service's v2 "detection/detect" as its public
// documentation describes it: arguments in the query (GET), or as the fields
// of a POST form, urlencoded or multipart with the photo as "img".
struct V2Client {
  unsigned short port;
  std::string key = "rongdian-dev-key", secret = "rongdian-dev-secret";

  std::vector<std::pair<std::string, std::string>> with_keys(
      std::vector<std::pair<std::string, std::string>> args) const {
    args.insert(args.begin(), {{"api_key", key}, {"api_secret", secret}});
    return args;
  }
  static std::string encoded(const std::vector<std::pair<std::string, std::string>>& args) {
    std::string out;
    for (const auto& [k, v] : args) {
      out += out.empty() ? "" : "&";
      out += k + "=";
      for (unsigned char c : v) {
        static constexpr char hex[] = "0123456789ABCDEF";
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.')
          out += static_cast<char>(c);
        else
          out += std::string("%") + hex[c >> 4] + hex[c & 15];
      }
    }
    return out;
  }
  rdtest::HttpReply get(std::vector<std::pair<std::string, std::string>> args) const {
    return rdtest::http_request(port, "GET", "/v2/detection/detect?" + encoded(with_keys(args)));
  }
  rdtest::HttpReply post_form(std::vector<std::pair<std::string, std::string>> args) const {
    return rdtest::http_request(port, "POST", "/v2/detection/detect", encoded(with_keys(args)),
                                {{"Content-Type", "application/x-www-form-urlencoded"}});
  }
  rdtest::HttpReply post_multipart(std::vector<std::pair<std::string, std::string>> args,
                                   const std::string& img) const {
    std::vector<rdtest::FormField> fields;
    for (const auto& [k, v] : with_keys(args)) fields.push_back({k, v});
    fields.push_back({"img", img, true});
    return rdtest::upload(port, fields, "/v2/detection/detect");
  }
};

const char* kAk = "detect-test-ak";
const char* kSk = "detect-test-sk";

class DetectService : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = new rdtest::ServerProcess(
        {"--storage-access-key", kAk, "--storage-secret-key", kSk, "--storage-bucket", "b"});
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  static rdtest::ServerProcess* server_;
};
rdtest::ServerProcess* DetectService::server_ = nullptr;

}  // namespace

TEST_F(DetectService, AnswersARealPhotoWithTheFaceFields) {
  ASSERT_TRUE(server_->ok()) << server_->startup_output();
  auto r = post_image(server_->port(),
                      std::string(kQuery) + "&mode=normal&attribute=age,race,gender,smiling&tag=t1",
                      rdtest::read_bytes(rdtest::sample_path(2)));
  ASSERT_EQ(r.status, 200) << r.body;
  auto v = json::parse(r.body).as_object();
  EXPECT_EQ(v.at("img_width").as_int64(), 1920);
  EXPECT_EQ(v.at("img_height").as_int64(), 1367);
  EXPECT_EQ(v.at("img_id").as_string().size(), 32u);
  EXPECT_EQ(v.at("session_id").as_string().size(), 32u);
  auto& faces = v.at("face").as_array();
  ASSERT_EQ(faces.size(), 1u);
  auto& f = faces[0].as_object();
  EXPECT_EQ(f.at("face_id").as_string().size(), 32u);
  EXPECT_EQ(f.at("tag").as_string(), "t1");
  auto& attr = f.at("attribute").as_object();
  EXPECT_FALSE(attr.contains("race"));  // not estimated, left out
  EXPECT_TRUE(attr.at("age").at("value").is_int64());
  EXPECT_GE(attr.at("age").at("range").as_int64(), 2);
  const std::string gender(attr.at("gender").at("value").as_string());
  EXPECT_TRUE(gender == "Male" || gender == "Female");
  const double conf = attr.at("gender").at("confidence").to_number<double>();
  EXPECT_GE(conf, 50.0);
  EXPECT_LE(conf, 100.0);
  const double smile = attr.at("smiling").at("value").to_number<double>();
  EXPECT_GE(smile, 0.0);
  EXPECT_LE(smile, 100.0);
  auto& pos = f.at("position").as_object();
  auto num = [&](const char* a, const char* b) { return pos.at(a).at(b).to_number<double>(); };
  for (const char* k : {"center", "eye_left", "eye_right", "mouth_left", "mouth_right", "nose"}) {
    EXPECT_GT(num(k, "x"), 0.0) << k;
    EXPECT_LT(num(k, "x"), 100.0) << k;
    EXPECT_GT(num(k, "y"), 0.0) << k;
    EXPECT_LT(num(k, "y"), 100.0) << k;
  }
  EXPECT_LT(num("eye_left", "x"), num("eye_right", "x"));
  EXPECT_LT(num("mouth_left", "x"), num("mouth_right", "x"));
  EXPECT_GT(pos.at("width").to_number<double>(), 5.0);
  // The photo's face is in its upper right part.
  EXPECT_GT(num("center", "x"), 50.0);
  EXPECT_LT(num("center", "y"), 50.0);
  // Plain decimals in the text.
  EXPECT_EQ(r.body.find("E1"), std::string::npos) << r.body;
}

TEST_F(DetectService, ModesAndAttributes) {
  const std::string photo = rdtest::read_bytes(rdtest::sample_path(5));
  auto all = post_image(server_->port(), std::string(kQuery) + "&attribute=none", photo);
  ASSERT_EQ(all.status, 200) << all.body;
  auto faces = json::parse(all.body).at("face").as_array();
  ASSERT_EQ(faces.size(), 5u);
  EXPECT_TRUE(faces[0].at("attribute").as_object().empty());
  EXPECT_EQ(faces[0].at("tag").as_string(), "");

  auto one =
      post_image(server_->port(), std::string(kQuery) + "&mode=oneface&attribute=gender", photo);
  ASSERT_EQ(one.status, 200) << one.body;
  auto only = json::parse(one.body).at("face").as_array();
  ASSERT_EQ(only.size(), 1u);
  double largest = 0;
  for (auto& f : faces)
    largest = std::max(largest, f.at("position").at("width").to_number<double>() *
                                    f.at("position").at("height").to_number<double>());
  EXPECT_DOUBLE_EQ(only[0].at("position").at("width").to_number<double>() *
                       only[0].at("position").at("height").to_number<double>(),
                   largest);
  auto& attr = only[0].at("attribute").as_object();
  EXPECT_TRUE(attr.contains("gender"));
  EXPECT_FALSE(attr.contains("age"));
  EXPECT_FALSE(attr.contains("smiling"));

  EXPECT_EQ(error_of(post_image(server_->port(), std::string(kQuery) + "&mode=many", photo)),
            (std::pair<int, long long>{400, 1005}));
  EXPECT_EQ(
      error_of(post_image(server_->port(), std::string(kQuery) + "&attribute=age,hair", photo)),
      (std::pair<int, long long>{400, 1005}));
}

TEST_F(DetectService, ErrorsAreJsonAndTheServerStaysUp) {
  const unsigned short port = server_->port();
  const std::string jpeg = rdtest::read_bytes(rdtest::sample_path(2));
  using P = std::pair<int, long long>;
  EXPECT_EQ(error_of(post_image(port, "api_key=rongdian-dev-key&api_secret=nope", jpeg)),
            (P{401, 1004}));
  EXPECT_EQ(error_of(post_image(port, "api_secret=rongdian-dev-secret", jpeg)), (P{401, 1004}));
  EXPECT_EQ(error_of(post_image(port, std::string(kQuery) + "&url=http://example.com/a.jpg", "")),
            (P{400, 1301}));
  EXPECT_EQ(error_of(post_image(port, kQuery, jpeg, "photo")), (P{400, 1305}));
  EXPECT_EQ(
      error_of(rdtest::http_request(port, "POST", std::string("/v2/detection/detect?") + kQuery,
                                    "x", {{"Content-Type", "text/plain"}})),
      (P{400, 1305}));
  EXPECT_EQ(error_of(post_image(port, kQuery, "GIF89a not really")), (P{400, 1300}));
  EXPECT_EQ(error_of(post_image(port, kQuery, jpeg.substr(0, jpeg.size() / 2))), (P{400, 1303}));
  EXPECT_EQ(error_of(post_image(port, kQuery, rdtest::png_claiming(50000, 50000))), (P{413, 1302}));
  EXPECT_EQ(error_of(post_image(port, kQuery, rdtest::jpeg_claiming(jpeg, 10000, 10000))),
            (P{413, 1302}));
  EXPECT_EQ(error_of(post_image(port, kQuery, "\xff\xd8\xff" + std::string(11 << 20, 'x'))),
            (P{413, 1302}));
  EXPECT_EQ(error_of(post_image(port, kQuery, std::string(20 << 20, 'x'))), (P{413, 1302}));
  EXPECT_EQ(error_of(post_image(port, kQuery, rdtest::png_claiming(30, 30))), (P{400, 1304}));

  auto health = rdtest::http_request(port, "GET", "/healthz");
  EXPECT_EQ(health.status, 200);
  EXPECT_EQ(post_image(port, kQuery, jpeg).status, 200);
}

TEST_F(DetectService, ArgumentsAsFormFieldsAndPhotosOfTheOwnStorageByUrl) {
  const V2Client client{server_->port()};
  const std::string jpeg = rdtest::read_bytes(rdtest::sample_path(2));
  auto multipart = client.post_multipart({{"mode", "oneface"}, {"attribute", "age"}}, jpeg);
  ASSERT_EQ(multipart.status, 200) << multipart.body;
  auto answer = json::parse(multipart.body).as_object();
  EXPECT_TRUE(answer.at("url").is_null());
  EXPECT_EQ(answer.at("face").as_array().size(), 1u);

  // A photo of this server's own storage, by its address.
  auto up = rdtest::upload(
      server_->port(), {{"key", "相册/me.jpg"},
                        {"token", rdtest::make_upload_token(rdtest::upload_policy("b"), kAk, kSk)},
                        {"file", jpeg, true}});
  ASSERT_EQ(up.status, 200) << up.body;
  const std::string url = server_->url() + "/files/%E7%9B%B8%E5%86%8C/me.jpg";
  for (const auto& r : {client.get({{"url", url}, {"attribute", "gender"}}),
                        client.post_form({{"url", url}, {"attribute", "gender"}})}) {
    ASSERT_EQ(r.status, 200) << r.body;
    auto v = json::parse(r.body).as_object();
    EXPECT_EQ(v.at("url").as_string(), url);
    EXPECT_EQ(v.at("img_width").as_int64(), 1920);
    EXPECT_EQ(v.at("face").as_array().size(), 1u);
  }

  // Any other address is refused with the service's download error (the
  // server fetches nothing).
  for (const std::string& elsewhere :
       {std::string("http://example.com/a.jpg"), std::string("http://169.254.169.254/latest"),
        server_->url() + "/files/never-uploaded.jpg", server_->url() + "/healthz",
        std::string("file:///etc/passwd")})
    EXPECT_EQ(error_of(client.get({{"url", elsewhere}})), (std::pair<int, long long>{400, 1301}))
        << elsewhere;

  // Every refusal carries the service's error fields.
  V2Client wrong = client;
  wrong.secret = "nope";
  EXPECT_EQ(error_of(wrong.post_form({{"url", url}})), (std::pair<int, long long>{401, 1004}));
  EXPECT_EQ(error_of(rdtest::http_request(server_->port(), "GET", "/v2/detection/detect")),
            (std::pair<int, long long>{401, 1004}));
  EXPECT_EQ(error_of(client.get({})), (std::pair<int, long long>{400, 1305}));
  EXPECT_EQ(error_of(rdtest::http_request(
                server_->port(), "PUT",
                "/v2/detection/detect?" + V2Client::encoded(client.with_keys({})))),
            (std::pair<int, long long>{405, 1005}));
}

// Ordinary phone photos are far over the decoded size: they are decoded
// reduced and answered in their own pixels' terms.
TEST_F(DetectService, PhonePhotosAreDecodedReduced) {
  const V2Client client{server_->port()};
  const std::string small = rdtest::read_bytes(rdtest::sample_path(2));
  auto base = json::parse(client.post_multipart({{"mode", "oneface"}}, small).body).as_object();
  ASSERT_EQ(base.at("face").as_array().size(), 1u);
  const auto& face = base.at("face").as_array()[0].at("position");
  const cv::Mat photo =
      cv::imdecode(std::vector<uchar>(small.begin(), small.end()), cv::IMREAD_COLOR);
  for (cv::Size size : {cv::Size(4032, 3024), cv::Size(3000, 3000)}) {
    cv::Mat big;
    cv::resize(photo, big, size, 0, 0, cv::INTER_CUBIC);
    auto r = client.post_multipart({{"mode", "oneface"}}, rdtest::encode(big, ".jpg"));
    ASSERT_EQ(r.status, 200) << r.body;
    auto v = json::parse(r.body).as_object();
    EXPECT_EQ(v.at("img_width").as_int64(), size.width);
    EXPECT_EQ(v.at("img_height").as_int64(), size.height);
    ASSERT_EQ(v.at("face").as_array().size(), 1u);
    const auto& pos = v.at("face").as_array()[0].at("position");
    for (const char* k : {"center", "nose", "eye_left", "mouth_right"})
      for (const char* axis : {"x", "y"})
        EXPECT_NEAR(pos.at(k).at(axis).to_number<double>(), face.at(k).at(axis).to_number<double>(),
                    1.5)
            << size << " " << k << "." << axis;
  }
}

TEST_F(DetectService, DecodeBombsAreRefusedBeforeDecoding) {
  const V2Client client{server_->port()};
  using P = std::pair<int, long long>;
  EXPECT_EQ(error_of(client.post_multipart({}, rdtest::jpeg_with_repeated_scan(512, 2000))),
            (P{413, 1302}));
  const std::string png = rdtest::encode(cv::Mat(64, 64, CV_8UC3, cv::Scalar(1, 2, 3)), ".png");
  EXPECT_EQ(error_of(client.post_multipart({}, rdtest::png_with_text_chunks(png, 200, 1 << 20))),
            (P{413, 1302}));
  EXPECT_EQ(rdtest::http_request(server_->port(), "GET", "/healthz").status, 200);
}

// Pose from the landmarks: a mirror image turns yaw and roll the other way,
// a turned photo adds its angle to the roll.
TEST_F(DetectService, PoseFromTheLandmarks) {
  const V2Client client{server_->port()};
  const std::string jpeg = rdtest::read_bytes(rdtest::sample_path(2));
  const cv::Mat photo =
      cv::imdecode(std::vector<uchar>(jpeg.begin(), jpeg.end()), cv::IMREAD_COLOR);
  auto pose_of = [&](const cv::Mat& img) {
    auto r = client.post_multipart({{"attribute", "pose,glass,race"}}, rdtest::encode(img, ".png"));
    EXPECT_EQ(r.status, 200) << r.body;
    auto v = json::parse(r.body).as_object();
    auto& attr = v.at("face").as_array().at(0).at("attribute").as_object();
    EXPECT_FALSE(attr.contains("glass"));
    auto angle = [&](const char* k) {
      return attr.at("pose").at(k).at("value").to_number<double>();
    };
    return std::array<double, 3>{angle("pitch_angle"), angle("roll_angle"), angle("yaw_angle")};
  };
  cv::Mat face = photo(cv::Rect(1000, 0, 920, 900)).clone();  // the one face, smaller file
  const auto straight = pose_of(face);
  for (double a : straight) EXPECT_LT(std::abs(a), 30.0);
  cv::Mat mirror;
  cv::flip(face, mirror, 1);
  const auto mirrored = pose_of(mirror);
  EXPECT_NEAR(mirrored[0], straight[0], 3.0);
  EXPECT_NEAR(mirrored[1], -straight[1], 3.0);
  EXPECT_NEAR(mirrored[2], -straight[2], 4.0);
  cv::Mat turned;
  cv::warpAffine(face, turned, cv::getRotationMatrix2D(cv::Point2f(460, 450), -20, 1.0),
                 face.size());
  EXPECT_NEAR(pose_of(turned)[1] - straight[1], 20.0, 4.0);  // clockwise in the image
}

TEST(DetectServiceWithoutModels, ServerStartsAndAnswers503) {
  rdtest::TempDir empty;
  rdtest::ServerProcess server({"--models", empty.path()});
  ASSERT_TRUE(server.ok()) << server.startup_output();
  EXPECT_EQ(rdtest::http_request(server.port(), "GET", "/healthz").status, 200);
  auto r = post_image(server.port(), kQuery, rdtest::read_bytes(rdtest::sample_path(2)));
  EXPECT_EQ(error_of(r), (std::pair<int, long long>{503, 1202}));
  EXPECT_NE(r.body.find("tiny_face_detector_model"), std::string::npos) << r.body;
}
