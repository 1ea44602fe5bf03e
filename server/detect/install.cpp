#include <iostream>
#include <memory>

#include "Services.h"
#include "detect/DetectService.h"
#include "detect/PhotoScorer.h"
#include "engine/FaceEngine.h"

namespace rd::detect {

void install(server::Services& s) {
  std::shared_ptr<const engine::FaceEngine> eng;
  std::string why;
  try {
    // The engine's limits (engine::Limits): JPEGs up to 12000 pixels a side
    // and 36 megapixels, decoded at 1/2, 1/4 or 1/8 to at most 2048 a side
    // (12 MiB); PNGs up to 2048 a side; scans, decode work and extra chunks
    // bounded before decoding. Decodes run on the CPU pool, so at most
    // --cpu-threads of them at once.
    eng = std::make_shared<engine::FaceEngine>(s.config.models_dir);
    std::cerr << "rongdian-server: face models from " << s.config.models_dir << "\n";
  } catch (const std::exception& e) {
    why = e.what();
    std::cerr << "rongdian-server: face detection unavailable (" << why
              << "); /v2/detection/detect answers 503 until the model files are in place "
                 "(scripts/setup.sh --models, or --models DIR)\n";
  }
  if (eng) s.scorer = std::make_shared<PhotoScorer>(eng);
  auto service = std::make_shared<DetectService>(eng, s.config.detect_key, s.config.detect_secret,
                                                 why, s.photos);
  // GET (a "url") and POST alike; the handler answers other methods itself,
  // with the service's error fields.
  s.router.add(
      http::bhttp::verb::unknown, "/v2/detection/detect",
      [service](const http::Request& req, http::Context& ctx) { return service->handle(req, ctx); },
      "detect", request_body_limit());
  s.router.set_heavy(http::bhttp::verb::unknown, "/v2/detection/detect");
  // Keys given in the query are checked before the photo is read.
  s.router.set_precheck(http::bhttp::verb::unknown, "/v2/detection/detect",
                        [service](const http::Request& head, http::Context& ctx) {
                          return service->refuse_query_keys(head, ctx);
                        });
  // The server core's refusals (body too large, busy, timed out) carry the
  // service's error fields too.
  s.router.set_error_shape(http::bhttp::verb::unknown, "/v2/detection/detect",
                           &DetectService::shape_core_error);
}

}  // namespace rd::detect
