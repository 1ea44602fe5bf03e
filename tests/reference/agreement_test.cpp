// The engine against the reference (the model package run in Node with
// tfjs): the package's sample photos and 200x250 single-face crops of them,
// as the app sends. Prints the measured differences.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <iostream>

#include "RunReference.h"
#include "engine/FaceEngine.h"
#include "support/ServerProcess.h"

namespace json = boost::json;
using namespace rd::engine;

namespace {

std::string read_bytes(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return {};
  std::string s;
  char buf[65536];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
  std::fclose(f);
  return s;
}

struct Case {
  std::string name;
  cv::Mat rgb;
};

// A 200x250 JPEG round trip of the region around one face, as the app's
// cropped and scaled photos are.
cv::Mat crop_around(const cv::Mat& rgb, const Box& box) {
  const double cw = box.width * 1.7, ch = cw * 250.0 / 200.0;
  if (cw > rgb.cols || ch > rgb.rows) return {};
  double x = box.x + box.width / 2 - cw / 2, y = box.y + box.height / 2 - ch / 2;
  x = std::clamp(x, 0.0, rgb.cols - cw);
  y = std::clamp(y, 0.0, rgb.rows - ch);
  cv::Rect r(static_cast<int>(x), static_cast<int>(y), static_cast<int>(cw), static_cast<int>(ch));
  cv::Mat small, bgr;
  cv::resize(rgb(r), small, cv::Size(200, 250), 0, 0, cv::INTER_AREA);
  cv::cvtColor(small, bgr, cv::COLOR_RGB2BGR);
  std::vector<unsigned char> jpeg;
  cv::imencode(".jpg", bgr, jpeg, {cv::IMWRITE_JPEG_QUALITY, 90});
  return decode_image(std::string(jpeg.begin(), jpeg.end()), Limits{});
}

double iou(const Box& a, const Box& b) {
  const double w =
      std::max(0.0, std::min<double>(a.x + a.width, b.x + b.width) - std::max(a.x, b.x));
  const double h =
      std::max(0.0, std::min<double>(a.y + a.height, b.y + b.height) - std::max(a.y, b.y));
  return w * h / (a.width * a.height + b.width * b.height - w * h);
}

Box box_of(const json::value& v) {
  auto n = [&](const char* k) { return static_cast<float>(v.at(k).to_number<double>()); };
  return {n("x"), n("y"), n("width"), n("height")};
}

struct Diff {
  double box = 0, landmarks = 0, age = 0, expressions = 0;  // box, landmarks: fraction of width
  int gender_mismatches = 0;
  void take(const Diff& d) {
    box = std::max(box, d.box);
    landmarks = std::max(landmarks, d.landmarks);
    age = std::max(age, d.age);
    expressions = std::max(expressions, d.expressions);
    gender_mismatches += d.gender_mismatches;
  }
};

}  // namespace

TEST(AgreementWithReference, SamplesAndSingleFaceCrops) {
  const std::string models = std::string(RD_MODELS_DIR) + "/model";
  FaceEngine engine(models);

  std::vector<Case> cases;
  int crops = 0;
  for (int n = 1; n <= 6; ++n) {
    const std::string path =
        std::string(RD_MODELS_DIR) + "/demo/sample" + std::to_string(n) + ".jpg";
    const std::string bytes = read_bytes(path);
    ASSERT_FALSE(bytes.empty()) << path;
    Case c{"sample" + std::to_string(n), decode_image(bytes, Limits{})};
    const Analysis a = engine.analyze_rgb(c.rgb);
    for (std::size_t i = 0; i < a.faces.size(); ++i) {
      cv::Mat crop = crop_around(c.rgb, a.faces[i].box);
      if (crop.empty()) continue;
      // Single-face crops only (a neighbour's face may reach into the frame).
      if (engine.analyze_rgb(crop).faces.size() != 1) continue;
      cases.push_back({c.name + "-face" + std::to_string(i), crop});
      ++crops;
    }
    cases.push_back(std::move(c));
  }
  EXPECT_GE(crops, 10) << "too few single-face crops";

  rdtest::TempDir tmp;
  std::vector<std::string> ppms;
  for (const auto& c : cases) {
    ppms.push_back(tmp.path() + "/" + c.name + ".ppm");
    rdref::write_ppm(ppms.back(), c.rgb);
  }
  const json::object ref = rdref::run_reference(RD_REFERENCE_DIR, models, ppms);
  const auto& images = ref.at("images").as_array();
  ASSERT_EQ(images.size(), cases.size());

  Diff all_samples, all_crops;
  std::cout << std::scientific << std::setprecision(2)
            << "image                 faces  box/width  landmarks/width  age(years)  "
               "expressions  gender\n";
  for (std::size_t k = 0; k < cases.size(); ++k) {
    const Case& c = cases[k];
    const Analysis mine = engine.analyze_rgb(c.rgb);
    const auto& theirs = images[k].at("faces").as_array();
    EXPECT_EQ(mine.faces.size(), theirs.size()) << c.name;
    Diff d;
    for (const Face& f : mine.faces) {
      // The reference face with the most overlap.
      const json::value* best = nullptr;
      double best_iou = 0;
      for (const auto& t : theirs) {
        const double o = iou(f.box, box_of(t.at("box")));
        if (o > best_iou) best_iou = o, best = &t;
      }
      ASSERT_TRUE(best && best_iou > 0.5) << c.name << ": a face the reference does not find";
      const Box rb = box_of(best->at("box"));
      const double width = rb.width;
      Diff fd;
      fd.box = std::max({std::abs(f.box.x - rb.x), std::abs(f.box.y - rb.y),
                         std::abs(f.box.width - rb.width), std::abs(f.box.height - rb.height)}) /
               width;
      const auto& lms = best->at("landmarks").as_array();
      for (std::size_t i = 0; i < 68; ++i) {
        const double dx = f.landmarks[i].x - lms[i].at(0).to_number<double>();
        const double dy = f.landmarks[i].y - lms[i].at(1).to_number<double>();
        fd.landmarks = std::max(fd.landmarks, std::hypot(dx, dy) / width);
      }
      fd.age = std::abs(f.age - best->at("age").to_number<double>());
      const std::string g(best->at("gender").as_string());
      fd.gender_mismatches = (g == "male") != (f.gender == Gender::Male);
      const auto& ex = best->at("expressions").as_array();
      for (std::size_t i = 0; i < 7; ++i)
        fd.expressions =
            std::max(fd.expressions, std::abs(f.expressions[i] - ex[i].to_number<double>()));

      EXPECT_LE(fd.box, 0.02) << c.name;
      EXPECT_LE(fd.landmarks, 0.02) << c.name;
      EXPECT_LE(fd.age, 1.5) << c.name;
      EXPECT_EQ(fd.gender_mismatches, 0) << c.name;
      EXPECT_LE(fd.expressions, 0.05) << c.name;
      d.take(fd);
    }
    (c.name.find("-face") == std::string::npos ? all_samples : all_crops).take(d);
    std::cout << std::left << std::setw(22) << c.name << std::right << std::setw(2)
              << mine.faces.size() << "/" << theirs.size() << "  " << std::setw(9) << d.box << "  "
              << std::setw(15) << d.landmarks << "  " << std::setw(10) << d.age << "  "
              << std::setw(11) << d.expressions << "  " << d.gender_mismatches << "\n";
  }
  auto summary = [](const char* what, const Diff& d) {
    std::cout << "largest differences, " << what << ": box " << d.box * 100
              << "% of face width, landmarks " << d.landmarks * 100 << "%, age " << d.age
              << " years, expressions " << d.expressions << ", gender mismatches "
              << d.gender_mismatches << "\n";
  };
  summary("sample photos", all_samples);
  summary("200x250 crops", all_crops);
}
