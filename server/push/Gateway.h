// The push gateway as the rest of the server sees it.
#pragma once

#include <string>
#include <vector>

namespace rd::push {

class Gateway {
 public:
  virtual ~Gateway() = default;
  // Payloads were kept for these devices (with the write that made them, see
  // store::Store::add_comment): delivers them to those connected to this
  // instance (the other instances hear of them from the database); the others
  // get them when they reconnect. Never blocks on a device.
  virtual void pushed(const std::vector<std::string>& device_tokens) = 0;
};

}  // namespace rd::push
