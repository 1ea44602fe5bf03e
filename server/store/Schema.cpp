#include "store/Schema.h"

namespace rd::store::sql {

namespace {

// The text with {ID} and {INT} replaced by the engine's words for them.
std::string engine_words(std::string s, const std::string& id_column, const std::string& integer) {
  for (std::size_t p; (p = s.find("{ID}")) != std::string::npos;) s.replace(p, 4, id_column);
  for (std::size_t p; (p = s.find("{INT}")) != std::string::npos;) s.replace(p, 5, integer);
  return s;
}

}  // namespace

std::string schema_v1(const std::string& id_column, const std::string& integer) {
  return engine_words(R"(
CREATE TABLE users (
  id TEXT PRIMARY KEY,
  mobile TEXT NOT NULL UNIQUE,
  nickname TEXT NOT NULL,
  password_hash TEXT NOT NULL,
  user_type TEXT NOT NULL DEFAULT 'normal',
  old_username TEXT NOT NULL DEFAULT '',
  needs_new_password {INT} NOT NULL DEFAULT 0,
  num_score {INT} NOT NULL DEFAULT 0,
  unread {INT} NOT NULL DEFAULT 0,
  created_ms {INT} NOT NULL,
  updated_ms {INT} NOT NULL
);
CREATE TABLE items (
  id {ID},
  user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
  base_image_url TEXT NOT NULL,
  description TEXT NOT NULL,
  num_look_score {INT} NOT NULL,
  num_like {INT} NOT NULL DEFAULT 0,
  num_dislike {INT} NOT NULL DEFAULT 0,
  num_comments {INT} NOT NULL DEFAULT 0,
  is_enabled_photo {INT} NOT NULL DEFAULT 1,
  created_ms {INT} NOT NULL,
  updated_ms {INT} NOT NULL
);
CREATE INDEX items_newest ON items (created_ms DESC, id DESC);
CREATE INDEX items_score ON items (num_look_score DESC, id DESC);
CREATE INDEX items_owner ON items (user_id, created_ms DESC, id DESC);
CREATE TABLE comments (
  id {ID},
  item_id {INT} NOT NULL REFERENCES items(id) ON DELETE CASCADE,
  user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
  text TEXT NOT NULL,
  created_ms {INT} NOT NULL,
  updated_ms {INT} NOT NULL
);
CREATE INDEX comments_item ON comments (item_id, id DESC);
CREATE TABLE devices (
  token TEXT PRIMARY KEY,
  user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
  platform TEXT NOT NULL,
  updated_ms {INT} NOT NULL
);
CREATE INDEX devices_user ON devices (user_id);
)",
                      id_column, integer);
}

// Feedback from the settings screen. Not tied to the users table: a message
// outlives the account that sent it.
std::string schema_v2(const std::string& id_column, const std::string& integer) {
  return engine_words(R"(
CREATE TABLE feedback (
  id {ID},
  text TEXT NOT NULL,
  user_id TEXT NOT NULL DEFAULT '',
  device_token TEXT NOT NULL DEFAULT '',
  voice_key TEXT NOT NULL DEFAULT '',
  voice_mime TEXT NOT NULL DEFAULT '',
  voice_bytes {INT} NOT NULL DEFAULT 0,
  remote_address TEXT NOT NULL DEFAULT '',
  created_ms {INT} NOT NULL
);
)",
                      id_column, integer);
}

// Each item's photo key, unique, so that no two items share (and one's
// removal deletes) a photo; and one vote per user and item.
std::string schema_v3(const std::string& integer) {
  return engine_words(R"(
ALTER TABLE items ADD COLUMN photo_key TEXT;
CREATE UNIQUE INDEX items_photo_key ON items (photo_key);
CREATE INDEX items_keyless_url ON items (base_image_url) WHERE photo_key IS NULL;
CREATE TABLE votes (
  item_id {INT} NOT NULL REFERENCES items(id) ON DELETE CASCADE,
  user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
  is_like {INT} NOT NULL,
  updated_ms {INT} NOT NULL,
  PRIMARY KEY (item_id, user_id)
);
)",
                      "", integer);
}

// A digest of each new item's photo bytes, unique (items from before it have
// none); and the feedback rows found by their voice note.
std::string schema_v4() {
  return R"(
ALTER TABLE items ADD COLUMN photo_digest TEXT;
CREATE UNIQUE INDEX items_photo_digest ON items (photo_digest);
CREATE INDEX feedback_voice ON feedback (voice_key);
)";
}

// Pushes kept until their device acknowledges them, beside the comments that
// make them (so that both commit together). `created` is the engine's column
// of the time kept; a PostgreSQL database may hold the table already, made by
// the push gateway before the pushes moved here.
std::string schema_v5(const std::string& id_column, const std::string& created) {
  return "CREATE TABLE IF NOT EXISTS push_pending (id " + id_column +
         ", device_token TEXT NOT NULL, payload TEXT NOT NULL, created_at " + created +
         ");\n"
         "CREATE INDEX IF NOT EXISTS push_pending_device ON push_pending (device_token, id);\n";
}

// The photos of the server's storage, when several instances share the
// database: the bytes as Base64 text, the server's note on them, and for an
// upload no item points at yet the address block it came from.
std::string schema_v6(const std::string& integer) {
  return engine_words(R"(
CREATE TABLE photos (
  key TEXT PRIMARY KEY,
  data TEXT NOT NULL,
  bytes {INT} NOT NULL,
  note TEXT,
  block TEXT,
  at {INT} NOT NULL
);
CREATE INDEX photos_unpublished ON photos (block, at) WHERE block IS NOT NULL;
)",
                      "", integer);
}

}  // namespace rd::store::sql
