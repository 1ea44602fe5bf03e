#include "storage/PhotoFiles.h"

#include <fcntl.h>
#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/url/pct_string_view.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <opencv2/imgcodecs.hpp>
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

bool photo_decodes(std::string_view bytes) {
  // Whole files only: the format's end marker must be the last bytes (a cut
  // off JPEG still decodes, its missing rows grey; nothing may trail it).
  static constexpr std::string_view kPngEnd("\0\0\0\0IEND\xAE\x42\x60\x82", 12);
  const bool png = bytes.size() > 8 && bytes.substr(1, 3) == "PNG";
  if (png ? !bytes.ends_with(kPngEnd) : !bytes.ends_with("\xFF\xD9")) return false;
  try {
    cv::Mat buf(1, static_cast<int>(bytes.size()), CV_8U, const_cast<char*>(bytes.data()));
    // A reduced decode reads every byte of the entropy-coded data at a fraction of the cost.
    cv::Mat img = cv::imdecode(buf, cv::IMREAD_REDUCED_GRAYSCALE_4);
    return !img.empty();
  } catch (const cv::Exception&) {
    return false;
  }
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
  if (key.empty() || key.size() > 200 || key.front() == '.') return false;
  for (char c : key) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              std::strchr("._-~@+=,", c) != nullptr;
    if (!ok || c == '\0') return false;
  }
  return true;
}

PhotoFiles::PhotoFiles(std::filesystem::path dir, std::string public_prefix, std::string app_prefix,
                       bool app_prefix_outside)
    : dir_(std::move(dir)),
      public_prefix_(std::move(public_prefix)),
      app_prefix_(std::move(app_prefix)),
      app_prefix_outside_(app_prefix_outside) {
  std::filesystem::create_directories(dir_);
  // Temporary files of uploads a crash interrupted.
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir_, ec))
    if (e.path().filename().string().rfind(".tmp-", 0) == 0) std::filesystem::remove(e.path(), ec);
}

PhotoFiles::Put PhotoFiles::put(const std::string& key, std::string_view bytes,
                                std::string* error) {
  auto fail = [&](const char* what) {
    if (error) *error = std::string(what) + ": " + std::strerror(errno);
    return Put::Failed;
  };
  if (!valid_key(key)) {
    errno = EINVAL;
    return fail("invalid key");
  }
  std::filesystem::path final_path = dir_ / key;
  if (std::filesystem::exists(final_path)) return Put::Exists;
  std::string tmp = (dir_ / ".tmp-XXXXXX").string();
  int fd = ::mkstemp(tmp.data());
  if (fd < 0) return fail("cannot create a temporary file");
  bool ok = write_all(fd, bytes) && ::fchmod(fd, 0644) == 0 && ::fsync(fd) == 0;
  int saved = errno;
  ::close(fd);
  if (!ok) {
    ::unlink(tmp.c_str());
    errno = saved;
    return fail("cannot write the photo");
  }
  // link() never replaces an existing name, so two uploads of one key cannot both win.
  if (::link(tmp.c_str(), final_path.c_str()) != 0) {
    saved = errno;
    ::unlink(tmp.c_str());
    if (saved == EEXIST) return Put::Exists;
    errno = saved;
    return fail("cannot store the photo");
  }
  ::unlink(tmp.c_str());
  sync_dir(dir_);
  return Put::Stored;
}

std::optional<std::string> PhotoFiles::read(const std::string& key) const {
  if (!valid_key(key)) return std::nullopt;
  std::ifstream in(dir_ / key, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool PhotoFiles::remove(const std::string& key) {
  if (!valid_key(key)) return false;
  if (::unlink((dir_ / key).c_str()) != 0) return false;
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

}  // namespace rd::storage
