// The face engine per 200x250 JPEG of one face, against the reference (the
// model package run in Node with tfjs + WASM) in the same run; then, on one
// thread, where the time goes: each network's milliseconds and GFLOP/s
// against the machine's measured peak for the same kind of kernel (OpenCV
// DNN's 1x1 convolution, which holds most of the networks' arithmetic).
// The load average is printed at the start and the end: the figures are
// only comparable between runs of similar load.
//
//   bench_engine [--repeat N] [--no-reference]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <string>
#include <vector>

#include "FaceCrops.h"
#include "RunReference.h"
#include "engine/ModelWeights.h"
#include "engine/Networks.h"
#include "support/ServerProcess.h"

using Clock = std::chrono::steady_clock;

namespace {

std::string load_average() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  in >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

double ms_since(Clock::time_point t) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

// Median milliseconds of one forward pass over `runs` passes.
double median_forward_ms(cv::dnn::Net& net, const cv::Mat& input, int runs) {
  net.setInput(input, "data");
  net.forward();  // warm-up: allocations, layer fusion
  std::vector<double> ms;
  for (int i = 0; i < runs; ++i) {
    const auto t = Clock::now();
    net.setInput(input, "data");
    net.forward();
    ms.push_back(ms_since(t));
  }
  std::nth_element(ms.begin(), ms.begin() + runs / 2, ms.end());
  return ms[static_cast<std::size_t>(runs / 2)];
}

cv::Mat random_blob(std::vector<int> shape) {
  cv::Mat m(static_cast<int>(shape.size()), shape.data(), CV_32F);
  cv::randu(m, -1.0, 1.0);
  return m;
}

// GFLOP/s of a 1x1 convolution, 256 to 256 channels on 28x28, in OpenCV DNN.
double peak_gflops(int runs) {
  const int c = 256, side = 28;
  cv::dnn::LayerParams lp;
  lp.name = "pointwise";
  lp.type = "Convolution";
  lp.set("num_output", c);
  lp.set("kernel_size", 1);
  lp.set("bias_term", false);
  lp.blobs = {random_blob({c, c, 1, 1})};
  cv::dnn::Net net;
  net.addLayerToPrev(lp.name, lp.type, lp);
  net.setInputsNames({"data"});
  net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  const double ms = median_forward_ms(net, random_blob({1, c, side, side}), runs);
  return 2.0 * c * c * side * side / ms / 1e6;
}

}  // namespace

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
  std::printf("load average at the start: %s\n", load_average().c_str());

  auto t0 = Clock::now();
  rd::engine::FaceEngine engine(models);
  const double load_ms = ms_since(t0);
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
    return ms_since(s) / (static_cast<double>(repeat) * photos.size());
  };
  const double engine_ms = measure();
  std::printf(
      "engine:    %.2f ms per photo (decode + detect + landmarks + age/gender + expressions)\n",
      engine_ms);
  cv::setNumThreads(1);
  const double engine_1t_ms = measure();
  std::printf("engine:    %.2f ms per photo on one thread\n", engine_1t_ms);

  // Where the time goes, one thread. Every photo has one face.
  using namespace rd::engine;
  const int detector_size = engine.options().detector_input_size;
  struct Network {
    const char* name;
    cv::dnn::Net net;
    int side;   // input side
    int calls;  // per face photo
  };
  std::vector<Network> nets = {
      {"detector", build_detector(ModelWeights::load(models, "tiny_face_detector_model")),
       detector_size, 1},
      {"landmarks", build_landmarks(ModelWeights::load(models, "face_landmark_68_model")), 112, 1},
      {"expressions", build_expressions(ModelWeights::load(models, "face_expression_model")), 112,
       1},
      // The face and its mirror image (age spread).
      {"age-gender", build_age_gender(ModelWeights::load(models, "age_gender_model")), 112, 2},
  };
  const int runs = std::max(20, 5 * repeat);
  const double peak = peak_gflops(runs);
  std::printf(
      "\nper network, one thread, median of %d passes; peak: OpenCV DNN 1x1 convolution "
      "(256 channels, 28x28) %.1f GFLOP/s\n",
      runs, peak);
  std::printf("  %-12s %9s %6s %9s %10s %9s %7s %12s\n", "network", "input", "calls", "ms/call",
              "MFLOP/call", "GFLOP/s", "%peak", "ms per photo");
  double nets_ms = 0, flops = 0;
  for (auto& n : nets) {
    const cv::dnn::MatShape shape = {1, 3, n.side, n.side};
    const double ms = median_forward_ms(n.net, random_blob(shape), runs);
    const double f = static_cast<double>(n.net.getFLOPS(shape));
    const double gflops = f / ms / 1e6;
    std::printf("  %-12s %5dx%-3d %6d %9.2f %10.1f %9.1f %6.0f%% %12.2f\n", n.name, n.side, n.side,
                n.calls, ms, f / 1e6, gflops, 100 * gflops / peak, ms * n.calls);
    nets_ms += ms * n.calls;
    flops += f * n.calls;
  }
  std::printf("  %-12s %56.2f\n", "networks", nets_ms);
  std::printf("  %-12s %56.2f   (decode, input sampling, boxes, landmarks)\n", "the rest",
              engine_1t_ms - nets_ms);
  std::printf(
      "  whole photo: %.0f MFLOP, %.1f GFLOP/s on one thread = %.0f%% of the peak (%.2f ms at "
      "the peak)\n",
      flops / 1e6, flops / engine_1t_ms / 1e6, 100 * flops / engine_1t_ms / 1e6 / peak,
      flops / peak / 1e6);
  std::printf("load average at the end: %s\n", load_average().c_str());

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
  std::printf("\nreference: %.2f ms per photo (tfjs %s backend, one thread, decoded pixels in)\n",
              ref_ms, std::string(ref.at("backend").as_string()).c_str());
  std::printf("ratio:     the engine is %.1fx faster than the reference (%.1fx on one thread)\n",
              ref_ms / engine_ms, ref_ms / engine_1t_ms);
  std::printf("load average at the end: %s\n", load_average().c_str());
  return 0;
}
