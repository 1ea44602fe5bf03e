#include "store/Schema.h"

namespace rd::store::sql {

namespace {

// The text with {ID} and {INT} replaced by the engine's words for them.
std::string engine_words(std::string s, const std::string& id_column, const std::string& integer) {
  for (std::size_t p; (p = s.find("{ID}")) != std::string::npos;) s.replace(p, 4, id_column);
  for (std::size_t p; (p = s.find("{INT}")) != std::string::npos;) s.replace(p, 5, integer);
  return s;
}

// The statement that writes a batch of comments whole (see
// schema_v10_comment_pushes()), run once its rows are locked.
const char* const kCommentsWritten = R"(  RETURN QUERY
  WITH found AS (
    SELECT t.n, t.item, t.usr, t.txt,
      (SELECT i.user_id FROM items i WHERE i.id = t.item) AS owner,
      (SELECT u.nickname FROM users u WHERE u.id = t.usr) AS nick
    FROM unnest(p_items, p_users, p_texts) WITH ORDINALITY AS t(item, usr, txt, n)
  ), ops AS (
    SELECT f.*, CASE WHEN f.nick IS NULL THEN -1 WHEN f.owner IS NULL THEN -2 ELSE 0 END AS state
    FROM found f
  ), added AS (
    -- In their order, each with how many of the batch's later ones count
    -- for the same owner (a comment on one's own photo counts for nothing).
    SELECT a.*, nextval(ids) AS cid
    FROM (SELECT o.*, count(*) FILTER (WHERE o.owner <> o.usr) OVER (PARTITION BY o.owner
              ORDER BY o.n ROWS BETWEEN 1 FOLLOWING AND UNBOUNDED FOLLOWING) AS later
          FROM ops o WHERE o.state = 0 ORDER BY o.n) a
  ), stored AS (
    INSERT INTO comments (id, item_id, user_id, text, created_ms, updated_ms)
    SELECT a.cid, a.item, a.usr, a.txt, p_now, p_now FROM added a ORDER BY a.n
  ), counted AS (
    UPDATE users SET unread = users.unread + c.k
    FROM (SELECT a.owner, count(*) AS k FROM added a WHERE a.owner <> a.usr GROUP BY a.owner) c
    WHERE users.id = c.owner
    RETURNING users.id, users.unread
  ), tallied AS (
    UPDATE items SET num_comments = items.num_comments + c.k
    FROM (SELECT a.item, count(*) AS k FROM added a GROUP BY a.item) c
    WHERE items.id = c.item
  ), answered AS (
    SELECT o.n, o.state, a.cid, o.item, o.usr, o.nick, o.txt, o.owner,
      COALESCE(c.unread - a.later, (SELECT ow.unread FROM users ow WHERE ow.id = o.owner), 0)
        AS unread
    FROM ops o
    LEFT JOIN added a ON a.n = o.n
    LEFT JOIN counted c ON c.id = o.owner AND o.owner <> o.usr
  ), pushes AS (
    -- Each device's newest first (k), the older ones beyond p_keep not kept.
    SELECT r.n, d.token, row_number() OVER (PARTITION BY d.token ORDER BY r.n DESC) AS k,
      json_build_object('aps', json_build_object('alert', r.nick || p_joiner || r.txt,
        'badge', r.unread, 'sound', p_sound))::TEXT AS payload
    FROM answered r JOIN devices d ON d.user_id = r.owner
    WHERE p_devices IS NOT NULL AND r.state = 0 AND r.owner <> r.usr AND d.token ~ p_devices
  ), kept AS (
    INSERT INTO push_pending (device_token, payload)
    SELECT p.token, p.payload FROM pushes p WHERE p.k <= p_keep ORDER BY p.token, p.n
  ), trimmed AS (
    -- Each device keeps its newest p_keep: the batch's and then its older ones.
    DELETE FROM push_pending pp USING (
      SELECT q.id FROM (
        SELECT o.id, row_number() OVER (PARTITION BY o.device_token ORDER BY o.id DESC) AS k,
          least(f.n, p_keep) AS fresh
        FROM (SELECT p.token, count(*) AS n FROM pushes p GROUP BY p.token) f
        JOIN push_pending o ON o.device_token = f.token) q
      WHERE q.k > p_keep - q.fresh) gone
    WHERE pp.id = gone.id
  )
  SELECT r.n, r.state::BIGINT, r.cid, r.item, r.usr, r.nick, r.txt, p_now, p_now, r.owner,
    r.unread, p.token
  FROM answered r LEFT JOIN pushes p ON p.n = r.n
  ORDER BY r.n, p.token;
)";

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

// Voice notes in their feedback rows, where the instances share only the
// database.
std::string schema_voice_rows() { return "ALTER TABLE feedback ADD COLUMN voice_data TEXT;"; }

// PostgreSQL's functions for the busiest writes, each run as one statement
// (one round trip, atomic by itself). Each statement inside sees what
// committed before it, as the same statements sent one by one would.
std::string schema_v7_functions() {
  return R"(
CREATE OR REPLACE FUNCTION rongdian_vote(p_item BIGINT, p_user TEXT, p_like BIGINT, p_now BIGINT)
RETURNS TABLE (result BIGINT, id BIGINT, user_id TEXT, nickname TEXT, base_image_url TEXT,
  description TEXT, num_look_score BIGINT, num_like BIGINT, num_dislike BIGINT,
  num_comments BIGINT, is_enabled_photo BIGINT, created_ms BIGINT, updated_ms BIGINT)
LANGUAGE plpgsql AS $$
#variable_conflict use_column
DECLARE
  had BIGINT;
  step BIGINT := 0;
BEGIN
  -- Most repeats are answered by this read alone, without taking any lock.
  SELECT v.is_like INTO had FROM items i
    LEFT JOIN votes v ON v.item_id = i.id AND v.user_id = p_user WHERE i.id = p_item;
  IF NOT FOUND THEN
    RETURN;
  END IF;
  IF had = p_like THEN
    result := 2;
    RETURN NEXT;
    RETURN;
  END IF;
  -- The vote row decides, under its own lock (see SqlStore::vote).
  INSERT INTO votes (item_id, user_id, is_like, updated_ms) VALUES (p_item, p_user, p_like, p_now)
    ON CONFLICT (item_id, user_id) DO NOTHING;
  IF NOT FOUND THEN
    UPDATE votes SET is_like = p_like, updated_ms = p_now
      WHERE votes.item_id = p_item AND votes.user_id = p_user AND votes.is_like <> p_like;
    IF NOT FOUND THEN
      result := 2;
      RETURN NEXT;
      RETURN;
    END IF;
    step := 1;
  END IF;
  UPDATE items SET num_look_score = items.num_look_score
                     + (CASE WHEN p_like = 1 THEN 100 ELSE -100 END) * (1 + step),
                   num_like = items.num_like + 1 - step,
                   num_dislike = items.num_dislike + (CASE WHEN p_like = 1 THEN -step ELSE 1 END),
                   updated_ms = p_now
    WHERE items.id = p_item;
  IF NOT FOUND THEN
    RAISE foreign_key_violation USING MESSAGE = 'the item went away';
  END IF;
  RETURN QUERY SELECT step, i.id, i.user_id, u.nickname, i.base_image_url, i.description,
      i.num_look_score, i.num_like, i.num_dislike, i.num_comments, i.is_enabled_photo,
      i.created_ms, i.updated_ms
    FROM items i JOIN users u ON u.id = i.user_id WHERE i.id = p_item;
END $$;
)";
}

// The same for the writes that came in together, in one statement (one
// transaction, one flush for them all) that takes each step once for all of
// them. Each write is answered by its own rows, tagged with its place in the
// arrays. The rows that everyone's writes lock (the items voted on, the
// owners' unread counts) are locked first, in one order in every batch, so
// that batches of several instances never wait for each other in a circle.
std::string schema_v8_batches() {
  return R"(
-- Each user's vote on an item comes once in a batch. result: -1 no such
-- user, -2 no such item, -3 the voter's own photo; else as rongdian_vote
-- (the item as the batch left it).
CREATE OR REPLACE FUNCTION rongdian_votes(p_items BIGINT[], p_users TEXT[], p_likes BIGINT[],
  p_now BIGINT)
RETURNS TABLE (ord BIGINT, result BIGINT, id BIGINT, user_id TEXT, nickname TEXT,
  base_image_url TEXT, description TEXT, num_look_score BIGINT, num_like BIGINT,
  num_dislike BIGINT, num_comments BIGINT, is_enabled_photo BIGINT, created_ms BIGINT,
  updated_ms BIGINT)
LANGUAGE plpgsql AS $$
#variable_conflict use_column
BEGIN
  PERFORM FROM items i WHERE i.id = ANY(p_items) ORDER BY i.id FOR NO KEY UPDATE;
  RETURN QUERY
  WITH ops AS (
    SELECT t.n, t.item, t.usr, t.lk,
      (SELECT i.user_id FROM items i WHERE i.id = t.item) AS owner,
      EXISTS (SELECT FROM users u WHERE u.id = t.usr) AS known,
      (SELECT v.is_like FROM votes v WHERE v.item_id = t.item AND v.user_id = t.usr) AS had
    FROM unnest(p_items, p_users, p_likes) WITH ORDINALITY AS t(item, usr, lk, n)
  ), written AS (
    -- A first vote inserts its row (step 0), a change flips it (step 1).
    INSERT INTO votes AS v (item_id, user_id, is_like, updated_ms)
    SELECT o.item, o.usr, o.lk, p_now FROM ops o
      WHERE o.known AND o.owner <> o.usr AND o.had IS DISTINCT FROM o.lk
      ORDER BY o.item, o.usr
    ON CONFLICT (item_id, user_id) DO UPDATE
      SET is_like = EXCLUDED.is_like, updated_ms = EXCLUDED.updated_ms
      WHERE v.is_like <> EXCLUDED.is_like
    RETURNING v.item_id, v.user_id, v.is_like, CASE WHEN v.xmax = 0 THEN 0 ELSE 1 END AS step
  ), moved AS (
    UPDATE items SET num_look_score = items.num_look_score + c.score,
                     num_like = items.num_like + c.likes,
                     num_dislike = items.num_dislike + c.dislikes,
                     updated_ms = p_now
    FROM (SELECT w.item_id AS item,
            sum(CASE WHEN w.is_like = 1 THEN 100 ELSE -100 END * (1 + w.step)) AS score,
            sum(1 - w.step) AS likes,
            sum(CASE WHEN w.is_like = 1 THEN -w.step ELSE 1 END) AS dislikes
          FROM written w GROUP BY w.item_id) c
    WHERE items.id = c.item
    RETURNING items.*
  )
  SELECT o.n,
    (CASE WHEN NOT o.known THEN -1 WHEN o.owner IS NULL THEN -2 WHEN o.owner = o.usr THEN -3
          WHEN w.item_id IS NULL THEN 2 ELSE w.step END)::BIGINT,
    m.id, m.user_id, (SELECT u.nickname FROM users u WHERE u.id = m.user_id), m.base_image_url,
    m.description, m.num_look_score, m.num_like, m.num_dislike, m.num_comments,
    m.is_enabled_photo, m.created_ms, m.updated_ms
  FROM ops o
  LEFT JOIN written w ON w.item_id = o.item AND w.user_id = o.usr
  LEFT JOIN moved m ON m.id = o.item AND w.item_id IS NOT NULL;
END $$;
)";
}

// Comments that came in together written whole in the one statement that
// commits with them: each comment with its item's count, its owner's unread
// count and its pushes, so that a batch is one round trip and its locks are
// held for no round trip to the server. (Versions 7 and 8 made functions for
// comments that wrote the rest in a second round trip; a failed batch now
// goes again one comment at a time through this one.)
std::string schema_v10_comment_pushes() {
  return R"(
DROP FUNCTION IF EXISTS rongdian_comment(BIGINT, TEXT, TEXT, BIGINT);
DROP FUNCTION IF EXISTS rongdian_comments(BIGINT[], TEXT[], TEXT[], BIGINT);

-- status: 0 added, -1 no such user, -2 no such item. unread: the owner's
-- count after the comment. With p_devices (a regular expression for the
-- device tokens that can get pushes), each comment on somebody else's photo
-- keeps a push for each of the owner's devices that match: the gateway's
-- "aps" dictionary with the alert "<nickname><p_joiner><text>", the unread
-- count as the badge and p_sound; a row each (token), and each device keeps
-- its newest p_keep.
CREATE FUNCTION rongdian_comments(p_items BIGINT[], p_users TEXT[], p_texts TEXT[], p_now BIGINT,
  p_devices TEXT, p_joiner TEXT, p_sound TEXT, p_keep BIGINT)
RETURNS TABLE (ord BIGINT, status BIGINT, id BIGINT, item_id BIGINT, user_id TEXT,
  nickname TEXT, text TEXT, created_ms BIGINT, updated_ms BIGINT, owner TEXT, unread BIGINT,
  token TEXT)
LANGUAGE plpgsql AS $$
#variable_conflict use_column
DECLARE
  ids REGCLASS := pg_get_serial_sequence('comments', 'id')::REGCLASS;
BEGIN
  -- The owners whose unread counts move first, then the items: the order of
  -- every writer of both.
  PERFORM FROM users u WHERE u.id IN (SELECT i.user_id FROM unnest(p_items, p_users) AS t(item, usr)
      JOIN items i ON i.id = t.item WHERE i.user_id <> t.usr)
    ORDER BY u.id FOR NO KEY UPDATE OF u;
  PERFORM FROM items i WHERE i.id = ANY(p_items) ORDER BY i.id FOR NO KEY UPDATE OF i;
)" + std::string(kCommentsWritten) +
         R"(END $$;
)";
}

// The batch functions planned once per connection. Left to choose, the
// planner weighs its plan for arrays of any length against one made for
// each call's arrays, finds the latter cheaper and plans every call anew:
// for these statements that planning cost more than running them.
std::string schema_v11_plans_kept() {
  return R"(
ALTER FUNCTION rongdian_votes(BIGINT[], TEXT[], BIGINT[], BIGINT)
  SET plan_cache_mode = force_generic_plan;
ALTER FUNCTION rongdian_comments(BIGINT[], TEXT[], TEXT[], BIGINT, TEXT, TEXT, TEXT, BIGINT)
  SET plan_cache_mode = force_generic_plan;
)";
}

// A comment's item and author checked once per batch, under the locks that
// keep both from going away until it commits, in place of a check of each
// comment row by itself (a statement each, as long as the rest of a comment's
// writing). A removed item or account still takes its comments along, in the
// statement that removes it.
//
// A batch whose comments are all on their authors' own photos (no unread
// count moves, no push) goes by a shorter statement of its own.
std::string schema_v12_comments_checked() {
  return R"(
ALTER TABLE comments DROP CONSTRAINT IF EXISTS comments_item_id_fkey;
ALTER TABLE comments DROP CONSTRAINT IF EXISTS comments_user_id_fkey;
CREATE FUNCTION rongdian_items_gone() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  DELETE FROM comments c USING gone g WHERE c.item_id = g.id;
  RETURN NULL;
END $$;
CREATE TRIGGER items_gone AFTER DELETE ON items REFERENCING OLD TABLE AS gone
  FOR EACH STATEMENT EXECUTE FUNCTION rongdian_items_gone();
CREATE FUNCTION rongdian_users_gone() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  DELETE FROM comments c USING gone g WHERE c.user_id = g.id;
  RETURN NULL;
END $$;
CREATE TRIGGER users_gone AFTER DELETE ON users REFERENCING OLD TABLE AS gone
  FOR EACH STATEMENT EXECUTE FUNCTION rongdian_users_gone();

-- As version 10 made it, and: the authors kept until the commit (an account
-- is removed only after the comments that name it are in, and so with them).
CREATE OR REPLACE FUNCTION rongdian_comments(p_items BIGINT[], p_users TEXT[], p_texts TEXT[],
  p_now BIGINT, p_devices TEXT, p_joiner TEXT, p_sound TEXT, p_keep BIGINT)
RETURNS TABLE (ord BIGINT, status BIGINT, id BIGINT, item_id BIGINT, user_id TEXT,
  nickname TEXT, text TEXT, created_ms BIGINT, updated_ms BIGINT, owner TEXT, unread BIGINT,
  token TEXT)
LANGUAGE plpgsql SET plan_cache_mode = force_generic_plan AS $$
#variable_conflict use_column
DECLARE
  ids REGCLASS := pg_get_serial_sequence('comments', 'id')::REGCLASS;
BEGIN
  -- The owners whose unread counts move first, then the items: the order of
  -- every writer of both.
  PERFORM FROM users u WHERE u.id IN (SELECT i.user_id FROM unnest(p_items, p_users) AS t(item, usr)
      JOIN items i ON i.id = t.item WHERE i.user_id <> t.usr)
    ORDER BY u.id FOR NO KEY UPDATE OF u;
  IF NOT FOUND THEN
    -- Each comment on its author's own photo, or on none (an item that was
    -- not there a moment ago counts as none: nobody was told of it before
    -- this batch began). The items locked in the same order, each with its
    -- owner kept.
    RETURN QUERY
    WITH locked AS MATERIALIZED (
      SELECT i.id, i.user_id, u.nickname, u.unread FROM items i JOIN users u ON u.id = i.user_id
      WHERE i.id = ANY(p_items) ORDER BY i.id FOR NO KEY UPDATE OF i FOR KEY SHARE OF u
    ), ops AS (
      SELECT t.n, t.item, t.usr, t.txt, l.nickname AS nick, l.unread,
        CASE WHEN l.user_id = t.usr THEN 0
             WHEN NOT EXISTS (SELECT FROM users u WHERE u.id = t.usr) THEN -1 ELSE -2 END AS state
      FROM unnest(p_items, p_users, p_texts) WITH ORDINALITY AS t(item, usr, txt, n)
      LEFT JOIN locked l ON l.id = t.item
    ), added AS (
      SELECT a.*, nextval(ids) AS cid
      FROM (SELECT o.n, o.item, o.usr, o.txt FROM ops o WHERE o.state = 0 ORDER BY o.n) a
    ), stored AS (
      INSERT INTO comments (id, item_id, user_id, text, created_ms, updated_ms)
      SELECT a.cid, a.item, a.usr, a.txt, p_now, p_now FROM added a ORDER BY a.n
    ), tallied AS (
      UPDATE items SET num_comments = items.num_comments + c.k
      FROM (SELECT a.item, count(*) AS k FROM added a GROUP BY a.item) c
      WHERE items.id = c.item
    )
    SELECT o.n, o.state::BIGINT, a.cid, o.item, o.usr, CASE WHEN o.state = 0 THEN o.nick END,
      o.txt, p_now, p_now, CASE WHEN o.state = 0 THEN o.usr END,
      CASE WHEN o.state = 0 THEN o.unread ELSE 0 END, NULL::TEXT
    FROM ops o LEFT JOIN added a ON a.n = o.n
    ORDER BY o.n;
    RETURN;
  END IF;
  PERFORM FROM items i WHERE i.id = ANY(p_items) ORDER BY i.id FOR NO KEY UPDATE OF i;
  PERFORM FROM users u WHERE u.id = ANY(p_users) FOR KEY SHARE OF u;
)" + std::string(kCommentsWritten) +
         R"(END $$;
)";
}

}  // namespace rd::store::sql
