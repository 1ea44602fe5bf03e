// The store's operations, written once for both engines (the pool is in
// SqlPool.cpp, the tables in Schema.cpp).
#include "store/SqlStore.h"

#include <algorithm>
#include <boost/beast/core/detail/base64.hpp>
#include <boost/json.hpp>
#include <future>
#include <regex>
#include <set>

namespace rd::store::sql {

namespace json = boost::json;

namespace {

const char* kUserCols =
    "id, mobile, nickname, password_hash, user_type, old_username, needs_new_password, "
    "num_score, unread, created_ms, updated_ms";

User to_user(const Row& r) {
  User u;
  u.id = r.s(0);
  u.mobile = r.s(1);
  u.nickname = r.s(2);
  u.password_hash = r.s(3);
  u.user_type = r.s(4);
  u.old_username = r.s(5);
  u.needs_new_password = r.b(6);
  u.num_score = r.i(7);
  u.unread = r.i(8);
  u.created_ms = r.i(9);
  u.updated_ms = r.i(10);
  return u;
}

const char* kItemSelect =
    "SELECT i.id, i.user_id, u.nickname, i.base_image_url, i.description, i.num_look_score, "
    "i.num_like, i.num_dislike, i.num_comments, i.is_enabled_photo, i.created_ms, i.updated_ms "
    "FROM items i JOIN users u ON u.id = i.user_id";

}  // namespace

Item to_item(const Row& r) {
  Item it;
  it.id = r.i(0);
  it.user_id = r.s(1);
  it.nickname = r.s(2);
  it.base_image_url = r.s(3);
  it.description = r.s(4);
  it.num_look_score = r.i(5);
  it.num_like = r.i(6);
  it.num_dislike = r.i(7);
  it.num_comments = r.i(8);
  it.is_enabled_photo = r.b(9);
  it.created_ms = r.i(10);
  it.updated_ms = r.i(11);
  return it;
}

namespace {

// A device's pending pushes beyond the newest `keep`.
const char* kTrimPushes =
    "DELETE FROM push_pending WHERE device_token = ? AND id NOT IN (SELECT id FROM "
    "push_pending WHERE device_token = ? ORDER BY id DESC LIMIT ?)";

const char* kCommentSelect =
    "SELECT c.id, c.item_id, c.user_id, u.nickname, c.text, c.created_ms, c.updated_ms "
    "FROM comments c JOIN users u ON u.id = c.user_id";

}  // namespace

Comment to_comment(const Row& r) {
  Comment c;
  c.id = r.i(0);
  c.item_id = r.i(1);
  c.user_id = r.s(2);
  c.nickname = r.s(3);
  c.text = r.s(4);
  c.created_ms = r.i(5);
  c.updated_ms = r.i(6);
  return c;
}

SqlStore::SqlStore(Dialect dialect, std::function<std::unique_ptr<Conn>()> factory, int connections)
    : dialect_(std::move(dialect)), pool_(std::move(factory), connections) {
  migrate();
  if (dialect_.functions) {
    // One batch of each kind under way at a time; what comes in meanwhile
    // makes the next one. A second one beside it would mostly wait for the
    // first one's row locks (held until its commit is on the disk) and take
    // turns with it for the processor: one after the other, the batches are
    // larger and each takes less time.
    votes_ = std::make_unique<GroupWrite<VoteOp>>(
        [this](const std::vector<VoteOp*>& ops) {
          return batch_end([&](Told& told) { write_votes(ops, told); });
        },
        kMaxBatch);
    comments_ = std::make_unique<GroupWrite<CommentOp>>(
        [this](const std::vector<CommentOp*>& ops) {
          return batch_end([&](Told& told) { write_comments(ops, told); });
        },
        kMaxBatch);
  }
}

template <class F>
auto SqlStore::write(F&& f, Kind kind) {
  std::unique_lock<std::mutex> serial;
  if (dialect_.serialize_writes) serial = std::unique_lock(writer_);
  auto c = pool_.get();
  // Counted once the write is over, however it ended (a failed COMMIT may
  // still have committed), and timed.
  struct Count {
    SqlStore& s;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    ~Count() {
      s.local_changes_.fetch_add(1, std::memory_order_release);
      if (s.on_write_) s.on_write_(std::chrono::steady_clock::now() - start);
    }
  } count{*this};
  if (kind == Kind::Single) return f(*c);  // f tells what it announced
  c->begin_write();
  if (kind == Kind::Shown) c->announce_change();
  try {
    if constexpr (std::is_void_v<decltype(f(*c))>) {
      f(*c);
      c->commit();
    } else {
      auto r = f(*c);
      c->commit();
      return r;
    }
  } catch (...) {
    c->rollback();
    throw;
  }
}

void SqlStore::migrate() {
  write([&](Conn& c) {
    if (!dialect_.migration_lock.empty()) c.query(dialect_.migration_lock, {});
    c.exec_script("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
    auto rows = c.query("SELECT MAX(version) FROM schema_version", {});
    std::int64_t have = rows.empty() ? 0 : rows[0].i(0);
    if (have > static_cast<std::int64_t>(dialect_.migrations.size()))
      throw Error("the database schema (version " + std::to_string(have) +
                  ") is newer than this server knows; upgrade the server");
    for (auto v = have; v < static_cast<std::int64_t>(dialect_.migrations.size()); ++v) {
      c.exec_script(dialect_.migrations[static_cast<std::size_t>(v)]);
      if (v + 1 == 3) backfill_photo_keys(c);  // the items from before the keys get theirs
      c.query("DELETE FROM schema_version", {});
      c.query("INSERT INTO schema_version (version) VALUES (?)", {v + 1});
    }
  });
}

void SqlStore::change_count(std::function<void(ChangeCount)> done) {
  if (!dialect_.remote_changes) return done(local_changes_.load(std::memory_order_acquire));
  dialect_.remote_changes->sync([this, done = std::move(done)](std::optional<std::uint64_t> heard) {
    // Both parts only grow, so an unchanged sum means neither moved.
    if (!heard) return done(std::nullopt);
    done(local_changes_.load(std::memory_order_acquire) + *heard);
  });
}

Store::ChangeCount SqlStore::change_count() {
  if (!dialect_.remote_changes) return local_changes_.load(std::memory_order_acquire);
  std::promise<ChangeCount> p;
  auto f = p.get_future();
  change_count([&p](ChangeCount n) { p.set_value(n); });
  return f.get();
}

bool SqlStore::create_user(const User& u) {
  try {
    write(
        [&](Conn& c) {
          c.query(
              "INSERT INTO users (id, mobile, nickname, password_hash, user_type, old_username, "
              "needs_new_password, num_score, unread, created_ms, updated_ms) "
              "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
              {u.id, u.mobile, u.nickname, u.password_hash, u.user_type, u.old_username,
               std::int64_t{u.needs_new_password}, u.num_score, u.unread, u.created_ms,
               u.updated_ms});
        },
        Kind::Unshown);
    return true;
  } catch (const UniqueViolation&) {
    return false;
  }
}

std::optional<User> SqlStore::user_by_id(const std::string& id) {
  auto c = pool_.get();
  auto rows = c->query(std::string("SELECT ") + kUserCols + " FROM users WHERE id = ?", {id});
  if (rows.empty()) return std::nullopt;
  return to_user(rows[0]);
}

std::optional<User> SqlStore::user_by_mobile(const std::string& mobile) {
  auto c = pool_.get();
  auto rows =
      c->query(std::string("SELECT ") + kUserCols + " FROM users WHERE mobile = ?", {mobile});
  if (rows.empty()) return std::nullopt;
  return to_user(rows[0]);
}

void SqlStore::set_password(const std::string& user_id, const std::string& hash,
                            std::int64_t now_ms) {
  write(
      [&](Conn& c) {
        c.query(
            "UPDATE users SET password_hash = ?, needs_new_password = 0, updated_ms = ? WHERE id = "
            "?",
            {hash, now_ms, user_id});
      },
      Kind::Unshown);
}

bool SqlStore::mark_needs_new_password(const std::string& mobile, const std::string& old_username,
                                       const std::string& user_type) {
  return write(
      [&](Conn& c) {
        auto rows = c.query(
            "UPDATE users SET needs_new_password = 1, old_username = ?, user_type = ? "
            "WHERE mobile = ? RETURNING id",
            {old_username, user_type, mobile});
        return !rows.empty();
      },
      Kind::Unshown);
}

void SqlStore::add_device(const std::string& user_id, const std::string& token,
                          const std::string& platform, std::int64_t now_ms) {
  // A device that asks again for the account it already serves writes nothing.
  {
    auto c = pool_.get();
    auto rows = c->query("SELECT user_id FROM devices WHERE token = ?", {token});
    if (!rows.empty() && rows[0].s(0) == user_id) return;
  }
  write(
      [&](Conn& c) {
        c.query(
            "INSERT INTO devices (token, user_id, platform, updated_ms) VALUES (?, ?, ?, ?) "
            "ON CONFLICT (token) DO UPDATE SET user_id = excluded.user_id, "
            "platform = excluded.platform, updated_ms = excluded.updated_ms",
            {token, user_id, platform, now_ms});
        // Every push to the account goes to each of its tokens: the oldest go.
        c.query(
            "DELETE FROM devices WHERE user_id = ? AND token NOT IN (SELECT token FROM devices "
            "WHERE user_id = ? ORDER BY updated_ms DESC, token DESC LIMIT ?)",
            {user_id, user_id, std::int64_t{kMaxDevicesPerUser}});
      },
      Kind::Unshown);
}

std::vector<std::string> SqlStore::device_tokens(const std::string& user_id) {
  auto c = pool_.get();
  auto rows = c->query("SELECT token FROM devices WHERE user_id = ? ORDER BY token", {user_id});
  std::vector<std::string> out;
  for (auto& r : rows) out.push_back(r.s(0));
  return out;
}

void SqlStore::clear_unread(const std::string& user_id) {
  // Most page loads find nothing to clear; skip the write then.
  {
    auto c = pool_.get();
    auto rows = c->query("SELECT unread FROM users WHERE id = ?", {user_id});
    if (rows.empty() || rows[0].i(0) == 0) return;
  }
  write([&](Conn& c) { c.query("UPDATE users SET unread = 0 WHERE id = ?", {user_id}); },
        Kind::Single);
}

std::optional<Item> SqlStore::add_item(const Item& in) {
  std::int64_t id = 0;
  try {
    id = write([&](Conn& c) {
      // The unique indexes on photo_key and photo_digest turn away a photo
      // another item points at, or the same bytes stored again.
      auto rows = c.query(
          "INSERT INTO items (user_id, base_image_url, photo_key, photo_digest, description, "
          "num_look_score, num_like, num_dislike, num_comments, is_enabled_photo, created_ms, "
          "updated_ms) VALUES (?, ?, ?, ?, ?, ?, 0, 0, 0, ?, ?, ?) RETURNING id",
          {in.user_id, in.base_image_url,
           in.photo_key.empty() ? Param{nullptr} : Param{in.photo_key},
           in.photo_digest.empty() ? Param{nullptr} : Param{in.photo_digest}, in.description,
           in.num_look_score, std::int64_t{in.is_enabled_photo}, in.created_ms, in.updated_ms});
      if (rows.empty()) throw Error("insert of an item returned no id");
      return rows[0].i(0);
    });
  } catch (const UniqueViolation&) {
    return std::nullopt;
  }
  auto c = pool_.get();
  auto it = item_on(*c, id);
  if (!it) throw Error("a new item vanished");
  return it;
}

std::optional<Item> SqlStore::item_on(Conn& c, std::int64_t id) {
  auto rows = c.query(std::string(kItemSelect) + " WHERE i.id = ?", {id});
  if (rows.empty()) return std::nullopt;
  return to_item(rows[0]);
}

std::optional<Item> SqlStore::item(std::int64_t id) {
  auto c = pool_.get();
  return item_on(*c, id);
}

std::vector<Item> SqlStore::list_items(const ItemQuery& q) {
  std::string sql = kItemSelect;
  std::vector<Param> params;
  std::string where;
  if (q.owner_id) {
    where = " WHERE i.user_id = ?";
    params.emplace_back(*q.owner_id);
  }
  if (!q.include_disabled)
    where += where.empty() ? " WHERE i.is_enabled_photo = 1" : " AND i.is_enabled_photo = 1";
  sql += where;
  sql += q.order == ItemOrder::Score ? " ORDER BY i.num_look_score DESC, i.id DESC"
                                     : " ORDER BY i.created_ms DESC, i.id DESC";
  sql += " LIMIT ? OFFSET ?";
  params.emplace_back(std::int64_t{q.limit});
  params.emplace_back(q.offset);
  auto c = pool_.get();
  auto rows = c->query(sql, params);
  std::vector<Item> out;
  out.reserve(rows.size());
  for (auto& r : rows) out.push_back(to_item(r));
  return out;
}

std::optional<Item> SqlStore::top_item(bool include_disabled) {
  ItemQuery q;
  q.order = ItemOrder::Score;
  q.include_disabled = include_disabled;
  q.limit = 1;
  auto v = list_items(q);
  if (v.empty()) return std::nullopt;
  return v.front();
}

RemoveResult SqlStore::remove_item(std::int64_t id, const std::string& user_id,
                                   RemovedItem* removed) {
  return write([&](Conn& c) {
    auto it = item_on(c, id);
    if (!it) return RemoveResult::NoSuchItem;
    auto rows = c.query("DELETE FROM items WHERE id = ? AND user_id = ? RETURNING photo_key",
                        {id, user_id});
    if (rows.empty()) return item_on(c, id) ? RemoveResult::NotOwner : RemoveResult::NoSuchItem;
    if (removed) {
      removed->item = *it;
      removed->photo_key = rows[0].s(0);
      // No other item has this key (unique); an item from before the keys
      // that a copy of this URL left without one may still point at it.
      removed->photo_unused =
          !removed->photo_key.empty() &&
          c.query("SELECT 1 FROM items WHERE photo_key IS NULL AND base_image_url = ? LIMIT 1",
                  {it->base_image_url})
              .empty();
    }
    return RemoveResult::Removed;
  });
}

Vote SqlStore::vote(std::int64_t id, const std::string& user_id, bool like, std::int64_t now_ms) {
  if (dialect_.functions) return vote_by_function(id, user_id, like, now_ms);
  const std::int64_t is_like = like ? 1 : 0;
  // Most repeats are answered by this read alone, without taking any lock.
  {
    auto c = pool_.get();
    auto rows = c->query(
        "SELECT v.is_like FROM items i LEFT JOIN votes v ON v.item_id = i.id AND v.user_id = ? "
        "WHERE i.id = ?",
        {user_id, id});
    if (rows.empty()) return {VoteResult::NoSuchItem, std::nullopt};
    if (rows[0].cols[0] && rows[0].i(0) == is_like) return {VoteResult::Repeated, std::nullopt};
  }
  VoteResult result;
  try {
    result = write([&](Conn& c) {
      // The vote row decides, under its own lock: a first vote inserts it; a
      // change flips it; a concurrent twin of this request finds it already
      // as wanted and changes nothing.
      VoteResult r = VoteResult::Counted;
      if (c.query("INSERT INTO votes (item_id, user_id, is_like, updated_ms) VALUES (?, ?, ?, ?) "
                  "ON CONFLICT (item_id, user_id) DO NOTHING RETURNING item_id",
                  {id, user_id, is_like, now_ms})
              .empty()) {
        if (c.query("UPDATE votes SET is_like = ?, updated_ms = ? "
                    "WHERE item_id = ? AND user_id = ? AND is_like <> ? RETURNING item_id",
                    {is_like, now_ms, id, user_id, is_like})
                .empty())
          return VoteResult::Repeated;
        r = VoteResult::Changed;
      }
      // The app's count: a like or a dislike moves the score by 100 either
      // way and each raises the like count; a dislike also counts as one.
      const std::int64_t sign = like ? 1 : -1;
      const std::int64_t step = r == VoteResult::Changed ? 1 : 0;  // the earlier vote taken back
      auto rows = c.query(
          "UPDATE items SET num_look_score = num_look_score + ?, num_like = num_like + ?, "
          "num_dislike = num_dislike + ?, updated_ms = ? WHERE id = ? RETURNING id",
          {sign * 100 * (1 + step), 1 - step, like ? -step : std::int64_t{1}, now_ms, id});
      if (rows.empty()) throw ForeignKeyViolation("the item went away");
      return r;
    });
  } catch (const ForeignKeyViolation&) {
    return {VoteResult::NoSuchItem, std::nullopt};
  }
  if (result == VoteResult::Repeated) return {result, std::nullopt};
  auto c = pool_.get();
  auto it = item_on(*c, id);
  if (!it) return {VoteResult::NoSuchItem, std::nullopt};
  return {result, std::move(it)};
}

Vote SqlStore::cast_vote(std::int64_t id, const std::string& user_id, bool like,
                         std::int64_t now_ms) {
  if (!votes_) return checked_vote(id, user_id, like, now_ms);
  VoteOp op(id, user_id, like, now_ms);
  votes_->submit(op);
  return std::move(op.out);
}

// The checks one at a time, before the vote.
Vote SqlStore::checked_vote(std::int64_t id, const std::string& user_id, bool like,
                            std::int64_t now_ms) {
  if (!user_by_id(user_id)) return {VoteResult::NoSuchUser, std::nullopt};
  auto target = item(id);
  if (!target) return {VoteResult::NoSuchItem, std::nullopt};
  if (target->user_id == user_id) return {VoteResult::OwnPhoto, std::nullopt};
  return vote(id, user_id, like, now_ms);
}

// The same in one statement: the function's first row says what happened
// (0 counted, 1 changed, 2 repeated) and holds the item after the vote.
Vote SqlStore::vote_by_function(std::int64_t id, const std::string& user_id, bool like,
                                std::int64_t now_ms) {
  try {
    return write(
        [&](Conn& c) -> Vote {
          auto rows = c.query("SELECT * FROM rongdian_vote(?, ?, ?, ?)",
                              {id, user_id, std::int64_t{like ? 1 : 0}, now_ms});
          if (rows.empty()) return {VoteResult::NoSuchItem, std::nullopt};
          auto step = rows[0].i(0);
          if (step == 2) return {VoteResult::Repeated, std::nullopt};
          c.announce_change();
          c.tell();
          rows[0].cols.erase(rows[0].cols.begin());
          return {step ? VoteResult::Changed : VoteResult::Counted, to_item(rows[0])};
        },
        Kind::Single);
  } catch (const ForeignKeyViolation&) {
    return {VoteResult::NoSuchItem, std::nullopt};
  }
}

std::optional<CommentAdded> SqlStore::add_comment(std::int64_t item_id, const std::string& user_id,
                                                  const std::string& text, std::int64_t now_ms,
                                                  const CommentPush* push) {
  if (comments_) {
    CommentOp op(item_id, user_id, text, now_ms, push);
    comments_->submit(op);
    return std::move(op.out);
  }
  try {
    return write([&](Conn& c) {
      // The rows everyone's comments update (the item's count, its owner's
      // unread count) come last: on PostgreSQL their locks are held until the
      // commit is on the disk. The comment's reference to the item keeps the
      // item from vanishing meanwhile.
      auto ins = c.query(
          "INSERT INTO comments (item_id, user_id, text, created_ms, updated_ms) "
          "VALUES (?, ?, ?, ?, ?) RETURNING id",
          {item_id, user_id, text, now_ms, now_ms});
      if (ins.empty()) throw Error("insert of a comment returned no id");
      auto rows = c.query(
          "SELECT c.id, c.item_id, c.user_id, u.nickname, c.text, c.created_ms, c.updated_ms, "
          "i.user_id FROM comments c JOIN users u ON u.id = c.user_id "
          "JOIN items i ON i.id = c.item_id WHERE c.id = ?",
          {ins[0].i(0)});
      if (rows.empty()) throw Error("a new comment vanished");
      CommentAdded out;
      out.comment = to_comment(rows[0]);
      out.owner_id = rows[0].s(7);
      // A comment on one's own photo is nothing unread, and pushes nothing.
      auto unread =
          out.owner_id == user_id
              ? c.query("SELECT unread FROM users WHERE id = ?", {out.owner_id})
              : c.query("UPDATE users SET unread = unread + 1 WHERE id = ? RETURNING unread",
                        {out.owner_id});
      out.owner_unread = unread.empty() ? 0 : unread[0].i(0);
      std::vector<std::string> devices;
      if (push && out.owner_id != user_id)
        for (const auto& r :
             c.query("SELECT token FROM devices WHERE user_id = ? ORDER BY token", {out.owner_id}))
          devices.push_back(r.s(0));
      finish_comment(c, out, item_id, push, devices);
      return std::optional(std::move(out));
    });
  } catch (const ForeignKeyViolation&) {
    return std::nullopt;  // no such item (or user)
  }
}

// ---------------------------------------------------------------- pushes

// A comment's last writes, which need no answer: its push kept for each of
// the owner's devices that can get one (each keeping its newest `keep`), and
// its count on the item.
void SqlStore::finish_comment(Conn& c, CommentAdded& out, std::int64_t item_id,
                              const CommentPush* push, const std::vector<std::string>& devices) {
  if (push && !devices.empty()) {
    // (made once per pattern and thread: making one costs far more than a comment)
    thread_local std::optional<std::pair<std::string, std::regex>> pushable;
    if (!pushable || pushable->first != push->device_pattern)
      pushable.emplace(push->device_pattern,
                       std::regex(push->device_pattern, std::regex::extended));
    std::string payload;
    for (const auto& token : devices) {
      if (!std::regex_search(token, pushable->second)) continue;
      if (payload.empty()) {
        json::object aps{{"alert", out.comment.nickname + push->alert_joiner + out.comment.text},
                         {"badge", out.owner_unread},
                         {"sound", push->sound}};
        payload = json::serialize(json::object{{"aps", std::move(aps)}});
      }
      c.defer("INSERT INTO push_pending (device_token, payload) VALUES (?, ?)", {token, payload});
      c.defer(kTrimPushes, {token, token, std::int64_t{std::max(push->keep, 1)}});
      c.announce_push(token);
      out.pushed.push_back(token);
    }
  }
  c.defer("UPDATE items SET num_comments = num_comments + 1 WHERE id = ?", {item_id});
}

std::int64_t SqlStore::insert_push(Conn& c, const std::string& token, const std::string& payload,
                                   int keep) {
  auto ins = c.query("INSERT INTO push_pending (device_token, payload) VALUES (?, ?) RETURNING id",
                     {token, payload});
  if (ins.empty()) throw Error("insert of a push returned no id");
  c.query(kTrimPushes, {token, token, std::int64_t{std::max(keep, 1)}});
  c.announce_push(token);
  return ins[0].i(0);
}

std::int64_t SqlStore::add_push(const std::string& token, const std::string& payload, int keep) {
  return write([&](Conn& c) { return insert_push(c, token, payload, keep); }, Kind::Unshown);
}

std::vector<PendingPush> SqlStore::pushes(const std::string& token) {
  auto c = pool_.get();
  std::vector<PendingPush> out;
  for (const auto& r :
       c->query("SELECT id, payload FROM push_pending WHERE device_token = ? ORDER BY id", {token}))
    out.push_back({r.i(0), r.s(1)});
  return out;
}

void SqlStore::remove_pushes(const std::string& token, const std::vector<std::int64_t>& ids) {
  if (ids.empty()) return;
  write(
      [&](Conn& c) {
        for (auto id : ids)
          c.query("DELETE FROM push_pending WHERE device_token = ? AND id = ?", {token, id});
      },
      Kind::Unshown);
}

std::vector<Comment> SqlStore::list_comments(std::int64_t item_id, std::int64_t offset, int limit) {
  auto c = pool_.get();
  auto rows = c->query(
      std::string(kCommentSelect) + " WHERE c.item_id = ? ORDER BY c.id DESC LIMIT ? OFFSET ?",
      {item_id, std::int64_t{limit}, offset});
  std::vector<Comment> out;
  out.reserve(rows.size());
  for (auto& r : rows) out.push_back(to_comment(r));
  return out;
}

// Photos and voice notes are kept as Base64 text, which both engines store
// alike.
namespace {

std::string to_text(const std::string& bytes) {
  std::string out(boost::beast::detail::base64::encoded_size(bytes.size()), '\0');
  out.resize(boost::beast::detail::base64::encode(out.data(), bytes.data(), bytes.size()));
  return out;
}

std::string from_text(const std::string& text) {
  std::string out(boost::beast::detail::base64::decoded_size(text.size()), '\0');
  out.resize(boost::beast::detail::base64::decode(out.data(), text.data(), text.size()).first);
  return out;
}

}  // namespace

namespace {

const char* kFeedbackSelect =
    "SELECT id, text, user_id, device_token, voice_key, voice_mime, voice_bytes, "
    "remote_address, created_ms FROM feedback";

Feedback to_feedback(const Row& r) {
  Feedback f;
  f.id = r.i(0);
  f.text = r.s(1);
  f.user_id = r.s(2);
  f.device_token = r.s(3);
  f.voice_key = r.s(4);
  f.voice_mime = r.s(5);
  f.voice_bytes = r.i(6);
  f.remote_address = r.s(7);
  f.created_ms = r.i(8);
  return f;
}

}  // namespace

Feedback SqlStore::add_feedback(const Feedback& in) {
  Feedback out = in;
  out.id = write(
      [&](Conn& c) {
        auto rows = c.query(
            "INSERT INTO feedback (text, user_id, device_token, voice_key, voice_mime, "
            "voice_bytes, voice_data, remote_address, created_ms) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?) RETURNING id",
            {in.text, in.user_id, in.device_token, in.voice_key, in.voice_mime, in.voice_bytes,
             in.voice_data.empty() ? Param{nullptr} : Param{to_text(in.voice_data)},
             in.remote_address, in.created_ms});
        if (rows.empty()) throw Error("insert of feedback returned no id");
        return rows[0].i(0);
      },
      Kind::Single);
  return out;
}

std::vector<Feedback> SqlStore::list_feedback(std::int64_t offset, int limit) {
  auto c = pool_.get();
  auto rows = c->query(std::string(kFeedbackSelect) + " ORDER BY id DESC LIMIT ? OFFSET ?",
                       {std::int64_t{limit}, offset});
  std::vector<Feedback> out;
  out.reserve(rows.size());
  for (auto& r : rows) out.push_back(to_feedback(r));
  return out;
}

bool SqlStore::feedback_has_voice(const std::string& voice_key) {
  auto c = pool_.get();
  return !c->query("SELECT 1 FROM feedback WHERE voice_key = ? LIMIT 1", {voice_key}).empty();
}

std::int64_t SqlStore::feedback_voice_bytes() {
  auto c = pool_.get();
  auto rows = c->query(
      "SELECT COALESCE(SUM(voice_bytes), 0) FROM feedback WHERE voice_data IS NOT NULL", {});
  return rows.empty() ? 0 : rows[0].i(0);
}

std::optional<std::string> SqlStore::feedback_voice(const std::string& voice_key) {
  auto c = pool_.get();
  auto rows = c->query(
      "SELECT voice_data FROM feedback WHERE voice_key = ? AND voice_data IS NOT NULL LIMIT 1",
      {voice_key});
  if (rows.empty()) return std::nullopt;
  return from_text(rows[0].s(0));
}

bool SqlStore::set_feedback_voice(const std::string& voice_key, const std::string& bytes) {
  return write(
      [&](Conn& c) {
        return !c.query(
                     "UPDATE feedback SET voice_data = ? WHERE voice_key = ? AND voice_data IS "
                     "NULL "
                     "RETURNING id",
                     {to_text(bytes), voice_key})
                    .empty();
      },
      Kind::Single);
}

// ---------------------------------------------------------------- photos

Store::PhotoPut SqlStore::put_photo(const std::string& key, const std::string& bytes,
                                    const std::string& block, bool replace, std::int64_t now_s) {
  try {
    return write(
        [&](Conn& c) {
          // A published photo (no block) is never replaced.
          if (!c.query("UPDATE photos SET data = ?, bytes = ?, block = ?, at = ?, note = NULL "
                       "WHERE key = ? AND block IS NOT NULL AND 1 = ? RETURNING key",
                       {to_text(bytes), std::int64_t(bytes.size()), block, now_s, key,
                        std::int64_t{replace}})
                   .empty())
            return PhotoPut::Replaced;
          if (c.query("INSERT INTO photos (key, data, bytes, block, at) VALUES (?, ?, ?, ?, ?) "
                      "ON CONFLICT (key) DO NOTHING RETURNING key",
                      {key, to_text(bytes), std::int64_t(bytes.size()), block, now_s})
                  .empty())
            return PhotoPut::Exists;
          return PhotoPut::Stored;
        },
        Kind::Unshown);
  } catch (const UniqueViolation&) {
    return PhotoPut::Exists;
  }
}

std::optional<std::string> SqlStore::photo(const std::string& key) {
  auto c = pool_.get();
  auto rows = c->query("SELECT data FROM photos WHERE key = ?", {key});
  if (rows.empty()) return std::nullopt;
  return from_text(rows[0].s(0));
}

std::optional<bool> SqlStore::photo_unpublished(const std::string& key) {
  auto c = pool_.get();
  auto rows = c->query("SELECT block IS NOT NULL FROM photos WHERE key = ?", {key});
  if (rows.empty()) return std::nullopt;
  const auto& v = rows[0].s(0);
  return v == "1" || v == "t";
}

bool SqlStore::publish_photo(const std::string& key) {
  return write(
      [&](Conn& c) {
        return !c.query("UPDATE photos SET block = NULL WHERE key = ? RETURNING key", {key})
                    .empty();
      },
      Kind::Single);
}

bool SqlStore::remove_photo(const std::string& key) {
  return write(
      [&](Conn& c) {
        return !c.query("DELETE FROM photos WHERE key = ? RETURNING key", {key}).empty();
      },
      Kind::Single);
}

std::optional<std::string> SqlStore::photo_note(const std::string& key) {
  auto c = pool_.get();
  auto rows = c->query("SELECT note FROM photos WHERE key = ? AND note IS NOT NULL", {key});
  if (rows.empty()) return std::nullopt;
  return rows[0].s(0);
}

void SqlStore::set_photo_note(const std::string& key, const std::string& note) {
  write(
      [&](Conn& c) {
        c.query("UPDATE photos SET note = ? WHERE key = ?", {note, key});
      },
      Kind::Single);
}

std::pair<std::int64_t, std::int64_t> SqlStore::unpublished_photos(const std::string& block) {
  auto c = pool_.get();
  auto rows = c->query(
      "SELECT count(CASE WHEN block = ? THEN 1 END), coalesce(sum(bytes), 0) FROM photos "
      "WHERE block IS NOT NULL",
      {block});
  if (rows.empty()) return {0, 0};
  return {rows[0].i(0), rows[0].i(1)};
}

int SqlStore::sweep_photos(std::int64_t before_s) {
  return write(
      [&](Conn& c) {
        return static_cast<int>(
            c.query("DELETE FROM photos WHERE block IS NOT NULL AND at < ? RETURNING key",
                    {before_s})
                .size());
      },
      Kind::Single);
}

// Items published before the keys: the last part of the URL's path is the
// key (how the storage names its files); when several share one, the first
// published keeps it and the others stay without.
void SqlStore::backfill_photo_keys(Conn& c) {
  std::set<std::string> taken;
  for (const auto& r : c.query("SELECT id, base_image_url FROM items ORDER BY id", {})) {
    std::string url = r.s(1);
    url = url.substr(0, url.find_first_of("?#"));
    auto slash = url.rfind('/');
    std::string key = slash == std::string::npos ? std::string() : url.substr(slash + 1);
    if (key.empty() || !taken.insert(key).second) continue;
    c.query("UPDATE items SET photo_key = ? WHERE id = ?", {key, r.i(0)});
  }
}

std::optional<std::string> SqlStore::problem() {
  try {
    auto c = pool_.get();
    if (c->query("SELECT 1", {}).empty()) return "the database gave no answer";
    return std::nullopt;
  } catch (const std::exception& e) {
    return std::string(e.what());
  }
}

}  // namespace rd::store::sql

namespace rd::store {

std::shared_ptr<Store> open_store(const std::string& url, const std::string& data_dir,
                                  int connections) {
  if (url.empty()) return open_sqlite(data_dir + "/rongdian.db", connections);
  if (url.rfind("sqlite:", 0) == 0) return open_sqlite(url.substr(7), connections);
  if (url.rfind("postgresql://", 0) == 0 || url.rfind("postgres://", 0) == 0)
    return open_postgres(url, connections);
  throw Error("--database must be sqlite:PATH or postgresql://..., not '" + url + "'");
}

}  // namespace rd::store
