// POST /api?cmd=NAME: the ten commands of the app, from one table (Api::kCommands).
#include <sodium.h>

#include <iostream>

#include "BuildConfig.h"
#include "Services.h"
#include "api/Api.h"
#include "api/Guards.h"
#include "api/ReplyCache.h"
#include "detect/PhotoScorer.h"
#include "push/DeviceToken.h"
#include "push/Gateway.h"
#include "storage/PhotoStore.h"
#include "store/Store.h"

namespace rd::api {

namespace json = boost::json;
using server::Services;

namespace {

constexpr int kMaxPageSize = 50;
// The public feeds' replies are kept for the rows before this one (the first
// pages, which every app start asks for).
constexpr std::int64_t kKeptRows = 100;
constexpr std::size_t kBodyLimit = 16 * 1024;
constexpr const char* kJson = "application/json; charset=utf-8";

// How far a published score may lie from the server's own score of the same
// stored photo. The app publishes the very JPEG it had analysed, and the
// server reads the same numbers from its engine through the same scoring
// code, so an honest claim matches exactly on one machine. The margin is for
// instances on other CPUs (the engine's floating point may differ in the
// last bits there): those bits can move a landmark across a rounding step
// (worth well under a point) or the estimated age across a whole year (the
// answer gives whole years: 200/23 × 10/450 × 100 ≈ 19.3 points). 25 covers
// one such step and stays a quarter of a single like.
constexpr std::int64_t kScoreTolerance = 25;

// An answer the app shows: "error" is a stable code, "message" the user's text.
struct Failure {
  std::string code;
  std::string message;
};

[[noreturn]] void fail(std::string code, std::string message) {
  throw Failure{std::move(code), std::move(message)};
}

[[noreturn]] void bad_field(const std::string& key) {
  fail("bad_field", "请求参数有误（" + key + "）");
}

// The request body with typed, checked access to its fields.
class Body {
 public:
  explicit Body(const json::object& o) : o_(o) {}

  bool has(const char* key) const {
    auto* v = o_.if_contains(key);
    return v && !v->is_null();
  }

  // Text of `min`..`max` UTF-16 units.
  std::string text(const char* key, std::size_t min, std::size_t max) const {
    auto* v = o_.if_contains(key);
    if (!v || v->is_null()) fail("missing_field", std::string("缺少参数（") + key + "）");
    if (!v->is_string()) bad_field(key);
    std::string s(v->as_string());
    auto n = utf16_length(s);
    if (n < min || n > max || s.find('\0') != std::string::npos) bad_field(key);
    return s;
  }

  std::optional<std::string> optional_text(const char* key, std::size_t max) const {
    if (!has(key)) return std::nullopt;
    return text(key, 0, max);
  }

  std::int64_t integer(const char* key, std::int64_t min, std::int64_t max) const {
    auto* v = o_.if_contains(key);
    if (!v || v->is_null()) fail("missing_field", std::string("缺少参数（") + key + "）");
    std::int64_t n = 0;
    if (v->is_int64()) {
      n = v->get_int64();
    } else if (v->is_uint64()) {
      if (v->get_uint64() > static_cast<std::uint64_t>(max)) bad_field(key);
      n = static_cast<std::int64_t>(v->get_uint64());
    } else if (v->is_double()) {
      double d = v->get_double();
      if (!(d >= static_cast<double>(min) && d <= static_cast<double>(max)) ||
          d != static_cast<double>(static_cast<std::int64_t>(d)))
        bad_field(key);
      n = static_cast<std::int64_t>(d);
    } else {
      bad_field(key);
    }
    if (n < min || n > max) bad_field(key);
    return n;
  }

  bool boolean(const char* key, std::optional<bool> fallback = std::nullopt) const {
    auto* v = o_.if_contains(key);
    if (!v || v->is_null()) {
      if (fallback) return *fallback;
      fail("missing_field", std::string("缺少参数（") + key + "）");
    }
    if (v->is_bool()) return v->get_bool();
    if (v->is_int64() && (v->get_int64() == 0 || v->get_int64() == 1)) return v->get_int64() == 1;
    bad_field(key);
  }

  // An item id: the app sends it as text ("42"); a number is taken too.
  std::int64_t item_id(const char* key = "item_id") const {
    auto* v = o_.if_contains(key);
    if (!v || v->is_null()) fail("missing_field", std::string("缺少参数（") + key + "）");
    if (v->is_string()) {
      const auto& s = v->get_string();
      if (s.empty() || s.size() > 18) bad_field(key);
      std::int64_t n = 0;
      for (char c : s) {
        if (c < '0' || c > '9') bad_field(key);
        n = n * 10 + (c - '0');
      }
      if (n < 1) bad_field(key);
      return n;
    }
    return integer(key, 1, std::numeric_limits<std::int64_t>::max());
  }

 private:
  const json::object& o_;
};

json::object user_json(const store::User& u) {
  json::object o{{"id", u.id},
                 {"mobile", u.mobile},
                 {"nickname", u.nickname},
                 {"num_score", u.num_score},
                 {"num_comments", u.unread},
                 {"user_type", u.user_type},
                 {"created_at", format_time(u.created_ms)},
                 {"updated_at", format_time(u.updated_ms)}};
  // Only accounts carried over from the old service have these; the app
  // treats their presence as "this account may need a new password".
  if (!u.old_username.empty()) {
    o["username"] = u.old_username;
    o["userlikename"] = u.nickname;
  }
  return o;
}

json::object item_json(const store::Item& i) {
  return {{"id", i.id},
          {"base_image_url", i.base_image_url},
          {"description", i.description},
          {"num_like", i.num_like},
          {"num_dislike", i.num_dislike},
          {"num_look_score", i.num_look_score},
          {"num_comments", i.num_comments},
          {"is_enabled_photo", i.is_enabled_photo},
          {"created_at", format_time(i.created_ms)},
          {"updated_at", format_time(i.updated_ms)},
          {"user", json::object{{"nickname", i.nickname}}}};
}

json::object comment_json(const store::Comment& c) {
  return {{"id", c.id},
          {"comments", c.text},
          {"item_id", c.item_id},
          {"created_at", format_time(c.created_ms)},
          {"updated_at", format_time(c.updated_ms)},
          {"user", json::object{{"nickname", c.nickname}}}};
}

bool is_user_id(const std::string& s) {
  if (s.size() != 32) return false;
  for (char c : s)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

bool valid_mobile(const std::string& s) {
  if (s.size() < 7 || s.size() > 20 || s.front() == '-') return false;
  for (char c : s)
    if (!((c >= '0' && c <= '9') || c == '-')) return false;
  return true;
}

// One request as the commands see it: the client's context and the session
// the request proves, if any. The app sends "Authorization: Bearer ID" with
// the account id it got at sign-up or log-in (128 random bits, answered to
// that account alone, never shown to others) where a command's body names
// the account only by its mobile number: the own-photos list and a password
// reset.
struct Call {
  http::Context& ctx;
  std::string session;  // the id the Authorization header names; empty: none
};

std::string bearer_session(const http::Request& req) {
  std::string_view h = req[http::bhttp::field::authorization];
  constexpr std::string_view kBearer = "Bearer ";
  if (h.size() <= kBearer.size() || h.substr(0, kBearer.size()) != kBearer) return {};
  std::string id(h.substr(kBearer.size()));
  return is_user_id(id) ? id : std::string();
}

// A digest of a photo's bytes as items keep it (hex SHA-256).
std::string photo_digest(std::string_view bytes) {
  unsigned char d[crypto_hash_sha256_BYTES];
  crypto_hash_sha256(d, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  char hex[sizeof d * 2 + 1];
  sodium_bin2hex(hex, sizeof hex, d, sizeof d);
  return hex;
}

class Api {
 public:
  explicit Api(Services& s)
      : s_(s),
        store_(*s.store),
        photos_(*s.photos),
        scorer_(s.config.trust_claimed_scores ? nullptr : s.scorer),
        by_address_(s.config.auth_rate_address),
        signups_(s.config.signup_rate, std::chrono::hours(1)),
        votes_(s.config.vote_rate_item, std::chrono::hours(24)),
        signups_total_(s.config.signup_rate_total, std::chrono::hours(1)),
        logins_(s.config.login_free_failures, std::chrono::milliseconds(s.config.login_delay_ms)),
        number_logins_(s.config.login_free_failures * kNumberFactor,
                       std::chrono::milliseconds(s.config.login_delay_ms)) {}

  http::Response handle(const http::Request& req, http::Context& ctx) {
    std::string cmd;
    if (auto* q = ctx.param("cmd")) cmd = *q;
    ctx.label = label_for(cmd);
    json::value body;
    try {
      json::error_code ec;
      body = json::parse(req.body(), ec);
      if (ec || !body.is_object()) fail("bad_json", "请求格式有误");
      // The URL names the command; the body's "cmd" stands in when it does not.
      if (cmd.empty())
        if (auto* c = body.as_object().if_contains("cmd"); c && c->is_string())
          cmd = std::string(c->get_string());
      ctx.label = label_for(cmd);
      Body b(body.as_object());
      if (auto kept = feed_reply(cmd, b))
        return http::text_response(req, http::bhttp::status::ok, std::move(*kept), kJson);
      Call call{ctx, bearer_session(req)};
      json::value reply = dispatch(cmd, b, call);
      return http::json_response(req, http::bhttp::status::ok, reply);
    } catch (const Failure& f) {
      s_.metrics.count("rongdian_api_errors_total{command=\"" + ctx.label.substr(4) +
                       "\",error=\"" + f.code + "\"}");
      return http::json_response(req, http::bhttp::status::ok,
                                 json::object{{"error", f.code}, {"message", f.message}});
    } catch (const std::exception& e) {
      std::cerr << "rongdian-server: api " << cmd << " failed: " << e.what() << "\n";
      s_.metrics.count("rongdian_api_errors_total{command=\"" + ctx.label.substr(4) +
                       "\",error=\"internal\"}");
      return http::json_response(
          req, http::bhttp::status::internal_server_error,
          json::object{{"error", "internal"}, {"message", "服务器开小差了，请稍后再试"}});
    }
  }

  // On the connection's thread: a kept reply of the feeds goes out without a
  // worker thread (on PostgreSQL from the thread that hears of the other
  // instances' writes, once it made sure there were none since).
  bool quick(const http::Request& req, http::Context& ctx, std::shared_ptr<http::Answer> answer) {
    auto* cmd = ctx.param("cmd");
    if (!cmd || (*cmd != "rd_list_items" && *cmd != "rd_get_item")) return false;
    std::optional<std::string> key;
    try {
      json::error_code ec;
      json::value body = json::parse(req.body(), ec);
      if (ec || !body.is_object()) return false;
      key = feed_key(*cmd, Body(body.as_object()));
    } catch (const Failure&) {
      return false;  // the handler tells what is wrong
    }
    if (!key) return false;
    ctx.label = label_for(*cmd);
    store_.change_count([this, &req, key = std::move(*key), answer](store::Store::ChangeCount n) {
      auto kept = n ? replies_.find(key, *n) : std::nullopt;
      if (!kept) return answer->pass();
      answer->reply(http::text_response(req, http::bhttp::status::ok, std::move(*kept), kJson));
    });
    return true;
  }

 private:
  // The ten commands: what each runs, and whether it is processor-bound
  // (sign-ups and logins hash passwords, publishing decodes and scores the photo).
  using Run = json::value (Api::*)(const Body&, Call&);
  struct Command {
    std::string_view name;
    Run run;
    bool heavy = false;
  };
  static const Command kCommands[];

 public:
  static const Command* command(std::string_view name);

 private:
  static std::string label_for(const std::string& cmd) {
    return command(cmd) ? "api:" + cmd : "api:unknown";
  }

  json::value dispatch(const std::string& cmd, const Body& b, Call& call) {
    const Command* c = command(cmd);
    if (!c) fail("unknown_command", "不支持的操作");
    return (this->*(c->run))(b, call);
  }

  // What the reply is kept under: the newest feed's and the ranking's first
  // pages, and the top item; nothing for the rest.
  std::optional<std::string> feed_key(const std::string& cmd, const Body& b) {
    if (cmd == "rd_get_item") return "top";
    if (cmd != "rd_list_items" || b.has("user_id") || b.has("item_id")) return std::nullopt;
    auto [offset, limit] = paging(b);
    if (offset >= kKeptRows) return std::nullopt;
    return (b.has("sort_by") ? "score " : "newest ") + std::to_string(offset) + " " +
           std::to_string(limit);
  }

  std::optional<std::string> feed_reply(const std::string& cmd, const Body& b) {
    auto key = feed_key(cmd, b);
    if (!key) return std::nullopt;
    return replies_.reply(*key, store_, [&] {
      http::Context none;
      Call call{none, {}};
      return json::serialize(cmd == "rd_get_item" ? get_item(b, call) : list_items(b, call));
    });
  }

  // The signed-in user that "user_id" names.
  store::User session_user(const Body& b) {
    std::optional<store::User> u = store_.user_by_id(session_user_id(b));
    if (!u) fail("unknown_user", "请先登录");
    return *u;
  }

  // The id alone, for a write that finds out itself whether it exists.
  std::string session_user_id(const Body& b) {
    std::string id = b.text("user_id", 1, 64);
    if (!is_user_id(id)) fail("unknown_user", "请先登录");
    return id;
  }

  std::pair<std::int64_t, int> paging(const Body& b) {
    auto limit = b.integer("limit", 1, std::numeric_limits<std::int32_t>::max());
    auto page = b.integer("page", 1, std::numeric_limits<std::int32_t>::max());
    int capped = static_cast<int>(std::min<std::int64_t>(limit, kMaxPageSize));
    return {(page - 1) * capped, capped};
  }

  json::value list_items(const Body& b, Call& call) {
    auto [offset, limit] = paging(b);
    store::ItemQuery q;
    q.offset = offset;
    q.limit = limit;
    q.order = b.has("sort_by") ? store::ItemOrder::Score : store::ItemOrder::Newest;
    q.include_disabled = !s_.config.hide_disabled;
    json::array items;
    if (b.has("user_id")) {
      // The own-photos screen sends the mobile number, with the account's id
      // in the Authorization header; an id in the body works as well. A
      // number alone proves nothing and lists nothing: it is answered as a
      // number without an account, so probing numbers tells nothing either.
      std::string who = b.text("user_id", 1, 64);
      std::optional<store::User> u;
      if (is_user_id(who)) {
        u = store_.user_by_id(who);
      } else if (!call.session.empty()) {
        u = store_.user_by_mobile(who);
        if (u && u->id != call.session) u.reset();
      }
      if (!u) return json::object{{"items", json::array{}}};
      q.owner_id = u->id;
      q.include_disabled = true;  // the owner sees all his photos, marked
      // Opening the own list from its first page counts as having read the comments.
      if (offset == 0 && q.order == store::ItemOrder::Newest) store_.clear_unread(u->id);
    } else if (b.has("item_id")) {
      auto it = store_.item(b.item_id());
      if (!it) fail("unknown_item", "照片不存在或已删除");
      q.owner_id = it->user_id;
    }
    for (const auto& it : store_.list_items(q)) items.push_back(item_json(it));
    return json::object{{"items", std::move(items)}};
  }

  json::value get_item(const Body&, Call&) {
    auto it = store_.top_item(!s_.config.hide_disabled);
    if (!it) fail("no_items", "还没人有发表");
    return item_json(*it);
  }

  json::value add_item(const Body& b, Call&) {
    auto user = session_user(b);
    store::Item it;
    it.user_id = user.id;
    it.base_image_url = b.text("base_image_url", 1, 1024);
    if (it.base_image_url.rfind("http://", 0) != 0 && it.base_image_url.rfind("https://", 0) != 0)
      bad_field("base_image_url");
    it.num_look_score = b.integer("num_look_score", -1'000'000'000, 1'000'000'000);
    it.description = b.text("description", 0, 100);
    it.is_enabled_photo = b.boolean("is_enabled_photo");
    std::tie(it.photo_key, it.photo_digest) = checked_photo(it.base_image_url, it.num_look_score);
    it.created_ms = it.updated_ms = now_ms();
    auto added = store_.add_item(it);
    if (!added) fail("photo_in_use", "这张照片已经发表过了");
    json::object reply = user_json(user);
    reply["item"] = item_json(*added);
    return reply;
  }

  // The key of the photo a new item is to point at, and the digest of its
  // bytes: one of this server's storage that is there (or, with the outside
  // storage, one under its prefix, without a digest), scored again by the
  // local engine unless that is off.
  std::pair<std::string, std::string> checked_photo(const std::string& url, std::int64_t claimed) {
    auto ref = photos_.photo_of_url(url);
    if (!ref) fail("bad_photo", "照片地址有误，请重新发表");
    if (!ref->local) return {ref->key, {}};  // the outside storage's: neither seen nor scored here
    auto bytes = photos_.read(ref->key);
    if (!bytes) fail("no_photo", "照片还没有上传成功，请重新发表");
    std::pair<std::string, std::string> out{ref->key, photo_digest(*bytes)};
    // The score is kept with the stored photo, so each photo is decoded once.
    if (scorer_) {
      auto own = scorer_->score_stored(photos_, ref->key, *bytes);
      using Outcome = detect::PhotoScore::Outcome;
      switch (own.outcome) {
        case Outcome::Scored:
          if (claimed > own.total + kScoreTolerance || claimed < own.total - kScoreTolerance)
            fail("score_mismatch", "容点与照片不符，请重新测一测再发表");
          break;
        case Outcome::NoFace:
          fail("score_mismatch", "照片里没有找到人脸，请重新测一测再发表");
        case Outcome::SeveralFaces:
          fail("score_mismatch", "当前版本,仅支持单人测试");
        case Outcome::Unreadable:
          fail("bad_photo", "照片无法识别，请重新发表");
      }
    }
    // From now on no longer an unpublished upload (which would be swept).
    if (!photos_.keep(ref->key)) fail("no_photo", "照片还没有上传成功，请重新发表");
    return out;
  }

  json::value remove_item(const Body& b, Call&) {
    auto id = b.item_id();
    auto user = session_user(b);
    store::RemovedItem removed;
    switch (store_.remove_item(id, user.id, &removed)) {
      case store::RemoveResult::NoSuchItem:
        fail("unknown_item", "照片不存在或已删除");
      case store::RemoveResult::NotOwner:
        fail("not_owner", "只能删除自己的照片");
      case store::RemoveResult::Removed:
        break;
    }
    // Only a file of this server's storage that this item alone pointed at.
    auto ref = photos_.photo_of_url(removed.item.base_image_url);
    if (removed.photo_unused && ref && ref->local && ref->key == removed.photo_key) {
      try {
        photos_.remove(ref->key);
      } catch (const std::exception& e) {
        // The item is gone either way; a stray photo file is only space.
        std::cerr << "rongdian-server: removing photo " << ref->key << " failed: " << e.what()
                  << "\n";
      }
    }
    return json::object{{"status", "ok"}, {"id", id}};
  }

  json::value like_item(const Body& b, Call& call) {
    auto id = b.item_id();
    bool like = b.boolean("is_liked");
    auto user_id = session_user_id(b);
    // Throw-away accounts on one network count only so much for one photo;
    // a vote refused for what it is does not count.
    const auto& address = call.ctx.remote_address;
    const auto what = std::to_string(id);
    if (!votes_.allow(address, what)) {
      refuse_vote(id, session_user(b).id);
      fail("rate_limited", "这张照片从你的网络收到的赞太多了，请明天再试");
    }
    auto v = store_.cast_vote(id, user_id, like, now_ms());
    switch (v.result) {
      case store::VoteResult::NoSuchUser:
        votes_.give_back(address, what);
        fail("unknown_user", "请先登录");
      case store::VoteResult::NoSuchItem:
      case store::VoteResult::OwnPhoto:
        votes_.give_back(address, what);
        refuse_vote(id, user_id);
        fail("unknown_item", "照片不存在或已删除");
      case store::VoteResult::Repeated:
        fail("already_voted", like ? "你已经赞过这张照片了" : "你已经给过这张照片差评了");
      case store::VoteResult::Counted:
      case store::VoteResult::Changed:
        break;
    }
    return item_json(*v.item);
  }

  // Fails as a vote of `user_id` for item `id` is refused, if it is.
  void refuse_vote(std::int64_t id, const std::string& user_id) {
    auto target = store_.item(id);
    if (!target) fail("unknown_item", "照片不存在或已删除");
    // Nobody raises (or lowers) his own photo.
    if (target->user_id == user_id) fail("own_photo", "主人，不要点自己啦");
  }

  json::value add_comment(const Body& b, Call&) {
    auto id = b.item_id();
    // Kept without the white space around it, which alone is no comment.
    std::string text(trim_space(b.text("comments", 2, 60)));
    if (utf16_length(text) < 2) bad_field("comments");
    auto user_id = session_user_id(b);
    // The owner's devices get a push, kept with the comment.
    store::CommentPush push;
    push.device_pattern = push::kDeviceTokenPattern;
    push.alert_joiner = " 评论了你的照片：";
    push.keep = s_.config.push_pending_limit;
    auto added = store_.add_comment(id, user_id, text, now_ms(), s_.push ? &push : nullptr);
    if (!added) {
      session_user(b);
      fail("unknown_item", "照片不存在或已删除");
    }
    if (s_.push && !added->pushed.empty()) s_.push->pushed(added->pushed);
    return comment_json(added->comment);
  }

  json::value list_comments(const Body& b, Call&) {
    auto id = b.item_id();
    auto [offset, limit] = paging(b);
    if (!store_.item(id)) fail("unknown_item", "照片不存在或已删除");
    json::array out;
    for (const auto& c : store_.list_comments(id, offset, limit)) out.push_back(comment_json(c));
    return json::object{{"comments", std::move(out)}};
  }

  // Attempts per client address (and address block) per minute; for a
  // mobile number tried from one address, growing waits after wrong
  // passwords, and from all addresses together the same after four times as
  // many. A guesser is slowed down, on many addresses too, without locking
  // the owner out: his own phone (see owners_phone) is held only to its own
  // address's waits.
  void rate_limit(const std::string& mobile, const http::Context& ctx) {
    if (!by_address_.allow(ctx.remote_address) || logins_.wait(login_key(mobile, ctx)).count() > 0)
      fail("rate_limited", "尝试次数过多，请稍后再试");
  }
  void number_rate_limit(const std::string& mobile, bool owners_phone) {
    if (!owners_phone && number_logins_.wait(mobile).count() > 0)
      fail("rate_limited", "尝试次数过多，请稍后再试");
  }
  [[noreturn]] void wrong_password(const std::string& mobile, const http::Context& ctx) {
    logins_.failed(login_key(mobile, ctx));
    number_logins_.failed(mobile);
    fail("wrong_password", "手机号或密码错误");
  }
  static std::string login_key(const std::string& mobile, const http::Context& ctx) {
    return mobile + " " + ctx.remote_address;
  }

  // The request comes from a phone the account was used on: it names the
  // account's id (the app keeps it after sign-up or log-in) or sends a push
  // token bound to the account (256 random bits the push gateway gave that
  // phone).
  bool owners_phone(const Body& b, const Call& call, const store::User& u) {
    if (!call.session.empty() && call.session == u.id) return true;
    auto token = b.optional_text("device_token", 200);
    if (!token || token->empty() || *token == build::kRegisterDeviceToken) return false;
    for (const auto& t : store_.device_tokens(u.id))
      if (t == *token) return true;
    return false;
  }

  std::string checked_mobile(const Body& b) {
    auto mobile = b.text("mobile", 1, 20);
    if (!valid_mobile(mobile)) fail("bad_mobile", "请输入正确地手机号");
    return mobile;
  }

  void remember_device(const Body& b, const std::string& user_id) {
    auto token = b.optional_text("device_token", 200);
    auto platform = b.optional_text("device", 20);
    // The app signs up with one fixed token, the same on every phone: bound
    // to an account, it would hand that account's pushes to anyone who
    // presents it. The phone's own token is bound when it logs in, and when
    // it asks for its account ("rd_get_user") right after signing up.
    if (token && !token->empty() && *token != build::kRegisterDeviceToken)
      store_.add_device(user_id, *token, platform.value_or(""), now_ms());
  }

  // Sign-up. Without a way to reach the phone behind a number, the answer for
  // a registered number has to say so (the user is to log in instead), so
  // what sign-ups can learn, and squat, is bounded instead: a few an hour per
  // address, four times that per address block, and a ceiling for all. A
  // registered number with its own password signs its owner in (a sign-up
  // sent twice); with another one it counts as a wrong password for the number.
  json::value register_user(const Body& b, Call& call) {
    auto mobile = checked_mobile(b);
    rate_limit(mobile, call.ctx);
    auto password = b.text("password", 1, 128);
    auto nickname = b.text("nickname", 1, 20);
    b.optional_text("device_token", 200);
    b.optional_text("device", 20);
    if (reserved_nickname(nickname)) fail("reserved_nickname", "这个昵称不能使用，请换一个");
    if (!signups_.allow(call.ctx.remote_address) || !signups_total_.allow(""))
      fail("rate_limited", "注册太频繁了，请稍后再试");
    store::User u;
    u.id = new_user_id();
    u.mobile = mobile;
    u.nickname = nickname;
    u.password_hash = hash_password(password);
    u.created_ms = u.updated_ms = now_ms();
    if (!store_.create_user(u)) {
      auto taken = store_.user_by_mobile(mobile);
      if (taken) {
        number_rate_limit(mobile, owners_phone(b, call, *taken));
        if (verify_password(taken->password_hash, password)) {
          logins_.succeeded(login_key(mobile, call.ctx));
          remember_device(b, taken->id);
          return user_json(*taken);
        }
        logins_.failed(login_key(mobile, call.ctx));
        number_logins_.failed(mobile);
      }
      fail("mobile_taken", "该手机号已注册");
    }
    remember_device(b, u.id);
    return user_json(u);
  }

  // Log-in. With "reset" on an account the operator marked to choose a new
  // password, the typed password becomes the account's, but only for its
  // owner: on a phone the account was used on (owners_phone; the app's reset
  // comes from such a phone, which still keeps the old account), or with the
  // account's current password. Anyone else gets a wrong password.
  json::value login_user(const Body& b, Call& call) {
    auto mobile = checked_mobile(b);
    rate_limit(mobile, call.ctx);
    auto password = b.text("password", 1, 128);
    bool reset = b.boolean("reset", false);
    b.optional_text("device_token", 200);
    b.optional_text("device", 20);
    auto u = store_.user_by_mobile(mobile);
    if (!u) {
      number_rate_limit(mobile, false);
      // As slow as a real check, so timing does not tell which numbers exist.
      static const std::string dummy = hash_password("rongdian-no-such-account");
      verify_password(dummy, password);
      wrong_password(mobile, call.ctx);
    }
    const bool owners = owners_phone(b, call, *u);
    number_rate_limit(mobile, owners);
    const bool right = verify_password(u->password_hash, password);
    if (reset && u->needs_new_password && (owners || right)) {
      store_.set_password(u->id, hash_password(password), now_ms());
      u = store_.user_by_id(u->id);
      if (!u) fail("unknown_user", "用户不存在");
    } else if (!right) {
      wrong_password(mobile, call.ctx);
    }
    // (The number's own count is left to run out: a guesser's failures stay
    // counted when the owner logs in meanwhile.)
    logins_.succeeded(login_key(mobile, call.ctx));
    remember_device(b, u->id);
    return user_json(*u);
  }

  // A device that names its token here serves this account from now on: how
  // a phone that signed up (with the fixed token) binds its own.
  json::value get_user(const Body& b, Call&) {
    auto u = session_user(b);
    remember_device(b, u.id);
    return user_json(u);
  }

  Services& s_;
  store::Store& store_;
  storage::PhotoStore& photos_;
  std::shared_ptr<detect::PhotoScorer> scorer_;  // null: scores are taken as claimed
  // Wrong passwords for one number from all addresses wait after this many
  // times the per-address free failures.
  static constexpr int kNumberFactor = 4;
  AddressLimiter by_address_;
  AddressLimiter signups_;       // per hour
  AddressLimiter votes_;         // per item, per day
  RateLimiter signups_total_;    // per hour, one key
  LoginThrottle logins_;         // per number and address
  LoginThrottle number_logins_;  // per number
  ReplyCache replies_;
};

const Api::Command Api::kCommands[] = {
    {"rd_add_item", &Api::add_item, true},     {"rd_list_items", &Api::list_items},
    {"rd_get_item", &Api::get_item},           {"rd_remove_item", &Api::remove_item},
    {"rd_like_item", &Api::like_item},         {"rd_add_comments", &Api::add_comment},
    {"rd_list_comments", &Api::list_comments}, {"rd_register_user", &Api::register_user, true},
    {"rd_login_user", &Api::login_user, true}, {"rd_get_user", &Api::get_user},
};

const Api::Command* Api::command(std::string_view name) {
  for (const auto& c : kCommands)
    if (c.name == name) return &c;
  return nullptr;
}

}  // namespace

void install(Services& s) {
  if (!s.store) throw std::runtime_error("the api needs the store");
  if (!s.photos) throw std::runtime_error("the api needs the photo storage");
  if (!s.config.trust_claimed_scores && !s.scorer)
    std::cerr << "rongdian-server: published scores are taken as the app claims them (the local "
                 "detection engine is not running)\n";
  set_time_zone(s.config.time_zone);
  auto api = std::make_shared<Api>(s);
  s.router.add(
      http::bhttp::verb::post, "/api",
      [api](const http::Request& req, http::Context& ctx) { return api->handle(req, ctx); }, "api",
      kBodyLimit);
  // A request that names its command only in the body counts as heavy.
  s.router.set_heavy(http::bhttp::verb::post, "/api",
                     [](const http::Request&, const http::Context& ctx) {
                       const std::string* cmd = ctx.param("cmd");
                       const auto* c = cmd ? Api::command(*cmd) : nullptr;
                       return !cmd || (c && c->heavy);
                     });
  s.router.add_quick(
      http::bhttp::verb::post, "/api",
      [api](const http::Request& req, http::Context& ctx, std::shared_ptr<http::Answer> answer) {
        return api->quick(req, ctx, std::move(answer));
      });
  install_feedback(s);
  install_app_page(s);
}

}  // namespace rd::api
