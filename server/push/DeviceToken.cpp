#include "push/DeviceToken.h"

#include <sodium.h>

#include <stdexcept>

#include "BuildConfig.h"

namespace rd::push {

std::string make_device_token() {
  if (sodium_init() < 0) throw std::runtime_error("libsodium cannot start");
  unsigned char bytes[32];
  randombytes_buf(bytes, sizeof bytes);
  static constexpr char hex[] = "0123456789abcdef";
  std::string out = "<";
  for (std::size_t i = 0; i < sizeof bytes; ++i) {
    if (i > 0 && i % 4 == 0) out += ' ';
    out += hex[bytes[i] >> 4];
    out += hex[bytes[i] & 15];
  }
  out += '>';
  return out;
}

bool is_device_token(std::string_view t) {
  if (t.size() != 73 || t.front() != '<' || t.back() != '>') return false;
  if (t == build::kRegisterDeviceToken) return false;
  for (std::size_t i = 1; i < 72; ++i) {
    bool blank = (i - 1) % 9 == 8;
    char c = t[i];
    if (blank ? c != ' ' : !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

}  // namespace rd::push
