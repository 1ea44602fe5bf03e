// POST /feedback: the settings screen's feedback form. A multipart/form-data
// body with "text" (required), an optional "voice" file (a recording), and
// optional "user_id" and "device_token". Answers {"status": "ok", "id": N};
// an error carries "error" (a short code) and "message" (a text for the
// user) with a 4xx status. Where the instances share only the database, the
// voice note is in its row. Else it is on disk, pending, before its row is
// written; it takes its name once the row is committed, and is removed again
// when the row cannot be written. What a crash leaves between those steps is
// finished or removed by a sweep at start and now and then.
#include <atomic>
#include <filesystem>
#include <iostream>
#include <mutex>

#include "Services.h"
#include "api/Api.h"
#include "api/Guards.h"
#include "http/Multipart.h"
#include "storage/VoiceNotes.h"
#include "store/Store.h"

namespace rd::api {

namespace {

namespace json = boost::json;
namespace bhttp = http::bhttp;

constexpr std::size_t kMaxFeedbackText = 1000;  // UTF-16 units, as the app counts
constexpr std::size_t kMaxUserId = 64;
constexpr std::size_t kMaxDeviceToken = 200;

struct Rejected {
  unsigned status;
  std::string code;
  std::string message;
};

[[noreturn]] void reject(unsigned status, std::string code, std::string message) {
  throw Rejected{status, std::move(code), std::move(message)};
}

bool valid_utf8(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size()) {
    auto c = static_cast<unsigned char>(s[i]);
    std::size_t n = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : 9;
    if (n == 9 || (n == 1 && c < 0xC2) || i + n >= s.size()) return false;
    std::uint32_t cp = n == 0 ? c : c & (0x3F >> n);
    for (std::size_t k = 1; k <= n; ++k) {
      auto d = static_cast<unsigned char>(s[i + k]);
      if ((d & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (d & 0x3F);
    }
    if ((n == 2 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
        (n == 3 && (cp < 0x10000 || cp > 0x10FFFF)))
      return false;
    i += n + 1;
  }
  return true;
}

bool blank(std::string_view s) { return s.find_first_not_of(" \t\r\n") == std::string_view::npos; }

// An optional short text field; empty when absent.
std::string optional_field(const http::MultipartResult& form, const char* name, std::size_t max) {
  const http::FormPart* p = form.find(name);
  if (!p) return {};
  if (p->data.size() > max || !valid_utf8(p->data) || p->data.find('\0') != std::string_view::npos)
    reject(400, "bad_field", std::string("请求参数有误（") + name + "）");
  return std::string(p->data);
}

class FeedbackRoute {
 public:
  explicit FeedbackRoute(server::Services& s)
      : s_(s),
        by_address_(s.config.feedback_rate),
        quota_(std::int64_t{s.config.feedback_quota_mb} * 1024 * 1024) {
    sweep();
    // What the kept voice notes take already.
    std::error_code ec;
    if (s_.voice_notes)
      for (const auto& e : std::filesystem::directory_iterator(s_.voice_notes->dir(), ec))
        if (e.is_regular_file(ec)) used_ += static_cast<std::int64_t>(e.file_size(ec));
    if (!s_.voice_notes) used_ = s_.store->feedback_voice_bytes();
  }

  http::Response handle(const http::Request& req, http::Context& ctx) {
    try {
      auto id = accept(req, ctx);
      return http::json_response(req, bhttp::status::ok,
                                 json::object{{"status", "ok"}, {"id", id}});
    } catch (const Rejected& r) {
      s_.metrics.count("rongdian_feedback_rejected_total{error=\"" + r.code + "\"}");
      return http::json_response(req, r.status,
                                 json::object{{"error", r.code}, {"message", r.message}});
    } catch (const std::exception& e) {
      std::cerr << "rongdian-server: feedback failed: " << e.what() << "\n";
      return http::json_response(
          req, 500, json::object{{"error", "internal"}, {"message", "服务器开小差了，请稍后再试"}});
    }
  }

 private:
  // Voice notes a crash cut off between file and row: at start, then at most
  // every kSweepEvery, on a feedback post.
  static constexpr auto kSweepEvery = std::chrono::minutes(10);
  void sweep() {
    if (!s_.voice_notes) return;
    const auto now = std::chrono::steady_clock::now();
    {
      std::lock_guard lock(sweep_mu_);
      if (swept_ && now - last_sweep_ < kSweepEvery) return;
      swept_ = true;
      last_sweep_ = now;
    }
    try {
      const int n = s_.voice_notes->sweep(
          [this](const std::string& key) { return s_.store->feedback_has_voice(key); },
          std::chrono::duration_cast<std::chrono::seconds>(kSweepEvery));
      if (n > 0)
        std::cerr << "rongdian-server: feedback: finished or removed " << n
                  << " voice note file(s) a stop had cut off\n";
    } catch (const std::exception& e) {
      std::cerr << "rongdian-server: feedback: sweeping voice notes failed: " << e.what() << "\n";
    }
  }

  std::int64_t accept(const http::Request& req, const http::Context& ctx) {
    sweep();
    if (!by_address_.allow(ctx.remote_address))
      reject(429, "rate_limited", "反馈太频繁了，请稍后再试");
    auto boundary = http::multipart_boundary(req[bhttp::field::content_type]);
    if (!boundary) reject(400, "bad_form", "请求格式有误（需要 multipart/form-data）");
    auto form = http::parse_multipart(req.body(), *boundary);
    if (!form.error.empty()) reject(400, "bad_form", "请求格式有误：" + form.error);

    const http::FormPart* text = form.find("text");
    if (!text || blank(text->data)) reject(400, "empty_text", "请输入反馈内容");
    if (!valid_utf8(text->data) || text->data.find('\0') != std::string_view::npos)
      reject(400, "bad_field", "请求参数有误（text）");
    if (utf16_length(text->data) > kMaxFeedbackText)
      reject(400, "text_too_long",
             "反馈内容太长了，最多" + std::to_string(kMaxFeedbackText) + "个字");

    store::Feedback f;
    f.text = std::string(text->data);
    f.user_id = optional_field(form, "user_id", kMaxUserId);
    f.device_token = optional_field(form, "device_token", kMaxDeviceToken);
    f.remote_address = ctx.remote_address;
    f.created_ms = now_ms();

    const http::FormPart* voice = form.find("voice");
    std::optional<storage::AudioInfo> audio;
    if (voice) {
      if (voice->data.empty()) reject(400, "empty_voice", "语音是空的，请重新录制");
      if (voice->data.size() > storage::kMaxVoiceBytes)
        reject(413, "voice_too_large",
               "语音太长了，最多" + std::to_string(storage::kMaxVoiceBytes / (1024 * 1024)) + "MB");
      audio = storage::probe_audio(voice->data);
      if (!audio) reject(415, "not_audio", "语音格式不支持，请重新录制");
    }

    if (audio) {
      // The voice notes' room is reserved before writing, and given back
      // when nothing was kept.
      const auto size = static_cast<std::int64_t>(voice->data.size());
      if (quota_ > 0 && used_.fetch_add(size) + size > quota_) {
        used_ -= size;
        reject(507, "storage_full", "语音留言太多了，请只写文字或稍后再试");
      }
      f.voice_mime = audio->mime;
      f.voice_bytes = size;
      if (!s_.voice_notes) {  // the row holds the note: both are written, or neither
        f.voice_key = storage::VoiceNotes::new_key(*audio);
        f.voice_data = std::string(voice->data);
        try {
          return s_.store->add_feedback(f).id;
        } catch (...) {
          used_ -= size;
          throw;
        }
      }
      std::string why;
      auto key = s_.voice_notes->put(voice->data, *audio, &why);
      if (!key) {
        used_ -= size;
        throw std::runtime_error("storing a voice note: " + why);
      }
      f.voice_key = *key;
      std::int64_t id = 0;
      try {
        id = s_.store->add_feedback(f).id;
      } catch (...) {
        s_.voice_notes->discard(*key);  // no row, so no file either
        used_ -= size;
        throw;
      }
      // The row is in; a note left pending now is finished by the next sweep.
      if (!s_.voice_notes->commit(*key))
        std::cerr << "rongdian-server: feedback " << id << ": naming voice note " << *key
                  << " failed; the next sweep does it\n";
      return id;
    }
    return s_.store->add_feedback(f).id;
  }

  server::Services& s_;
  AddressLimiter by_address_;
  std::mutex sweep_mu_;
  bool swept_ = false;
  std::chrono::steady_clock::time_point last_sweep_;
  const std::int64_t quota_;  // bytes of voice notes at most; 0: no limit
  std::atomic<std::int64_t> used_{0};
};

}  // namespace

void install_feedback(server::Services& s) {
  if (!s.store) throw std::runtime_error("feedback needs the store");
  auto route = std::make_shared<FeedbackRoute>(s);
  // The recording, the text and the form around them.
  const std::size_t body_limit = storage::kMaxVoiceBytes + 64 * 1024;
  s.router.add(
      bhttp::verb::post, "/feedback",
      [route](const http::Request& req, http::Context& ctx) { return route->handle(req, ctx); },
      "feedback", body_limit);
}

}  // namespace rd::api
