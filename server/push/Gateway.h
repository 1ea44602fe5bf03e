// The push gateway as the rest of the server sees it.
#pragma once

#include <string>
#include <vector>

namespace rd::push {

class Gateway {
 public:
  virtual ~Gateway() = default;
  // Delivers `payload` (a JSON object's text, e.g. {"aps": {...}}) to every
  // device of `device_tokens` that is connected to any server instance, and
  // keeps it for the others until they reconnect. Never blocks on a device.
  virtual void send(const std::vector<std::string>& device_tokens, const std::string& payload) = 0;
};

}  // namespace rd::push
