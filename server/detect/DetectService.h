// The face detection web service: /v2/detection/detect answered from the
// local face engine, in the JSON the app's detection client reads; its
// arguments in the query or as form fields (urlencoded or multipart), the
// photo as the part "img" or as a "url" of this server's own storage.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "http/HttpServer.h"

namespace rd::engine {
class FaceEngine;
struct Face;
}  // namespace rd::engine

namespace rd::storage {
class PhotoStore;
}

namespace rd::detect {

// Error codes of the answers ("error_code"), with their HTTP statuses.
enum ErrorCode : int {
  kInternalError = 1001,       // 500
  kAuthorizationError = 1004,  // 401: wrong or missing api_key / api_secret
  kBadArguments = 1005,        // 400: unknown mode or attribute
  kEngineUnavailable = 1202,   // 503: the model files could not be loaded, or the server is busy
  kUnsupportedFormat = 1300,   // 400: the data is not a JPEG or PNG image
  kImageDownload = 1301,       // 400: "url" names no photo of this server's storage
  kImageTooLarge = 1302,       // 413: too many bytes or pixels
  kImageTruncated = 1303,      // 400: the file ends early
  kImageCorrupt = 1304,        // 400: JPEG/PNG that cannot be decoded
  kMissingImage = 1305,        // 400: no multipart part "img"
};

// One face's numbers exactly as the answer gives them: positions in percent
// of the image rounded to three decimals, the age in whole years. The answer
// and the server's own scoring of published photos (PhotoScorer) both take
// them from here, so that they see the same numbers the app does.
struct AnswerFace {
  struct Point {
    double x = 0, y = 0;
  };
  Point center, eye_left, eye_right, mouth_left, mouth_right, nose;
  double width = 0, height = 0;
  std::int64_t age = 0, age_range = 0;
  std::string gender;  // "Male" or "Female"
  double gender_confidence = 0;
  double smiling = 0;  // 0..100
  // Head pose in degrees, from the landmarks and a generic face's depths:
  // pitch positive looking up, yaw positive turned toward the image's right,
  // roll positive turned clockwise in the image.
  double pitch = 0, yaw = 0, roll = 0;
};

AnswerFace answer_face(const engine::Face& face, int image_width, int image_height);

class DetectService {
 public:
  // `engine` may be null: every request is then answered 503 with `why`.
  // `photos`, when given, are the photos a "url" may name (this server's own
  // storage); no other address is ever fetched.
  DetectService(std::shared_ptr<const engine::FaceEngine> engine, std::string key,
                std::string secret, std::string why_unavailable = {},
                std::shared_ptr<storage::PhotoStore> photos = nullptr);

  http::Response handle(const http::Request& req, http::Context& ctx) const;
  // Before the body is read: the service's 401 when the query itself names a
  // wrong api_key/api_secret pair. Keys sent as form fields are checked by
  // handle() once the body is in.
  std::optional<http::Response> refuse_query_keys(const http::Request& head,
                                                  const http::Context& ctx) const;
  // The server core's own refusals of a detection request, with the
  // service's "error" text and "error_code".
  static boost::json::object shape_core_error(unsigned status, boost::json::object core);

 private:
  std::shared_ptr<const engine::FaceEngine> engine_;
  std::string key_, secret_, why_unavailable_;
  std::shared_ptr<storage::PhotoStore> photos_;
};

// Largest request body the route reads (the image limit plus multipart framing).
std::size_t request_body_limit();

}  // namespace rd::detect
