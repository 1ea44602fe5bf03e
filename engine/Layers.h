// Layer types of our own for OpenCV DNN, for the shapes of these networks
// where OpenCV's CPU kernels spend their time on something else than the
// arithmetic (measured by bench_engine):
//
// - kDepthwise: 3x3 depthwise convolution without bias. OpenCV's own one
//   falls back to a per-channel generic path for planes under 18 pixels
//   wide (the 14x14 and 7x7 stages of the face nets), ten times slower.
//   Blobs: weights C x 1 x 3 x 3. Params: "stride" (1 or 2) and either
//   "pad" (symmetric) or "same" (TF SAME: the odd pixel after).
//
// - kConvLeakyPool: the detector's first stage in one pass: 3x3 VALID
//   convolution with bias, leaky ReLU ("negative_slope"), 2x2 max-pooling
//   with stride 2 (TF SAME). OpenCV runs it as three layers through a
//   16-channel full-resolution intermediate of 11 MB that leaves the cache.
//   Blobs: weights O x C x 3 x 3, bias 1 x O.
//
// - kSeparableLeakyPool: the detector's next stages in one pass: 3x3
//   depthwise convolution (padding 1), 1x1 convolution with bias, leaky
//   ReLU, 2x2 max-pooling (TF SAME) with "pool_stride" 2 or 1, row by row,
//   where OpenCV writes and reads back three full-size intermediates.
//   Blobs: depthwise weights C x 1 x 3 x 3, pointwise O x C x 1 x 1, bias
//   1 x O.
//
// - kSumRelu: ReLU of the sum of its inputs (all of one shape), where
//   OpenCV's Eltwise layer takes four times as long as reading them.
#pragma once

namespace rd::engine {

inline constexpr const char* kDepthwise = "RdDepthwise3x3";
inline constexpr const char* kConvLeakyPool = "RdConv3x3LeakyPool";
inline constexpr const char* kSeparableLeakyPool = "RdSeparableLeakyPool";
inline constexpr const char* kSumRelu = "RdSumRelu";

// Makes the types above known to OpenCV DNN; once per process, thread-safe.
void register_layers();

}  // namespace rd::engine
