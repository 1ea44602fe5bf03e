// Reading photos: the checks of a file's structure before decoding, decoding
// (reduced for large JPEGs), and the network input blobs.
#include "engine/ImageInput.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

namespace rd::engine {

namespace {

unsigned be16(const unsigned char* p) { return (unsigned(p[0]) << 8) | p[1]; }
std::uint32_t be32(const unsigned char* p) {
  return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) |
         p[3];
}

// The PNG chunks the decoder is given: the critical ones, transparency and
// the EXIF orientation. Text, colour profiles and the like (which the decoder
// would inflate and keep, and the picture does not need) are dropped.
bool png_chunk_kept(const unsigned char* type) {
  for (const char* kept : {"IHDR", "PLTE", "IDAT", "IEND", "tRNS", "eXIf"})
    if (std::memcmp(type, kept, 4) == 0) return true;
  return false;
}

struct Component {
  int id = 0, h = 1, v = 1;
};

long long ceil_div(long long a, long long b) { return (a + b - 1) / b; }

// Skips entropy-coded data from `pos`: the next marker is a 0xFF followed by
// neither 0x00 (a stuffed byte) nor a restart marker. Returns its offset, or
// n when the data runs to the end.
std::size_t skip_entropy_data(const unsigned char* p, std::size_t n, std::size_t pos) {
  while (pos < n) {
    const void* ff = std::memchr(p + pos, 0xFF, n - pos);
    if (!ff) return n;
    pos = static_cast<std::size_t>(static_cast<const unsigned char*>(ff) - p);
    if (pos + 1 >= n) return n;
    const unsigned char next = p[pos + 1];
    if (next != 0x00 && !(next >= 0xD0 && next <= 0xD7) && next != 0xFF) return pos;
    pos += next == 0xFF ? 1 : 2;
  }
  return n;
}

ImageHeader read_jpeg(const unsigned char* p, std::size_t n) {
  ImageHeader h;
  h.format = ImageFormat::Jpeg;
  std::vector<Component> comps;
  int hmax = 1, vmax = 1;
  std::size_t pos = 2;
  while (pos + 2 <= n) {
    if (p[pos] != 0xFF) {  // stray bytes before a marker: the decoder skips them too
      const void* ff = std::memchr(p + pos, 0xFF, n - pos);
      if (!ff) break;
      pos = static_cast<std::size_t>(static_cast<const unsigned char*>(ff) - p);
      continue;
    }
    const unsigned marker = p[pos + 1];
    if (marker == 0xFF) {  // fill byte
      ++pos;
      continue;
    }
    if (marker == 0xD9) {
      h.complete = true;
      h.end = pos + 2;
      break;
    }
    if (marker == 0xD8 || (marker >= 0xD0 && marker <= 0xD7) || marker == 0x01) {
      pos += 2;
      continue;
    }
    if (pos + 4 > n) break;
    const unsigned len = be16(p + pos + 2);
    if (len < 2 || pos + 2 + len > n) break;
    const unsigned char* seg = p + pos + 4;
    const bool sof =
        (marker >= 0xC0 && marker <= 0xCF) && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
    if (sof && h.width == 0 && len >= 8) {
      h.height = static_cast<int>(be16(seg + 1));
      h.width = static_cast<int>(be16(seg + 3));
      h.progressive = marker == 0xC2 || marker == 0xC6 || marker == 0xCA || marker == 0xCE;
      const unsigned count = seg[5];
      for (unsigned i = 0; i < count && 8 + 3 * (i + 1) <= len; ++i) {
        Component c{seg[6 + 3 * i], std::max(1, seg[7 + 3 * i] >> 4),
                    std::max(1, seg[7 + 3 * i] & 15)};
        hmax = std::max(hmax, c.h);
        vmax = std::max(vmax, c.v);
        comps.push_back(c);
      }
      for (const auto& c : comps)
        h.frame_blocks += ceil_div(ceil_div(1LL * h.width * c.h, hmax), 8) *
                          ceil_div(ceil_div(1LL * h.height * c.v, vmax), 8);
    }
    if (marker == 0xDA) {
      if (h.width == 0) return h;  // a scan before the frame header: damaged
      ++h.scans;
      const unsigned count = len >= 3 ? seg[0] : 0;
      long long blocks = 0;
      for (unsigned i = 0; i < count && 3 + 2 * (i + 1) <= len; ++i)
        for (const auto& c : comps)
          if (c.id == seg[1 + 2 * i]) {
            if (count == 1)  // one component: its own blocks
              blocks += ceil_div(ceil_div(1LL * h.width * c.h, hmax), 8) *
                        ceil_div(ceil_div(1LL * h.height * c.v, vmax), 8);
            else  // interleaved: whole MCUs
              blocks += ceil_div(h.width, 8LL * hmax) * ceil_div(h.height, 8LL * vmax) * c.h * c.v;
          }
      h.scan_blocks += blocks;
      pos = skip_entropy_data(p, n, pos + 2 + len);
      continue;
    }
    pos += 2 + len;
  }
  return h;
}

ImageHeader read_png(const unsigned char* p, std::size_t n) {
  ImageHeader h;
  h.format = ImageFormat::Png;
  std::size_t pos = 8;
  bool first = true;
  while (pos + 12 <= n) {
    const std::uint32_t len = be32(p + pos);
    if (len > 0x7fffffff || len > n - pos - 12) break;
    const unsigned char* type = p + pos + 4;
    if (first) {
      if (std::memcmp(type, "IHDR", 4) != 0 || len < 8) return h;
      const std::uint32_t w = be32(p + pos + 8), hh = be32(p + pos + 12);
      h.width = w > 0x7fffffff ? 0x7fffffff : static_cast<int>(w);
      h.height = hh > 0x7fffffff ? 0x7fffffff : static_cast<int>(hh);
      first = false;
    }
    pos += 12 + len;
    if (std::memcmp(type, "IEND", 4) == 0) {
      h.complete = true;
      h.end = pos;
      break;
    }
    if (!png_chunk_kept(type)) ++h.ancillary_chunks;
  }
  return h;
}

// A copy of the PNG with only the chunks the decoder is given.
std::string png_for_decoding(std::string_view bytes, std::size_t end) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  std::string out(bytes.substr(0, 8));
  out.reserve(end);
  for (std::size_t pos = 8; pos + 12 <= end;) {
    const std::size_t whole = 12 + be32(p + pos);
    if (png_chunk_kept(p + pos + 4)) out.append(bytes.substr(pos, whole));
    pos += whole;
  }
  return out;
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

ImageHeader check_image(std::string_view bytes, const Limits& limits) {
  using K = ImageError::Kind;
  if (bytes.empty()) throw ImageError(K::Empty, "the image is empty");
  if (bytes.size() > limits.max_bytes)
    throw ImageError(K::TooLarge, "the image has " + std::to_string(bytes.size()) +
                                      " bytes; at most " + std::to_string(limits.max_bytes) +
                                      " are accepted");
  const ImageHeader h = read_image_header(bytes);
  if (h.format == ImageFormat::Unknown)
    throw ImageError(K::NotImage, "the data is not a JPEG or PNG image");
  const bool jpeg = h.format == ImageFormat::Jpeg;
  const std::string fmt = jpeg ? "JPEG" : "PNG";
  if (h.width == 0 || h.height == 0) {
    if (!h.complete) throw ImageError(K::Truncated, "the " + fmt + " image is truncated");
    throw ImageError(K::Corrupt, "the " + fmt + " header gives no image size");
  }
  const int side = jpeg ? limits.max_side : std::min(limits.max_side, limits.decode_side);
  const long long pixels =
      jpeg ? limits.max_pixels
           : std::min<long long>(limits.max_pixels, 1LL * limits.decode_side * limits.decode_side);
  if (h.width > side || h.height > side || 1LL * h.width * h.height > pixels)
    throw ImageError(K::TooLarge, "the " + fmt + " image is " + std::to_string(h.width) + "x" +
                                      std::to_string(h.height) + " pixels; at most " +
                                      std::to_string(pixels) + " pixels and " +
                                      std::to_string(side) + " per side are accepted");
  if (!h.complete) throw ImageError(K::Truncated, "the " + fmt + " image is truncated");
  if (h.scans > limits.max_scans)
    throw ImageError(K::TooLarge, "the JPEG image has " + std::to_string(h.scans) +
                                      " scans; at most " + std::to_string(limits.max_scans) +
                                      " are accepted");
  if (h.scan_blocks > limits.max_scan_blocks ||
      (h.progressive && h.frame_blocks > limits.max_progressive_blocks))
    throw ImageError(K::TooLarge, "the JPEG image takes too much work to decode (" +
                                      std::to_string(h.scans) + " scans over " +
                                      std::to_string(h.frame_blocks) + " blocks)");
  if (h.ancillary_chunks > limits.max_ancillary_chunks)
    throw ImageError(K::TooLarge, "the PNG image has " + std::to_string(h.ancillary_chunks) +
                                      " extra chunks; at most " +
                                      std::to_string(limits.max_ancillary_chunks) +
                                      " are accepted");
  return h;
}

cv::Mat decode_image(std::string_view bytes, const Limits& limits, DecodedSize* size) {
  const ImageHeader h = check_image(bytes, limits);
  const bool jpeg = h.format == ImageFormat::Jpeg;
  // The smallest reduction that brings the picture within decode_side.
  int reduce = 1;
  while (jpeg && reduce < 8 &&
         (ceil_div(h.width, reduce) > limits.decode_side ||
          ceil_div(h.height, reduce) > limits.decode_side))
    reduce *= 2;
  static constexpr int kFlags[] = {cv::IMREAD_COLOR, cv::IMREAD_REDUCED_COLOR_2,
                                   cv::IMREAD_REDUCED_COLOR_4, cv::IMREAD_REDUCED_COLOR_8};
  const int flags = kFlags[reduce == 1 ? 0 : reduce == 2 ? 1 : reduce == 4 ? 2 : 3];

  std::string png;
  std::string_view data = bytes.substr(0, h.end);
  if (!jpeg && h.ancillary_chunks > 0) data = png = png_for_decoding(bytes, h.end);
  cv::Mat raw(1, static_cast<int>(data.size()), CV_8U,
              const_cast<char*>(data.data()));  // read only
  cv::Mat bgr;
  try {
    bgr = cv::imdecode(raw, flags);
  } catch (const cv::Exception&) {
    bgr.release();
  }
  if (bgr.empty() || bgr.type() != CV_8UC3)
    throw ImageError(ImageError::Kind::Corrupt,
                     std::string("the ") + (jpeg ? "JPEG" : "PNG") + " image cannot be decoded");
  if (size) {
    // Turned by its EXIF orientation when the long side changed.
    const bool turned = h.width != h.height && (bgr.cols > bgr.rows) != (h.width > h.height);
    size->width = turned ? h.height : h.width;
    size->height = turned ? h.width : h.height;
  }
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
