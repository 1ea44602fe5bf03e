// Network input blobs cut from a photo the way the models were trained:
// pad the region to a square with black, bilinear-resize it (source =
// destination * scale, no half-pixel offset), subtract the mean colour and
// divide by 255.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "engine/FaceEngine.h"

namespace rd::engine {

class SquareSampler {
 public:
  // A region of src_w x src_h pixels, padded after (or, `centered`, on both
  // sides of) its short side, resized to out x out.
  SquareSampler(int src_w, int src_h, bool centered, int out);

  // Writes the 1x3xoutxout blob for `roi` of the 8-bit RGB image.
  void fill(const cv::Mat& rgb, cv::Rect roi, const float mean[3], cv::Mat& blob) const;

 private:
  struct Tap {
    int lo, hi;  // source index, or -1 for padding
    float frac;
  };
  int out_;
  std::vector<Tap> xs_, ys_;
};

}  // namespace rd::engine
