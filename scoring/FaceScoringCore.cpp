#include "scoring/FaceScoringCore.h"

#include <cmath>
#include <limits>

namespace rd::scoring {

namespace {

// Feature score for measured value v and target t: v/t below the target,
// t/v otherwise (including when the comparison is undecided).
double feature_score(double v, double t) { return v < t ? v / t : t / v; }

}  // namespace

double line_long(double x, double y) {
  (void)y;  // read and not used, on purpose
  return std::fabs(std::sqrt(x * x + x * x));
}

int trunc_to_int32(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 2147483647.0) return std::numeric_limits<int>::max();
  if (v <= -2147483648.0) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

Scores score(const FaceMeasures& f) {
  const double E = line_long(f.eye_x, f.eye_y);
  const double M = line_long(f.mouth_x, f.mouth_y);
  const double N = line_long(f.nose_x, f.nose_y);
  const double W = line_long(f.width, f.height);

  const double A = (f.age / 23) * 200;

  // The gender is compared and the outcome discarded: men and women are scored alike.
  [[maybe_unused]] const bool is_female = f.gender == "Female";

  const double S = (f.smile * 0.25) * 10;

  Scores s;
  s.other = ((A + S) / 450) * 10;
  s.eye = feature_score(E, W * 0.527);
  s.mouth = feature_score(M, W * 0.618);
  s.nose = feature_score(N, W * 0.798);

  // Plain IEEE arithmetic: a NaN feature makes the total NaN, which truncates to 0.
  const double eye = s.eye, mouth = s.mouth, nose = s.nose;
  const double total =
      ((eye + eye) * 1000 + (mouth + mouth) * 1000 + (nose + nose) * 1000) + s.other * 100;
  s.total = trunc_to_int32(total);
  return s;
}

}  // namespace rd::scoring
