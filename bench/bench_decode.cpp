// What the decode bombs cost a server: each hostile file decoded whole as it
// was before the structure checks ("before"), against what the server
// spends on it now (the checks that refuse it, or the bounded decode of a
// file that passes), plus an ordinary phone photo decoded reduced.
//   build/bench/bench_decode [--scans N]   (default 20000, the probe's file)
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>

#include "engine/FaceEngine.h"
#include "engine/TestFiles.h"

namespace {

double ms_of(const std::function<void()>& f) {
  const auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

void row(const char* what, std::size_t bytes, const std::string& data, const char* flags_note,
         int flags) {
  const double before = ms_of([&] {
    cv::Mat raw(1, static_cast<int>(data.size()), CV_8U, const_cast<char*>(data.data()));
    (void)cv::imdecode(raw, flags);
  });
  std::string outcome = "decoded";
  const double after = ms_of([&] {
    try {
      (void)rd::engine::decode_image(data, rd::engine::Limits{});
    } catch (const rd::engine::ImageError& e) {
      outcome = std::string("refused: ") + e.what();
    }
  });
  std::printf("%-44s %8zu KB  before %9.1f ms (%s)  after %7.2f ms  %s\n", what, bytes / 1024,
              before, flags_note, after, outcome.substr(0, 60).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  int scans = 20000;
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], "--scans") == 0) scans = std::atoi(argv[i + 1]);
  std::ifstream load("/proc/loadavg");
  std::string l1;
  load >> l1;
  std::printf("decode cost per file (load average %s)\n", l1.c_str());

  const std::string bomb = rdtest::jpeg_with_repeated_scan(1024, scans);
  row(("progressive JPEG, " + std::to_string(scans) + " scans of 1024x1024").c_str(), bomb.size(),
      bomb, "full", cv::IMREAD_COLOR);
  row("  the same, as the upload checked it", bomb.size(), bomb, "1/4 grey",
      cv::IMREAD_REDUCED_GRAYSCALE_4);
  const std::string most = rdtest::jpeg_with_repeated_scan(2048, 40);
  row("progressive JPEG near the work limit, 2048x2048", most.size(), most, "full",
      cv::IMREAD_COLOR);
  const std::string png = rdtest::encode(cv::Mat(256, 256, CV_8UC3, cv::Scalar(7, 8, 9)), ".png");
  const std::string texts = rdtest::png_with_text_chunks(png, 200, 8 << 20);
  row("PNG with 200 text chunks of 8 MiB inflated", texts.size(), texts, "full", cv::IMREAD_COLOR);
  const std::string few = rdtest::png_with_text_chunks(png, 20, 8 << 20);
  row("PNG with 20 text chunks (allowed, dropped)", few.size(), few, "full", cv::IMREAD_COLOR);
  cv::Mat phone(3024, 4032, CV_8UC3);
  cv::randu(phone, cv::Scalar::all(0), cv::Scalar::all(255));
  cv::GaussianBlur(phone, phone, cv::Size(31, 31), 0);
  const std::string photo = rdtest::encode(phone, ".jpg");
  row("phone photo 4032x3024 (decoded at 1/2)", photo.size(), photo, "full", cv::IMREAD_COLOR);
  return 0;
}
