// What the api's commands check and keep with: text lengths and trimming,
// times, rate limits per address and block, the login throttle, reserved
// nicknames, password hashes and user ids.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "http/Limits.h"

namespace rd::api {

// Length of UTF-8 text in UTF-16 code units (how the app counts characters).
std::size_t utf16_length(std::string_view utf8);

// Valid UTF-8 text without the white space around it (the characters the app
// trims: ASCII spaces and controls \t..\r, NEL, no-break and the Unicode
// spaces, the ideographic space among them).
std::string_view trim_space(std::string_view utf8);

// "yyyy-MM-dd HH:mm:ss.SSS", the wall-clock reading in the process's time zone.
std::string format_time(std::int64_t epoch_ms);

// Sets the process's time zone (TZ) for format_time; empty keeps the
// machine's. Throws std::runtime_error for a zone this machine does not know.
void set_time_zone(const std::string& zone);

std::int64_t now_ms();

// Fixed windows (a minute unless told) of attempts per key; thread-safe.
class RateLimiter {
 public:
  explicit RateLimiter(int per_window, std::chrono::seconds window = std::chrono::minutes(1))
      : limit_(per_window), window_(window) {}
  // Counts an attempt; false when the key has used up its attempts this window.
  bool allow(const std::string& key,
             std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());
  // Takes back an attempt counted by allow() (one that turned out not to count).
  void give_back(const std::string& key);

 private:
  struct Window {
    std::chrono::steady_clock::time_point start;
    int used = 0;
  };
  int limit_;  // 0: no limit
  std::chrono::seconds window_;
  std::mutex mu_;
  std::unordered_map<std::string, Window> windows_;
  std::chrono::steady_clock::time_point last_sweep_{};
};

// The block a client address belongs to (IPv4 /24, IPv6 /64): one definition,
// the connection limits' own.
using http::address_block;

// A cap per client address and, at `kBlockFactor` times it, per address
// block: many addresses of one network count together. Thread-safe.
class AddressLimiter {
 public:
  static constexpr int kBlockFactor = 4;
  explicit AddressLimiter(int per_address, std::chrono::seconds window = std::chrono::minutes(1))
      : by_address_(per_address, window), by_block_(per_address * kBlockFactor, window) {}
  // Counts an attempt (on `what`, when the cap is per thing); false when the
  // address or its block is over its cap.
  bool allow(const std::string& address, const std::string& what = {},
             std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now()) {
    return by_address_.allow(what + " " + address, now) &&
           by_block_.allow(what + " " + address_block(address), now);
  }
  void give_back(const std::string& address, const std::string& what = {}) {
    by_address_.give_back(what + " " + address);
    by_block_.give_back(what + " " + address_block(address));
  }

 private:
  RateLimiter by_address_, by_block_;
};

// Nicknames no account may take, because the app's users would read them as
// the operator speaking ("官方客服", "管理员", ...): compared after blanks,
// invisible characters and full-width forms are taken out, ignoring case.
bool reserved_nickname(std::string_view nickname);

// Wrong passwords per key (a mobile number from one client address): the
// first `free_failures` are answered at once; after them each attempt waits a
// delay that doubles with every further failure (from `delay`, at most 15
// minutes). A right password clears the key. Thread-safe.
class LoginThrottle {
 public:
  using Clock = std::chrono::steady_clock;
  LoginThrottle(int free_failures, std::chrono::milliseconds delay)
      : free_(free_failures), delay_(delay) {}
  // Zero when an attempt may go ahead now; else how long until one may.
  std::chrono::milliseconds wait(const std::string& key, Clock::time_point now = Clock::now());
  void failed(const std::string& key, Clock::time_point now = Clock::now());
  void succeeded(const std::string& key);

 private:
  struct Entry {
    int failures = 0;
    Clock::time_point next;  // no attempt before
  };
  int free_;
  std::chrono::milliseconds delay_;
  std::mutex mu_;
  std::unordered_map<std::string, Entry> entries_;
  Clock::time_point last_sweep_{};
};

// Argon2id hashes in libsodium's self-describing text form.
std::string hash_password(const std::string& password);
bool verify_password(const std::string& hash, const std::string& password);

// A random user id: 128 bits as 32 lower-case hex digits.
std::string new_user_id();

}  // namespace rd::api
