#include "engine/Networks.h"

#include <string>

#include "engine/FaceEngine.h"
#include "engine/Layers.h"

namespace rd::engine {

namespace {

using cv::dnn::LayerParams;

// Adds layers one after the other; every method returns the new layer's id.
class Builder {
 public:
  explicit Builder(const ModelWeights& w) : w_(w) { register_layers(); }

  cv::dnn::Net take() { return std::move(net_); }

  // Full convolution with bias; TF filters [kh, kw, in, out].
  int conv(int in, const std::string& prefix, int stride, const std::string& pad_mode,
           const std::string& name = {}) {
    const cv::Mat wm = filters(prefix);
    return add_conv(in, name.empty() ? prefix : name, wm, bias(w_.get(prefix + "/bias", 1)),
                    wm.size[0], wm.size[2], wm.size[3], stride, 1, pad_mode, -1);
  }

  // 3x3 VALID convolution with bias, leaky ReLU, 2x2 max-pooling with stride 2
  // (TF SAME), as one layer.
  int conv_leaky_pool(int in, const std::string& prefix, float slope) {
    const cv::Mat wm = filters(prefix);
    check(wm.size[2] == 3 && wm.size[3] == 3, prefix);
    LayerParams lp;
    lp.set("negative_slope", slope);
    lp.blobs = {wm, bias(w_.get(prefix + "/bias", 1))};
    return add(in, kConvLeakyPool, lp, prefix);
  }

  // Depthwise 3x3 then pointwise 1x1, then the bias (TF separable convolution).
  // `pad` >= 0: explicit symmetric padding of the depthwise step; -1: pad_mode.
  int separable(int in, const std::string& prefix, int stride, const std::string& pad_mode,
                int pad = -1) {
    Separable s = separable_weights(prefix);
    const int c = s.depthwise.size[0], kh = s.depthwise.size[2], kw = s.depthwise.size[3];
    int dwid;
    if (kh == 3 && kw == 3 && (stride == 1 || stride == 2) && (pad >= 0 || pad_mode == "SAME")) {
      LayerParams lp;
      lp.set("stride", stride);
      if (pad >= 0)
        lp.set("pad", pad);
      else
        lp.set("same", true);
      lp.blobs.push_back(s.depthwise);
      dwid = add(in, kDepthwise, lp, prefix + "/depthwise");
    } else {
      dwid = add_conv(in, prefix + "/depthwise", s.depthwise, cv::Mat(), c, kh, kw, stride, c,
                      pad_mode, pad);
    }
    return add_conv(dwid, prefix + "/pointwise", s.pointwise, s.bias, s.pointwise.size[0], 1, 1, 1,
                    1, "", 0);
  }

  // The same with a 3x3 depthwise step (padding 1), then leaky ReLU and 2x2
  // max-pooling (TF SAME), as one layer.
  int separable_leaky_pool(int in, const std::string& prefix, float slope, int pool_stride) {
    Separable s = separable_weights(prefix);
    check(s.depthwise.size[2] == 3 && s.depthwise.size[3] == 3, prefix);
    LayerParams lp;
    lp.set("negative_slope", slope);
    lp.set("pool_stride", pool_stride);
    lp.blobs = {s.depthwise, s.pointwise, s.bias};
    return add(in, kSeparableLeakyPool, lp, prefix);
  }

  int relu(int in, float slope = 0.f) {
    LayerParams lp;
    if (slope != 0.f) lp.set("negative_slope", slope);
    return add(in, "ReLU", lp);
  }

  int sum(std::initializer_list<int> inputs) {
    LayerParams lp;
    lp.set("operation", "sum");
    return join(inputs, "Eltwise", lp);
  }

  // ReLU of the sum, as one layer.
  int sum_relu(std::initializer_list<int> inputs) {
    LayerParams lp;
    return join(inputs, kSumRelu, lp);
  }

  int max_pool(int in, int k, int stride) {
    LayerParams lp;
    lp.set("pool", "max");
    lp.set("kernel_size", k);
    lp.set("stride", stride);
    lp.set("pad_mode", "SAME");
    return add(in, "Pooling", lp);
  }

  int avg_pool_valid(int in, int k, int stride) {
    LayerParams lp;
    lp.set("pool", "ave");
    lp.set("kernel_size", k);
    lp.set("stride", stride);
    lp.set("pad_mode", "VALID");
    return add(in, "Pooling", lp);
  }

  // Fully connected; TF weights [in, out].
  int dense(int in, const std::string& prefix, const std::string& name = {}) {
    const Tensor& wt = w_.get(prefix + "/weights", 2);
    const Tensor& b = w_.get(prefix + "/bias", 1);
    const int ni = wt.shape[0], no = wt.shape[1];
    check(b.shape[0] == no, prefix);
    cv::Mat wm(no, ni, CV_32F);
    for (int o = 0; o < no; ++o)
      for (int i = 0; i < ni; ++i)
        wm.at<float>(o, i) = wt.data[static_cast<std::size_t>(i) * no + o];
    LayerParams lp;
    lp.set("num_output", no);
    lp.set("bias_term", true);
    lp.set("axis", 1);
    lp.blobs = {wm, bias(b)};
    return add(in, "InnerProduct", lp, name.empty() ? prefix : name);
  }

  int softmax(int in, const std::string& name) {
    LayerParams lp;
    lp.set("axis", 1);
    return add(in, "Softmax", lp, name);
  }

 private:
  static void check(bool ok, const std::string& what) {
    if (!ok) throw ModelError("weights of " + what + " do not fit together");
  }

  // TF filters [kh, kw, in, out] as OpenCV's [out, in, kh, kw], checked
  // against the bias.
  cv::Mat filters(const std::string& prefix) const {
    const Tensor& f = w_.get(prefix + "/filters", 4);
    const int kh = f.shape[0], kw = f.shape[1], ci = f.shape[2], co = f.shape[3];
    check(w_.get(prefix + "/bias", 1).shape[0] == co, prefix);
    int sizes[] = {co, ci, kh, kw};
    cv::Mat wm(4, sizes, CV_32F);
    float* dst = wm.ptr<float>();
    for (int o = 0; o < co; ++o)
      for (int i = 0; i < ci; ++i)
        for (int y = 0; y < kh; ++y)
          for (int x = 0; x < kw; ++x)
            *dst++ = f.data[((static_cast<std::size_t>(y) * kw + x) * ci + i) * co + o];
    return wm;
  }

  struct Separable {
    cv::Mat depthwise, pointwise, bias;  // C x 1 x kh x kw, O x C x 1 x 1, 1 x O
  };

  // TF depthwise [kh, kw, C, 1] and pointwise [1, 1, C, O] filters in
  // OpenCV's layout, checked against each other and the bias.
  Separable separable_weights(const std::string& prefix) const {
    const Tensor& d = w_.get(prefix + "/depthwise_filter", 4);
    const Tensor& p = w_.get(prefix + "/pointwise_filter", 4);
    const Tensor& b = w_.get(prefix + "/bias", 1);
    const int kh = d.shape[0], kw = d.shape[1], c = d.shape[2];
    const int co = p.shape[3];
    check(d.shape[3] == 1 && p.shape[2] == c && b.shape[0] == co, prefix);
    int dsz[] = {c, 1, kh, kw};
    cv::Mat dw(4, dsz, CV_32F);
    float* dst = dw.ptr<float>();
    for (int ch = 0; ch < c; ++ch)
      for (int y = 0; y < kh; ++y)
        for (int x = 0; x < kw; ++x)
          *dst++ = d.data[(static_cast<std::size_t>(y) * kw + x) * c + ch];
    int psz[] = {co, c, 1, 1};
    cv::Mat pw(4, psz, CV_32F);
    dst = pw.ptr<float>();
    for (int o = 0; o < co; ++o)
      for (int i = 0; i < c; ++i) *dst++ = p.data[static_cast<std::size_t>(i) * co + o];
    return {dw, pw, bias(b)};
  }

  static cv::Mat bias(const Tensor& b) {
    cv::Mat m(1, b.shape[0], CV_32F);
    for (int i = 0; i < b.shape[0]; ++i) m.at<float>(0, i) = b.data[static_cast<std::size_t>(i)];
    return m;
  }

  int add_conv(int in, const std::string& name, const cv::Mat& weights, const cv::Mat& b, int co,
               int kh, int kw, int stride, int group, const std::string& pad_mode, int pad) {
    LayerParams lp;
    lp.set("num_output", co);
    lp.set("kernel_h", kh);
    lp.set("kernel_w", kw);
    lp.set("stride", stride);
    lp.set("group", group);
    lp.set("bias_term", !b.empty());
    if (pad >= 0)
      lp.set("pad", pad);
    else
      lp.set("pad_mode", pad_mode);
    lp.blobs.push_back(weights);
    if (!b.empty()) lp.blobs.push_back(b);
    return add(in, "Convolution", lp, name);
  }

  int join(std::initializer_list<int> inputs, const std::string& type, LayerParams& lp) {
    lp.name = "sum" + std::to_string(counter_++);
    lp.type = type;
    int id = net_.addLayer(lp.name, lp.type, lp);
    int k = 0;
    for (int in : inputs) net_.connect(in, 0, id, k++);
    return id;
  }

  int add(int in, const std::string& type, LayerParams& lp, const std::string& name = {}) {
    lp.name = name.empty() ? type + std::to_string(counter_++) : name;
    lp.type = type;
    int id = net_.addLayer(lp.name, lp.type, lp);
    net_.connect(in, 0, id, 0);
    return id;
  }

  const ModelWeights& w_;
  cv::dnn::Net net_;
  int counter_ = 0;
};

cv::dnn::Net finish(cv::dnn::Net net) {
  net.setInputsNames({"data"});
  net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
  return net;
}

// Dense block of four convolutions where every step sees the sum of the
// earlier outputs. The first block starts with a full convolution.
int dense_block(Builder& b, int in, const std::string& prefix, bool first) {
  int out1 = first ? b.conv(in, prefix + "/conv0", 2, "SAME")
                   : b.separable(in, prefix + "/conv0", 2, "SAME");
  out1 = b.relu(out1);
  int out2 = b.separable(out1, prefix + "/conv1", 1, "SAME");
  int in3 = b.sum_relu({out1, out2});
  int out3 = b.separable(in3, prefix + "/conv2", 1, "SAME");
  int in4 = b.sum_relu({out1, out2, out3});
  int out4 = b.separable(in4, prefix + "/conv3", 1, "SAME");
  return b.sum_relu({out1, out2, out3, out4});
}

// Feature extractor shared in shape by the landmark and expression nets:
// 112x112 -> 256 features.
int dense_features(Builder& b) {
  int out = dense_block(b, 0, "dense0", true);
  out = dense_block(b, out, "dense1", false);
  out = dense_block(b, out, "dense2", false);
  out = dense_block(b, out, "dense3", false);
  return b.avg_pool_valid(out, 7, 2);
}

int reduction_block(Builder& b, int in, const std::string& prefix, bool activate_input) {
  int out = activate_input ? b.relu(in) : in;
  out = b.separable(out, prefix + "/separable_conv0", 1, "SAME");
  out = b.separable(b.relu(out), prefix + "/separable_conv1", 1, "SAME");
  out = b.max_pool(out, 3, 2);
  int shortcut = b.conv(in, prefix + "/expansion_conv", 2, "SAME");
  return b.sum({out, shortcut});
}

int main_block(Builder& b, int in, const std::string& prefix) {
  int out = b.separable(b.relu(in), prefix + "/separable_conv0", 1, "SAME");
  out = b.separable(b.relu(out), prefix + "/separable_conv1", 1, "SAME");
  out = b.separable(b.relu(out), prefix + "/separable_conv2", 1, "SAME");
  return b.sum({out, in});
}

}  // namespace

cv::dnn::Net build_detector(const ModelWeights& w) {
  Builder b(w);
  constexpr float kLeak = 0.1f;
  int out = b.conv_leaky_pool(0, "conv0", kLeak);
  for (int i = 1; i <= 5; ++i)
    out = b.separable_leaky_pool(out, "conv" + std::to_string(i), kLeak, i == 5 ? 1 : 2);
  for (int i = 6; i <= 7; ++i)
    if (w.has("conv" + std::to_string(i) + "/depthwise_filter"))
      out = b.relu(b.separable(out, "conv" + std::to_string(i), 1, "", 1), kLeak);
  b.conv(out, "conv8", 1, "VALID", "out");
  return finish(b.take());
}

cv::dnn::Net build_landmarks(const ModelWeights& w) {
  Builder b(w);
  b.dense(dense_features(b), "fc", "out");
  return finish(b.take());
}

cv::dnn::Net build_expressions(const ModelWeights& w) {
  Builder b(w);
  int logits = b.dense(dense_features(b), "fc");
  b.softmax(logits, "out");
  return finish(b.take());
}

cv::dnn::Net build_age_gender(const ModelWeights& w) {
  Builder b(w);
  int out = b.relu(b.conv(0, "entry_flow/conv_in", 2, "SAME"));
  out = reduction_block(b, out, "entry_flow/reduction_block_0", false);
  out = reduction_block(b, out, "entry_flow/reduction_block_1", true);
  for (int i = 0;
       w.has("middle_flow/main_block_" + std::to_string(i) + "/separable_conv0/depthwise_filter");
       ++i)
    out = main_block(b, out, "middle_flow/main_block_" + std::to_string(i));
  out = reduction_block(b, out, "exit_flow/reduction_block", true);
  out = b.relu(b.separable(out, "exit_flow/separable_conv", 1, "SAME"));
  int pooled = b.avg_pool_valid(out, 7, 2);
  b.dense(pooled, "fc/age", "age");
  int g = b.dense(pooled, "fc/gender");
  b.softmax(g, "gender");
  return finish(b.take());
}

}  // namespace rd::engine
