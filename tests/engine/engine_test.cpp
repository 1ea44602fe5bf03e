#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <thread>

#include "TestFiles.h"
#include "engine/FaceEngine.h"
#include "engine/ImageInput.h"
#include "engine/ModelWeights.h"
#include "support/ServerProcess.h"

namespace fs = std::filesystem;
using namespace rd::engine;

namespace {

const FaceEngine& shared_engine() {
  static FaceEngine engine(rdtest::models_dir());
  return engine;
}

void write(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary) << data;
}

}  // namespace

TEST(ModelWeights, ReadsAndDequantizesManifests) {
  rdtest::TempDir dir;
  // Two weights: uint8-quantized and float16.
  write(dir.path() + "/m-weights_manifest.json",
        R"([{"paths":["m.bin"],"weights":[
             {"name":"a","shape":[2,2],"dtype":"float32","quantization":{"dtype":"uint8","scale":0.5,"min":-1}},
             {"name":"b","shape":[2],"dtype":"float32","quantization":{"dtype":"float16"}}]}])");
  std::string bin = {0, 1, 2, static_cast<char>(255)};
  bin += std::string("\x00\x3c\x00\xc0", 4);  // 1.0, -2.0 in half precision, little endian
  write(dir.path() + "/m.bin", bin);
  auto w = ModelWeights::load(dir.path(), "m");
  const auto& a = w.get("a", 2);
  EXPECT_EQ(a.data, (std::vector<float>{-1.f, -0.5f, 0.f, 126.5f}));
  const auto& b = w.get("b", 1);
  EXPECT_EQ(b.data, (std::vector<float>{1.f, -2.f}));
  EXPECT_THROW(w.get("a", 4), ModelError);
  EXPECT_THROW(w.get("zzz", 1), ModelError);

  // A shard shorter or longer than the manifest says is refused.
  write(dir.path() + "/m.bin", bin.substr(0, 5));
  EXPECT_THROW(ModelWeights::load(dir.path(), "m"), ModelError);
  write(dir.path() + "/m.bin", bin + "x");
  EXPECT_THROW(ModelWeights::load(dir.path(), "m"), ModelError);
  write(dir.path() + "/m-weights_manifest.json", "{not json");
  EXPECT_THROW(ModelWeights::load(dir.path(), "m"), ModelError);
  EXPECT_THROW(ModelWeights::load(dir.path() + "/nowhere", "m"), ModelError);
}

TEST(FaceEngineSetup, MissingModelsGiveAClearError) {
  rdtest::TempDir dir;
  try {
    FaceEngine e(dir.path());
    FAIL() << "no error";
  } catch (const ModelError& e) {
    EXPECT_NE(std::string(e.what()).find("tiny_face_detector_model"), std::string::npos)
        << e.what();
  }
}

TEST(ImageHeader, ReadsSizeAndEndWithoutDecoding) {
  const std::string jpeg = rdtest::read_bytes(rdtest::sample_path(2));
  auto h = read_image_header(jpeg);
  EXPECT_EQ(h.format, ImageFormat::Jpeg);
  EXPECT_EQ(h.width, 1920);
  EXPECT_EQ(h.height, 1367);
  EXPECT_TRUE(h.complete);
  EXPECT_FALSE(read_image_header(jpeg.substr(0, jpeg.size() / 2)).complete);

  std::vector<unsigned char> png;
  cv::imencode(".png", cv::Mat(7, 5, CV_8UC3, cv::Scalar(1, 2, 3)), png);
  auto p = read_image_header(std::string(png.begin(), png.end()));
  EXPECT_EQ(p.format, ImageFormat::Png);
  EXPECT_EQ(p.width, 5);
  EXPECT_EQ(p.height, 7);
  EXPECT_TRUE(p.complete);
  EXPECT_EQ(read_image_header("GIF89a....").format, ImageFormat::Unknown);
  EXPECT_EQ(read_image_header("").format, ImageFormat::Unknown);
}

namespace {
// How decode_image() refuses the bytes (Empty, with a failure, when it takes them).
ImageError::Kind refusal(const std::string& bytes, const Limits& limits = {}) {
  try {
    decode_image(bytes, limits);
  } catch (const ImageError& e) {
    return e.kind;
  }
  ADD_FAILURE() << "accepted";
  return ImageError::Kind::Empty;
}
}  // namespace

TEST(ImageHeader, BadInputIsRefusedByKind) {
  auto kind_of = [](const std::string& bytes) { return refusal(bytes); };
  const std::string jpeg = rdtest::read_bytes(rdtest::sample_path(2));
  EXPECT_EQ(kind_of(""), ImageError::Kind::Empty);
  EXPECT_EQ(kind_of("hello, world"), ImageError::Kind::NotImage);
  EXPECT_EQ(kind_of(jpeg.substr(0, jpeg.size() - 1000)), ImageError::Kind::Truncated);
  EXPECT_EQ(kind_of(jpeg.substr(0, 30)), ImageError::Kind::Truncated);
  // Decompression bombs: refused from the header alone.
  EXPECT_EQ(kind_of(rdtest::png_claiming(60000, 60000)), ImageError::Kind::TooLarge);
  EXPECT_EQ(kind_of(rdtest::jpeg_claiming(jpeg, 9000, 9000)), ImageError::Kind::TooLarge);
  // A whole PNG whose data cannot be inflated.
  EXPECT_EQ(kind_of(rdtest::png_claiming(20, 20)), ImageError::Kind::Corrupt);
  Limits small;
  small.max_bytes = 1000;
  EXPECT_THROW(decode_image(jpeg, small), ImageError);
}

// Files that cost a decoder far more than their size suggests are refused
// from their structure; large phone photos are decoded reduced.
TEST(ImageHeader, DecodeWorkIsBoundedBeforeDecoding) {
  const Limits limits;
  auto kind_of = [](const std::string& bytes) { return refusal(bytes); };
  // A progressive JPEG with one scan repeated: the scans are counted, and
  // their work over the picture's blocks.
  const std::string ordinary = rdtest::jpeg_with_repeated_scan(512, 0);
  const ImageHeader plain = read_image_header(ordinary);
  EXPECT_TRUE(plain.progressive);
  EXPECT_GE(plain.scans, 6);
  EXPECT_LE(plain.scans, 12);
  EXPECT_EQ(plain.frame_blocks, 64 * 64 * 3 / 2);  // 4:2:0
  const std::string bomb = rdtest::jpeg_with_repeated_scan(512, 2000);
  const ImageHeader many = read_image_header(bomb);
  EXPECT_EQ(many.scans, plain.scans + 2000);
  EXPECT_TRUE(many.complete);
  EXPECT_EQ(many.end, bomb.size());
  EXPECT_NO_THROW(check_image(ordinary, limits));
  EXPECT_EQ(kind_of(bomb), ImageError::Kind::TooLarge);
  // Fewer scans, but each over a large picture.
  EXPECT_EQ(kind_of(rdtest::jpeg_with_repeated_scan(3000, 90)), ImageError::Kind::TooLarge);

  // A PNG's extra chunks are counted and never reach the decoder.
  const std::string png = rdtest::encode(cv::Mat(40, 30, CV_8UC3, cv::Scalar(9, 99, 199)), ".png");
  EXPECT_EQ(kind_of(rdtest::png_with_text_chunks(png, 200, 1000)), ImageError::Kind::TooLarge);
  const std::string texts = rdtest::png_with_text_chunks(png, 3, 64 << 20);
  EXPECT_EQ(read_image_header(texts).ancillary_chunks, 3);
  const cv::Mat decoded = decode_image(texts, limits);
  ASSERT_EQ(decoded.size(), cv::Size(30, 40));
  EXPECT_EQ(decoded.at<cv::Vec3b>(5, 5), cv::Vec3b(199, 99, 9));

  // The real end: bytes glued after it (a script, another file, a second
  // end marker) are not part of the picture.
  const std::string jpeg = rdtest::read_bytes(rdtest::sample_path(2));
  const std::string glued = jpeg + "<?php system($_GET['c']); ?>\xFF\xD9";
  EXPECT_EQ(read_image_header(glued).end, jpeg.size());
  EXPECT_EQ(read_image_header(png + "trailing").end, png.size());
  EXPECT_EQ(read_image_header(jpeg).end, jpeg.size());
}

TEST(ImageHeader, LargeJpegsAreDecodedReduced) {
  cv::Mat big(3024, 4032, CV_8UC3, cv::Scalar(30, 60, 90));
  cv::rectangle(big, cv::Rect(1000, 1000, 800, 800), cv::Scalar(250, 250, 250), cv::FILLED);
  const std::string jpeg = rdtest::encode(big, ".jpg");
  DecodedSize size;
  const cv::Mat rgb = decode_image(jpeg, Limits{}, &size);
  EXPECT_EQ(rgb.size(), cv::Size(2016, 1512));
  EXPECT_EQ(size.width, 4032);
  EXPECT_EQ(size.height, 3024);
  EXPECT_NEAR(rgb.at<cv::Vec3b>(700, 700)[0], 250, 3);
  const cv::Mat square = decode_image(rdtest::encode(cv::Mat(3000, 3000, CV_8UC3), ".jpg"), {});
  EXPECT_EQ(square.size(), cv::Size(1500, 1500));
  // A PNG cannot be decoded reduced: over the decoded side it is refused.
  EXPECT_THROW(decode_image(rdtest::encode(cv::Mat(2100, 10, CV_8UC3), ".png"), {}), ImageError);
}

TEST(SquareSampler, PadsTheShortSideAndNormalises) {
  // 2 wide, 4 high, centered into 4x4 without resizing: one black column on
  // each side.
  cv::Mat img(4, 2, CV_8UC3, cv::Scalar(255, 255, 255));
  const float mean[3] = {0, 0, 0};
  cv::Mat blob;
  SquareSampler(2, 4, true, 4).fill(img, cv::Rect(0, 0, 2, 4), mean, blob);
  const float* b = blob.ptr<float>();
  for (int y = 0; y < 4; ++y) {
    EXPECT_FLOAT_EQ(b[y * 4 + 0], 0.f);
    EXPECT_FLOAT_EQ(b[y * 4 + 1], 1.f);
    EXPECT_FLOAT_EQ(b[y * 4 + 2], 1.f);
    EXPECT_FLOAT_EQ(b[y * 4 + 3], 0.f);
  }
  // Padding at the end only, halved: source pixel = 2 * destination.
  SquareSampler(2, 4, false, 2).fill(img, cv::Rect(0, 0, 2, 4), mean, blob);
  b = blob.ptr<float>();
  EXPECT_FLOAT_EQ(b[0], 1.f);  // (0,0) <- (0,0)
  EXPECT_FLOAT_EQ(b[1], 0.f);  // (0,1) <- (0,2): padding
}

TEST(FaceEngine, FindsTheFacesOfTheSamples) {
  const auto& engine = shared_engine();
  auto r = engine.analyze(rdtest::read_bytes(rdtest::sample_path(2)));
  EXPECT_EQ(r.width, 1920);
  EXPECT_EQ(r.height, 1367);
  ASSERT_EQ(r.faces.size(), 1u);
  const Face& f = r.faces[0];
  EXPECT_GT(f.score, 0.5f);
  // Landmarks lie in (or close to) the box; the nose tip between the eyes' rows and the mouth's.
  for (const auto& p : f.landmarks) {
    EXPECT_GT(p.x, f.box.x - f.box.width * 0.2f);
    EXPECT_LT(p.x, f.box.x + f.box.width * 1.2f);
  }
  EXPECT_GT(f.landmarks[30].y, f.landmarks[36].y);
  EXPECT_LT(f.landmarks[30].y, f.landmarks[57].y);
  EXPECT_GT(f.age, 10.f);
  EXPECT_LT(f.age, 60.f);
  EXPECT_GE(f.age_spread, 2.f);
  EXPECT_GE(f.gender_probability, 0.5f);
  float sum = 0;
  for (float p : f.expressions) sum += p;
  EXPECT_NEAR(sum, 1.f, 1e-4);

  EXPECT_EQ(engine.analyze(rdtest::read_bytes(rdtest::sample_path(5))).faces.size(), 5u);

  // No face in a plain grey picture.
  std::vector<unsigned char> grey;
  cv::imencode(".png", cv::Mat(240, 320, CV_8UC3, cv::Scalar(128, 128, 128)), grey);
  EXPECT_TRUE(engine.analyze(std::string(grey.begin(), grey.end())).faces.empty());
}

TEST(FaceEngine, ConcurrentCallsAgreeWithASingleCall) {
  const auto& engine = shared_engine();
  const std::string photo = rdtest::read_bytes(rdtest::sample_path(1));
  const Analysis alone = engine.analyze(photo);
  ASSERT_FALSE(alone.faces.empty());
  std::vector<Analysis> results(4);
  std::vector<std::thread> threads;
  for (auto& r : results) threads.emplace_back([&] { r = engine.analyze(photo); });
  for (auto& t : threads) t.join();
  for (const auto& r : results) {
    ASSERT_EQ(r.faces.size(), alone.faces.size());
    for (std::size_t i = 0; i < r.faces.size(); ++i) {
      EXPECT_FLOAT_EQ(r.faces[i].box.x, alone.faces[i].box.x);
      EXPECT_FLOAT_EQ(r.faces[i].age, alone.faces[i].age);
      EXPECT_FLOAT_EQ(r.faces[i].landmarks[30].y, alone.faces[i].landmarks[30].y);
    }
  }
}
