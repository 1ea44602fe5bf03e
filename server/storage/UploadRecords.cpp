// The records of uploads no item points at yet: one small file per upload
// under DATA/photos/.uploads (so that every instance on a shared photo folder
// sees them and they outlive a restart), counted in memory by address block.
// A photo without a record is one an item uses, or older than the records:
// it is never removed for being unpublished.
#include <sys/statvfs.h>

#include <boost/json.hpp>
#include <fstream>
#include <iostream>
#include <sstream>

#include "storage/PhotoFiles.h"

namespace rd::storage {

namespace json = boost::json;

std::filesystem::path PhotoFiles::record_of(const std::string& name) const {
  return dir_ / ".uploads" / name;
}

bool PhotoFiles::write_record(const std::string& name, const Upload& u) {
  std::error_code ec;
  std::filesystem::create_directories(dir_ / ".uploads", ec);
  const auto path = record_of(name);
  const std::string tmp = path.string() + ".tmp";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out << json::serialize(json::object{{"block", u.block}, {"bytes", u.bytes}, {"at", u.at}});
    out.flush();
    if (!out) {
      std::filesystem::remove(tmp, ec);
      return false;
    }
  }
  std::filesystem::rename(tmp, path, ec);
  return !ec;
}

void PhotoFiles::forget(const std::string& name) {
  std::error_code ec;
  std::filesystem::remove(record_of(name), ec);
  auto it = uploads_.find(name);
  if (it == uploads_.end()) return;
  if (--per_block_[it->second.block] <= 0) per_block_.erase(it->second.block);
  unpublished_bytes_ -= it->second.bytes;
  uploads_.erase(it);
}

void PhotoFiles::load_records() {
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir_ / ".uploads", ec)) {
    const std::string name = e.path().filename().string();
    std::error_code gone;
    if (name.ends_with(".tmp") || !std::filesystem::exists(dir_ / name)) {
      // A record written just before a crash, whose photo never appeared.
      std::filesystem::remove(e.path(), gone);
      continue;
    }
    const auto u = read_record(e.path());
    if (!u) continue;
    uploads_[name] = *u;
    ++per_block_[u->block];
    unpublished_bytes_ += u->bytes;
  }
}

std::optional<PhotoFiles::Upload> PhotoFiles::read_record(const std::filesystem::path& p) {
  const auto text = read_file(p);
  if (!text) return std::nullopt;
  boost::system::error_code bad;
  const json::value v = json::parse(*text, bad);
  if (bad || !v.is_object()) return std::nullopt;
  const auto& o = v.as_object();
  Upload u;
  if (const auto* b = o.if_contains("block"); b && b->is_string()) u.block = b->as_string();
  if (const auto* n = o.if_contains("bytes"); n && n->is_int64()) u.bytes = n->as_int64();
  if (const auto* t = o.if_contains("at"); t && t->is_int64()) u.at = t->as_int64();
  return u;
}

bool PhotoFiles::keep(const std::string& key) {
  if (!valid_key(key)) return false;
  const std::string name = file_name(key);
  std::lock_guard lock(mu_);
  if (!std::filesystem::exists(dir_ / name)) return false;
  if (limits_) forget(name);
  return true;
}

bool PhotoFiles::unpublished(const std::string& key) const {
  std::lock_guard lock(mu_);
  return uploads_.contains(file_name(key));
}

std::optional<std::pair<unsigned, std::string>> PhotoFiles::admit(const std::string& block,
                                                                  std::size_t bytes) const {
  if (!limits_) return std::nullopt;
  std::lock_guard lock(mu_);
  auto it = per_block_.find(block);
  if (auto no =
          over_limits(*limits_, it == per_block_.end() ? 0 : it->second, unpublished_bytes_, bytes))
    return no;
  struct statvfs fs {};
  if (::statvfs(dir_.c_str(), &fs) == 0) {
    const auto free_bytes =
        static_cast<std::int64_t>(fs.f_bavail) * static_cast<std::int64_t>(fs.f_frsize);
    if (free_bytes - static_cast<std::int64_t>(bytes) < limits_->reserve_bytes)
      return std::pair{507u, std::string("the photo storage is full")};
  }
  return std::nullopt;
}

std::optional<std::pair<unsigned, std::string>> PhotoFiles::over_limits(
    const UploadLimits& limits, std::int64_t of_block, std::int64_t unpublished_bytes,
    std::size_t bytes) {
  if (of_block >= limits.per_block)
    return std::pair{429u, "too many unpublished uploads from your network (" +
                               std::to_string(of_block) + "); publish them or wait"};
  if (unpublished_bytes + static_cast<std::int64_t>(bytes) > limits.unpublished_bytes)
    return std::pair{507u, std::string("no room for more unpublished uploads; try again later")};
  return std::nullopt;
}

int PhotoFiles::sweep(std::int64_t now_seconds) {
  if (!limits_) return 0;
  std::lock_guard lock(mu_);
  std::vector<std::string> old;
  for (const auto& [name, u] : uploads_)
    if (now_seconds - u.at >= limits_->ttl_seconds) old.push_back(name);
  int removed = 0;
  for (const auto& name : old) {
    // Another instance on the same folder may have kept it meanwhile.
    if (!std::filesystem::exists(record_of(name))) {
      forget(name);
      continue;
    }
    std::error_code ec;
    std::filesystem::remove(dir_ / ".notes" / name, ec);
    if (std::filesystem::remove(dir_ / name, ec)) ++removed;
    forget(name);
  }
  return removed;
}

}  // namespace rd::storage
