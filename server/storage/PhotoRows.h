// The storage's photos in the store's database rather than in a folder, so
// that every instance on one PostgreSQL database serves every photo without a
// shared file system. Keys, URLs, checks and upload limits are PhotoFiles'
// (but the disk's reserve: the database's room is the operator's); the
// records of unpublished uploads are rows too, so an upload made through one
// instance may be published through another.
#pragma once

#include <memory>

#include "storage/PhotoFiles.h"
#include "store/Store.h"

namespace rd::storage {

class PhotoRows : public PhotoFiles {
 public:
  PhotoRows(std::shared_ptr<store::Store> store, std::filesystem::path dir,
            std::string public_prefix, std::string app_prefix, bool app_prefix_outside,
            UploadLimits limits);

  Put put(const std::string& key, std::string_view bytes, std::string* error = nullptr,
          bool replace = false, const std::string& block = {}) override;
  std::optional<std::string> read(const std::string& key) const override;
  bool remove(const std::string& key) override;
  std::optional<std::string> problem() const override;
  bool keep(const std::string& key) override;
  std::optional<std::string> note(const std::string& key) const override;
  void set_note(const std::string& key, const std::string& text) override;
  std::optional<std::pair<unsigned, std::string>> admit(const std::string& block,
                                                        std::size_t bytes) const override;
  bool unpublished(const std::string& key) const override;
  int sweep(std::int64_t now_seconds) override;

  // Copies the photos of a data folder's photos/ (`dir`) that the database
  // does not have yet: published ones as published, uploads no item points
  // at with their records. Returns how many; names too long to tell their
  // key (kept under a digest) are skipped and counted in `skipped`.
  int import_folder(int* skipped = nullptr);

 private:
  std::shared_ptr<store::Store> store_;
  UploadLimits upload_limits_;
};

}  // namespace rd::storage
