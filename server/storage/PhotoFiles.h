// The photo files of the storage: one file per key under DATA/photos, written
// atomically; plus the checks an upload has to pass. With upload limits it
// also keeps a record of each upload no item points at yet (its address
// block, size and time), bounds them, and removes those never published.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "storage/PhotoStore.h"

namespace rd::storage {

inline constexpr std::size_t kMaxPhotoBytes = 8 * 1024 * 1024;
inline constexpr std::size_t kMaxKeyBytes = 750;

struct PhotoInfo {
  std::string mime;  // "image/jpeg" or "image/png"
  std::uint32_t width = 0, height = 0;
};

// Reads the type and size of a JPEG or PNG from its header; nullopt for
// anything else (or a header too damaged to read).
std::optional<PhotoInfo> probe_photo(std::string_view bytes);

// The storage's content hash (the "hash" of an upload reply, also the ETag):
// URL-safe Base64 of 0x16 + SHA-1 for up to 4 MiB, otherwise of 0x96 + the
// SHA-1 of the SHA-1s of each 4 MiB block.
std::string content_hash(std::string_view bytes);

// Object keys this store accepts: 1 to 750 bytes of UTF-8, any characters.
bool valid_key(std::string_view key);
// The file name a key is kept under: the key with every byte but letters,
// digits and "._-~@+=," written %XX (a leading dot too), so that no key names
// a folder, a hidden file or another key's file; a name that would pass 200
// characters is "%-" and the SHA-256 of the key in hex.
std::string file_name(std::string_view key);
// The key percent-encoded for a URL path ("/" kept).
std::string url_path(std::string_view key);

struct UploadLimits {
  int per_block = 50;                          // unpublished uploads per address block
  std::int64_t unpublished_bytes = 1LL << 30;  // all unpublished uploads together
  std::int64_t ttl_seconds = 86400;            // after this an unpublished upload is removed
  std::int64_t reserve_bytes = 64LL << 20;     // free space photos never take
};

class PhotoFiles : public PhotoStore {
 public:
  // `public_prefix` is how clients reach the files, e.g. "http://host:port/files/".
  // `app_prefix` is the download prefix the app publishes photos under: URLs
  // under it count as this store's too, unless `app_prefix_outside` says it
  // is the real outside storage's, whose photos are then the only ones items
  // may point at. With `limits`, uploads are recorded and bounded (see
  // admit(), keep(), sweep()).
  PhotoFiles(std::filesystem::path dir, std::string public_prefix, std::string app_prefix = {},
             bool app_prefix_outside = false, std::optional<UploadLimits> limits = {});

  enum class Put { Stored, Replaced, Exists, Failed };
  // Writes a temporary file, syncs it and links it under `key`. An existing
  // key is kept (Exists) unless `replace`, and a photo an item uses is never
  // replaced. A recorded upload (`block` not empty, limits on) is recorded
  // before its file appears.
  virtual Put put(const std::string& key, std::string_view bytes, std::string* error = nullptr,
                  bool replace = false, const std::string& block = {});
  std::optional<std::string> read(const std::string& key) const override;
  bool remove(const std::string& key) override;
  std::optional<std::string> problem() const override;
  std::optional<Ref> photo_of_url(const std::string& url) const override;
  bool keep(const std::string& key) override;
  std::optional<std::string> note(const std::string& key) const override;
  void set_note(const std::string& key, const std::string& text) override;

  // Whether an upload of `bytes` from `block` may be kept now: empty if so,
  // else the HTTP status and the reason (too many unpublished uploads from
  // the block or in all, or the disk's reserve reached).
  virtual std::optional<std::pair<unsigned, std::string>> admit(const std::string& block,
                                                                std::size_t bytes) const;
  // Whether no item uses the photo yet (it may still be replaced or swept).
  virtual bool unpublished(const std::string& key) const;
  // Removes the unpublished uploads older than the limits' time; returns how many.
  virtual int sweep(std::int64_t now_seconds);
  const std::optional<UploadLimits>& limits() const { return limits_; }
  // The refusal for an upload of `bytes` from a block that has `of_block`
  // unpublished uploads, when `unpublished_bytes` are unpublished in all.
  static std::optional<std::pair<unsigned, std::string>> over_limits(const UploadLimits& limits,
                                                                     std::int64_t of_block,
                                                                     std::int64_t unpublished_bytes,
                                                                     std::size_t bytes);

  const std::filesystem::path& dir() const { return dir_; }
  std::string public_url(const std::string& key) const { return public_prefix_ + url_path(key); }

  // The key a URL of this server's storage names, if it is one.
  std::optional<std::string> key_of_url(const std::string& url) const;

 protected:
  struct Upload {
    std::string block;
    std::int64_t bytes = 0, at = 0;
  };
  // A whole file's bytes; nullopt when it cannot be opened.
  static std::optional<std::string> read_file(const std::filesystem::path& p);
  // An upload record as write_record() wrote it; nullopt when missing or damaged.
  static std::optional<Upload> read_record(const std::filesystem::path& p);

 private:
  std::filesystem::path path_of(const std::string& key) const { return dir_ / file_name(key); }
  std::filesystem::path record_of(const std::string& name) const;
  bool write_record(const std::string& name, const Upload& u);
  void forget(const std::string& name);  // with mu_ held
  void load_records();

  std::filesystem::path dir_;
  std::string public_prefix_, app_prefix_;
  bool app_prefix_outside_ = false;
  std::optional<UploadLimits> limits_;
  mutable std::mutex mu_;
  std::map<std::string, Upload> uploads_;  // by file name: the unpublished ones
  std::map<std::string, int> per_block_;
  std::int64_t unpublished_bytes_ = 0;
};

}  // namespace rd::storage
