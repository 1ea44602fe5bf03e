// The four networks as OpenCV DNN graphs, built layer by layer from their
// weights. Inputs are NCHW float blobs already normalised by the caller.
#pragma once

#include <opencv2/dnn.hpp>

#include "engine/ModelWeights.h"

namespace rd::engine {

// Tiny face detector (separable-conv YOLO head, 5 anchors); input 1x3xSxS,
// output "out" 1x25x(S/32)x(S/32).
cv::dnn::Net build_detector(const ModelWeights& w);

// 68-point landmarks; input 1x3x112x112, output "out" 1x136 (x,y pairs, 0..1
// of the input square).
cv::dnn::Net build_landmarks(const ModelWeights& w);

// Expressions; input 1x3x112x112, output "out" 1x7 probabilities.
cv::dnn::Net build_expressions(const ModelWeights& w);

// Age and gender; input 1x3x112x112, outputs "age" 1x1 and "gender" 1x2
// (probabilities male, female).
cv::dnn::Net build_age_gender(const ModelWeights& w);

}  // namespace rd::engine
