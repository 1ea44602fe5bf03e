// Photo storage as the rest of the server sees it.
#pragma once

#include <string>

namespace rd::storage {

class PhotoStore {
 public:
  virtual ~PhotoStore() = default;
  // Deletes the stored photo that a public URL of this server names (the
  // "base_image_url" of an item, with or without a query). Returns false
  // when the URL is not one of this store's, or the photo is already gone.
  virtual bool remove_by_url(const std::string& url) = 0;
};

}  // namespace rd::storage
