// Photo storage routes: the form upload (primary and backup address) and the
// public downloads under /files/.
#include <boost/url/encode.hpp>
#include <boost/url/rfc/unreserved_chars.hpp>
#include <ctime>
#include <iostream>
#include <memory>

#include "BuildConfig.h"
#include "Services.h"
#include "http/Multipart.h"
#include "storage/PhotoFiles.h"
#include "storage/UploadToken.h"
#include "storage/VoiceNotes.h"

namespace rd::storage {

namespace {

namespace bhttp = http::bhttp;

http::Response error_reply(const http::Request& req, unsigned status, const std::string& reason) {
  return http::json_response(req, status, boost::json::object{{"error", reason}});
}

struct Uploads {
  std::shared_ptr<PhotoFiles> files;
  std::map<std::string, std::string> secrets;  // access key -> secret key
  std::string bucket;

  http::Response handle(const http::Request& req) const {
    auto boundary = http::multipart_boundary(req[bhttp::field::content_type]);
    if (!boundary) return error_reply(req, 400, "expected a multipart/form-data body");
    auto form = http::parse_multipart(req.body(), *boundary);
    if (!form.error.empty()) return error_reply(req, 400, "bad multipart body: " + form.error);

    const http::FormPart* token = form.find("token");
    auto check = verify_upload_token(token ? token->data : std::string_view{}, secrets, bucket,
                                     static_cast<std::int64_t>(std::time(nullptr)));
    if (!check.grant) return error_reply(req, check.status, check.error);
    const UploadGrant& grant = *check.grant;

    const http::FormPart* file = form.find("file");
    if (!file) return error_reply(req, 400, "file is not specified");
    std::string_view data = file->data;
    if (data.empty()) return error_reply(req, 400, "file is empty");
    if (data.size() > kMaxPhotoBytes)
      return error_reply(req, 413,
                         "file too large: " + std::to_string(data.size()) + " bytes, at most " +
                             std::to_string(kMaxPhotoBytes));
    if (grant.size_limit && static_cast<std::int64_t>(data.size()) > *grant.size_limit)
      return error_reply(req, 413, "file too large for the policy's fsizeLimit");

    std::string hash = content_hash(data);
    const http::FormPart* key_part = form.find("key");
    bool key_given = key_part != nullptr;
    std::string key = key_given ? std::string(key_part->data) : std::string();
    if (grant.key) {
      if (key_given && key != *grant.key)
        return error_reply(req, 403, "key doesn't match with scope");
      key = *grant.key;
      key_given = true;
    }
    if (!key_given) key = hash;  // no key: the content names the object
    if (!valid_key(key))
      return error_reply(req, 400,
                         "invalid key: 1 to 200 letters, digits or ._-~@+=, not starting with '.'");

    auto info = probe_photo(data);
    if (!info) return error_reply(req, 400, "file is not a JPEG or PNG photo");
    if (info->width > kMaxPhotoSide || info->height > kMaxPhotoSide ||
        std::uint64_t{info->width} * info->height > kMaxPhotoPixels)
      return error_reply(req, 413,
                         "photo too large: " + std::to_string(info->width) + "x" +
                             std::to_string(info->height) + " pixels");
    if (!photo_decodes(data))
      return error_reply(req, 400, "photo is damaged and cannot be decoded");

    std::string why;
    switch (files->put(key, data, &why)) {
      case PhotoFiles::Put::Stored:
        break;
      case PhotoFiles::Put::Exists: {
        // The same bytes under the same key again is no conflict; anything else is.
        auto old = files->read(key);
        if (!old || content_hash(*old) != hash) return error_reply(req, 614, "file exists");
        break;
      }
      case PhotoFiles::Put::Failed:
        std::cerr << "rongdian-server: storing photo '" << key << "' failed: " << why << "\n";
        return error_reply(req, 500, "cannot store the photo");
    }
    return http::json_response(req, bhttp::status::ok,
                               boost::json::object{{"key", key}, {"hash", hash}});
  }
};

bool etag_matches(std::string_view header, const std::string& etag) {
  if (header.empty()) return false;
  if (header.find('*') != std::string_view::npos) return true;
  return header.find(etag) != std::string_view::npos;
}

http::Response download(const PhotoFiles& files, const http::Request& req, http::Context& ctx) {
  std::string key = ctx.path.substr(std::string_view("/files/").size());
  if (!valid_key(key)) return error_reply(req, 400, "invalid key");
  auto data = files.read(key);
  if (!data) return error_reply(req, 404, "no such file");
  std::string etag = "\"" + content_hash(*data) + "\"";
  auto info = probe_photo(*data);
  std::string mime = info ? info->mime : "application/octet-stream";
  if (etag_matches(req[bhttp::field::if_none_match], etag)) {
    http::Response res{bhttp::status::not_modified, req.version()};
    res.keep_alive(req.keep_alive());
    res.set(bhttp::field::etag, etag);
    res.set(bhttp::field::cache_control, "public, max-age=31536000");
    res.set(bhttp::field::server, "rongdian-server");
    return res;
  }
  auto res = http::text_response(req, bhttp::status::ok, std::move(*data), mime);
  res.set(bhttp::field::etag, etag);
  // Keys are never overwritten, so a photo may be cached for good.
  res.set(bhttp::field::cache_control, "public, max-age=31536000");
  if (const std::string* att = ctx.param("attname"); att && !att->empty())
    res.set(
        bhttp::field::content_disposition,
        "attachment; filename*=UTF-8''" + boost::urls::encode(*att, boost::urls::unreserved_chars));
  return res;
}

}  // namespace

void install(server::Services& s) {
  const auto& cfg = s.config;
  // The app publishes its photos under its download prefix. One of this
  // server's own (its public address or the build's) means the photos are
  // here; any other is the real outside storage (docs/deploy.md).
  const std::string own = cfg.public_url + "/files/";
  std::string app_prefix = cfg.storage_download_prefix;
  if (!app_prefix.empty() && app_prefix.back() != '/')
    app_prefix += '/';  // a folder, not a name's start
  const bool outside = !app_prefix.empty() && app_prefix != own &&
                       app_prefix != std::string(build::kServerUrl) + "/files/";
  auto files = std::make_shared<PhotoFiles>(std::filesystem::path(cfg.data_dir) / "photos", own,
                                            app_prefix, outside);
  if (outside)
    std::cerr << "rongdian-server: photos are in the outside storage at " << app_prefix
              << "; items may point only there\n";
  s.photos = files;
  s.voice_notes = std::make_shared<VoiceNotes>(std::filesystem::path(cfg.data_dir) / "feedback");

  auto uploads = std::make_shared<Uploads>();
  uploads->files = files;
  uploads->secrets[cfg.storage_access_key] = cfg.storage_secret_key;
  uploads->bucket = cfg.storage_bucket;
  if (cfg.storage_access_key.empty() || cfg.storage_bucket.empty())
    throw std::runtime_error("photo storage needs --storage-access-key and --storage-bucket");

  const std::size_t body_limit = kMaxPhotoBytes + 256 * 1024;  // the photo plus the form around it
  unsigned fail_primary = static_cast<unsigned>(cfg.storage_fail_primary);
  if (fail_primary != 0 && (fail_primary < 200 || fail_primary > 999))
    throw std::runtime_error("--storage-fail-primary needs an HTTP status from 200 to 999");

  s.router.add(
      bhttp::verb::post, "/upload",
      [uploads, fail_primary](const http::Request& req, http::Context&) {
        if (fail_primary)
          return error_reply(req, fail_primary, "primary upload address failing on purpose");
        return uploads->handle(req);
      },
      "upload", body_limit);
  s.router.add(
      bhttp::verb::post, "/upload-backup",
      [uploads](const http::Request& req, http::Context&) { return uploads->handle(req); },
      "upload-backup", body_limit);
  // Uploads are decoded whole before they are kept.
  s.router.set_heavy(bhttp::verb::post, "/upload");
  s.router.set_heavy(bhttp::verb::post, "/upload-backup");
  s.router.add_prefix(
      bhttp::verb::get, "/files/",
      [files](const http::Request& req, http::Context& ctx) { return download(*files, req, ctx); },
      "files");
}

}  // namespace rd::storage
