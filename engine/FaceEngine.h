// Face analysis engine: finds the faces in a photo and estimates, for each,
// 68 landmarks, age, gender and seven expression probabilities.
//
// Four small convolutional networks (tiny face detector, 68-point landmark
// net, age-gender net, expression net) run on OpenCV's DNN module, with a
// few layers of our own where OpenCV's are slow for these shapes
// (engine/Layers.h). Their weights are read once, at construction, from the
// model folder (the *-weights_manifest.json files and their .bin shards).
//
// Thread-safe: analyze() may be called from any number of threads at once;
// each call borrows one set of network instances from a pool.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace cv {
class Mat;
}

namespace rd::engine {

struct Point {
  float x = 0, y = 0;
};

// A rectangle in image pixels (x, y: top-left corner).
struct Box {
  float x = 0, y = 0, width = 0, height = 0;
};

enum class Gender { Male, Female };

// Order of Face::expressions.
inline constexpr std::array<const char*, 7> kExpressionNames = {
    "neutral", "happy", "sad", "angry", "fearful", "disgusted", "surprised"};

struct Face {
  Box box;                          // detector box, image pixels (may reach past the border)
  float score = 0;                  // detector confidence 0..1
  std::array<Point, 68> landmarks;  // image pixels, the usual 68-point layout
  float age = 0;                    // years
  float age_spread = 0;             // years; see FaceEngine::analyze
  Gender gender = Gender::Male;
  float gender_probability = 0;        // 0.5..1, for `gender`
  std::array<float, 7> expressions{};  // probabilities, kExpressionNames order, sum 1
};

struct Analysis {
  int width = 0, height = 0;  // of the photo (analyze: boxes and points are in its pixels)
  std::vector<Face> faces;    // best detector score first
};

// Rejected input. `kind` tells the caller which answer fits.
class ImageError : public std::runtime_error {
 public:
  enum class Kind {
    Empty,      // no bytes
    NotImage,   // neither JPEG nor PNG
    Truncated,  // the file ends early
    TooLarge,   // too many bytes or pixels
    Corrupt,    // looks like JPEG/PNG but cannot be decoded
  };
  ImageError(Kind k, const std::string& what) : std::runtime_error(what), kind(k) {}
  Kind kind;
};

// The model files are missing or unreadable.
class ModelError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class ImageFormat { Unknown, Jpeg, Png };

// What the file's structure says, before any decoding: its JPEG markers (and
// the entropy-coded data between them, skipped) or its PNG chunks are walked
// to the end marker.
struct ImageHeader {
  ImageFormat format = ImageFormat::Unknown;
  int width = 0, height = 0;  // 0 when the header does not say (yet)
  bool complete = false;      // the file has its end marker (JPEG EOI, PNG IEND)
  std::size_t end = 0;        // bytes up to and including the end marker; 0 without one
  // JPEG: scans (start-of-scan markers), whether the frame is progressive,
  // and the 8x8 blocks the decoder goes through in all scans together (its
  // work grows with it), and the blocks of the frame.
  int scans = 0;
  bool progressive = false;
  long long scan_blocks = 0, frame_blocks = 0;
  // PNG: chunks other than the ones the decoder needs (text, colour profiles,
  // animation frames, ...), which are dropped before decoding.
  int ancillary_chunks = 0;
};

// Reads the format, the dimensions, the end marker and the decode work from
// the bytes, without decoding pixels; linear in their length. Never throws.
ImageHeader read_image_header(std::string_view bytes);

struct Limits {
  std::size_t max_bytes = 10 * 1024 * 1024;
  long long max_pixels = 36'000'000;  // e.g. 7200 x 5000
  int max_side = 12'000;
  // Pixels a side at most after decoding: a larger JPEG is decoded at 1/2,
  // 1/4 or 1/8 of its size (the decoder scales while it decodes); a PNG,
  // which cannot be, may not be larger.
  int decode_side = 2048;
  int max_scans = 100;
  // About three passes over 36 megapixels (4:2:0); a 12-megapixel progressive
  // photo with the usual ten scans takes about 1.1 million.
  long long max_scan_blocks = 3'000'000;
  // A progressive JPEG keeps all its coefficients until the last scan (128
  // bytes a block): 512k blocks is 64 MiB.
  long long max_progressive_blocks = 512 * 1024;
  int max_ancillary_chunks = 64;
};

struct EngineOptions {
  int detector_input_size = 416;  // multiple of 32
  float score_threshold = 0.5f;
  int max_instances = 0;  // network sets in the pool; 0: one per core
  Limits limits;
};

class FaceEngine {
 public:
  // Reads the four models from `model_dir`; throws ModelError when one is
  // missing or does not match its manifest.
  explicit FaceEngine(const std::string& model_dir, EngineOptions options = {});
  ~FaceEngine();
  FaceEngine(const FaceEngine&) = delete;
  FaceEngine& operator=(const FaceEngine&) = delete;

  // JPEG or PNG bytes in. The header is checked against the limits before
  // any decoding (decompression bombs are refused unread); throws ImageError.
  //
  // age_spread is an uncertainty of the age, in years: the age net's answer
  // for the mirror image of the face differs from the one for the face
  // itself; the spread is that difference plus a floor of a tenth of the
  // age (the order of such nets' typical error), never under 2 years.
  Analysis analyze(std::string_view image_bytes) const;

  // The same for decoded pixels: 8-bit RGB, 3 channels.
  Analysis analyze_rgb(const cv::Mat& rgb) const;

  const EngineOptions& options() const { return options_; }

  struct Impl;  // the models and the pool of network sets

 private:
  EngineOptions options_;
  std::unique_ptr<Impl> impl_;
};

// The size of the photo a decode came from, as oriented: the decoded image
// may be smaller (see Limits::decode_side).
struct DecodedSize {
  int width = 0, height = 0;
};

// Decodes JPEG/PNG bytes to 8-bit RGB after the checks of analyze(); throws
// ImageError. The header's dimensions, scans and chunks decide before any
// pixel is decoded; bytes after the end marker are ignored; EXIF orientation
// is applied.
cv::Mat decode_image(std::string_view bytes, const Limits& limits, DecodedSize* size = nullptr);

// The checks alone: throws the ImageError decode_image() would throw before decoding.
ImageHeader check_image(std::string_view bytes, const Limits& limits);

}  // namespace rd::engine
