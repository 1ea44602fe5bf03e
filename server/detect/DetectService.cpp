#include "detect/DetectService.h"

#include <algorithm>
#include <boost/url/parse_query.hpp>
#include <charconv>
#include <cmath>
#include <random>
#include <sstream>

#include "engine/FaceEngine.h"
#include "http/Multipart.h"
#include "storage/PhotoStore.h"

namespace rd::detect {

namespace json = boost::json;
using engine::ImageError;

namespace {

constexpr std::size_t kMaxImageBytes = 10 * 1024 * 1024;

struct Attributes {
  bool age = false, gender = false, smiling = false, pose = false;
};

http::Response error(const http::Request& req, unsigned status, int code, const std::string& text) {
  return http::json_response(req, status, json::object{{"error", text}, {"error_code", code}});
}

std::string random_hex32() {
  thread_local std::mt19937_64 gen{std::random_device{}()};
  static const char* digits = "0123456789abcdef";
  std::string s(32, '0');
  for (int half = 0; half < 2; ++half) {
    std::uint64_t v = gen();
    for (int i = 0; i < 16; ++i, v >>= 4)
      s[static_cast<std::size_t>(half * 16 + i)] = digits[v & 15];
  }
  return s;
}

// Rounded to `places` decimals, as the answer shows them.
double round_to(double v, int places) {
  const double f = std::pow(10.0, places);
  return std::round(v * f) / f;
}

// Parses "age,gender,..."; the names this engine cannot estimate (race,
// glass) are accepted and left out of the answer. Returns false on an
// unknown name.
bool parse_attributes(const std::string& text, Attributes& a, std::string& bad) {
  if (text == "none") return true;
  std::stringstream in(text);
  std::string name;
  while (std::getline(in, name, ',')) {
    name.erase(0, name.find_first_not_of(" \t"));
    name.erase(name.find_last_not_of(" \t") + 1);
    if (name == "age")
      a.age = true;
    else if (name == "gender")
      a.gender = true;
    else if (name == "smiling")
      a.smiling = true;
    else if (name == "pose")
      a.pose = true;
    else if (name == "race" || name == "glass")
      continue;
    else {
      bad = name;
      return false;
    }
  }
  return true;
}

json::object point(const AnswerFace::Point& p) { return json::object{{"x", p.x}, {"y", p.y}}; }

json::object face_json(const AnswerFace& a, const Attributes& want, const std::string& tag) {
  json::object attr;
  if (want.age) attr["age"] = json::object{{"value", a.age}, {"range", a.age_range}};
  if (want.gender)
    attr["gender"] = json::object{{"value", a.gender}, {"confidence", a.gender_confidence}};
  if (want.smiling) attr["smiling"] = json::object{{"value", a.smiling}};
  if (want.pose)
    attr["pose"] = json::object{{"pitch_angle", json::object{{"value", a.pitch}}},
                                {"roll_angle", json::object{{"value", a.roll}}},
                                {"yaw_angle", json::object{{"value", a.yaw}}}};
  json::object pos{
      {"center", point(a.center)},
      {"eye_left", point(a.eye_left)},
      {"eye_right", point(a.eye_right)},
      {"mouth_left", point(a.mouth_left)},
      {"mouth_right", point(a.mouth_right)},
      {"nose", point(a.nose)},
      {"width", a.width},
      {"height", a.height},
  };
  return json::object{{"face_id", random_hex32()},
                      {"tag", tag},
                      {"attribute", std::move(attr)},
                      {"position", std::move(pos)}};
}

// JSON text with numbers in plain decimal notation ("49.4", not "4.94E1"),
// as detection clients are used to.
void write_plain(const json::value& v, std::string& out) {
  switch (v.kind()) {
    case json::kind::object: {
      out += '{';
      bool first = true;
      for (const auto& kv : v.get_object()) {
        if (!first) out += ',';
        first = false;
        out += json::serialize(json::string_view(kv.key()));
        out += ':';
        write_plain(kv.value(), out);
      }
      out += '}';
      return;
    }
    case json::kind::array: {
      out += '[';
      bool first = true;
      for (const auto& e : v.get_array()) {
        if (!first) out += ',';
        first = false;
        write_plain(e, out);
      }
      out += ']';
      return;
    }
    case json::kind::double_: {
      const double d = v.get_double();
      if (!std::isfinite(d)) {
        out += "null";
        return;
      }
      char buf[64];
      auto r = std::to_chars(buf, buf + sizeof buf, d, std::chars_format::fixed);
      out.append(buf, r.ptr);
      return;
    }
    default:
      out += json::serialize(v);
  }
}

}  // namespace

AnswerFace answer_face(const engine::Face& f, int w, int h) {
  auto point = [&](double x, double y) {
    return AnswerFace::Point{round_to(x / w * 100.0, 3), round_to(y / h * 100.0, 3)};
  };
  AnswerFace a;
  a.age = static_cast<std::int64_t>(std::lround(std::max(f.age, 0.f)));
  a.age_range = static_cast<std::int64_t>(std::lround(f.age_spread));
  a.gender = f.gender == engine::Gender::Male ? "Male" : "Female";
  a.gender_confidence = round_to(f.gender_probability * 100.0, 3);
  a.smiling = round_to(f.expressions[1] * 100.0, 3);

  // The face box, kept inside the image.
  const double x0 = std::clamp<double>(f.box.x, 0, w), y0 = std::clamp<double>(f.box.y, 0, h);
  const double x1 = std::clamp<double>(f.box.x + f.box.width, 0, w);
  const double y1 = std::clamp<double>(f.box.y + f.box.height, 0, h);

  auto mean = [&](int from, int to) {
    double x = 0, y = 0;
    for (int i = from; i < to; ++i) {
      x += f.landmarks[static_cast<std::size_t>(i)].x;
      y += f.landmarks[static_cast<std::size_t>(i)].y;
    }
    return engine::Point{static_cast<float>(x / (to - from)), static_cast<float>(y / (to - from))};
  };
  // Left and right as seen in the image.
  engine::Point eye_a = mean(36, 42), eye_b = mean(42, 48);
  if (eye_b.x < eye_a.x) std::swap(eye_a, eye_b);
  engine::Point mouth_a = f.landmarks[48], mouth_b = f.landmarks[54];
  if (mouth_b.x < mouth_a.x) std::swap(mouth_a, mouth_b);
  const engine::Point nose = f.landmarks[30];

  // Head pose from the outer eye corners (36, 45), the nose tip and the
  // mouth corners, the roll taken out first, against a generic face: seen
  // from the front the nose tip lies 170 of 320 units down from the eye
  // corners' line to the mouth corners', 130 units nearer than they are,
  // and the eye corners 225 units either side, 135 units behind it.
  {
    const engine::Point l = f.landmarks[36], r = f.landmarks[45];
    const double ex = (l.x + r.x) / 2.0, ey = (l.y + r.y) / 2.0;
    const double roll = std::atan2(r.y - l.y, r.x - l.x);
    const double c = std::cos(-roll), s = std::sin(-roll);
    auto upright = [&](engine::Point p) {
      const double dx = p.x - ex, dy = p.y - ey;
      return std::pair{dx * c - dy * s, dx * s + dy * c};
    };
    const auto [nx, ny] = upright(nose);
    const double rx = upright(r).first;
    const auto ml = upright(f.landmarks[48]), mr = upright(f.landmarks[54]);
    const double mouth_y = (ml.second + mr.second) / 2.0;
    constexpr double kDeg = 180.0 / 3.14159265358979323846;
    a.roll = round_to(roll * kDeg, 3);
    a.yaw = rx > 0 ? round_to(std::atan(nx / rx * 225.0 / 135.0) * kDeg, 3) : 0.0;
    a.pitch = mouth_y > 0
                  ? round_to(std::atan((170.0 / 320.0 - ny / mouth_y) * 320.0 / 130.0) * kDeg, 3)
                  : 0.0;
  }
  a.center = point((x0 + x1) / 2, (y0 + y1) / 2);
  a.eye_left = point(eye_a.x, eye_a.y);
  a.eye_right = point(eye_b.x, eye_b.y);
  a.mouth_left = point(mouth_a.x, mouth_a.y);
  a.mouth_right = point(mouth_b.x, mouth_b.y);
  a.nose = point(nose.x, nose.y);
  a.width = round_to((x1 - x0) / w * 100.0, 3);
  a.height = round_to((y1 - y0) / h * 100.0, 3);
  return a;
}

// Bodies up to this size are read and answered by the handler (an image
// over the engine's byte limit gets its JSON error); larger ones get the
// server core's 413.
std::size_t request_body_limit() { return kMaxImageBytes + kMaxImageBytes / 2; }

DetectService::DetectService(std::shared_ptr<const engine::FaceEngine> engine, std::string key,
                             std::string secret, std::string why_unavailable,
                             std::shared_ptr<storage::PhotoStore> photos)
    : engine_(std::move(engine)),
      key_(std::move(key)),
      secret_(std::move(secret)),
      why_unavailable_(std::move(why_unavailable)),
      photos_(std::move(photos)) {}

json::object DetectService::shape_core_error(unsigned status, json::object core) {
  const std::string text = core.contains("error") && core["error"].is_string()
                               ? std::string(core["error"].as_string())
                               : std::string("error");
  auto named = [&](int code, const char* name) {
    return json::object{{"error", std::string(name) + ": " + text}, {"error_code", code}};
  };
  switch (status) {
    case 413:
      return named(kImageTooLarge, "IMAGE_FILE_TOO_LARGE");
    case 503:
      return named(kEngineUnavailable, "SERVER_TOO_BUSY");
    case 500:
      return named(kInternalError, "INTERNAL_ERROR");
    default:
      return named(kBadArguments, "BAD_ARGUMENTS");
  }
}

std::optional<http::Response> DetectService::refuse_query_keys(const http::Request& head,
                                                               const http::Context& ctx) const {
  const std::string* k = ctx.param("api_key");
  const std::string* sec = ctx.param("api_secret");
  if (!k || !sec || (*k == key_ && *sec == secret_)) return std::nullopt;
  return error(head, 401, kAuthorizationError, "AUTHORIZATION_ERROR: wrong api_key or api_secret");
}

http::Response DetectService::handle(const http::Request& req, http::Context& ctx) const {
  if (req.method() != http::bhttp::verb::get && req.method() != http::bhttp::verb::post)
    return error(req, 405, kBadArguments, "BAD_ARGUMENTS: use GET or POST");
  // Every argument may come in the query or as a form field of the body.
  std::multimap<std::string, std::string> args = ctx.query;
  http::MultipartResult parts;
  const auto type = req[http::bhttp::field::content_type];
  if (auto boundary = http::multipart_boundary(type)) {
    parts = http::parse_multipart(req.body(), *boundary);
    if (!parts.error.empty())
      return error(req, 400, kMissingImage, "MISSING_ARGUMENTS: img (" + parts.error + ")");
    for (const auto& p : parts.parts)
      if (p.name != "img") args.emplace(p.name, std::string(p.data));
  } else if (constexpr std::string_view form = "application/x-www-form-urlencoded";
             type.size() >= form.size() &&
             http::beast::iequals(type.substr(0, form.size()), form)) {
    if (auto form = boost::urls::parse_query(req.body()))
      for (const auto& p : *form) {
        const boost::urls::encoding_opts plus(true, false, false);
        args.emplace(p.key.decode(plus), p.has_value ? p.value.decode(plus) : std::string());
      }
  }
  auto param = [&](const char* name) -> const std::string* {
    auto it = args.find(name);
    return it == args.end() ? nullptr : &it->second;
  };

  const std::string* key = param("api_key");
  const std::string* secret = param("api_secret");
  if (!key || !secret)
    return error(req, 401, kAuthorizationError,
                 "AUTHORIZATION_ERROR: api_key and api_secret are required");
  if (*key != key_ || *secret != secret_)
    return error(req, 401, kAuthorizationError, "AUTHORIZATION_ERROR: wrong api_key or api_secret");

  bool oneface = false;
  if (const std::string* mode = param("mode")) {
    if (*mode == "oneface")
      oneface = true;
    else if (*mode != "normal" && !mode->empty())
      return error(req, 400, kBadArguments,
                   "BAD_ARGUMENTS: mode must be \"normal\" or \"oneface\", not \"" + *mode + "\"");
  }
  Attributes want;
  {
    const std::string* attr = param("attribute");
    std::string bad;
    if (!parse_attributes(attr ? *attr : std::string("gender,age,race,smiling"), want, bad))
      return error(req, 400, kBadArguments, "BAD_ARGUMENTS: unknown attribute \"" + bad + "\"");
  }
  const std::string* tag_p = param("tag");
  const std::string tag = tag_p ? *tag_p : std::string();

  // The photo: the part "img", else a "url" of this server's own storage.
  const http::FormPart* img = parts.find("img");
  const std::string* url = param("url");
  std::optional<std::string> stored;
  std::string_view photo;
  if (img && !img->data.empty()) {
    photo = img->data;
  } else if (url) {
    auto ref = photos_ ? photos_->photo_of_url(*url) : std::nullopt;
    if (ref && ref->local) stored = photos_->read(ref->key);
    if (!stored)
      return error(req, 400, kImageDownload,
                   "IMAGE_DOWNLOAD_ERROR: " + *url +
                       " (only photos of this server's own storage are read; nothing else is "
                       "fetched)");
    photo = *stored;
  } else {
    return error(req, 400, kMissingImage, "MISSING_ARGUMENTS: img or url");
  }

  if (!engine_)
    return error(req, 503, kEngineUnavailable,
                 "SERVER_UNAVAILABLE: face detection is not available on this server (" +
                     why_unavailable_ + ")");

  engine::Analysis result;
  try {
    result = engine_->analyze(photo);
  } catch (const ImageError& e) {
    switch (e.kind) {
      case ImageError::Kind::TooLarge:
        return error(req, 413, kImageTooLarge, std::string("IMAGE_FILE_TOO_LARGE: ") + e.what());
      case ImageError::Kind::Truncated:
        return error(req, 400, kImageTruncated, std::string("IMAGE_ERROR_TRUNCATED: ") + e.what());
      case ImageError::Kind::Corrupt:
        return error(req, 400, kImageCorrupt, std::string("IMAGE_ERROR_CORRUPT: ") + e.what());
      case ImageError::Kind::Empty:
        return error(req, 400, kMissingImage, "MISSING_ARGUMENTS: img is empty");
      case ImageError::Kind::NotImage:
        break;
    }
    return error(req, 400, kUnsupportedFormat,
                 std::string("IMAGE_ERROR_UNSUPPORTED_FORMAT: ") + e.what());
  }

  std::vector<const engine::Face*> faces;
  for (const auto& f : result.faces) faces.push_back(&f);
  if (oneface && faces.size() > 1) {
    auto largest = std::max_element(faces.begin(), faces.end(), [](auto* a, auto* b) {
      return a->box.width * a->box.height < b->box.width * b->box.height;
    });
    faces = {*largest};
  }
  json::array out;
  for (const auto* f : faces)
    out.push_back(face_json(answer_face(*f, result.width, result.height), want, tag));
  json::value answer = json::object{
      {"face", std::move(out)},       {"img_width", result.width},
      {"img_height", result.height},  {"img_id", random_hex32()},
      {"session_id", random_hex32()}, {"url", url ? json::value(*url) : json::value(nullptr)}};
  auto res = http::json_response(req, http::bhttp::status::ok, json::object{});
  res.body().clear();
  write_plain(answer, res.body());
  res.prepare_payload();
  return res;
}

}  // namespace rd::detect
