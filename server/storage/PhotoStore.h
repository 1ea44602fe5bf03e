// Photo storage as the rest of the server sees it.
#pragma once

#include <optional>
#include <string>

namespace rd::storage {

class PhotoStore {
 public:
  virtual ~PhotoStore() = default;

  // What a published photo's URL names.
  struct Ref {
    std::string key;    // the object key
    bool local = true;  // a file of this server's storage; false: of the real outside storage
  };
  // The photo a public URL names (the "base_image_url" of an item, with or
  // without a query), if an item may point at it: a key of this server's
  // storage, or, when the app keeps its photos in the real outside storage,
  // a key under that storage's download prefix and nowhere else. Does not
  // look whether the photo is there (see read()).
  virtual std::optional<Ref> photo_of_url(const std::string& url) const = 0;
  // The bytes of a photo of this server's storage; nullopt when it is not there.
  virtual std::optional<std::string> read(const std::string& key) const = 0;
  // Deletes a photo of this server's storage; false when it was already gone.
  virtual bool remove(const std::string& key) = 0;
  // Empty when photos can be stored; else what went wrong.
  virtual std::optional<std::string> problem() const = 0;
  // An item is to point at this photo of this server's storage: it stops
  // counting as an unpublished upload and is never removed for that. False
  // when the photo is not there (any more).
  virtual bool keep(const std::string& key) { return read(key).has_value(); }
  // A short text kept beside a photo of this server's storage and removed
  // with it (the server's own score of it, so that it is decoded once).
  virtual std::optional<std::string> note(const std::string&) const { return std::nullopt; }
  virtual void set_note(const std::string&, const std::string&) {}
};

}  // namespace rd::storage
