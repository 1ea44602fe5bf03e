#include "storage/PhotoRows.h"

#include <boost/url/pct_string_view.hpp>
#include <ctime>

namespace rd::storage {

PhotoRows::PhotoRows(std::shared_ptr<store::Store> store, std::filesystem::path dir,
                     std::string public_prefix, std::string app_prefix, bool app_prefix_outside,
                     UploadLimits limits)
    : PhotoFiles(std::move(dir), std::move(public_prefix), std::move(app_prefix),
                 app_prefix_outside),
      store_(std::move(store)),
      upload_limits_(limits) {}

PhotoFiles::Put PhotoRows::put(const std::string& key, std::string_view bytes, std::string* error,
                               bool replace, const std::string& block) {
  if (!valid_key(key)) {
    if (error) *error = "invalid key";
    return Put::Failed;
  }
  try {
    switch (store_->put_photo(key, std::string(bytes), block, replace,
                              static_cast<std::int64_t>(std::time(nullptr)))) {
      case store::Store::PhotoPut::Stored:
        return Put::Stored;
      case store::Store::PhotoPut::Replaced:
        return Put::Replaced;
      case store::Store::PhotoPut::Exists:
        return Put::Exists;
    }
  } catch (const std::exception& e) {
    if (error) *error = std::string("cannot store the photo: ") + e.what();
  }
  return Put::Failed;
}

std::optional<std::string> PhotoRows::read(const std::string& key) const {
  if (!valid_key(key)) return std::nullopt;
  return store_->photo(key);
}

bool PhotoRows::remove(const std::string& key) { return store_->remove_photo(key); }

std::optional<std::string> PhotoRows::problem() const { return store_->problem(); }

bool PhotoRows::keep(const std::string& key) { return store_->publish_photo(key); }

std::optional<std::string> PhotoRows::note(const std::string& key) const {
  return store_->photo_note(key);
}

void PhotoRows::set_note(const std::string& key, const std::string& text) {
  store_->set_photo_note(key, text);
}

std::optional<std::pair<unsigned, std::string>> PhotoRows::admit(const std::string& block,
                                                                 std::size_t bytes) const {
  auto [of_block, unpublished_bytes] = store_->unpublished_photos(block);
  return over_limits(upload_limits_, of_block, unpublished_bytes, bytes);
}

bool PhotoRows::unpublished(const std::string& key) const {
  return store_->photo_unpublished(key).value_or(false);
}

int PhotoRows::sweep(std::int64_t now_seconds) {
  return store_->sweep_photos(now_seconds - upload_limits_.ttl_seconds);
}

int PhotoRows::import_folder(int* skipped) {
  int copied = 0, unknown = 0;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir(), ec)) {
    const std::string name = e.path().filename().string();
    if (!e.is_regular_file() || name.front() == '.') continue;
    auto decoded = boost::urls::make_pct_string_view(name);
    if (name.rfind("%-", 0) == 0 || !decoded) {  // a digest names it: the key is not known
      ++unknown;
      continue;
    }
    const std::string key = decoded->decode();
    if (!valid_key(key) || file_name(key) != name || store_->photo_unpublished(key)) continue;
    auto bytes = read_file(e.path());
    if (!bytes) continue;
    // An upload record beside it: not published yet.
    const auto record = read_record(dir() / ".uploads" / name);
    const std::int64_t at =
        record && record->at ? record->at : static_cast<std::int64_t>(std::time(nullptr));
    if (store_->put_photo(key, *bytes, record ? record->block : std::string(), false, at) !=
        store::Store::PhotoPut::Stored)
      continue;
    if (!record) store_->publish_photo(key);
    if (auto n = read_file(dir() / ".notes" / name)) store_->set_photo_note(key, *n);
    ++copied;
  }
  if (skipped) *skipped = unknown;
  return copied;
}

}  // namespace rd::storage
