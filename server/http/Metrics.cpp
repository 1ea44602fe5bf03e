#include "http/Metrics.h"

#include <sstream>

namespace rd::http {

void Metrics::observe(const std::string& label, unsigned status, double seconds) {
  std::lock_guard lock(mu_);
  Series& s = series_[label];
  s.by_status[status]++;
  s.count++;
  s.sum += seconds;
  if (status >= 400) s.errors++;
  for (std::size_t i = 0; i < kBuckets.size(); ++i)
    if (seconds <= kBuckets[i]) s.buckets[i]++;
}

void Metrics::count(const std::string& name, double delta) {
  std::lock_guard lock(mu_);
  counters_[name] += delta;
}

void Metrics::gauge(const std::string& name, std::function<double()> read) {
  std::lock_guard lock(mu_);
  gauges_[name] = std::move(read);
}

static std::string escape_label(const std::string& v) {
  std::string out;
  for (char c : v) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out;
}

std::string Metrics::render() const {
  std::lock_guard lock(mu_);
  std::ostringstream o;
  o << "# HELP rongdian_requests_total Requests served, by route or command and status.\n"
       "# TYPE rongdian_requests_total counter\n";
  for (const auto& [label, s] : series_)
    for (const auto& [status, n] : s.by_status)
      o << "rongdian_requests_total{route=\"" << escape_label(label) << "\",status=\"" << status
        << "\"} " << n << "\n";
  o << "# HELP rongdian_request_errors_total Requests answered with a status of 400 or more.\n"
       "# TYPE rongdian_request_errors_total counter\n";
  for (const auto& [label, s] : series_)
    o << "rongdian_request_errors_total{route=\"" << escape_label(label) << "\"} " << s.errors
      << "\n";
  o << "# HELP rongdian_request_seconds Request latency.\n"
       "# TYPE rongdian_request_seconds histogram\n";
  for (const auto& [label, s] : series_) {
    const std::string l = escape_label(label);
    for (std::size_t i = 0; i < kBuckets.size(); ++i)
      o << "rongdian_request_seconds_bucket{route=\"" << l << "\",le=\"" << kBuckets[i] << "\"} "
        << s.buckets[i] << "\n";
    o << "rongdian_request_seconds_bucket{route=\"" << l << "\",le=\"+Inf\"} " << s.count << "\n";
    o << "rongdian_request_seconds_sum{route=\"" << l << "\"} " << s.sum << "\n";
    o << "rongdian_request_seconds_count{route=\"" << l << "\"} " << s.count << "\n";
  }
  for (const auto& [name, v] : counters_) o << name << " " << v << "\n";
  for (const auto& [name, read] : gauges_) o << name << " " << read() << "\n";
  return o.str();
}

}  // namespace rd::http
