// The server's own 容点 score of a published photo: the local engine's
// detection answer for the stored photo, read as the app reads it, through
// the app's one scoring implementation (scoring/FaceScoringCore). The api
// compares it with the score the app claims (see api/Commands.cpp).
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace rd::engine {
class FaceEngine;
}
namespace rd::storage {
class PhotoStore;
}

namespace rd::detect {

struct PhotoScore {
  enum class Outcome {
    Scored,        // `total` holds the score
    NoFace,        // the app would have shown "换一个图片，稍后再试：)"
    SeveralFaces,  // the app would have shown "当前版本,仅支持单人测试"
    Unreadable,    // the engine refused the file
  };
  Outcome outcome = Outcome::Unreadable;
  int total = 0;
};

class PhotoScorer {
 public:
  explicit PhotoScorer(std::shared_ptr<const engine::FaceEngine> engine);
  // Runs the engine (tens of milliseconds for the app's 200×250 photo).
  PhotoScore score(std::string_view photo) const;
  // The same for a photo of the storage: the score is kept in the photo's
  // note, tied to its content, so a photo is decoded and scored once however
  // often items are made from it.
  PhotoScore score_stored(storage::PhotoStore& photos, const std::string& key,
                          std::string_view photo) const;

 private:
  std::shared_ptr<const engine::FaceEngine> engine_;
};

}  // namespace rd::detect
