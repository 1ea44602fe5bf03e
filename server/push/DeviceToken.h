// Device tokens of the push gateway: 32 random bytes written as
// "<" eight groups of eight lower-case hex digits, separated by blanks ">".
#pragma once

#include <string>
#include <string_view>

namespace rd::push {

std::string make_device_token();
bool is_device_token(std::string_view text);

}  // namespace rd::push
