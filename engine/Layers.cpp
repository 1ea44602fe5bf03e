#include "engine/Layers.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <opencv2/dnn.hpp>
#include <opencv2/dnn/layer.details.hpp>
#include <opencv2/dnn/shape_utils.hpp>
#include <vector>

namespace rd::engine {

namespace {

using cv::dnn::MatShape;

// The row loops below are plain C++ for the compiler to vectorise; on x86
// they are built for the baseline and for AVX2/FMA, the long rows of the
// detector's stages also for AVX-512 (the 7- to 56-pixel planes of the face
// nets measured slower with it), and the loader picks what the CPU runs.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define RD_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))
#define RD_CLONES_WIDE __attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
#else
#define RD_CLONES
#define RD_CLONES_WIDE
#endif

// Output length and leading padding of a 3-tap window along one axis.
struct Axis {
  int out, pad;
};

Axis same_axis(int in, int stride) {
  const int out = (in + stride - 1) / stride;
  const int total = std::max((out - 1) * stride + 3 - in, 0);
  return {out, total / 2};
}

Axis padded_axis(int in, int stride, int pad) { return {(in + 2 * pad - 3) / stride + 1, pad}; }

// Scratch rows per layer: one block per thread that OpenCV may use.
int scratch_blocks() { return std::max(1, cv::getNumThreads()); }

// Runs f(block, begin, end) over `count` items split into at most `blocks`
// contiguous parts, in parallel; block < blocks picks the scratch block.
template <class F>
void in_blocks(int count, int blocks, F f) {
  blocks = std::max(1, std::min({blocks, count, scratch_blocks()}));
  cv::parallel_for_(
      cv::Range(0, blocks),
      [&](const cv::Range& r) {
        for (int b = r.start; b < r.end; ++b)
          f(b, static_cast<int>(static_cast<long long>(count) * b / blocks),
            static_cast<int>(static_cast<long long>(count) * (b + 1) / blocks));
      },
      blocks);
}

// One plane of a 3x3 depthwise convolution: src (h x w) is first copied into
// `padded` (ph x pw, its border already zero) at (pad_y, pad_x), then every
// output sees nine taps without bounds checks.
RD_CLONES void depthwise_plane(const float* __restrict src, int h, int w, const float* k,
                               int stride, int pad_y, int pad_x, float* __restrict padded, int ph,
                               int pw, float* __restrict dst, int oh, int ow) {
  const int rows = std::min(h, ph - pad_y), cols = std::min(w, pw - pad_x);
  for (int y = 0; y < rows; ++y)
    std::copy(src + y * w, src + y * w + cols, padded + (y + pad_y) * pw + pad_x);
  const float k0 = k[0], k1 = k[1], k2 = k[2], k3 = k[3], k4 = k[4], k5 = k[5], k6 = k[6],
              k7 = k[7], k8 = k[8];
  for (int y = 0; y < oh; ++y) {
    const float* r0 = padded + y * stride * pw;
    const float* r1 = r0 + pw;
    const float* r2 = r1 + pw;
    float* o = dst + y * ow;
    if (stride == 1) {
      for (int x = 0; x < ow; ++x)
        o[x] = k0 * r0[x] + k1 * r0[x + 1] + k2 * r0[x + 2] + k3 * r1[x] + k4 * r1[x + 1] +
               k5 * r1[x + 2] + k6 * r2[x] + k7 * r2[x + 1] + k8 * r2[x + 2];
    } else {
      for (int x = 0; x < ow; ++x) {
        const int i = 2 * x;
        o[x] = k0 * r0[i] + k1 * r0[i + 1] + k2 * r0[i + 2] + k3 * r1[i] + k4 * r1[i + 1] +
               k5 * r1[i + 2] + k6 * r2[i] + k7 * r2[i + 1] + k8 * r2[i + 2];
      }
    }
  }
}

class DepthwiseLayer : public cv::dnn::Layer {
 public:
  explicit DepthwiseLayer(const cv::dnn::LayerParams& params) : Layer(params) {
    stride_ = params.get<int>("stride", 1);
    same_ = params.get<bool>("same", false);
    pad_ = params.get<int>("pad", 0);
    CV_Assert(blobs.size() == 1 && blobs[0].dims == 4 && blobs[0].size[1] == 1 &&
              blobs[0].size[2] == 3 && blobs[0].size[3] == 3 && blobs[0].type() == CV_32F);
    CV_Assert(stride_ == 1 || stride_ == 2);
  }

  static cv::Ptr<cv::dnn::Layer> create(cv::dnn::LayerParams& params) {
    return cv::makePtr<DepthwiseLayer>(params);
  }

  bool getMemoryShapes(const std::vector<MatShape>& inputs, int, std::vector<MatShape>& outputs,
                       std::vector<MatShape>& internals) const override {
    CV_Assert(inputs.size() == 1 && inputs[0].size() == 4 && inputs[0][1] == blobs[0].size[0]);
    const Axis ay = axis(inputs[0][2]), ax = axis(inputs[0][3]);
    outputs = {{inputs[0][0], inputs[0][1], ay.out, ax.out}};
    // A padded plane per block.
    internals = {{scratch_blocks(), ((ay.out - 1) * stride_ + 3) * ((ax.out - 1) * stride_ + 3)}};
    return false;
  }

  int64 getFLOPS(const std::vector<MatShape>&,
                 const std::vector<MatShape>& outputs) const override {
    return 2 * 9 * static_cast<int64>(cv::dnn::total(outputs[0]));
  }

  void forward(cv::InputArrayOfArrays inputs_arr, cv::OutputArrayOfArrays outputs_arr,
               cv::OutputArrayOfArrays internals_arr) override {
    std::vector<cv::Mat> inputs, outputs, internals;
    inputs_arr.getMatVector(inputs);
    outputs_arr.getMatVector(outputs);
    internals_arr.getMatVector(internals);
    const cv::Mat& in = inputs[0];
    cv::Mat& out = outputs[0];
    cv::Mat& padded = internals[0];
    const int n = in.size[0], c = in.size[1], h = in.size[2], w = in.size[3];
    const Axis ay = axis(h), ax = axis(w);
    const int ph = (ay.out - 1) * stride_ + 3, pw = (ax.out - 1) * stride_ + 3;
    padded.setTo(0);
    const float* weights = blobs[0].ptr<float>();
    const std::size_t in_plane = static_cast<std::size_t>(h) * w;
    const std::size_t out_plane = static_cast<std::size_t>(ay.out) * ax.out;
    in_blocks(n * c, padded.rows, [&](int block, int begin, int end) {
      for (int p = begin; p < end; ++p)
        depthwise_plane(in.ptr<float>() + p * in_plane, h, w, weights + (p % c) * 9, stride_,
                        ay.pad, ax.pad, padded.ptr<float>(block), ph, pw,
                        out.ptr<float>() + p * out_plane, ay.out, ax.out);
    });
  }

 private:
  Axis axis(int in) const {
    return same_ ? same_axis(in, stride_) : padded_axis(in, stride_, pad_);
  }

  int stride_ = 1, pad_ = 0;
  bool same_ = false;
};

// Eight floats, one AVX register (two SSE ones in the baseline build).
typedef float v8 __attribute__((vector_size(32)));

// Row `cy` of the 3x3 VALID convolution of an RGB input for eight output
// channels: k holds their weights (8 x 3 x 3 x 3), rows[o * cw + x] receives
// the sums. The input of every tap is loaded once for the eight channels,
// whose sums stay in registers.
RD_CLONES_WIDE void conv_rows8(const float* __restrict in, std::size_t plane, int w, int cy,
                               const float* __restrict k, const float* bias, float* __restrict rows,
                               int cw) {
  constexpr int kTaps = 27;
  for (int xb = 0; xb < cw; xb += 8) {
    const int x = std::min(xb, cw - 8);  // the last block overlaps the one before
    v8 acc[8];
    for (int o = 0; o < 8; ++o) acc[o] = v8{} + bias[o];
#pragma GCC unroll 3
    for (int i = 0; i < 3; ++i)
#pragma GCC unroll 3
      for (int ky = 0; ky < 3; ++ky) {
        const float* r = in + i * plane + static_cast<std::size_t>(cy + ky) * w + x;
#pragma GCC unroll 3
        for (int kx = 0; kx < 3; ++kx) {
          v8 v;
          std::memcpy(&v, r + kx, sizeof v);
          const int t = i * 9 + ky * 3 + kx;
#pragma GCC unroll 8
          for (int o = 0; o < 8; ++o) acc[o] += k[o * kTaps + t] * v;
        }
      }
    for (int o = 0; o < 8; ++o) std::memcpy(rows + o * cw + x, &acc[o], sizeof acc[o]);
  }
}

// Max of the 2x2 windows of rows a and b (b may be a again), then leaky ReLU
// as max(m, slope * m) (slope 0..1). (Leaky ReLU is increasing, so pooling
// first gives the same numbers.)
RD_CLONES_WIDE void pool_row(float* __restrict o, const float* __restrict a,
                             const float* __restrict b, int n, int len, float slope) {
  auto max = [](float x, float y) { return x > y ? x : y; };
  const int full = len / 2;  // windows with both columns
  for (int x = 0; x < full; ++x) {
    const float m = max(max(a[2 * x], a[2 * x + 1]), max(b[2 * x], b[2 * x + 1]));
    o[x] = max(m, m * slope);
  }
  for (int x = full; x < n; ++x) {
    const float m = max(a[2 * x], b[2 * x]);
    o[x] = max(m, m * slope);
  }
}

// The same for 2x2 windows with stride 1: columns x and x + 1, the last
// window the last column alone.
RD_CLONES_WIDE void pool_row1(float* __restrict o, const float* __restrict a,
                              const float* __restrict b, int n, float slope) {
  auto max = [](float x, float y) { return x > y ? x : y; };
  for (int x = 0; x + 1 < n; ++x) {
    const float m = max(max(a[x], a[x + 1]), max(b[x], b[x + 1]));
    o[x] = max(m, m * slope);
  }
  const float m = max(a[n - 1], b[n - 1]);
  o[n - 1] = max(m, m * slope);
}

// Row y of a 3x3 depthwise convolution of one plane (h x w), padding 1.
RD_CLONES_WIDE void depthwise_row(const float* __restrict plane, int h, int w, int y,
                                  const float* k, float* __restrict out) {
  std::fill(out, out + w, 0.f);
  for (int ky = 0; ky < 3; ++ky) {
    const int iy = y - 1 + ky;
    if (iy < 0 || iy >= h) continue;
    const float* r = plane + static_cast<std::size_t>(iy) * w;
    const float k0 = k[ky * 3], k1 = k[ky * 3 + 1], k2 = k[ky * 3 + 2];
    out[0] += k1 * r[0] + k2 * r[1];
    for (int x = 1; x < w - 1; ++x) out[x] += k0 * r[x - 1] + k1 * r[x] + k2 * r[x + 1];
    out[w - 1] += k0 * r[w - 2] + k1 * r[w - 1];
  }
}

// A 1x1 convolution of the rows src (c x w) for eight output channels with
// bias: k holds their weights (8 x c), rows[o * w + x] receives the sums.
RD_CLONES_WIDE void pointwise_rows8(const float* __restrict src, int c, int w,
                                    const float* __restrict k, const float* bias,
                                    float* __restrict rows) {
  for (int xb = 0; xb < w; xb += 8) {
    const int x = std::min(xb, w - 8);  // the last block overlaps the one before
    v8 acc[8];
    for (int o = 0; o < 8; ++o) acc[o] = v8{} + bias[o];
    for (int i = 0; i < c; ++i) {
      v8 v;
      std::memcpy(&v, src + static_cast<std::size_t>(i) * w + x, sizeof v);
#pragma GCC unroll 8
      for (int o = 0; o < 8; ++o) acc[o] += k[o * c + i] * v;
    }
    for (int o = 0; o < 8; ++o) std::memcpy(rows + o * w + x, &acc[o], sizeof acc[o]);
  }
}

class ConvLeakyPoolLayer : public cv::dnn::Layer {
 public:
  explicit ConvLeakyPoolLayer(const cv::dnn::LayerParams& params) : Layer(params) {
    slope_ = params.get<float>("negative_slope", 0.f);
    CV_Assert(slope_ >= 0.f && slope_ <= 1.f);
    CV_Assert(blobs.size() == 2 && blobs[0].dims == 4 && blobs[0].size[2] == 3 &&
              blobs[0].size[3] == 3 &&
              blobs[1].total() == static_cast<std::size_t>(blobs[0].size[0]));
  }

  static cv::Ptr<cv::dnn::Layer> create(cv::dnn::LayerParams& params) {
    return cv::makePtr<ConvLeakyPoolLayer>(params);
  }

  int64 getFLOPS(const std::vector<MatShape>& inputs, const std::vector<MatShape>&) const override {
    const MatShape& s = inputs[0];
    return 2 * 27 * static_cast<int64>(s[0]) * blobs[0].size[0] * (s[2] - 2) * (s[3] - 2);
  }

  bool getMemoryShapes(const std::vector<MatShape>& inputs, int, std::vector<MatShape>& outputs,
                       std::vector<MatShape>& internals) const override {
    const MatShape& s = inputs[0];
    CV_Assert(inputs.size() == 1 && s.size() == 4 && s[1] == 3 && blobs[0].size[1] == 3 &&
              s[2] >= 3 && s[3] >= 10 && blobs[0].size[0] % 8 == 0);
    outputs = {{s[0], blobs[0].size[0], (s[2] - 1) / 2, (s[3] - 1) / 2}};
    // Two convolution rows per channel, per block.
    internals = {{scratch_blocks(), 2 * blobs[0].size[0] * (s[3] - 2)}};
    return false;
  }

  void forward(cv::InputArrayOfArrays inputs_arr, cv::OutputArrayOfArrays outputs_arr,
               cv::OutputArrayOfArrays internals_arr) override {
    std::vector<cv::Mat> inputs, outputs, internals;
    inputs_arr.getMatVector(inputs);
    outputs_arr.getMatVector(outputs);
    internals_arr.getMatVector(internals);
    const cv::Mat& in = inputs[0];
    cv::Mat& out = outputs[0];
    const int n = in.size[0], h = in.size[2], w = in.size[3];
    const int co = out.size[1], ph = out.size[2], pw = out.size[3];
    const int ch = h - 2, cw = w - 2;  // convolution output
    const float* weights = blobs[0].ptr<float>();
    const float* bias = blobs[1].ptr<float>();
    const std::size_t plane = static_cast<std::size_t>(h) * w;
    for (int b = 0; b < n; ++b)
      in_blocks(ph, internals[0].rows, [&](int block, int begin, int end) {
        float* rows = internals[0].ptr<float>(block);
        for (int y = begin; y < end; ++y) {
          const int pair = std::min(2, ch - 2 * y);
          for (int k = 0; k < pair; ++k)
            for (int o = 0; o < co; o += 8)
              conv_rows8(in.ptr<float>(b), plane, w, 2 * y + k, weights + o * 27, bias + o,
                         rows + (static_cast<std::size_t>(k) * co + o) * cw, cw);
          for (int o = 0; o < co; ++o)
            pool_row(out.ptr<float>(b, o) + static_cast<std::size_t>(y) * pw,
                     rows + static_cast<std::size_t>(o) * cw,
                     rows + (static_cast<std::size_t>(pair - 1) * co + o) * cw, pw, cw, slope_);
        }
      });
  }

 private:
  float slope_ = 0;
};

class SeparableLeakyPoolLayer : public cv::dnn::Layer {
 public:
  explicit SeparableLeakyPoolLayer(const cv::dnn::LayerParams& params) : Layer(params) {
    slope_ = params.get<float>("negative_slope", 0.f);
    pool_stride_ = params.get<int>("pool_stride", 2);
    CV_Assert(slope_ >= 0.f && slope_ <= 1.f && (pool_stride_ == 1 || pool_stride_ == 2));
    CV_Assert(blobs.size() == 3 && blobs[0].dims == 4 && blobs[0].size[1] == 1 &&
              blobs[0].size[2] == 3 && blobs[0].size[3] == 3 && blobs[1].dims == 4 &&
              blobs[1].size[1] == blobs[0].size[0] && blobs[1].size[0] % 8 == 0 &&
              blobs[2].total() == static_cast<std::size_t>(blobs[1].size[0]));
  }

  static cv::Ptr<cv::dnn::Layer> create(cv::dnn::LayerParams& params) {
    return cv::makePtr<SeparableLeakyPoolLayer>(params);
  }

  int64 getFLOPS(const std::vector<MatShape>& inputs, const std::vector<MatShape>&) const override {
    const MatShape& s = inputs[0];
    const int64 pixels = static_cast<int64>(s[0]) * s[2] * s[3];
    return 2 * pixels * s[1] * (9 + blobs[1].size[0]);
  }

  bool getMemoryShapes(const std::vector<MatShape>& inputs, int, std::vector<MatShape>& outputs,
                       std::vector<MatShape>& internals) const override {
    const MatShape& s = inputs[0];
    CV_Assert(inputs.size() == 1 && s.size() == 4 && s[1] == blobs[0].size[0] && s[2] >= 2 &&
              s[3] >= 8);
    const int co = blobs[1].size[0];
    const int st = pool_stride_;
    outputs = {{s[0], co, (s[2] + st - 1) / st, (s[3] + st - 1) / st}};
    // One depthwise row per input channel, two pointwise rows per output channel.
    internals = {{scratch_blocks(), (s[1] + 2 * co) * s[3]}};
    return false;
  }

  void forward(cv::InputArrayOfArrays inputs_arr, cv::OutputArrayOfArrays outputs_arr,
               cv::OutputArrayOfArrays internals_arr) override {
    std::vector<cv::Mat> inputs, outputs, internals;
    inputs_arr.getMatVector(inputs);
    outputs_arr.getMatVector(outputs);
    internals_arr.getMatVector(internals);
    const cv::Mat& in = inputs[0];
    cv::Mat& out = outputs[0];
    const int n = in.size[0], c = in.size[1], h = in.size[2], w = in.size[3];
    const int co = out.size[1], ph = out.size[2], pw = out.size[3];
    const float* depthwise = blobs[0].ptr<float>();
    const float* pointwise = blobs[1].ptr<float>();
    const float* bias = blobs[2].ptr<float>();
    const std::size_t plane = static_cast<std::size_t>(h) * w;
    for (int b = 0; b < n; ++b)
      in_blocks(ph, internals[0].rows, [&](int block, int begin, int end) {
        float* dw = internals[0].ptr<float>(block);
        float* rows = dw + static_cast<std::size_t>(c) * w;
        // Convolution row r goes to slot r % 2 of `rows`.
        auto slot = [&](int r, int o) {
          return rows + (static_cast<std::size_t>(r % 2) * co + o) * w;
        };
        auto conv_row = [&](int r) {
          for (int i = 0; i < c; ++i)
            depthwise_row(in.ptr<float>(b) + i * plane, h, w, r, depthwise + i * 9,
                          dw + static_cast<std::size_t>(i) * w);
          for (int o = 0; o < co; o += 8)
            pointwise_rows8(dw, c, w, pointwise + static_cast<std::size_t>(o) * c, bias + o,
                            slot(r, o));
        };
        for (int y = begin; y < end; ++y) {
          const int first = y * pool_stride_, last = std::min(first + 1, h - 1);
          if (pool_stride_ == 2 || y == begin) conv_row(first);
          if (last != first) conv_row(last);
          for (int o = 0; o < co; ++o) {
            float* dst = out.ptr<float>(b, o) + static_cast<std::size_t>(y) * pw;
            if (pool_stride_ == 2)
              pool_row(dst, slot(first, o), slot(last, o), pw, w, slope_);
            else
              pool_row1(dst, slot(first, o), slot(last, o), pw, slope_);
          }
        }
      });
  }

 private:
  float slope_ = 0;
  int pool_stride_ = 2;
};

// out = max(0, in0 + in1 + ...), summed in input order.
RD_CLONES void sum_relu_span(const float* const* in, int count, float* __restrict out,
                             std::size_t n) {
  std::copy(in[0], in[0] + n, out);
  for (int i = 1; i < count; ++i) {
    const float* __restrict src = in[i];
    for (std::size_t x = 0; x < n; ++x) out[x] += src[x];
  }
  for (std::size_t x = 0; x < n; ++x) out[x] = out[x] > 0.f ? out[x] : 0.f;
}

class SumReluLayer : public cv::dnn::Layer {
 public:
  explicit SumReluLayer(const cv::dnn::LayerParams& params) : Layer(params) {}

  static cv::Ptr<cv::dnn::Layer> create(cv::dnn::LayerParams& params) {
    return cv::makePtr<SumReluLayer>(params);
  }

  int64 getFLOPS(const std::vector<MatShape>& inputs, const std::vector<MatShape>&) const override {
    return static_cast<int64>(inputs.size()) * static_cast<int64>(cv::dnn::total(inputs[0]));
  }

  bool getMemoryShapes(const std::vector<MatShape>& inputs, int, std::vector<MatShape>& outputs,
                       std::vector<MatShape>&) const override {
    CV_Assert(!inputs.empty());
    for (const MatShape& s : inputs) CV_Assert(s == inputs[0]);
    outputs = {inputs[0]};
    return false;
  }

  void forward(cv::InputArrayOfArrays inputs_arr, cv::OutputArrayOfArrays outputs_arr,
               cv::OutputArrayOfArrays) override {
    std::vector<cv::Mat> inputs, outputs;
    inputs_arr.getMatVector(inputs);
    outputs_arr.getMatVector(outputs);
    std::vector<const float*> in;
    for (const cv::Mat& m : inputs) in.push_back(m.ptr<float>());
    const int count = static_cast<int>(in.size());
    // Spans of 4096 floats, split over the threads.
    constexpr std::size_t kSpan = 4096;
    const std::size_t total = outputs[0].total();
    const int spans = static_cast<int>((total + kSpan - 1) / kSpan);
    float* out = outputs[0].ptr<float>();
    in_blocks(spans, spans, [&](int, int begin, int end) {
      std::vector<const float*> at(in.size());
      for (int sp = begin; sp < end; ++sp) {
        const std::size_t from = sp * kSpan, n = std::min(kSpan, total - from);
        for (int i = 0; i < count; ++i) at[i] = in[i] + from;
        sum_relu_span(at.data(), count, out + from, n);
      }
    });
  }
};

}  // namespace

void register_layers() {
  static std::once_flag once;
  std::call_once(once, [] {
    cv::dnn::LayerFactory::registerLayer(kDepthwise, DepthwiseLayer::create);
    cv::dnn::LayerFactory::registerLayer(kConvLeakyPool, ConvLeakyPoolLayer::create);
    cv::dnn::LayerFactory::registerLayer(kSeparableLeakyPool, SeparableLeakyPoolLayer::create);
    cv::dnn::LayerFactory::registerLayer(kSumRelu, SumReluLayer::create);
  });
}

}  // namespace rd::engine
