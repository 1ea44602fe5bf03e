#include "storage/PhotoFiles.h"

#include <fcntl.h>
#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/ip/address.hpp>
#include <boost/url/pct_string_view.hpp>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include "storage/UploadToken.h"

namespace rd::storage {

namespace {

std::uint32_t be16(std::string_view b, std::size_t i) {
  return (static_cast<unsigned char>(b[i]) << 8) | static_cast<unsigned char>(b[i + 1]);
}
std::uint32_t be32(std::string_view b, std::size_t i) {
  return (be16(b, i) << 16) | be16(b, i + 2);
}

std::optional<PhotoInfo> probe_png(std::string_view b) {
  static constexpr std::string_view sig("\x89PNG\r\n\x1a\n", 8);
  if (b.size() < 33 || b.substr(0, 8) != sig || b.substr(12, 4) != "IHDR") return std::nullopt;
  PhotoInfo p{"image/png", be32(b, 16), be32(b, 20)};
  if (p.width == 0 || p.height == 0) return std::nullopt;
  return p;
}

std::optional<PhotoInfo> probe_jpeg(std::string_view b) {
  if (b.size() < 4 || static_cast<unsigned char>(b[0]) != 0xFF ||
      static_cast<unsigned char>(b[1]) != 0xD8)
    return std::nullopt;
  std::size_t i = 2;
  while (i + 4 <= b.size()) {
    if (static_cast<unsigned char>(b[i]) != 0xFF) return std::nullopt;
    unsigned char marker = static_cast<unsigned char>(b[i + 1]);
    if (marker == 0xFF) {  // fill byte
      ++i;
      continue;
    }
    if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {  // no length
      i += 2;
      continue;
    }
    std::uint32_t len = be16(b, i + 2);
    if (len < 2) return std::nullopt;
    bool sof =
        marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
    if (sof) {
      if (i + 9 > b.size()) return std::nullopt;
      PhotoInfo p{"image/jpeg", be16(b, i + 7), be16(b, i + 5)};
      if (p.width == 0 || p.height == 0) return std::nullopt;
      return p;
    }
    if (marker == 0xD9 || marker == 0xDA) return std::nullopt;  // no frame header before the data
    i += 2 + len;
  }
  return std::nullopt;
}

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

void sync_dir(const std::filesystem::path& dir) {
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd >= 0) {
    ::fsync(fd);
    ::close(fd);
  }
}

}  // namespace

std::optional<PhotoInfo> probe_photo(std::string_view bytes) {
  if (auto p = probe_png(bytes)) return p;
  return probe_jpeg(bytes);
}

std::string content_hash(std::string_view bytes) {
  constexpr std::size_t kBlock = 4 * 1024 * 1024;
  unsigned char digest[SHA_DIGEST_LENGTH];
  std::string out;
  if (bytes.size() <= kBlock) {
    SHA1(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
    out += static_cast<char>(0x16);
  } else {
    std::string all;
    for (std::size_t off = 0; off < bytes.size(); off += kBlock) {
      auto block = bytes.substr(off, kBlock);
      SHA1(reinterpret_cast<const unsigned char*>(block.data()), block.size(), digest);
      all.append(reinterpret_cast<char*>(digest), SHA_DIGEST_LENGTH);
    }
    SHA1(reinterpret_cast<const unsigned char*>(all.data()), all.size(), digest);
    out += static_cast<char>(0x96);
  }
  out.append(reinterpret_cast<char*>(digest), SHA_DIGEST_LENGTH);
  return base64url_encode(out);
}

bool valid_key(std::string_view key) {
  if (key.empty() || key.size() > kMaxKeyBytes) return false;
  // Well-formed UTF-8: no stray continuation bytes, overlong forms or surrogates.
  for (std::size_t i = 0; i < key.size();) {
    const auto c = static_cast<unsigned char>(key[i]);
    int more = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : -1;
    if (more < 0 || key.size() - i <= static_cast<std::size_t>(more)) return false;
    std::uint32_t cp = more == 0 ? c : c & (0x3F >> more);
    for (int k = 1; k <= more; ++k) {
      const auto b = static_cast<unsigned char>(key[i + static_cast<std::size_t>(k)]);
      if ((b >> 6) != 2) return false;
      cp = (cp << 6) | (b & 0x3F);
    }
    static constexpr std::uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[more] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += static_cast<std::size_t>(more) + 1;
  }
  return true;
}

namespace {

std::string percent_encode(std::string_view key, const char* keep) {
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  for (char ch : key) {
    const auto c = static_cast<unsigned char>(ch);
    if (std::isalnum(c) || (c != 0 && std::strchr(keep, ch))) {
      out += ch;
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

}  // namespace

std::string file_name(std::string_view key) {
  std::string name = percent_encode(key, "._-~@+=,");
  if (name.front() == '.') name.replace(0, 1, "%2E");
  if (name.size() <= 200) return name;
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(key.data()), key.size(), digest);
  static constexpr char hex[] = "0123456789abcdef";
  std::string hashed = "%-";
  for (unsigned char c : digest) {
    hashed += hex[c >> 4];
    hashed += hex[c & 15];
  }
  return hashed;
}

std::string url_path(std::string_view key) { return percent_encode(key, "._-~/"); }

PhotoFiles::PhotoFiles(std::filesystem::path dir, std::string public_prefix, std::string app_prefix,
                       bool app_prefix_outside, std::optional<UploadLimits> limits)
    : dir_(std::move(dir)),
      public_prefix_(std::move(public_prefix)),
      app_prefix_(std::move(app_prefix)),
      app_prefix_outside_(app_prefix_outside),
      limits_(limits) {
  std::filesystem::create_directories(dir_);
  // Temporary files of uploads a crash interrupted.
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir_, ec))
    if (e.path().filename().string().rfind(".tmp-", 0) == 0) std::filesystem::remove(e.path(), ec);
  if (limits_) load_records();
}

PhotoFiles::Put PhotoFiles::put(const std::string& key, std::string_view bytes, std::string* error,
                                bool replace, const std::string& block) {
  auto fail = [&](const char* what) {
    if (error) *error = std::string(what) + ": " + std::strerror(errno);
    return Put::Failed;
  };
  if (!valid_key(key)) {
    errno = EINVAL;
    return fail("invalid key");
  }
  const std::string name = file_name(key);
  const std::filesystem::path final_path = dir_ / name;
  const bool recorded = limits_ && !block.empty();
  std::unique_lock lock(mu_, std::defer_lock);
  if (recorded) lock.lock();
  const bool exists = std::filesystem::exists(final_path);
  // A photo without an upload record is one an item uses (or older than
  // the records): never replaced.
  if (exists && (!replace || !limits_ || !uploads_.contains(name))) return Put::Exists;
  if (recorded) {
    if (exists) forget(name);
    Upload u{block, static_cast<std::int64_t>(bytes.size()),
             static_cast<std::int64_t>(std::time(nullptr))};
    if (!write_record(name, u)) return fail("cannot record the upload");
    uploads_[name] = u;
    ++per_block_[block];
    unpublished_bytes_ += u.bytes;
  }
  std::string tmp = (dir_ / ".tmp-XXXXXX").string();
  int fd = ::mkstemp(tmp.data());
  bool ok = fd >= 0 && write_all(fd, bytes) && ::fchmod(fd, 0644) == 0 && ::fsync(fd) == 0;
  int saved = errno;
  if (fd >= 0) ::close(fd);
  // link() never replaces an existing name, so two uploads of one key cannot
  // both win; a replacement is renamed over the old file in one step.
  if (ok)
    ok = (replace && exists ? ::rename(tmp.c_str(), final_path.c_str())
                            : ::link(tmp.c_str(), final_path.c_str())) == 0;
  if (!ok) saved = saved ? saved : errno;
  if (fd >= 0) ::unlink(tmp.c_str());
  if (!ok) {
    if (recorded) forget(name);
    errno = saved;
    if (saved == EEXIST) return Put::Exists;
    return fail("cannot store the photo");
  }
  sync_dir(dir_);
  return exists ? Put::Replaced : Put::Stored;
}

std::optional<std::string> PhotoFiles::read_file(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::optional<std::string> PhotoFiles::read(const std::string& key) const {
  if (!valid_key(key)) return std::nullopt;
  return read_file(path_of(key));
}

bool PhotoFiles::remove(const std::string& key) {
  if (!valid_key(key)) return false;
  const std::string name = file_name(key);
  std::lock_guard lock(mu_);
  std::error_code ec;
  std::filesystem::remove(dir_ / ".notes" / name, ec);
  if (limits_) forget(name);
  if (::unlink((dir_ / name).c_str()) != 0) return false;
  sync_dir(dir_);
  return true;
}

std::optional<std::string> PhotoFiles::problem() const {
  // A probe file written and removed where the photos go.
  const std::filesystem::path probe = dir_ / ".health-probe";
  const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return "cannot write in " + dir_.string() + ": " + std::strerror(errno);
  const bool written = ::write(fd, "ok", 2) == 2;
  const int err = errno;
  ::close(fd);
  ::unlink(probe.c_str());
  if (!written) return "cannot write in " + dir_.string() + ": " + std::strerror(err);
  return std::nullopt;
}

std::optional<std::string> PhotoFiles::key_of_url(const std::string& url) const {
  std::string rest;
  if (!public_prefix_.empty() && url.rfind(public_prefix_, 0) == 0)
    rest = url.substr(public_prefix_.size());
  else if (!app_prefix_outside_ && !app_prefix_.empty() && url.rfind(app_prefix_, 0) == 0)
    rest = url.substr(app_prefix_.size());
  else
    return std::nullopt;
  rest = rest.substr(0, rest.find_first_of("?#"));
  auto escaped = boost::urls::make_pct_string_view(rest);
  if (!escaped) return std::nullopt;
  std::string key = escaped->decode();
  if (!valid_key(key)) return std::nullopt;
  return key;
}

std::optional<PhotoStore::Ref> PhotoFiles::photo_of_url(const std::string& url) const {
  if (!app_prefix_outside_) {
    auto key = key_of_url(url);
    if (!key) return std::nullopt;
    return Ref{*key, true};
  }
  // The outside storage's objects: whatever follows its prefix, up to a query.
  if (url.rfind(app_prefix_, 0) != 0) return std::nullopt;
  std::string key = url.substr(app_prefix_.size());
  key = key.substr(0, key.find_first_of("?#"));
  if (key.empty() || key.size() > 512) return std::nullopt;
  for (unsigned char c : key)
    if (c <= ' ' || c == 0x7f) return std::nullopt;
  return Ref{key, false};
}

std::optional<std::string> PhotoFiles::note(const std::string& key) const {
  if (!valid_key(key)) return std::nullopt;
  return read_file(dir_ / ".notes" / file_name(key));
}

void PhotoFiles::set_note(const std::string& key, const std::string& text) {
  if (!valid_key(key)) return;
  std::error_code ec;
  std::filesystem::create_directories(dir_ / ".notes", ec);
  const auto path = dir_ / ".notes" / file_name(key);
  const auto tmp = path.string() + ".tmp";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) return;  // a note is only a saving: without it the photo is read again
  }
  std::filesystem::rename(tmp, path, ec);
}

}  // namespace rd::storage
