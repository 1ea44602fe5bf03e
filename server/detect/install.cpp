#include <iostream>
#include <memory>

#include "Services.h"
#include "detect/DetectService.h"
#include "detect/PhotoScorer.h"
#include "engine/FaceEngine.h"

namespace rd::detect {

namespace {
constexpr int kMaxSide = 2048;
constexpr long long kMaxPixels = 2048LL * 2048;
}  // namespace

void install(server::Services& s) {
  std::shared_ptr<const engine::FaceEngine> eng;
  std::string why;
  try {
    // The app sends 200x250 photos; 2048 pixels a side is far more than any
    // client needs and bounds a decode to 12 MiB (a small PNG can claim
    // 6000x6000 and take 200 MiB). Decodes run on the CPU pool, so at most
    // --cpu-threads of them at once.
    engine::EngineOptions options;
    options.limits.max_side = kMaxSide;
    options.limits.max_pixels = kMaxPixels;
    eng = std::make_shared<engine::FaceEngine>(s.config.models_dir, options);
    std::cerr << "rongdian-server: face models from " << s.config.models_dir << "\n";
  } catch (const std::exception& e) {
    why = e.what();
    std::cerr << "rongdian-server: face detection unavailable (" << why
              << "); /v2/detection/detect answers 503 until the model files are in place "
                 "(scripts/setup.sh --models, or --models DIR)\n";
  }
  if (eng) s.scorer = std::make_shared<PhotoScorer>(eng);
  auto service =
      std::make_shared<DetectService>(eng, s.config.detect_key, s.config.detect_secret, why);
  s.router.add(
      http::bhttp::verb::post, "/v2/detection/detect",
      [service](const http::Request& req, http::Context& ctx) { return service->handle(req, ctx); },
      "detect", request_body_limit());
  s.router.set_heavy(http::bhttp::verb::post, "/v2/detection/detect");
  // The key is in the query: a wrong one is refused (with the handler's own
  // answer) before the photo is read.
  s.router.set_precheck(
      http::bhttp::verb::post, "/v2/detection/detect",
      [service, key = s.config.detect_key, secret = s.config.detect_secret](
          const http::Request& head, http::Context& ctx) -> std::optional<http::Response> {
        const std::string* k = ctx.param("api_key");
        const std::string* sec = ctx.param("api_secret");
        if (k && sec && *k == key && *sec == secret) return std::nullopt;
        return service->handle(head, ctx);
      });
}

}  // namespace rd::detect
