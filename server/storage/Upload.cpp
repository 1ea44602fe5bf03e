#include "storage/Upload.h"

#include <sodium.h>

#include <boost/crc.hpp>
#include <boost/json.hpp>
#include <charconv>
#include <ctime>
#include <iostream>
#include <opencv2/core.hpp>

#include "http/Limits.h"
#include "http/Multipart.h"
#include "storage/UploadToken.h"

namespace rd::storage {

namespace {

namespace bhttp = http::bhttp;

http::Response error_reply(const http::Request& req, unsigned status, const std::string& reason) {
  return http::json_response(req, status, boost::json::object{{"error", reason}});
}

std::string uuid() {
  unsigned char b[16];
  randombytes_buf(b, sizeof b);
  b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);
  b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);
  static constexpr char hex[] = "0123456789abcdef";
  std::string s;
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) s += '-';
    s += hex[b[i] >> 4];
    s += hex[b[i] & 15];
  }
  return s;
}

}  // namespace

std::string expand_template(
    std::string_view tmpl,
    const std::function<std::optional<TemplateValue>(std::string_view)>& lookup, bool json) {
  std::string out;
  bool in_string = false;
  for (std::size_t i = 0; i < tmpl.size(); ++i) {
    const char c = tmpl[i];
    const bool var = c == '$' && i + 1 < tmpl.size() && (tmpl[i + 1] == '(' || tmpl[i + 1] == '{');
    const char close = var && tmpl[i + 1] == '(' ? ')' : '}';
    const std::size_t end = var ? tmpl.find(close, i + 2) : std::string_view::npos;
    if (end == std::string_view::npos) {
      if (json && c == '"') in_string = !in_string;
      if (json && c == '\\' && in_string && i + 1 < tmpl.size()) out += tmpl[i++];
      out += tmpl[i];
      continue;
    }
    const auto value = lookup(tmpl.substr(i + 2, end - i - 2));
    i = end;
    if (!json) {
      if (value) out += value->text;
    } else if (in_string) {
      if (value) {
        const std::string quoted = boost::json::serialize(boost::json::string(value->text));
        out += quoted.substr(1, quoted.size() - 2);
      }
    } else if (!value) {
      out += "null";
    } else {
      out += value->number ? value->text : boost::json::serialize(boost::json::string(value->text));
    }
  }
  return out;
}

Uploads::Uploads(std::shared_ptr<PhotoFiles> files, std::map<std::string, std::string> secrets,
                 std::string bucket)
    : files_(std::move(files)), secrets_(std::move(secrets)), bucket_(std::move(bucket)) {}

engine::Limits Uploads::photo_limits() {
  engine::Limits l;
  l.max_bytes = kMaxPhotoBytes;
  return l;
}

http::Response Uploads::handle(const http::Request& req, const http::Context& ctx) const {
  auto boundary = http::multipart_boundary(req[bhttp::field::content_type]);
  if (!boundary) return error_reply(req, 400, "expected a multipart/form-data body");
  auto form = http::parse_multipart(req.body(), *boundary);
  if (!form.error.empty()) return error_reply(req, 400, "bad multipart body: " + form.error);

  const http::FormPart* token = form.find("token");
  auto check = verify_upload_token(token ? token->data : std::string_view{}, secrets_, bucket_,
                                   static_cast<std::int64_t>(std::time(nullptr)));
  if (!check.grant) return error_reply(req, check.status, check.error);
  const UploadGrant& grant = *check.grant;

  const http::FormPart* file = form.find("file");
  if (!file) return error_reply(req, 400, "file is not specified");
  const std::string_view data = file->data;
  if (data.empty()) return error_reply(req, 400, "file is empty");
  const auto size = static_cast<std::int64_t>(data.size());
  if (data.size() > kMaxPhotoBytes)
    return error_reply(req, 413,
                       "file too large: " + std::to_string(data.size()) + " bytes, at most " +
                           std::to_string(kMaxPhotoBytes));
  if (grant.size_limit && size > *grant.size_limit)
    return error_reply(req, 413, "file too large for the policy's fsizeLimit");
  if (grant.size_min && size < *grant.size_min)
    return error_reply(req, 403, "file too small for the policy's fsizeMin");
  if (const http::FormPart* crc = form.find("crc32")) {
    std::uint64_t sent = 0;
    const auto r = std::from_chars(crc->data.data(), crc->data.data() + crc->data.size(), sent);
    boost::crc_32_type sum;
    sum.process_bytes(data.data(), data.size());
    if (r.ec != std::errc() || r.ptr != crc->data.data() + crc->data.size() ||
        sent != sum.checksum())
      return error_reply(req, 406, "crc32 not match");
  }

  // The photo's structure first (cheap): type, size, scans and chunks, end.
  engine::ImageHeader header;
  try {
    header = engine::check_image(data, photo_limits());
  } catch (const engine::ImageError& e) {
    using K = engine::ImageError::Kind;
    if (e.kind == K::TooLarge)
      return error_reply(req, 413, std::string("photo too large: ") + e.what());
    if (e.kind == K::Truncated)
      return error_reply(req, 400,
                         "photo is damaged and cannot be decoded: " + std::string(e.what()));
    return error_reply(req, 400, "file is not a JPEG or PNG photo");
  }
  if (header.end != data.size())
    return error_reply(req, 400,
                       "photo has " + std::to_string(data.size() - header.end) +
                           " bytes after its end; only the photo itself is kept");
  const bool jpeg = header.format == engine::ImageFormat::Jpeg;
  const std::string mime = jpeg ? "image/jpeg" : "image/png";
  if (!mime_allowed(grant.mime_limit, mime))
    return error_reply(req, 403,
                       "limited mimeType: this file type (" + mime + ") is forbidden to upload");

  // The key: the one sent, else saveKey, else the scope's, else the content hash.
  const std::string hash = content_hash(data);
  const std::string fname = file->filename;
  const auto dot = fname.rfind('.');
  const std::string ext =
      dot != std::string::npos ? fname.substr(dot) : std::string(jpeg ? ".jpg" : ".png");
  const std::string fprefix = dot != std::string::npos ? fname.substr(0, dot) : fname;
  const std::string id = uuid();
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  std::string key;
  auto lookup = [&](std::string_view name) -> std::optional<TemplateValue> {
    auto two = [](int v) { return TemplateValue{(v < 10 ? "0" : "") + std::to_string(v)}; };
    if (name.starts_with("x:")) {
      if (const http::FormPart* p = form.find(name)) return TemplateValue{std::string(p->data)};
      return std::nullopt;
    }
    if (name == "bucket") return TemplateValue{bucket_};
    if (name == "key") return TemplateValue{key};
    if (name == "etag") return TemplateValue{hash};
    if (name == "fname") return TemplateValue{fname};
    if (name == "fsize") return TemplateValue{std::to_string(size), true};
    if (name == "mimeType") return TemplateValue{mime};
    if (name == "endUser") return TemplateValue{grant.end_user};
    if (name == "ext") return TemplateValue{ext};
    if (name == "fprefix") return TemplateValue{fprefix};
    if (name == "uuid") return TemplateValue{id};
    if (name == "year") return TemplateValue{std::to_string(tm.tm_year + 1900)};
    if (name == "mon") return two(tm.tm_mon + 1);
    if (name == "day") return two(tm.tm_mday);
    if (name == "hour") return two(tm.tm_hour);
    if (name == "min") return two(tm.tm_min);
    if (name == "sec") return two(tm.tm_sec);
    if (name == "imageInfo.width") return TemplateValue{std::to_string(header.width), true};
    if (name == "imageInfo.height") return TemplateValue{std::to_string(header.height), true};
    if (name == "imageInfo.format") return TemplateValue{jpeg ? "jpeg" : "png"};
    return std::nullopt;
  };
  const http::FormPart* key_part = form.find("key");
  if (key_part && !(grant.force_save_key && !grant.save_key.empty()))
    key = std::string(key_part->data);
  else if (!grant.save_key.empty())
    key = expand_template(grant.save_key, lookup, false);
  else if (grant.key && !grant.prefixal)
    key = *grant.key;
  else
    key = hash;
  if (grant.key && (grant.prefixal ? !key.starts_with(*grant.key) : key != *grant.key))
    return error_reply(req, 403, "key doesn't match with scope");
  if (!valid_key(key))
    return error_reply(req, 400,
                       "invalid key: 1 to " + std::to_string(kMaxKeyBytes) + " bytes of UTF-8");

  // Room for it, before any decoding.
  const std::string block = http::address_block(ctx.remote_address);
  if (auto no = files_->admit(block, data.size())) return error_reply(req, no->first, no->second);
  try {
    engine::decode_image(data, photo_limits());
  } catch (const engine::ImageError&) {
    return error_reply(req, 400, "photo is damaged and cannot be decoded");
  }

  std::string why;
  switch (files_->put(key, data, &why, grant.may_replace(), block)) {
    case PhotoFiles::Put::Stored:
    case PhotoFiles::Put::Replaced:
      break;
    case PhotoFiles::Put::Exists: {
      // The same bytes under the same key again is no conflict; anything else is.
      auto old = files_->read(key);
      if (!old || content_hash(*old) != hash) return error_reply(req, 614, "file exists");
      break;
    }
    case PhotoFiles::Put::Failed:
      std::cerr << "rongdian-server: storing photo '" << key << "' failed: " << why << "\n";
      return error_reply(req, 500, "cannot store the photo");
  }
  if (grant.return_body.empty())
    return http::json_response(req, bhttp::status::ok,
                               boost::json::object{{"hash", hash}, {"key", key}});
  auto res = http::json_response(req, bhttp::status::ok, boost::json::object{});
  res.body() = expand_template(grant.return_body, lookup, true);
  res.prepare_payload();
  return res;
}

}  // namespace rd::storage
