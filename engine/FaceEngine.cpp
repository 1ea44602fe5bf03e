#include "engine/FaceEngine.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>
#include <thread>

#include "engine/ImageInput.h"
#include "engine/ModelWeights.h"
#include "engine/Networks.h"

namespace rd::engine {

namespace {

// Mean colours the models were trained with (RGB).
constexpr float kDetectorMean[3] = {117.001f, 114.697f, 97.404f};
constexpr float kFaceMean[3] = {122.782f, 117.001f, 104.298f};
constexpr int kFaceInput = 112;
constexpr float kIouThreshold = 0.4f;
// Detector anchors (width, height in grid cells).
constexpr float kAnchors[5][2] = {{1.603231f, 2.094468f},
                                  {6.041143f, 7.080126f},
                                  {2.882459f, 3.518061f},
                                  {4.266906f, 5.178857f},
                                  {9.041765f, 10.66308f}};

double sigmoid(double x) { return 1.0 / (1.0 + std::exp(-x)); }

// The integer region of a box inside the image (clipped, then floored);
// empty when nothing is left.
cv::Rect crop_rect(double x, double y, double w, double h, int img_w, int img_h) {
  const double cx = std::max(x, 0.0), cy = std::max(y, 0.0);
  const double cw = std::min(x + w - cx, img_w - cx);
  const double ch = std::min(y + h - cy, img_h - cy);
  cv::Rect r(static_cast<int>(std::floor(cx)), static_cast<int>(std::floor(cy)),
             static_cast<int>(std::floor(cw)), static_cast<int>(std::floor(ch)));
  if (r.width <= 0 || r.height <= 0) return {};
  return r & cv::Rect(0, 0, img_w, img_h);
}

}  // namespace

struct NetSet {
  cv::dnn::Net detector, landmarks, expressions, age_gender;
  // Input blobs, kept from call to call so that their memory is reused.
  cv::Mat detector_in, landmarks_in, face_in, mirror_in;
};

struct FaceEngine::Impl {
  ModelWeights detector_w, landmarks_w, expressions_w, age_gender_w;
  int max_sets = 1;

  std::mutex mu;
  std::condition_variable cv;
  std::vector<std::unique_ptr<NetSet>> idle;
  int created = 0;

  std::unique_ptr<NetSet> build() const {
    auto s = std::make_unique<NetSet>();
    s->detector = build_detector(detector_w);
    s->landmarks = build_landmarks(landmarks_w);
    s->expressions = build_expressions(expressions_w);
    s->age_gender = build_age_gender(age_gender_w);
    return s;
  }

  std::unique_ptr<NetSet> acquire() {
    std::unique_lock lock(mu);
    for (;;) {
      if (!idle.empty()) {
        auto s = std::move(idle.back());
        idle.pop_back();
        return s;
      }
      if (created < max_sets) {
        ++created;
        lock.unlock();
        try {
          return build();
        } catch (...) {
          lock.lock();
          --created;
          cv.notify_one();
          throw;
        }
      }
      cv.wait(lock);
    }
  }

  void release(std::unique_ptr<NetSet> s) {
    {
      std::lock_guard lock(mu);
      idle.push_back(std::move(s));
    }
    cv.notify_one();
  }
};

namespace {

// Returns the network set to the pool however the call ends.
class Borrowed {
 public:
  explicit Borrowed(FaceEngine::Impl& impl) : impl_(impl), set_(impl.acquire()) {}
  ~Borrowed() {
    if (set_) impl_.release(std::move(set_));
  }
  NetSet& operator*() { return *set_; }

 private:
  FaceEngine::Impl& impl_;
  std::unique_ptr<NetSet> set_;
};

void face_blob(const cv::Mat& rgb, cv::Rect r, cv::Mat& blob) {
  SquareSampler(r.width, r.height, true, kFaceInput).fill(rgb, r, kFaceMean, blob);
}

cv::Mat run(cv::dnn::Net& net, const cv::Mat& blob, const char* out) {
  net.setInput(blob, "data");
  return net.forward(out);
}

}  // namespace

FaceEngine::FaceEngine(const std::string& model_dir, EngineOptions options)
    : options_(options), impl_(std::make_unique<Impl>()) {
  if (options_.detector_input_size < 32 || options_.detector_input_size % 32 != 0)
    throw std::invalid_argument("detector input size must be a positive multiple of 32");
  impl_->detector_w = ModelWeights::load(model_dir, "tiny_face_detector_model");
  impl_->landmarks_w = ModelWeights::load(model_dir, "face_landmark_68_model");
  impl_->expressions_w = ModelWeights::load(model_dir, "face_expression_model");
  impl_->age_gender_w = ModelWeights::load(model_dir, "age_gender_model");
  impl_->max_sets = options_.max_instances > 0
                        ? options_.max_instances
                        : std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  // Build one set now, so that weights which do not fit their graph fail here.
  impl_->release(impl_->build());
  impl_->created = 1;
}

FaceEngine::~FaceEngine() = default;

Analysis FaceEngine::analyze(std::string_view image_bytes) const {
  DecodedSize full;
  const cv::Mat rgb = decode_image(image_bytes, options_.limits, &full);
  Analysis result = analyze_rgb(rgb);
  if (full.width == result.width && full.height == result.height) return result;
  // Decoded reduced: boxes and points in the photo's own pixels.
  const float sx = static_cast<float>(full.width) / static_cast<float>(rgb.cols);
  const float sy = static_cast<float>(full.height) / static_cast<float>(rgb.rows);
  for (Face& f : result.faces) {
    f.box = {f.box.x * sx, f.box.y * sy, f.box.width * sx, f.box.height * sy};
    for (Point& p : f.landmarks) p = {p.x * sx, p.y * sy};
  }
  result.width = full.width;
  result.height = full.height;
  return result;
}

Analysis FaceEngine::analyze_rgb(const cv::Mat& rgb) const {
  if (rgb.empty() || rgb.type() != CV_8UC3)
    throw std::invalid_argument("analyze_rgb needs an 8-bit, 3-channel image");
  Analysis result;
  result.width = rgb.cols;
  result.height = rgb.rows;
  const int w = rgb.cols, h = rgb.rows;
  const int size = options_.detector_input_size;

  Borrowed borrowed(*impl_);
  NetSet& nets = *borrowed;

  // 1. Detection on the whole photo, padded to a square at its end.
  SquareSampler(w, h, false, size).fill(rgb, cv::Rect(0, 0, w, h), kDetectorMean, nets.detector_in);
  cv::Mat out = run(nets.detector, nets.detector_in, "out");  // 1 x 25 x cells x cells
  const int cells = out.size[2];
  const double scale = static_cast<double>(size) / std::max(w, h);
  const double resized_w = std::round(w * scale), resized_h = std::round(h * scale);
  const double corr_x = size / resized_w, corr_y = size / resized_h;
  const std::size_t plane = static_cast<std::size_t>(cells) * cells;
  const float* o = out.ptr<float>();
  std::vector<cv::Rect2d> boxes;  // relative to the image, 0..1
  std::vector<float> scores;
  for (int row = 0; row < cells; ++row)
    for (int col = 0; col < cells; ++col)
      for (int a = 0; a < 5; ++a) {
        auto at = [&](int k) {
          return static_cast<double>(o[static_cast<std::size_t>(a * 5 + k) * plane +
                                       static_cast<std::size_t>(row) * cells + col]);
        };
        const double score = sigmoid(at(4));
        if (score <= options_.score_threshold) continue;
        const double cx = (col + sigmoid(at(0))) / cells * corr_x;
        const double cy = (row + sigmoid(at(1))) / cells * corr_y;
        const double bw = std::exp(at(2)) * kAnchors[a][0] / cells * corr_x;
        const double bh = std::exp(at(3)) * kAnchors[a][1] / cells * corr_y;
        boxes.emplace_back(cx - bw / 2, cy - bh / 2, bw, bh);
        scores.push_back(static_cast<float>(score));
      }
  // Non-maximum suppression, best score first; the scores were filtered above.
  std::vector<int> kept;
  cv::dnn::NMSBoxes(boxes, scores, 0.f, kIouThreshold, kept);

  for (int k : kept) {
    const cv::Rect2d& c = boxes[static_cast<std::size_t>(k)];
    Face face;
    face.score = scores[static_cast<std::size_t>(k)];
    const double bx = c.x * w, by = c.y * h;
    const double bw = c.width * w, bh = c.height * h;
    face.box = {static_cast<float>(bx), static_cast<float>(by), static_cast<float>(bw),
                static_cast<float>(bh)};

    // 2. Landmarks in the detector box.
    const cv::Rect det = crop_rect(bx, by, bw, bh, w, h);
    if (det.empty()) continue;
    face_blob(rgb, det, nets.landmarks_in);
    cv::Mat lm = run(nets.landmarks, nets.landmarks_in, "out");
    const double lscale = static_cast<double>(kFaceInput) / std::max(det.width, det.height);
    const double in_w = det.width * lscale, in_h = det.height * lscale;
    const double pad_x = in_w < in_h ? std::abs(in_w - in_h) / 2 : 0;
    const double pad_y = in_h < in_w ? std::abs(in_w - in_h) / 2 : 0;
    const float* l = lm.ptr<float>();
    double min_x = INFINITY, min_y = INFINITY, max_x = 0, max_y = 0;
    for (int i = 0; i < 68; ++i) {
      const double rx = (l[2 * i] * kFaceInput - pad_x) / in_w;
      const double ry = (l[2 * i + 1] * kFaceInput - pad_y) / in_h;
      const double px = rx * det.width + bx, py = ry * det.height + by;
      face.landmarks[static_cast<std::size_t>(i)] = {static_cast<float>(px),
                                                     static_cast<float>(py)};
      min_x = std::min(min_x, px);
      min_y = std::min(min_y, py);
      max_x = std::max(max_x, px);
      max_y = std::max(max_y, py);
    }

    // 3. Age, gender and expressions in the landmarks' bounding box, widened
    // by a fifth.
    const double aw = max_x - min_x, ah = max_y - min_y;
    const cv::Rect aligned =
        crop_rect(min_x - aw * 0.1, min_y - ah * 0.1, aw * 1.2, ah * 1.2, w, h);
    if (aligned.empty()) continue;
    const cv::Mat& fblob = nets.face_in;
    face_blob(rgb, aligned, nets.face_in);
    cv::Mat expr = run(nets.expressions, fblob, "out");
    for (int i = 0; i < 7; ++i)
      face.expressions[static_cast<std::size_t>(i)] = expr.ptr<float>()[i];

    const std::vector<cv::String> age_gender_out = {"age", "gender"};
    std::vector<cv::Mat> ag;
    nets.age_gender.setInput(fblob, "data");
    nets.age_gender.forward(ag, age_gender_out);
    face.age = ag[0].ptr<float>()[0];
    const float male = ag[1].ptr<float>()[0];
    face.gender = male > 0.5f ? Gender::Male : Gender::Female;
    face.gender_probability = male > 0.5f ? male : 1.f - male;

    // Age uncertainty from the mirror image.
    nets.mirror_in.create(fblob.dims, fblob.size.p, CV_32F);
    cv::Mat mirrored = nets.mirror_in.reshape(1, 3 * kFaceInput);
    cv::flip(fblob.reshape(1, 3 * kFaceInput), mirrored, 1);
    std::vector<cv::Mat> ag2;
    nets.age_gender.setInput(nets.mirror_in, "data");
    nets.age_gender.forward(ag2, age_gender_out);
    const float age2 = ag2[0].ptr<float>()[0];
    face.age_spread = std::max(2.f, std::abs(face.age - age2) + 0.1f * std::max(face.age, 0.f));

    result.faces.push_back(face);
  }
  return result;
}

}  // namespace rd::engine
