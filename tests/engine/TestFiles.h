// Helpers shared by the engine tests: the package's sample photos and small
// hand-made image files.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

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

}  // namespace rdtest
