// Device tokens of the push gateway: 32 random bytes written as
// "<" eight groups of eight lower-case hex digits, separated by blanks ">".
#pragma once

#include <string>
#include <string_view>

namespace rd::push {

// The same form as a POSIX extended regular expression (for the database;
// the fixed token is never bound to an account, so no device has it).
inline constexpr const char* kDeviceTokenPattern = "^<[0-9a-f]{8}( [0-9a-f]{8}){7}>$";

std::string make_device_token();
// True for text of that form, except the fixed token every copy of the app
// signs up with (it is no device's, and whoever presented it would get its pushes).
bool is_device_token(std::string_view text);

}  // namespace rd::push
