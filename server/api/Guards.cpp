// Passwords, ids, rate limits, text lengths and times for the api (Guards.h).
#include "api/Guards.h"

#include <sodium.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <stdexcept>

namespace rd::api {

namespace {

void init_sodium() {
  static const bool ok = sodium_init() >= 0;
  if (!ok) throw std::runtime_error("libsodium failed to initialise");
}

}  // namespace

std::size_t utf16_length(std::string_view s) {
  std::size_t n = 0;
  for (unsigned char c : s) {
    if ((c & 0xC0) == 0x80) continue;  // continuation byte
    n += (c >= 0xF0) ? 2 : 1;          // 4-byte sequences are surrogate pairs
  }
  return n;
}

namespace {

bool is_space(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
         c == 0x3000;
}

// The code point of the sequence s[at..at+len).
char32_t decode(std::string_view s, std::size_t at, std::size_t len) {
  const auto b = [&](std::size_t i) { return static_cast<unsigned char>(s[at + i]); };
  if (len == 1) return b(0);
  char32_t c = b(0) & (0xFF >> (len + 1));
  for (std::size_t i = 1; i < len; ++i) c = (c << 6) | (b(i) & 0x3F);
  return c;
}

std::size_t sequence_length(unsigned char lead) {
  return lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
}

}  // namespace

std::string_view trim_space(std::string_view s) {
  while (!s.empty()) {
    const std::size_t len = std::min(sequence_length(s.front()), s.size());
    if (!is_space(decode(s, 0, len))) break;
    s.remove_prefix(len);
  }
  while (!s.empty()) {
    std::size_t at = s.size() - 1;
    while (at > 0 && (static_cast<unsigned char>(s[at]) & 0xC0) == 0x80) --at;
    if (!is_space(decode(s, at, s.size() - at))) break;
    s.remove_suffix(s.size() - at);
  }
  return s;
}

std::int64_t now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string format_time(std::int64_t ms) {
  std::time_t secs = static_cast<std::time_t>(ms / 1000);
  int milli = static_cast<int>(ms % 1000);
  if (milli < 0) {
    milli += 1000;
    --secs;
  }
  std::tm tm{};
  localtime_r(&secs, &tm);
  char buf[40];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, milli);
  return buf;
}

void set_time_zone(const std::string& zone) {
  if (zone.empty()) return;
  bool known = zone == "UTC" || zone == "GMT" ||
               (zone.find("..") == std::string::npos && zone.front() != '/' &&
                std::filesystem::is_regular_file("/usr/share/zoneinfo/" + zone));
  if (!known)
    throw std::runtime_error("--time-zone: unknown time zone '" + zone +
                             "' (use a name like Asia/Shanghai or UTC)");
  // Set before any worker thread formats a time; localtime_r reads it after tzset.
  ::setenv("TZ", zone.c_str(), 1);
  ::tzset();
}

bool RateLimiter::allow(const std::string& key, std::chrono::steady_clock::time_point now) {
  if (limit_ <= 0) return true;
  std::lock_guard lock(mu_);
  if (now - last_sweep_ > window_) {  // forget finished windows now and then
    std::erase_if(windows_, [&](const auto& kv) { return now - kv.second.start >= window_; });
    last_sweep_ = now;
  }
  Window& w = windows_[key];
  if (w.used == 0 || now - w.start >= window_) {
    w.start = now;
    w.used = 0;
  }
  if (w.used >= limit_) return false;
  ++w.used;
  return true;
}

void RateLimiter::give_back(const std::string& key) {
  if (limit_ <= 0) return;
  std::lock_guard lock(mu_);
  auto it = windows_.find(key);
  if (it != windows_.end() && it->second.used > 0) --it->second.used;
}

namespace {

// The nickname as it is compared: ASCII letters in lower case, full-width
// forms (U+FF01..U+FF5E) as their ASCII twins, blanks and invisible
// characters (U+200B..U+200F, U+2060, U+FEFF, U+3000) left out.
std::string folded_nickname(std::string_view s) {
  std::string out;
  std::size_t i = 0;
  while (i < s.size()) {
    const auto c = static_cast<unsigned char>(s[i]);
    const std::size_t n = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
    std::uint32_t cp = c;
    if (n > 1 && i + n <= s.size()) {
      cp = c & (0x7F >> n);
      for (std::size_t k = 1; k < n; ++k)
        cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    }
    if (cp >= 0xFF01 && cp <= 0xFF5E) cp -= 0xFEE0;
    if (cp < 0x80) {
      if (!std::isspace(static_cast<int>(cp)) && !std::iscntrl(static_cast<int>(cp)))
        out += static_cast<char>(std::tolower(static_cast<int>(cp)));
    } else if (!((cp >= 0x200B && cp <= 0x200F) || cp == 0x2060 || cp == 0xFEFF || cp == 0x3000 ||
                 cp == 0x00A0)) {
      out.append(s.substr(i, std::min(n, s.size() - i)));
    }
    i += n;
  }
  return out;
}

}  // namespace

bool reserved_nickname(std::string_view nickname) {
  // Words that make a name look like the operator's; any name holding one is refused.
  static constexpr std::string_view kReserved[] = {
      "官方",       "客服", "管理员", "系统",     "容点团队",
      "容点小助手", "运营", "admin",  "official", "support",
  };
  const std::string folded = folded_nickname(nickname);
  for (auto word : kReserved)
    if (folded.find(word) != std::string::npos) return true;
  return false;
}

std::chrono::milliseconds LoginThrottle::wait(const std::string& key, Clock::time_point now) {
  std::lock_guard lock(mu_);
  auto it = entries_.find(key);
  if (it == entries_.end() || it->second.next <= now) return std::chrono::milliseconds(0);
  return std::chrono::ceil<std::chrono::milliseconds>(it->second.next - now);
}

void LoginThrottle::failed(const std::string& key, Clock::time_point now) {
  constexpr auto kLongest = std::chrono::minutes(15);
  std::lock_guard lock(mu_);
  // Keys whose last delay ran out long ago are forgotten now and then.
  if (now - last_sweep_ > kLongest) {
    std::erase_if(entries_, [&](const auto& kv) { return now - kv.second.next > kLongest; });
    last_sweep_ = now;
  }
  Entry& e = entries_[key];
  ++e.failures;
  const int over = e.failures - free_ + 1;  // 1 at the last free one: the next one waits
  if (over <= 0) return;
  auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(kLongest);
  if (over < 30) delay = std::min(delay, delay_ * (std::int64_t{1} << (over - 1)));
  e.next = now + delay;
}

void LoginThrottle::succeeded(const std::string& key) {
  std::lock_guard lock(mu_);
  entries_.erase(key);
}

std::string hash_password(const std::string& password) {
  init_sodium();
  char out[crypto_pwhash_STRBYTES];
  if (crypto_pwhash_str_alg(out, password.data(), password.size(),
                            crypto_pwhash_OPSLIMIT_INTERACTIVE, crypto_pwhash_MEMLIMIT_INTERACTIVE,
                            crypto_pwhash_ALG_ARGON2ID13) != 0)
    throw std::runtime_error("password hashing ran out of memory");
  return out;
}

bool verify_password(const std::string& hash, const std::string& password) {
  init_sodium();
  if (hash.empty() || hash.size() >= crypto_pwhash_STRBYTES) return false;
  return crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
}

std::string new_user_id() {
  init_sodium();
  unsigned char raw[16];
  randombytes_buf(raw, sizeof raw);
  char hex[sizeof raw * 2 + 1];
  sodium_bin2hex(hex, sizeof hex, raw, sizeof raw);
  return hex;
}

}  // namespace rd::api
