// Our layers against the OpenCV layers they stand for, on odd and even
// sizes the networks' own inputs do not reach, on one and on two threads.
#include <gtest/gtest.h>

#include <opencv2/dnn.hpp>
#include <opencv2/dnn/shape_utils.hpp>
#include <string>
#include <vector>

#include "engine/Layers.h"

using cv::dnn::LayerParams;

namespace {

cv::Mat random(std::vector<int> shape) {
  cv::Mat m(static_cast<int>(shape.size()), shape.data(), CV_32F);
  cv::randu(m, -1.0, 1.0);
  return m;
}

LayerParams layer(const std::string& type, std::vector<cv::Mat> blobs = {}) {
  static int counter = 0;
  LayerParams lp;
  lp.type = type;
  lp.name = type + std::to_string(counter++);
  lp.blobs = std::move(blobs);
  return lp;
}

LayerParams conv(cv::Mat weights, cv::Mat bias, int group, const std::string& pad_mode, int pad) {
  const bool has_bias = !bias.empty();
  LayerParams lp =
      layer("Convolution", has_bias ? std::vector{weights, bias} : std::vector{weights});
  lp.set("num_output", weights.size[0]);
  lp.set("kernel_h", weights.size[2]);
  lp.set("kernel_w", weights.size[3]);
  lp.set("group", group);
  lp.set("bias_term", has_bias);
  if (pad_mode.empty())
    lp.set("pad", pad);
  else
    lp.set("pad_mode", pad_mode);
  return lp;
}

LayerParams leaky_relu(float slope) {
  LayerParams lp = layer("ReLU");
  lp.set("negative_slope", slope);
  return lp;
}

LayerParams max_pool(int stride) {
  LayerParams lp = layer("Pooling");
  lp.set("pool", "max");
  lp.set("kernel_size", 2);
  lp.set("stride", stride);
  lp.set("pad_mode", "SAME");
  return lp;
}

// The chain's output for `inputs` (one network input per entry; the first
// layer takes them all), on `threads` threads.
cv::Mat run(const std::vector<LayerParams>& chain, const std::vector<cv::Mat>& inputs,
            int threads) {
  rd::engine::register_layers();
  const int before = cv::getNumThreads();
  cv::setNumThreads(threads);
  cv::dnn::Net net;
  std::vector<cv::String> names;
  for (std::size_t i = 0; i < inputs.size(); ++i) names.push_back("in" + std::to_string(i));
  net.setInputsNames(names);
  int id = 0;
  for (std::size_t k = 0; k < chain.size(); ++k) {
    LayerParams lp = chain[k];
    const int next = net.addLayer(lp.name, lp.type, lp);
    if (k == 0)
      for (std::size_t i = 0; i < inputs.size(); ++i)
        net.connect(0, static_cast<int>(i), next, static_cast<int>(i));
    else
      net.connect(id, 0, next, 0);
    id = next;
  }
  net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  for (std::size_t i = 0; i < inputs.size(); ++i) net.setInput(inputs[i], names[i]);
  cv::Mat out = net.forward().clone();
  cv::setNumThreads(before);
  return out;
}

void expect_same(const std::vector<LayerParams>& ours, const std::vector<LayerParams>& opencv,
                 const std::vector<cv::Mat>& inputs, const std::string& what) {
  const cv::Mat want = run(opencv, inputs, 1);
  for (int threads : {1, 2}) {
    const cv::Mat got = run(ours, inputs, threads);
    ASSERT_EQ(cv::dnn::shape(got), cv::dnn::shape(want)) << what;
    EXPECT_LT(cv::norm(got, want, cv::NORM_INF), 1e-4) << what << ", " << threads << " threads";
  }
}

}  // namespace

TEST(OwnLayers, AgreeWithOpenCVOnOddAndEvenSizes) {
  using namespace rd::engine;
  for (auto [h, w] : {std::pair{9, 12}, {13, 17}, {6, 8}}) {
    const std::string size = std::to_string(h) + "x" + std::to_string(w);
    const cv::Mat dw = random({8, 1, 3, 3}), in8 = random({1, 8, h, w});
    for (int stride : {1, 2}) {
      LayerParams ours = layer(kDepthwise, {dw});
      ours.set("stride", stride);
      ours.set("same", true);
      LayerParams theirs = conv(dw, {}, 8, "SAME", 0);
      theirs.set("stride", stride);
      expect_same({ours}, {theirs}, {in8},
                  "depthwise SAME, stride " + std::to_string(stride) + ", " + size);
    }
    LayerParams padded = layer(kDepthwise, {dw});
    padded.set("pad", 1);
    expect_same({padded}, {conv(dw, {}, 8, "", 1)}, {in8}, "depthwise pad 1, " + size);

    const cv::Mat k3 = random({16, 3, 3, 3}), b16 = random({1, 16});
    LayerParams first = layer(kConvLeakyPool, {k3, b16});
    first.set("negative_slope", 0.1f);
    expect_same({first}, {conv(k3, b16, 1, "VALID", 0), leaky_relu(0.1f), max_pool(2)},
                {random({1, 3, h + 2, w + 2})}, "convolution, leaky ReLU, pooling, " + size);

    const cv::Mat pw = random({16, 8, 1, 1});
    for (int pool_stride : {1, 2}) {
      LayerParams stage = layer(kSeparableLeakyPool, {dw, pw, b16});
      stage.set("negative_slope", 0.1f);
      stage.set("pool_stride", pool_stride);
      expect_same({stage},
                  {conv(dw, {}, 8, "", 1), conv(pw, b16, 1, "", 0), leaky_relu(0.1f),
                   max_pool(pool_stride)},
                  {in8},
                  "separable stage, pool stride " + std::to_string(pool_stride) + ", " + size);
    }
  }
  // Sums longer than one span of work.
  for (int side : {7, 40}) {
    const std::vector<cv::Mat> in = {random({1, 5, side, side}), random({1, 5, side, side}),
                                     random({1, 5, side, side})};
    LayerParams sum = layer("Eltwise");
    sum.set("operation", "sum");
    expect_same({layer(kSumRelu)}, {sum, layer("ReLU")}, in, "sum " + std::to_string(side));
  }
}
