// Runs the Node reference (face-reference.js) on PPM files and reads its
// answer; shared by the agreement test and the benchmark.
#pragma once

#include <boost/json.hpp>
#include <cstdio>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace rdref {

// Writes 8-bit RGB pixels as a binary PPM.
inline void write_ppm(const std::string& path, const cv::Mat& rgb) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) throw std::runtime_error("cannot write " + path);
  std::fprintf(f, "P6\n%d %d\n255\n", rgb.cols, rgb.rows);
  for (int y = 0; y < rgb.rows; ++y)
    std::fwrite(rgb.ptr<unsigned char>(y), 1, static_cast<std::size_t>(rgb.cols) * 3, f);
  std::fclose(f);
}

inline std::string shell_quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// The reference's JSON for the given PPM files ({"images": [...]}, in order).
inline boost::json::object run_reference(const std::string& reference_dir,
                                         const std::string& models_dir,
                                         const std::vector<std::string>& ppms, int repeat = 1) {
  std::string cmd = "node " + shell_quote(reference_dir + "/face-reference.js") + " --models " +
                    shell_quote(models_dir) + " --repeat " + std::to_string(repeat);
  for (const auto& p : ppms) cmd += " " + shell_quote(p);
  std::FILE* pipe = popen(cmd.c_str(), "r");
  if (!pipe) throw std::runtime_error("cannot start node");
  std::string out;
  char buf[65536];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
  const int rc = pclose(pipe);
  if (rc != 0) throw std::runtime_error("the Node reference failed (" + cmd + ")");
  return boost::json::parse(out).as_object();
}

}  // namespace rdref
