// The photo files of the storage: one file per key under DATA/photos, written
// atomically and never replaced; plus the checks an upload has to pass.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "storage/PhotoStore.h"

namespace rd::storage {

inline constexpr std::size_t kMaxPhotoBytes = 8 * 1024 * 1024;
// The app uploads 200x250 photos; the ceiling leaves room for other clients
// and bounds a decode to a few MiB.
inline constexpr std::uint32_t kMaxPhotoSide = 2048;
inline constexpr std::uint64_t kMaxPhotoPixels = 2048ULL * 2048;

struct PhotoInfo {
  std::string mime;  // "image/jpeg" or "image/png"
  std::uint32_t width = 0, height = 0;
};

// Reads the type and size of a JPEG or PNG from its header; nullopt for
// anything else (or a header too damaged to read).
std::optional<PhotoInfo> probe_photo(std::string_view bytes);
// Decodes the whole picture; false when it is broken.
bool photo_decodes(std::string_view bytes);

// The storage's content hash (the "hash" of an upload reply, also the ETag):
// URL-safe Base64 of 0x16 + SHA-1 for up to 4 MiB, otherwise of 0x96 + the
// SHA-1 of the SHA-1s of each 4 MiB block.
std::string content_hash(std::string_view bytes);

// Object keys this store accepts: 1 to 200 characters of letters, digits and
// ". _ - ~ @ + = ,", not starting with a dot. Nothing that names a folder.
bool valid_key(std::string_view key);

class PhotoFiles : public PhotoStore {
 public:
  // `public_prefix` is how clients reach the files, e.g. "http://host:port/files/".
  // `app_prefix` is the download prefix the app publishes photos under: URLs
  // under it count as this store's too, unless `app_prefix_outside` says it
  // is the real outside storage's, whose photos are then the only ones items
  // may point at.
  PhotoFiles(std::filesystem::path dir, std::string public_prefix, std::string app_prefix = {},
             bool app_prefix_outside = false);

  enum class Put { Stored, Exists, Failed };
  // Writes a temporary file, syncs it and links it under `key`; an existing
  // key is never replaced.
  Put put(const std::string& key, std::string_view bytes, std::string* error = nullptr);
  std::optional<std::string> read(const std::string& key) const override;
  bool remove(const std::string& key) override;
  std::optional<std::string> problem() const override;
  std::optional<Ref> photo_of_url(const std::string& url) const override;

  const std::filesystem::path& dir() const { return dir_; }
  std::string public_url(const std::string& key) const { return public_prefix_ + key; }

  // The key a URL of this server's storage names, if it is one.
  std::optional<std::string> key_of_url(const std::string& url) const;

 private:
  std::filesystem::path dir_;
  std::string public_prefix_, app_prefix_;
  bool app_prefix_outside_ = false;
};

}  // namespace rd::storage
