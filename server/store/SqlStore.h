// The store's logic written once over a small connection interface; the
// SQLite and PostgreSQL engines supply the connections and their dialect.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <variant>

#include "store/GroupWrite.h"
#include "store/Store.h"

namespace rd::store::sql {

using Param = std::variant<std::nullptr_t, std::int64_t, std::string>;

struct Row {
  std::vector<std::optional<std::string>> cols;
  std::int64_t i(std::size_t n) const;
  const std::string& s(std::size_t n) const;
  bool b(std::size_t n) const { return i(n) != 0; }
};

// A unique constraint was violated (e.g. a mobile number registered twice).
struct UniqueViolation : Error {
  using Error::Error;
};

// A row refers to one that is not there (e.g. a vote for a deleted item).
struct ForeignKeyViolation : Error {
  using Error::Error;
};

// One database connection. SQL uses "?" placeholders; the PostgreSQL
// connection turns them into $1, $2, ... Statements are prepared once per
// connection and reused.
class Conn {
 public:
  virtual ~Conn() = default;
  virtual std::vector<Row> query(const std::string& sql, const std::vector<Param>& params) = 0;
  virtual void exec_script(const std::string& sql) = 0;  // several statements, no parameters
  // A statement whose answer is not needed: it may wait to be sent with the
  // next one that is (or the COMMIT), in one round trip.
  virtual void defer(const std::string& sql, const std::vector<Param>& params) {
    query(sql, params);
  }
  virtual void begin_write() = 0;
  virtual void commit() = 0;
  // Runs `sql` as the transaction's last statement and commits with it (in
  // one round trip where the engine can), returning its rows. What was
  // announced before may be told in that round trip too; what is left (see
  // take_notices()) is told by tell() after it.
  virtual std::vector<Row> query_and_commit(const std::string& sql,
                                            const std::vector<Param>& params) {
    auto rows = query(sql, params);
    commit();
    return rows;
  }
  virtual void rollback() noexcept = 0;
  // What the other processes on the database are told once the transaction
  // under way has committed: that it changed what the feeds show; that a
  // push was kept for a device. Nothing for an engine no other process shares.
  virtual void announce_change() {}
  virtual void announce_push(const std::string& /*device_token*/) {}
  // Tells what was announced for a write that committed by itself (a single
  // statement); commit() does so for a transaction.
  virtual void tell() {}
  // What was announced and not yet told, taken off the connection to be
  // told later (by another connection's tell(), after add_notices()).
  virtual std::set<std::string> take_notices() { return {}; }
  virtual void add_notices(const std::set<std::string>& /*notices*/) {}
  // False once the connection is unusable (it is then dropped from the pool).
  virtual bool usable() const { return true; }
};

// Writes by other processes on the same database, as this one hears of them.
class RemoteChanges {
 public:
  virtual ~RemoteChanges() = default;
  // Calls `done` with how many were heard of, counting every one committed
  // before the call (empty while they cannot be heard): at once, or later
  // from a thread of its own.
  virtual void sync(std::function<void(std::optional<std::uint64_t>)> done) = 0;
  // Tells the others what `notices` (the connections' announcements) say,
  // with what others tell meanwhile; false when it cannot.
  virtual bool announce(const std::set<std::string>& notices) = 0;
};

struct Dialect {
  std::string name;
  std::vector<std::string> migrations;  // applied in order; index + 1 is the schema version
  std::string migration_lock;           // statement run first in the migration transaction
  bool serialize_writes = false;        // one writer at a time in this process (SQLite)
  // The migrations made the functions that write likes and comments in
  // batches (store/Batches.cpp).
  bool functions = false;
  // Other processes' writes (PostgreSQL); null when this process is the only writer.
  std::shared_ptr<RemoteChanges> remote_changes;
};

class Pool {
 public:
  Pool(std::function<std::unique_ptr<Conn>()> factory, int size);
  ~Pool();

  class Lease {
   public:
    Lease(Pool& p, std::unique_ptr<Conn> c) : pool_(&p), conn_(std::move(c)) {}
    Lease(Lease&& o) noexcept = default;
    ~Lease();
    Conn& operator*() { return *conn_; }
    Conn* operator->() { return conn_.get(); }

   private:
    Pool* pool_;
    std::unique_ptr<Conn> conn_;
  };
  Lease get();
  void resize(int size);

 private:
  void put(std::unique_ptr<Conn> c);
  std::function<std::unique_ptr<Conn>()> factory_;
  int size_;
  int open_ = 0;
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<std::unique_ptr<Conn>> idle_;
};

// Rows as the store's records.
Item to_item(const Row& r);
Comment to_comment(const Row& r);

class SqlStore : public Store {
 public:
  SqlStore(Dialect dialect, std::function<std::unique_ptr<Conn>()> factory, int connections);

  std::string engine() const override { return dialect_.name; }

  bool create_user(const User& u) override;
  std::optional<User> user_by_id(const std::string& id) override;
  std::optional<User> user_by_mobile(const std::string& mobile) override;
  void set_password(const std::string& user_id, const std::string& hash,
                    std::int64_t now_ms) override;
  bool mark_needs_new_password(const std::string& mobile, const std::string& old_username,
                               const std::string& user_type) override;
  void add_device(const std::string& user_id, const std::string& token, const std::string& platform,
                  std::int64_t now_ms) override;
  std::vector<std::string> device_tokens(const std::string& user_id) override;
  void clear_unread(const std::string& user_id) override;

  std::optional<Item> add_item(const Item& item) override;
  std::optional<Item> item(std::int64_t id) override;
  std::vector<Item> list_items(const ItemQuery& q) override;
  std::optional<Item> top_item(bool include_disabled) override;
  RemoveResult remove_item(std::int64_t id, const std::string& user_id,
                           RemovedItem* removed) override;
  Vote vote(std::int64_t id, const std::string& user_id, bool like, std::int64_t now_ms) override;
  Vote cast_vote(std::int64_t id, const std::string& user_id, bool like,
                 std::int64_t now_ms) override;

  std::optional<CommentAdded> add_comment(std::int64_t item_id, const std::string& user_id,
                                          const std::string& text, std::int64_t now_ms,
                                          const CommentPush* push) override;
  std::vector<Comment> list_comments(std::int64_t item_id, std::int64_t offset, int limit) override;

  Feedback add_feedback(const Feedback& f) override;
  std::vector<Feedback> list_feedback(std::int64_t offset, int limit) override;
  bool feedback_has_voice(const std::string& voice_key) override;
  std::int64_t feedback_voice_bytes() override;
  std::optional<std::string> feedback_voice(const std::string& voice_key) override;
  bool set_feedback_voice(const std::string& voice_key, const std::string& bytes) override;

  std::int64_t add_push(const std::string& device_token, const std::string& payload,
                        int keep) override;
  std::vector<PendingPush> pushes(const std::string& device_token) override;
  void remove_pushes(const std::string& device_token,
                     const std::vector<std::int64_t>& ids) override;

  PhotoPut put_photo(const std::string& key, const std::string& bytes, const std::string& block,
                     bool replace, std::int64_t now_s) override;
  std::optional<std::string> photo(const std::string& key) override;
  std::optional<bool> photo_unpublished(const std::string& key) override;
  bool publish_photo(const std::string& key) override;
  bool remove_photo(const std::string& key) override;
  std::optional<std::string> photo_note(const std::string& key) override;
  void set_photo_note(const std::string& key, const std::string& note) override;
  std::pair<std::int64_t, std::int64_t> unpublished_photos(const std::string& block) override;
  int sweep_photos(std::int64_t before_s) override;

  ChangeCount change_count() override;
  void change_count(std::function<void(ChangeCount)> done) override;
  void set_connections(int n) override { pool_.resize(n); }
  std::optional<std::string> problem() override;
  void on_write(std::function<void(std::chrono::nanoseconds)> fn) override {
    on_write_ = std::move(fn);
  }

 private:
  // How a write runs: in a transaction that the other instances hear of
  // (it changes what the feeds show) or not, or as a single statement on its
  // own (atomic by itself, which holds row locks for the shortest time).
  enum class Kind { Shown, Unshown, Single };
  void migrate();
  // Runs f(conn) as a write; rolls back when f throws.
  template <class F>
  auto write(F&& f, Kind kind = Kind::Shown);
  std::int64_t insert_push(Conn& c, const std::string& token, const std::string& payload, int keep);
  void finish_comment(Conn& c, CommentAdded& out, std::int64_t item_id, const CommentPush* push,
                      const std::vector<std::string>& devices);
  Vote vote_by_function(std::int64_t id, const std::string& user_id, bool like,
                        std::int64_t now_ms);
  std::optional<Item> item_on(Conn& c, std::int64_t id);
  Vote checked_vote(std::int64_t id, const std::string& user_id, bool like, std::int64_t now_ms);

  // Votes and comments written in batches (Batches.cpp), on an engine with
  // the batch functions; one at a time when their batch fails.
  struct VoteOp : Pending {
    VoteOp(std::int64_t id, std::string user_id, bool like, std::int64_t now_ms)
        : id(id), user_id(std::move(user_id)), like(like), now_ms(now_ms) {}
    std::int64_t id;
    std::string user_id;
    bool like;
    std::int64_t now_ms;
    Vote out;
  };
  struct CommentOp : Pending {
    CommentOp(std::int64_t item_id, std::string user_id, std::string text, std::int64_t now_ms,
              const CommentPush* push)
        : item_id(item_id),
          user_id(std::move(user_id)),
          text(std::move(text)),
          now_ms(now_ms),
          push(push) {}
    std::int64_t item_id;
    std::string user_id;
    std::string text;
    std::int64_t now_ms;
    const CommentPush* push;
    std::optional<CommentAdded> out;
  };
  // Each batch's announcements go to `told`, for telling once the batches
  // are over (batch_end()).
  using Told = std::set<std::string>;
  void write_votes(const std::vector<VoteOp*>& ops, Told& told);
  bool vote_batch(const std::vector<VoteOp*>& ops, Told& told);
  void write_comments(const std::vector<CommentOp*>& ops, Told& told);
  bool comment_batch(const std::vector<CommentOp*>& ops, Told& told);
  std::function<void()> batch_end(const std::function<void(Told&)>& write);
  void counted_batch(std::size_t writes, std::chrono::nanoseconds took);
  static constexpr std::size_t kMaxBatch = 64;
  void backfill_photo_keys(Conn& c);

  Dialect dialect_;
  Pool pool_;
  std::mutex writer_;
  std::atomic<std::uint64_t> local_changes_{0};  // writes of this process, counted after commit
  std::function<void(std::chrono::nanoseconds)> on_write_;
  // (last: their threads write with everything above, and stop first)
  std::unique_ptr<GroupWrite<VoteOp>> votes_;
  std::unique_ptr<GroupWrite<CommentOp>> comments_;
};

}  // namespace rd::store::sql
