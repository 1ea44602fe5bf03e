// Accounts, published photos (items), comments, devices and feedback: the
// store behind the /api commands and /feedback. Two engines implement it with
// the same behaviour: SQLite (embedded default) and PostgreSQL (several server
// instances on one database). Every method is safe to call from any thread;
// failures of the database itself throw store::Error.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace rd::store {

struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Times are milliseconds since the Unix epoch (UTC); the api formats them.
struct User {
  std::string id;  // random session token, 32 hex digits
  std::string mobile;
  std::string nickname;
  std::string password_hash;  // Argon2id, libsodium's crypto_pwhash_str form
  std::string user_type = "normal";
  std::string old_username;         // accounts migrated from the old service; empty otherwise
  bool needs_new_password = false;  // operator flag: next login with "reset" sets the password
  std::int64_t num_score = 0;
  std::int64_t unread = 0;  // comments on the user's photos not yet seen
  std::int64_t created_ms = 0;
  std::int64_t updated_ms = 0;
};

struct Item {
  std::int64_t id = 0;
  std::string user_id;
  std::string nickname;  // the poster's
  std::string base_image_url;
  // The key of the photo base_image_url names; no two items share one. Set
  // for add_item; the reads leave it empty (remove_item reports it).
  std::string photo_key;
  // A digest of the photo's bytes (hex SHA-256); no two items share one, so
  // the same picture cannot be published again under another key. Set for
  // add_item when the server has the photo; the reads leave it empty.
  std::string photo_digest;
  std::string description;
  std::int64_t num_look_score = 0;
  std::int64_t num_like = 0;
  std::int64_t num_dislike = 0;
  std::int64_t num_comments = 0;
  bool is_enabled_photo = true;
  std::int64_t created_ms = 0;
  std::int64_t updated_ms = 0;
};

struct Comment {
  std::int64_t id = 0;
  std::int64_t item_id = 0;
  std::string user_id;
  std::string nickname;  // the commenter's
  std::string text;
  std::int64_t created_ms = 0;
  std::int64_t updated_ms = 0;
};

// A user's message to the developers, with an optional voice note kept by the
// storage (server/storage/VoiceNotes.h); only the note's key is stored here.
struct Feedback {
  std::int64_t id = 0;
  std::string text;
  std::string user_id;       // the sender's account as the app sent it; empty: anonymous
  std::string device_token;  // empty when not sent
  std::string voice_key;     // empty: no voice note
  std::string voice_mime;
  std::int64_t voice_bytes = 0;
  // The note itself when the row holds it (where the instances share only
  // the database); empty when it is a file (storage/VoiceNotes).
  std::string voice_data;
  std::string remote_address;
  std::int64_t created_ms = 0;
};

enum class ItemOrder { Newest, Score };

struct ItemQuery {
  ItemOrder order = ItemOrder::Newest;
  std::optional<std::string> owner_id;  // only this user's items
  bool include_disabled = true;         // items with is_enabled_photo false
  std::int64_t offset = 0;
  int limit = 10;
};

enum class RemoveResult { Removed, NoSuchItem, NotOwner };

struct RemovedItem {
  Item item;                  // as it was
  std::string photo_key;      // its photo's key; empty for an item older than the keys
  bool photo_unused = false;  // the photo has a key and no other item points at it
};

enum class VoteResult {
  Counted,   // a first vote of this user on this item
  Changed,   // replaced his earlier, opposite vote
  Repeated,  // the same vote again: nothing changed
  NoSuchItem,
  NoSuchUser,  // (cast_vote only)
  OwnPhoto,    // (cast_vote only)
};

struct Vote {
  VoteResult result = VoteResult::NoSuchItem;
  std::optional<Item> item;  // after the vote (Counted, Changed)
};

struct CommentAdded {
  Comment comment;
  std::string owner_id;
  std::int64_t owner_unread = 0;    // after this comment
  std::vector<std::string> pushed;  // the owner's devices a push was kept for
};

// The push a comment sends to the owner of the photo (not for a comment on
// one's own), kept for each of the owner's devices that can get pushes in the
// comment's own transaction: a comment is never stored without its push. Its
// payload is the gateway's "aps" dictionary: the alert
// "<commenter's nickname><alert_joiner><text>", the owner's unread count
// after the comment as the badge, and the sound.
struct CommentPush {
  // The device tokens that can get pushes, as a POSIX extended regular
  // expression (the database picks the devices itself).
  std::string device_pattern;
  std::string alert_joiner;
  std::string sound = "default";
  int keep = 50;  // pending pushes kept per device, the newest
};

// A payload kept for a device until it acknowledges it (server/push).
struct PendingPush {
  std::int64_t id = 0;
  std::string payload;
};

class Store {
 public:
  virtual ~Store() = default;
  virtual std::string engine() const = 0;  // "sqlite" or "postgresql"

  // --- users
  // False when the mobile number is already registered.
  virtual bool create_user(const User& u) = 0;
  virtual std::optional<User> user_by_id(const std::string& id) = 0;
  virtual std::optional<User> user_by_mobile(const std::string& mobile) = 0;
  // Replaces the password hash and clears needs_new_password.
  virtual void set_password(const std::string& user_id, const std::string& hash,
                            std::int64_t now_ms) = 0;
  // Operator migration: flag an account as needing a new password at next login.
  virtual bool mark_needs_new_password(const std::string& mobile, const std::string& old_username,
                                       const std::string& user_type) = 0;
  // Remembers a device token for push: a token serves one account, the last
  // that was bound to it; an account keeps its kMaxDevicesPerUser most
  // recently bound tokens (the oldest are dropped).
  static constexpr int kMaxDevicesPerUser = 10;
  virtual void add_device(const std::string& user_id, const std::string& token,
                          const std::string& platform, std::int64_t now_ms) = 0;
  virtual std::vector<std::string> device_tokens(const std::string& user_id) = 0;
  virtual void clear_unread(const std::string& user_id) = 0;

  // --- items
  // Id and nickname filled in from the store; empty when another item already
  // points at the same photo (item.photo_key) or holds the same bytes
  // (item.photo_digest).
  virtual std::optional<Item> add_item(const Item& item) = 0;
  virtual std::optional<Item> item(std::int64_t id) = 0;
  virtual std::vector<Item> list_items(const ItemQuery& q) = 0;
  virtual std::optional<Item> top_item(bool include_disabled) = 0;
  // On Removed, *removed holds the item as it was and whether its photo is
  // still in use.
  virtual RemoveResult remove_item(std::int64_t id, const std::string& user_id,
                                   RemovedItem* removed) = 0;
  // One vote per user and item, counted as the app shows it. Like: score
  // +100, num_like +1; dislike: score -100, num_like +1 and num_dislike +1; a
  // vote opposite to the user's earlier one replaces it (takes the earlier one
  // back first); the same vote again changes nothing. Atomic, also between
  // server instances on one database.
  virtual Vote vote(std::int64_t id, const std::string& user_id, bool like,
                    std::int64_t now_ms) = 0;
  // A vote as a person casts it: refused for an account that does not exist
  // and on one's own photo, else as vote(). Votes that come in together may
  // be written together.
  virtual Vote cast_vote(std::int64_t id, const std::string& user_id, bool like,
                         std::int64_t now_ms) = 0;

  // --- comments
  // Adds the comment, raises the item's count and the owner's unread count
  // and keeps `push` for the owner's devices (not for a comment on one's own
  // photo), all in one transaction. Empty when the item or the user does not
  // exist. Comments that come in together may be written together.
  virtual std::optional<CommentAdded> add_comment(std::int64_t item_id, const std::string& user_id,
                                                  const std::string& text, std::int64_t now_ms,
                                                  const CommentPush* push = nullptr) = 0;
  virtual std::vector<Comment> list_comments(std::int64_t item_id, std::int64_t offset,
                                             int limit) = 0;

  // --- feedback
  virtual Feedback add_feedback(const Feedback& f) = 0;  // id filled in
  // Newest first.
  virtual std::vector<Feedback> list_feedback(std::int64_t offset, int limit) = 0;
  // Whether a feedback row names this voice note.
  virtual bool feedback_has_voice(const std::string& voice_key) = 0;
  // The notes that rows hold: their bytes together, one of them by its key,
  // and a note given to the row that names it but does not hold it yet (a
  // data folder's note moving in); false when there is no such row.
  virtual std::int64_t feedback_voice_bytes() = 0;
  virtual std::optional<std::string> feedback_voice(const std::string& voice_key) = 0;
  virtual bool set_feedback_voice(const std::string& voice_key, const std::string& bytes) = 0;

  // --- pending pushes
  // Keeps `payload` for the device and drops its oldest beyond `keep`.
  virtual std::int64_t add_push(const std::string& device_token, const std::string& payload,
                                int keep) = 0;
  // The device's payloads, oldest first.
  virtual std::vector<PendingPush> pushes(const std::string& device_token) = 0;
  // Forgets those of `ids` that are the device's.
  virtual void remove_pushes(const std::string& device_token,
                             const std::vector<std::int64_t>& ids) = 0;

  // --- photos of the server's storage kept in the database (several
  // instances on PostgreSQL serve them all; server/storage/PhotoRows.h)
  enum class PhotoPut { Stored, Replaced, Exists };
  // Keeps `bytes` under `key`, as an upload of address block `block` no item
  // points at yet. An existing photo is replaced only with `replace` and only
  // while it is unpublished.
  virtual PhotoPut put_photo(const std::string& key, const std::string& bytes,
                             const std::string& block, bool replace, std::int64_t now_s) = 0;
  virtual std::optional<std::string> photo(const std::string& key) = 0;
  // Empty when there is no such photo; else whether it is unpublished.
  virtual std::optional<bool> photo_unpublished(const std::string& key) = 0;
  // An item points at the photo now; false when it is not there.
  virtual bool publish_photo(const std::string& key) = 0;
  virtual bool remove_photo(const std::string& key) = 0;
  virtual std::optional<std::string> photo_note(const std::string& key) = 0;
  virtual void set_photo_note(const std::string& key, const std::string& note) = 0;
  // Unpublished uploads: how many of `block`, and their bytes in all.
  virtual std::pair<std::int64_t, std::int64_t> unpublished_photos(const std::string& block) = 0;
  // Removes the unpublished uploads kept before `before_s`; returns how many.
  virtual int sweep_photos(std::int64_t before_s) = 0;

  // --- changes, for replies kept in memory (server/api/ReplyCache.h)
  // A count that moves on after every committed write: this process's, and on
  // PostgreSQL every other instance's write to what the feeds show (each
  // instance notifies the others after such a write committed and before it
  // returns; heard through LISTEN). Every write that had returned when the
  // call began is counted, so a reply
  // read from the store after a count was taken is current for as long as the
  // count stays the same. On PostgreSQL that takes one round trip, shared by
  // concurrent callers. Empty while the changes cannot be followed (the
  // notification connection is down): read from the database then.
  using ChangeCount = std::optional<std::uint64_t>;
  virtual ChangeCount change_count() = 0;
  // The same without waiting: `done` is called with the count at once or, after
  // the round trip, on the thread that made it (and must not block).
  virtual void change_count(std::function<void(ChangeCount)> done) = 0;

  // --- health
  // Empty when the database answers a trivial query; else what went wrong.
  virtual std::optional<std::string> problem() = 0;

  // --- sizing
  // At most this many connections at once (one per worker thread and a few).
  virtual void set_connections(int n) = 0;
  // Called after every write with its time in the store, set before use. On
  // SQLite that is how long it held the one write lock, which bounds writes.
  virtual void on_write(std::function<void(std::chrono::nanoseconds)> fn) = 0;
};

// Opens the store a database URL names, applying schema migrations:
// "" (SQLite file rongdian.db in data_dir), "sqlite:PATH", or
// "postgresql://..." / "postgres://...". Throws Error with a clear text.
std::shared_ptr<Store> open_store(const std::string& url, const std::string& data_dir,
                                  int connections);

std::shared_ptr<Store> open_sqlite(const std::string& path, int connections);
std::shared_ptr<Store> open_postgres(const std::string& url, int connections);

}  // namespace rd::store
