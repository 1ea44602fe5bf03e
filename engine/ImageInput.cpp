// Reading photos: header checks before decoding, decoding, and the network
// input blobs.
#include "engine/ImageInput.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace rd::engine {

namespace {

unsigned be16(const unsigned char* p) { return (unsigned(p[0]) << 8) | p[1]; }
std::uint32_t be32(const unsigned char* p) {
  return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) |
         p[3];
}

ImageHeader read_jpeg(const unsigned char* p, std::size_t n) {
  ImageHeader h;
  h.format = ImageFormat::Jpeg;
  // The end marker, allowing some trailing bytes after it. (0xFF 0xD9 cannot
  // occur inside entropy-coded data, where 0xFF is always followed by 0x00.)
  const std::size_t stop = n > 4096 ? n - 4096 : 1;
  for (std::size_t i = n - 1; i >= stop && i > 0; --i)
    if (p[i - 1] == 0xFF && p[i] == 0xD9) {
      h.complete = true;
      break;
    }
  std::size_t pos = 2;
  while (pos + 4 <= n) {
    if (p[pos] != 0xFF) return h;  // not at a marker: damaged
    unsigned marker = p[pos + 1];
    if (marker == 0xFF) {  // fill byte
      ++pos;
      continue;
    }
    if (marker == 0xD8 || (marker >= 0xD0 && marker <= 0xD7) || marker == 0x01) {
      pos += 2;
      continue;
    }
    if (marker == 0xD9 || marker == 0xDA) return h;  // end or scan before any frame header
    unsigned len = be16(p + pos + 2);
    if (len < 2) return h;
    const bool sof =
        (marker >= 0xC0 && marker <= 0xCF) && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
    if (sof) {
      if (pos + 9 > n) return h;
      h.height = static_cast<int>(be16(p + pos + 5));
      h.width = static_cast<int>(be16(p + pos + 7));
      return h;
    }
    pos += 2 + len;
  }
  return h;
}

ImageHeader read_png(const unsigned char* p, std::size_t n) {
  ImageHeader h;
  h.format = ImageFormat::Png;
  if (n >= 24 && std::memcmp(p + 12, "IHDR", 4) == 0) {
    std::uint32_t w = be32(p + 16), hh = be32(p + 20);
    h.width = w > 0x7fffffff ? 0x7fffffff : static_cast<int>(w);
    h.height = hh > 0x7fffffff ? 0x7fffffff : static_cast<int>(hh);
  }
  // IEND chunk: length 0, type, CRC — the last 12 bytes of a whole file.
  if (n >= 8 + 25 + 12 && std::memcmp(p + n - 8, "IEND", 4) == 0) h.complete = true;
  return h;
}

}  // namespace

ImageHeader read_image_header(std::string_view bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::size_t n = bytes.size();
  if (n >= 3 && p[0] == 0xFF && p[1] == 0xD8 && p[2] == 0xFF) return read_jpeg(p, n);
  static const unsigned char kPng[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (n >= 8 && std::memcmp(p, kPng, 8) == 0) return read_png(p, n);
  return {};
}

cv::Mat decode_image(std::string_view bytes, const Limits& limits) {
  using K = ImageError::Kind;
  if (bytes.empty()) throw ImageError(K::Empty, "the image is empty");
  if (bytes.size() > limits.max_bytes)
    throw ImageError(K::TooLarge, "the image has " + std::to_string(bytes.size()) +
                                      " bytes; at most " + std::to_string(limits.max_bytes) +
                                      " are accepted");
  const ImageHeader h = read_image_header(bytes);
  if (h.format == ImageFormat::Unknown)
    throw ImageError(K::NotImage, "the data is not a JPEG or PNG image");
  const char* fmt = h.format == ImageFormat::Jpeg ? "JPEG" : "PNG";
  if (h.width == 0 || h.height == 0) {
    if (!h.complete)
      throw ImageError(K::Truncated, std::string("the ") + fmt + " image is truncated");
    throw ImageError(K::Corrupt, std::string("the ") + fmt + " header gives no image size");
  }
  if (h.width > limits.max_side || h.height > limits.max_side ||
      static_cast<long long>(h.width) * h.height > limits.max_pixels)
    throw ImageError(K::TooLarge, "the image is " + std::to_string(h.width) + "x" +
                                      std::to_string(h.height) + " pixels; at most " +
                                      std::to_string(limits.max_pixels) + " pixels and " +
                                      std::to_string(limits.max_side) + " per side are accepted");
  if (!h.complete)
    throw ImageError(K::Truncated, std::string("the ") + fmt + " image is truncated");

  cv::Mat raw(1, static_cast<int>(bytes.size()), CV_8U,
              const_cast<char*>(bytes.data()));  // read only
  cv::Mat bgr;
  try {
    bgr = cv::imdecode(raw, cv::IMREAD_COLOR);
  } catch (const cv::Exception&) {
    bgr.release();
  }
  if (bgr.empty() || bgr.type() != CV_8UC3)
    throw ImageError(K::Corrupt, std::string("the ") + fmt + " image cannot be decoded");
  cv::Mat rgb;
  cv::cvtColor(bgr, rgb, cv::COLOR_BGR2RGB);
  return rgb;
}

SquareSampler::SquareSampler(int src_w, int src_h, bool centered, int out) : out_(out) {
  const int side = std::max(src_w, src_h);
  const int diff = std::abs(src_w - src_h);
  // Zero padding along the short side: all after it, or split with the
  // larger half (rounded) after.
  const int after = centered ? static_cast<int>(std::lround(diff * 0.5)) : diff;
  const int before = diff - after;
  const int pad_x = src_w < src_h ? before : 0;
  const int pad_y = src_h < src_w ? before : 0;
  // Bilinear resize of the padded square, corners not aligned, no half-pixel
  // offset: source = destination * side / out.
  const float scale = static_cast<float>(side) / static_cast<float>(out);
  auto axis = [&](std::vector<Tap>& taps, int pad, int len) {
    taps.resize(static_cast<std::size_t>(out));
    for (int i = 0; i < out; ++i) {
      const float in = static_cast<float>(i) * scale;
      const int lo = static_cast<int>(std::floor(in));
      const int hi = std::min(static_cast<int>(std::ceil(in)), side - 1);
      Tap& t = taps[static_cast<std::size_t>(i)];
      t.frac = in - static_cast<float>(lo);
      t.lo = lo - pad;
      t.hi = hi - pad;
      if (t.lo < 0 || t.lo >= len) t.lo = -1;
      if (t.hi < 0 || t.hi >= len) t.hi = -1;
    }
  };
  axis(xs_, pad_x, src_w);
  axis(ys_, pad_y, src_h);
}

void SquareSampler::fill(const cv::Mat& rgb, cv::Rect roi, const float mean[3],
                         cv::Mat& blob) const {
  int sizes[] = {1, 3, out_, out_};
  blob.create(4, sizes, CV_32F);
  const std::size_t n = static_cast<std::size_t>(out_);
  float* dst = blob.ptr<float>();
  // Horizontal pass of one source row (-1: padding), channel planes of n:
  // left + (right - left) * fx, with the padding's taps 0.
  auto horizontal = [&](int row, float* h) {
    if (row < 0) {
      std::fill(h, h + 3 * n, 0.f);
      return;
    }
    const unsigned char* src = rgb.ptr<unsigned char>(roi.y + row) + roi.x * 3;
    for (std::size_t x = 0; x < n; ++x) {
      const Tap& t = xs_[x];
      for (int c = 0; c < 3; ++c) {
        const float l = t.lo < 0 ? 0.f : static_cast<float>(src[t.lo * 3 + c]);
        const float r = t.hi < 0 ? 0.f : static_cast<float>(src[t.hi * 3 + c]);
        h[c * n + x] = l + (r - l) * t.frac;
      }
    }
  };
  // The horizontal passes of the last two source rows, reused while the
  // output rows step between the same pair.
  std::vector<float> rows(6 * n);
  float* h[2] = {rows.data(), rows.data() + 3 * n};
  int have[2] = {-2, -2};  // source rows in h[0], h[1]
  auto pass = [&](int row, int slot) -> const float* {
    if (have[slot] == row) return h[slot];
    if (have[1 - slot] == row) return h[1 - slot];
    horizontal(row, h[slot]);
    have[slot] = row;
    return h[slot];
  };
  for (std::size_t y = 0; y < n; ++y) {
    const Tap& ty = ys_[y];
    // The slot not holding the top row takes the bottom one.
    const int top_slot = have[1] == ty.lo ? 1 : 0;
    const float* top = pass(ty.lo, top_slot);
    const float* bottom = ty.hi == ty.lo ? top : pass(ty.hi, 1 - top_slot);
    for (int c = 0; c < 3; ++c) {
      const float* t = top + c * n;
      const float* b = bottom + c * n;
      float* o = dst + c * n * n + y * n;
      const float m = mean[c], f = ty.frac;
      for (std::size_t x = 0; x < n; ++x) o[x] = (t[x] + (b[x] - t[x]) * f - m) / 255.f;
    }
  }
}

}  // namespace rd::engine
