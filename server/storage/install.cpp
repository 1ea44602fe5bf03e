// Photo storage routes: the form upload (at the root of the upload host and at
// the app's primary and backup addresses), the public downloads under
// /files/, and the sweep of uploads never published.
#include <boost/url/encode.hpp>
#include <boost/url/rfc/unreserved_chars.hpp>
#include <ctime>
#include <iostream>
#include <memory>

#include "BuildConfig.h"
#include "Services.h"
#include "http/Multipart.h"
#include "storage/PhotoFiles.h"
#include "storage/PhotoRows.h"
#include "storage/Upload.h"
#include "storage/VoiceNotes.h"

namespace rd::storage {

namespace {

namespace bhttp = http::bhttp;
namespace asio = http::asio;

http::Response error_reply(const http::Request& req, unsigned status, const std::string& reason) {
  return http::json_response(req, status, boost::json::object{{"error", reason}});
}

bool etag_matches(std::string_view header, const std::string& etag) {
  if (header.empty()) return false;
  if (header.find('*') != std::string_view::npos) return true;
  return header.find(etag) != std::string_view::npos;
}

http::Response download(const PhotoFiles& files, const http::Request& req, http::Context& ctx) {
  std::string key = ctx.path.substr(std::string_view("/files/").size());
  if (!valid_key(key)) return error_reply(req, 400, "invalid key");
  // A photo an item uses never changes; an upload not yet published may be
  // replaced (under a "bucket:key" token), so it is checked again each time.
  const char* cache = files.unpublished(key) ? "public, no-cache" : "public, max-age=31536000";
  auto data = files.read(key);
  if (!data) return error_reply(req, 404, "no such file");
  std::string etag = "\"" + content_hash(*data) + "\"";
  auto info = probe_photo(*data);
  std::string mime = info ? info->mime : "application/octet-stream";
  if (etag_matches(req[bhttp::field::if_none_match], etag)) {
    http::Response res{bhttp::status::not_modified, req.version()};
    res.keep_alive(req.keep_alive());
    res.set(bhttp::field::etag, etag);
    res.set(bhttp::field::cache_control, cache);
    res.set(bhttp::field::server, "rongdian-server");
    return res;
  }
  auto res = http::text_response(req, bhttp::status::ok, std::move(*data), mime);
  res.set(bhttp::field::etag, etag);
  res.set(bhttp::field::cache_control, cache);
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
  UploadLimits limits;
  limits.per_block = cfg.storage_unpublished_per_block;
  limits.unpublished_bytes = std::int64_t{cfg.storage_unpublished_mb} << 20;
  limits.ttl_seconds = cfg.storage_unpublished_seconds;
  limits.reserve_bytes = std::int64_t{cfg.storage_reserve_mb} << 20;
  if (limits.per_block < 1 || limits.unpublished_bytes < 1 || limits.ttl_seconds < 1 ||
      limits.reserve_bytes < 0)
    throw std::runtime_error(
        "--storage-unpublished-per-block, --storage-unpublished-mb and "
        "--storage-unpublished-seconds need at least 1, --storage-reserve-mb at least 0");
  const std::filesystem::path folder = std::filesystem::path(cfg.data_dir) / "photos";
  std::shared_ptr<PhotoFiles> files;
  if (s.store->engine() == "postgresql") {
    // Every instance on the database serves every photo: they are kept there.
    // A data folder's photos from before move in at start.
    auto rows = std::make_shared<PhotoRows>(s.store, folder, own, app_prefix, outside, limits);
    int skipped = 0;
    if (int n = rows->import_folder(&skipped); n > 0 || skipped > 0)
      std::cerr << "rongdian-server: " << n << " photos of " << folder.string()
                << " copied into the database"
                << (skipped ? ", " + std::to_string(skipped) + " with names too long skipped" : "")
                << "\n";
    files = rows;
  } else {
    files = std::make_shared<PhotoFiles>(folder, own, app_prefix, outside, limits);
  }
  if (outside)
    std::cerr << "rongdian-server: photos are in the outside storage at " << app_prefix
              << "; items may point only there\n";
  s.photos = files;
  // Feedback's voice notes: files in the data folder, or in their rows where
  // the instances share only the database (a data folder's notes move in).
  auto notes = std::make_shared<VoiceNotes>(std::filesystem::path(cfg.data_dir) / "feedback");
  if (s.store->engine() == "postgresql") {
    if (int n = notes->move_into(*s.store); n > 0)
      std::cerr << "rongdian-server: " << n << " voice notes of " << notes->dir().string()
                << " copied into the database\n";
  } else {
    s.voice_notes = notes;
  }

  if (cfg.storage_access_key.empty() || cfg.storage_bucket.empty())
    throw std::runtime_error("photo storage needs --storage-access-key and --storage-bucket");
  auto uploads = std::make_shared<Uploads>(
      files, std::map<std::string, std::string>{{cfg.storage_access_key, cfg.storage_secret_key}},
      cfg.storage_bucket);

  const std::size_t body_limit = kMaxPhotoBytes + 256 * 1024;  // the photo plus the form around it
  unsigned fail_primary = static_cast<unsigned>(cfg.storage_fail_primary);
  if (fail_primary != 0 && (fail_primary < 200 || fail_primary > 999))
    throw std::runtime_error("--storage-fail-primary needs an HTTP status from 200 to 999");

  // The storage's own SDKs post the form to the root of the upload host; the
  // app's build names /upload (and /upload-backup for its second try).
  for (const char* path : {"/upload", "/", "/upload-backup"}) {
    const unsigned fail = std::string_view(path) == "/upload" ? fail_primary : 0;
    s.router.add(
        bhttp::verb::post, path,
        [uploads, fail](const http::Request& req, http::Context& ctx) {
          if (fail) return error_reply(req, fail, "primary upload address failing on purpose");
          return uploads->handle(req, ctx);
        },
        std::string_view(path) == "/upload-backup" ? "upload-backup" : "upload", body_limit);
    // Uploads are decoded whole before they are kept.
    s.router.set_heavy(bhttp::verb::post, path);
  }

  // Uploads never published are removed after their time: looked for every
  // minute (or sooner, for a shorter time), on the worker pool.
  auto timer = std::make_shared<asio::steady_timer>(s.server.io());
  const auto every = std::chrono::seconds(std::clamp<std::int64_t>(limits.ttl_seconds / 2, 1, 60));
  auto sweep = std::make_shared<std::function<void()>>();
  *sweep = [timer, every, files, weak = std::weak_ptr(sweep), &pool = s.server.workers()] {
    timer->expires_after(every);
    timer->async_wait([files, weak, &pool](boost::system::error_code ec) {
      auto again = weak.lock();
      if (ec || !again) return;
      asio::post(pool, [files, again] {
        if (int n = files->sweep(static_cast<std::int64_t>(std::time(nullptr))); n > 0)
          std::cerr << "rongdian-server: removed " << n << " photo uploads never published\n";
        (*again)();
      });
    });
  };
  (*sweep)();
  s.server.add_stop_hook([timer, sweep] { timer->cancel(); });
  s.router.add_prefix(
      bhttp::verb::get, "/files/",
      [files](const http::Request& req, http::Context& ctx) { return download(*files, req, ctx); },
      "files");
}

}  // namespace rd::storage
