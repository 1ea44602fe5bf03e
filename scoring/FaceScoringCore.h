// The arithmetic of the 容点 score in plain C++, the one implementation: the
// app's scoring (FaceScoring, its Qt-facing wrapper) and the server's check of
// published scores both link this library (rongdian_scoring) and nothing else
// computes the formulas. Kept exactly as the app defines them, including the
// distance helper that ignores its second coordinate and the gender test
// without effect: two builds must give the same score for the same answer.
#pragma once

#include <string>

namespace rd::scoring {

// The numbers of one face that enter the score, as the detection answer gives
// them (an absent value reads as 0).
struct FaceMeasures {
  double eye_x = 0, eye_y = 0;      // eye_left, percent of the image
  double mouth_x = 0, mouth_y = 0;  // mouth_left
  double nose_x = 0, nose_y = 0;    // nose
  double width = 0, height = 0;     // the face box
  double age = 0;                   // years
  double smile = 0;                 // 0..100
  std::string gender;               // "Female" or another text
};

struct Scores {
  double eye = 0;    // 0..1
  double mouth = 0;  // 0..1
  double nose = 0;   // 0..1
  double other = 0;  // age and smile, unbounded above
  int total = 0;     // the overall score (its "%d" text is what the app shows and publishes)
};

// The distance helper: |sqrt(x*x + x*x)|; y is read and not used.
double line_long(double x, double y);

// A double truncated towards zero to a 32-bit integer: NaN gives 0, values
// out of range saturate.
int trunc_to_int32(double v);

Scores score(const FaceMeasures& face);

}  // namespace rd::scoring
