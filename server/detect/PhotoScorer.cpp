#include "detect/PhotoScorer.h"

#include <cmath>
#include <sstream>

#include "detect/DetectService.h"
#include "engine/FaceEngine.h"
#include "scoring/FaceScoringCore.h"
#include "storage/PhotoFiles.h"
#include "storage/PhotoStore.h"

namespace rd::detect {

PhotoScorer::PhotoScorer(std::shared_ptr<const engine::FaceEngine> engine)
    : engine_(std::move(engine)) {}

PhotoScore PhotoScorer::score(std::string_view photo) const {
  PhotoScore out;
  engine::Analysis result;
  try {
    result = engine_->analyze(photo);
  } catch (const engine::ImageError&) {
    return out;
  }
  // The app asks in "normal" mode and scores only an answer with exactly one face.
  if (result.faces.empty()) {
    out.outcome = PhotoScore::Outcome::NoFace;
    return out;
  }
  if (result.faces.size() > 1) {
    out.outcome = PhotoScore::Outcome::SeveralFaces;
    return out;
  }
  const AnswerFace a = answer_face(result.faces.front(), result.width, result.height);
  // The answer writes a number that is not finite as null, which the app reads as 0.
  auto num = [](double v) { return std::isfinite(v) ? v : 0.0; };
  scoring::FaceMeasures m;
  m.eye_x = num(a.eye_left.x);
  m.eye_y = num(a.eye_left.y);
  m.mouth_x = num(a.mouth_left.x);
  m.mouth_y = num(a.mouth_left.y);
  m.nose_x = num(a.nose.x);
  m.nose_y = num(a.nose.y);
  m.width = num(a.width);
  m.height = num(a.height);
  m.age = static_cast<double>(a.age);
  m.smile = num(a.smiling);
  m.gender = a.gender;
  out.outcome = PhotoScore::Outcome::Scored;
  out.total = scoring::score(m).total;
  return out;
}

PhotoScore PhotoScorer::score_stored(storage::PhotoStore& photos, const std::string& key,
                                     std::string_view photo) const {
  const std::string hash = storage::content_hash(photo);
  if (auto note = photos.note(key)) {
    std::istringstream in(*note);
    std::string seen;
    int outcome = -1;
    PhotoScore kept;
    if (in >> seen >> outcome >> kept.total && seen == hash && outcome >= 0 && outcome <= 3) {
      kept.outcome = static_cast<PhotoScore::Outcome>(outcome);
      return kept;
    }
  }
  const PhotoScore fresh = score(photo);
  photos.set_note(key, hash + " " + std::to_string(static_cast<int>(fresh.outcome)) + " " +
                           std::to_string(fresh.total));
  return fresh;
}

}  // namespace rd::detect
