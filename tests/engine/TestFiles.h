// Helpers shared by the engine tests: the package's sample photos and small
// hand-made image files.
#pragma once

#include <zlib.h>

#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace rdtest {

inline std::string models_dir() { return std::string(RD_MODELS_DIR) + "/model"; }
inline std::string sample_path(int n) {
  return std::string(RD_MODELS_DIR) + "/demo/sample" + std::to_string(n) + ".jpg";
}

inline std::string read_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

inline void put32(std::string& s, unsigned v) {
  s += static_cast<char>(v >> 24);
  s += static_cast<char>(v >> 16);
  s += static_cast<char>(v >> 8);
  s += static_cast<char>(v);
}

// A PNG file whose header claims width x height; the pixel data is a token
// (a decoder would have to inflate it all to notice).
inline std::string png_claiming(unsigned width, unsigned height) {
  std::string s("\x89PNG\r\n\x1a\n", 8);
  put32(s, 13);
  s += "IHDR";
  put32(s, width);
  put32(s, height);
  s += std::string("\x08\x02\x00\x00\x00", 5);
  put32(s, 0);  // CRC (not checked before the size is)
  put32(s, 10);
  s += "IDAT";
  s += std::string(10, '\0');
  put32(s, 0);
  put32(s, 0);
  s += "IEND";
  put32(s, 0xAE426082u);
  return s;
}

// The JPEG with its frame header's dimensions replaced.
inline std::string jpeg_claiming(std::string jpeg, unsigned width, unsigned height) {
  for (std::size_t i = 2; i + 9 < jpeg.size();) {
    unsigned char m = static_cast<unsigned char>(jpeg[i + 1]);
    unsigned len =
        (static_cast<unsigned char>(jpeg[i + 2]) << 8) | static_cast<unsigned char>(jpeg[i + 3]);
    if (m >= 0xC0 && m <= 0xC2) {
      jpeg[i + 5] = static_cast<char>(height >> 8);
      jpeg[i + 6] = static_cast<char>(height);
      jpeg[i + 7] = static_cast<char>(width >> 8);
      jpeg[i + 8] = static_cast<char>(width);
      return jpeg;
    }
    i += 2 + len;
  }
  return jpeg;
}

inline std::string encode(const cv::Mat& img, const std::string& ext,
                          const std::vector<int>& params = {}) {
  std::vector<unsigned char> out;
  cv::imencode(ext, img, out, params);
  return std::string(out.begin(), out.end());
}

// A flat grey progressive JPEG whose last scan is repeated `repeats` more
// times before its end: a few bytes per scan, while the decoder goes through
// every block of the picture for each.
inline std::string jpeg_with_repeated_scan(int side, int repeats) {
  std::string jpeg = encode(cv::Mat(side, side, CV_8UC3, cv::Scalar(128, 128, 128)), ".jpg",
                            {cv::IMWRITE_JPEG_PROGRESSIVE, 1});
  const std::size_t last = jpeg.rfind("\xFF\xDA");
  const std::string scan = jpeg.substr(last, jpeg.size() - 2 - last);
  std::string more;
  for (int i = 0; i < repeats; ++i) more += scan;
  jpeg.insert(jpeg.size() - 2, more);
  return jpeg;
}

// The PNG with `count` compressed text chunks after its header, each
// inflating to `inflated` bytes.
inline std::string png_with_text_chunks(const std::string& png, int count, std::size_t inflated) {
  std::string text = "Comment";
  text += '\0';
  text += '\0';  // compression method: deflate
  std::string zeros(inflated, '\0');
  uLongf size = compressBound(static_cast<uLong>(zeros.size()));
  std::string packed(size, '\0');
  compress(reinterpret_cast<Bytef*>(packed.data()), &size,
           reinterpret_cast<const Bytef*>(zeros.data()), static_cast<uLong>(zeros.size()));
  packed.resize(size);
  std::string chunk;
  put32(chunk, static_cast<unsigned>(text.size() + packed.size()));
  std::string body = "zTXt" + text + packed;
  chunk += body;
  put32(chunk, static_cast<unsigned>(crc32(0, reinterpret_cast<const Bytef*>(body.data()),
                                           static_cast<uInt>(body.size()))));
  std::string out = png.substr(0, 33);  // signature and IHDR
  for (int i = 0; i < count; ++i) out += chunk;
  return out + png.substr(33);
}

}  // namespace rdtest
