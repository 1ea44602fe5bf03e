// Prometheus-style counters and latency histograms, by request label.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace rd::http {

class Metrics {
 public:
  void observe(const std::string& label, unsigned status, double seconds);
  void count(const std::string& name, double delta = 1.0);  // free-form counter
  // A value read when the metrics are rendered (e.g. connections open).
  void gauge(const std::string& name, std::function<double()> read);
  std::string render() const;  // text exposition format

 private:
  static constexpr std::array<double, 12> kBuckets{0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025,
                                                   0.05,   0.1,   0.25,   0.5,   1.0,  2.5};
  struct Series {
    std::map<unsigned, unsigned long long> by_status;
    std::array<unsigned long long, kBuckets.size()> buckets{};
    unsigned long long count = 0;
    unsigned long long errors = 0;
    double sum = 0;
  };
  mutable std::mutex mu_;
  std::map<std::string, Series> series_;
  std::map<std::string, double> counters_;
  std::map<std::string, std::function<double()>> gauges_;
};

}  // namespace rd::http
