#include "http/Router.h"

#include <stdexcept>

namespace rd::http {

void Router::add(bhttp::verb method, std::string path, Handler h, std::string label,
                 std::size_t body_limit) {
  Route r;
  r.method = method;
  r.label = label.empty() ? path : label;
  r.path = std::move(path);
  r.body_limit = body_limit;
  r.handler = std::move(h);
  routes_.push_back(std::move(r));
}

void Router::add_prefix(bhttp::verb method, std::string prefix, Handler h, std::string label,
                        std::size_t body_limit) {
  add(method, std::move(prefix), std::move(h), std::move(label), body_limit);
  routes_.back().prefix = true;
}

Route& Router::route(bhttp::verb method, const std::string& path, const char* what) {
  for (Route& r : routes_)
    if (r.method == method && r.path == path && r.handler) return r;
  throw std::logic_error("no route " + path + " " + what);
}

void Router::add_quick(bhttp::verb method, const std::string& path, QuickHandler q) {
  route(method, path, "for a quick handler").quick = std::move(q);
}

void Router::set_heavy(bhttp::verb method, const std::string& path,
                       std::function<bool(const Request&, const Context&)> heavy) {
  route(method, path, "to mark heavy").heavy =
      heavy ? std::move(heavy) : [](const Request&, const Context&) { return true; };
}

void Router::set_precheck(bhttp::verb method, const std::string& path, Precheck p) {
  route(method, path, "for a precheck").precheck = std::move(p);
}

void Router::set_error_shape(bhttp::verb method, const std::string& path, ErrorShape shape) {
  route(method, path, "for an error shape").error_shape = std::move(shape);
}

void Router::add_upgrade(std::string path, UpgradeHandler h, std::string label) {
  Route r;
  r.method = bhttp::verb::get;
  r.label = label.empty() ? path : label;
  r.path = std::move(path);
  r.upgrade = std::move(h);
  routes_.push_back(std::move(r));
}

const Route* Router::find(bhttp::verb method, const std::string& path, bool upgrade,
                          bool& path_known) const {
  path_known = false;
  for (const Route& r : routes_) {
    bool match = r.prefix ? path.compare(0, r.path.size(), r.path) == 0 : path == r.path;
    if (!match) continue;
    if (static_cast<bool>(r.upgrade) != upgrade) continue;
    path_known = true;
    if (r.method == bhttp::verb::unknown || r.method == method ||
        (r.method == bhttp::verb::get && method == bhttp::verb::head))
      return &r;
  }
  return nullptr;
}

}  // namespace rd::http
