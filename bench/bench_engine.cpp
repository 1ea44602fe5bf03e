// The face engine per 200x250 JPEG of one face, against the reference (the
// model package run in Node with tfjs + WASM) in the same run.
//
//   bench_engine [--repeat N] [--no-reference]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <opencv2/core.hpp>
#include <string>

#include "FaceCrops.h"
#include "RunReference.h"
#include "support/ServerProcess.h"

using Clock = std::chrono::steady_clock;

int main(int argc, char** argv) {
  int repeat = 10;
  bool reference = true;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--repeat" && i + 1 < argc)
      repeat = std::max(1, std::atoi(argv[++i]));
    else if (a == "--no-reference")
      reference = false;
    else {
      std::cerr << "usage: bench_engine [--repeat N] [--no-reference]\n";
      return 2;
    }
  }
  const std::string root = RD_MODELS_DIR;
  const std::string models = root + "/model";

  auto t0 = Clock::now();
  rd::engine::FaceEngine engine(models);
  const double load_ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
  const auto photos = rdbench::single_face_crops(engine, root);
  if (photos.empty()) {
    std::cerr << "bench_engine: no sample photos under " << root << "\n";
    return 1;
  }
  std::printf("engine: models loaded in %.0f ms; %zu photos of 200x250, %d runs each, %d threads\n",
              load_ms, photos.size(), repeat, cv::getNumThreads());

  auto measure = [&]() {
    for (const auto& p : photos) engine.analyze(p.jpeg);  // warm-up
    auto s = Clock::now();
    for (int r = 0; r < repeat; ++r)
      for (const auto& p : photos) engine.analyze(p.jpeg);
    return std::chrono::duration<double, std::milli>(Clock::now() - s).count() /
           (static_cast<double>(repeat) * photos.size());
  };
  const double engine_ms = measure();
  std::printf(
      "engine:    %.2f ms per photo (decode + detect + landmarks + age/gender + expressions)\n",
      engine_ms);
  cv::setNumThreads(1);
  const double engine_1t_ms = measure();
  std::printf("engine:    %.2f ms per photo on one thread\n", engine_1t_ms);

  if (!reference) return 0;
  if (std::system((std::string(RD_SOURCE_DIR) + "/scripts/setup-reference.sh").c_str()) != 0) {
    std::cerr << "bench_engine: the Node reference could not be set up; run with --no-reference\n";
    return 1;
  }
  rdtest::TempDir tmp;
  std::vector<std::string> ppms;
  for (const auto& p : photos) {
    ppms.push_back(tmp.path() + "/" + p.name + ".ppm");
    rdref::write_ppm(ppms.back(), rd::engine::decode_image(p.jpeg, {}));
  }
  const auto ref =
      rdref::run_reference(std::string(RD_SOURCE_DIR) + "/tests/reference", models, ppms, repeat);
  double sum = 0;
  const auto& images = ref.at("images").as_array();
  for (const auto& im : images) sum += im.at("ms").to_number<double>();
  const double ref_ms = sum / static_cast<double>(images.size());
  std::printf("reference: %.2f ms per photo (tfjs %s backend, decoded pixels in)\n", ref_ms,
              std::string(ref.at("backend").as_string()).c_str());
  std::printf("ratio:     the engine is %.1fx faster than the reference (%.1fx on one thread)\n",
              ref_ms / engine_ms, ref_ms / engine_1t_ms);
  return 0;
}
