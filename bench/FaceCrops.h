// 200x250 JPEG photos of single faces, cut from the model package's sample
// photos the way the app crops and scales its photos. Used by the benchmarks.
#pragma once

#include <algorithm>
#include <cstdio>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "engine/FaceEngine.h"

namespace rdbench {

inline std::string read_bytes(const std::string& path) {
  std::string s;
  if (std::FILE* f = std::fopen(path.c_str(), "rb")) {
    char buf[65536];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
    std::fclose(f);
  }
  return s;
}

struct Photo {
  std::string name;
  std::string jpeg;  // 200x250
};

inline std::vector<Photo> single_face_crops(const rd::engine::FaceEngine& engine,
                                            const std::string& models_root) {
  using namespace rd::engine;
  std::vector<Photo> out;
  for (int n = 1; n <= 6; ++n) {
    const std::string bytes = read_bytes(models_root + "/demo/sample" + std::to_string(n) + ".jpg");
    if (bytes.empty()) continue;
    const cv::Mat rgb = decode_image(bytes, Limits{});
    const Analysis a = engine.analyze_rgb(rgb);
    for (std::size_t i = 0; i < a.faces.size(); ++i) {
      const Box& box = a.faces[i].box;
      const double cw = box.width * 1.7, ch = cw * 1.25;
      if (cw > rgb.cols || ch > rgb.rows) continue;
      const double x = std::clamp(box.x + box.width / 2 - cw / 2, 0.0, rgb.cols - cw);
      const double y = std::clamp(box.y + box.height / 2 - ch / 2, 0.0, rgb.rows - ch);
      cv::Mat small, bgr;
      cv::resize(rgb(cv::Rect(static_cast<int>(x), static_cast<int>(y), static_cast<int>(cw),
                              static_cast<int>(ch))),
                 small, cv::Size(200, 250), 0, 0, cv::INTER_AREA);
      cv::cvtColor(small, bgr, cv::COLOR_RGB2BGR);
      std::vector<unsigned char> jpeg;
      cv::imencode(".jpg", bgr, jpeg, {cv::IMWRITE_JPEG_QUALITY, 90});
      Photo p{"sample" + std::to_string(n) + "-face" + std::to_string(i),
              std::string(jpeg.begin(), jpeg.end())};
      if (engine.analyze(p.jpeg).faces.size() == 1) out.push_back(std::move(p));
    }
  }
  return out;
}

}  // namespace rdbench
