// The scale-out engine: PostgreSQL through libpq. Several server instances
// may share one database; counters change by single UPDATE statements, so
// they stay exact under any number of concurrent writers. After a write to
// what the feeds show has committed, the instance tells the others
// (LISTEN/NOTIFY) before the write returns.
#include <libpq-fe.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <future>
#include <random>
#include <set>
#include <thread>
#include <unordered_map>

#include "store/Schema.h"
#include "store/SqlStore.h"

namespace rd::store {

namespace {

// "?" placeholders become $1, $2, ... (our statements hold no "?" in literals).
std::string numbered(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 16);
  int n = 0;
  for (char c : text) {
    if (c == '?')
      out += "$" + std::to_string(++n);
    else
      out += c;
  }
  return out;
}

// The URL without its password, for messages.
std::string redacted(const std::string& url) {
  auto scheme = url.find("://");
  auto at = url.find('@');
  if (scheme == std::string::npos || at == std::string::npos) return url;
  auto colon = url.find(':', scheme + 3);
  if (colon == std::string::npos || colon > at) return url;
  return url.substr(0, colon + 1) + "***" + url.substr(at);
}

PGconn* open_connection(const std::string& url) {
  PGconn* conn = PQconnectdb(url.c_str());
  if (!conn || PQstatus(conn) != CONNECTION_OK) {
    std::string msg = conn ? PQerrorMessage(conn) : "out of memory";
    PQfinish(conn);
    while (!msg.empty() && (msg.back() == '\n' || msg.back() == ' ')) msg.pop_back();
    throw Error("cannot connect to PostgreSQL at " + redacted(url) + ": " + msg);
  }
  return conn;
}

// The channels of the notifications: a change to what the feeds show (the
// payload names the writing instance, so that an instance skips its own
// writes, which it counts itself), and a push kept for a device (the payload
// is the device's token).
constexpr const char* kChangesChannel = "rongdian_changes";
constexpr const char* kPushChannel = "rongdian_push";

// Until this version a trigger on the items notified inside each write's
// transaction; PostgreSQL commits notifying transactions one at a time.
const char* kDropChangeTriggers = R"(
DROP TRIGGER IF EXISTS items_changed ON items;
DROP TRIGGER IF EXISTS users_nickname_changed ON users;
DROP FUNCTION IF EXISTS rongdian_changed();
)";

// A transaction that commits the notifications (pg_notify calls) without
// waiting for a disk flush.
std::string notify_transaction(const std::set<std::string>& notices) {
  std::string text = "BEGIN; SET LOCAL synchronous_commit = off; SELECT ";
  for (const auto& n : notices) text += (&n == &*notices.begin() ? "" : ", ") + n;
  return text + "; COMMIT";
}

class PgConn : public sql::Conn {
 public:
  // `announce` commits notifications for this connection (with others', on a
  // connection of its own); false when it cannot.
  using Announce = std::function<bool(const std::set<std::string>&)>;
  PgConn(const std::string& url, const std::string& instance, Announce announce)
      : conn_(open_connection(url)), instance_(instance), announce_(std::move(announce)) {
    exec_script("SET client_min_messages = warning; SET TIME ZONE 'UTC'");
    change_notice_ = notice(kChangesChannel, instance_);
  }

  ~PgConn() override { PQfinish(conn_); }

  bool usable() const override {
    return PQstatus(conn_) == CONNECTION_OK && PQpipelineStatus(conn_) == PQ_PIPELINE_OFF;
  }

  std::vector<sql::Row> query(const std::string& text,
                              const std::vector<sql::Param>& params) override {
    queued_.push_back({text, params});
    return send_queued();
  }

  void defer(const std::string& text, const std::vector<sql::Param>& params) override {
    queued_.push_back({text, params});
  }

  void exec_script(const std::string& text) override {
    if (!queued_.empty()) send_queued();
    PGresult* res = PQexec(conn_, text.c_str());
    Result guard{res};
    check(res, "statement");
  }

  // The BEGIN goes with the transaction's first statement.
  void begin_write() override {
    notices_.clear();
    queued_.push_back({"BEGIN", {}});
  }

  // The write waits for its commit to reach the disk, side by side with the
  // others (they share flushes). Its notifications follow in a transaction of
  // their own, once the write has committed: a notifying commit holds
  // PostgreSQL's one notification lock until it is over, so that one waits
  // for no flush (the write is durable already; the notifications are for
  // listeners now and nobody after a crash), and it carries the
  // notifications of the writes that committed meanwhile.
  void commit() override {
    queued_.push_back({"COMMIT", {}});
    send_queued();
    tell();
  }

  // When what was announced so far is that the feeds changed, it is told in
  // the same round trip: a transaction of its own follows the COMMIT (as in
  // commit(), it waits for no flush). Should that one fail, the write stands
  // and its notice stays to be told by tell().
  std::vector<sql::Row> query_and_commit(const std::string& text,
                                         const std::vector<sql::Param>& params) override {
    queued_.push_back({text, params});
    queued_.push_back({"COMMIT", {}});
    const std::size_t written = queued_.size();
    std::set<std::string> told;
    if (notices_.size() == 1 && *notices_.begin() == change_notice_) {
      told.swap(notices_);
      queued_.push_back({"BEGIN", {}});
      queued_.push_back(
          {"SELECT set_config('synchronous_commit', 'off', true), " + change_notice_, {}});
      queued_.push_back({"COMMIT", {}});
    }
    bool all_ran = false;
    try {
      auto rows = send_queued(written - 2, written, &all_ran);
      if (!all_ran) {
        notices_.merge(told);
        if (PQstatus(conn_) == CONNECTION_OK && PQtransactionStatus(conn_) != PQTRANS_IDLE)
          PQclear(PQexec(conn_, "ROLLBACK"));
      }
      return rows;
    } catch (...) {
      notices_.merge(told);
      throw;
    }
  }

  void tell() override {
    if (notices_.empty()) return;
    std::set<std::string> notices;
    notices.swap(notices_);
    if (announce_ && announce_(notices)) return;
    exec_script(notify_transaction(notices));
  }

  void rollback() noexcept override {
    notices_.clear();
    queued_.clear();
    if (PQtransactionStatus(conn_) != PQTRANS_IDLE) PQclear(PQexec(conn_, "ROLLBACK"));
  }

  std::set<std::string> take_notices() override {
    std::set<std::string> notices;
    notices.swap(notices_);
    return notices;
  }

  void add_notices(const std::set<std::string>& notices) override {
    notices_.insert(notices.begin(), notices.end());
  }

  void announce_change() override { notify(kChangesChannel, instance_); }
  void announce_push(const std::string& token) override { notify(kPushChannel, token); }

 private:
  struct Result {
    PGresult* r;
    ~Result() { PQclear(r); }
  };

  struct Statement {
    std::string text;
    std::vector<sql::Param> params;
  };

  // The parameters as libpq takes them.
  struct Args {
    std::vector<std::string> texts;
    std::vector<const char*> values;
    explicit Args(const std::vector<sql::Param>& params)
        : texts(params.size()), values(params.size(), nullptr) {
      for (std::size_t i = 0; i < params.size(); ++i) {
        if (auto* n = std::get_if<std::int64_t>(&params[i])) {
          texts[i] = std::to_string(*n);
          values[i] = texts[i].c_str();
        } else if (auto* s = std::get_if<std::string>(&params[i])) {
          values[i] = s->c_str();
        }
      }
    }
  };

  static std::vector<sql::Row> rows_of(PGresult* res) {
    std::vector<sql::Row> rows;
    int n = PQntuples(res), cols = PQnfields(res);
    rows.reserve(static_cast<std::size_t>(n));
    for (int r = 0; r < n; ++r) {
      sql::Row row;
      row.cols.reserve(static_cast<std::size_t>(cols));
      for (int c = 0; c < cols; ++c) {
        if (PQgetisnull(res, r, c))
          row.cols.emplace_back(std::nullopt);
        else
          row.cols.emplace_back(
              std::string(PQgetvalue(res, r, c), static_cast<std::size_t>(PQgetlength(res, r, c))));
      }
      rows.push_back(std::move(row));
    }
    return rows;
  }

  // Sends the queued statements in one round trip (a pipeline when there
  // are several) and returns the rows of the one at `answer` (the last by
  // default); throws the first error of the first `must` of them, after
  // which the others were not run. `all_ran`: whether every one ran well.
  std::vector<sql::Row> send_queued(std::size_t answer = SIZE_MAX, std::size_t must = SIZE_MAX,
                                    bool* all_ran = nullptr) {
    std::vector<Statement> batch;
    batch.swap(queued_);
    if (answer >= batch.size()) answer = batch.size() - 1;
    std::vector<const std::string*> names;
    for (const auto& st : batch) names.push_back(&prepare(st.text));
    if (batch.size() == 1) {
      Args a(batch[0].params);
      PGresult* res = PQexecPrepared(conn_, names[0]->c_str(), static_cast<int>(a.values.size()),
                                     a.values.data(), nullptr, nullptr, 0);
      Result guard{res};
      check(res, "query");
      return rows_of(res);
    }
    if (!PQenterPipelineMode(conn_)) check(nullptr, "pipeline");
    struct Leave {
      PGconn* c;
      ~Leave() { PQexitPipelineMode(c); }
    } leave{conn_};
    for (std::size_t i = 0; i < batch.size(); ++i) {
      Args a(batch[i].params);
      if (!PQsendQueryPrepared(conn_, names[i]->c_str(), static_cast<int>(a.values.size()),
                               a.values.data(), nullptr, nullptr, 0))
        check(nullptr, "query");
    }
    if (!PQpipelineSync(conn_)) check(nullptr, "pipeline");
    // Each statement's result ends with a null one; the sync's comes last.
    std::exception_ptr failed;
    bool ran = true;
    std::size_t ok = 0;  // the first ones that ran well
    std::vector<sql::Row> rows;
    for (std::size_t ended = 0;;) {
      PGresult* res = PQgetResult(conn_);
      if (!res) {
        if (++ended > batch.size()) break;  // the connection is gone
        continue;
      }
      Result guard{res};
      auto st = PQresultStatus(res);
      if (st == PGRES_PIPELINE_SYNC) break;
      if (st == PGRES_PIPELINE_ABORTED) {
        ran = false;
        continue;
      }
      try {
        check(res, "query");
        if (ended == ok) ++ok;
      } catch (...) {
        ran = false;
        if (!failed && ended < must) failed = std::current_exception();
      }
      if (ended == answer && st == PGRES_TUPLES_OK) rows = rows_of(res);
    }
    if (failed) std::rethrow_exception(failed);
    if (PQstatus(conn_) != CONNECTION_OK) {
      // Gone before all that must run were answered: their outcome is unknown.
      if (ok < std::min(must, batch.size())) check(nullptr, "query");
      ran = false;
    }
    if (all_ran) *all_ran = ran;
    return rows;
  }

  void notify(const char* channel, const std::string& payload) {
    notices_.insert(notice(channel, payload));
  }

  std::string notice(const char* channel, const std::string& payload) {
    char* quoted = PQescapeLiteral(conn_, payload.data(), payload.size());
    if (!quoted) throw Error(std::string("PostgreSQL: ") + PQerrorMessage(conn_));
    std::string text = std::string("pg_notify('") + channel + "', " + quoted + ")";
    PQfreemem(quoted);
    return text;
  }

  const std::string& prepare(const std::string& text) {
    auto it = names_.find(text);
    if (it != names_.end()) return it->second;
    std::string name = "s" + std::to_string(names_.size() + 1);
    PGresult* res = PQprepare(conn_, name.c_str(), numbered(text).c_str(), 0, nullptr);
    Result guard{res};
    check(res, "prepare");
    return names_.emplace(text, name).first->second;
  }

  void check(PGresult* res, const char* what) {
    auto st = res ? PQresultStatus(res) : PGRES_FATAL_ERROR;
    if (st == PGRES_COMMAND_OK || st == PGRES_TUPLES_OK || st == PGRES_EMPTY_QUERY) return;
    std::string msg = res ? PQresultErrorMessage(res) : PQerrorMessage(conn_);
    while (!msg.empty() && (msg.back() == '\n' || msg.back() == ' ')) msg.pop_back();
    const char* state = res ? PQresultErrorField(res, PG_DIAG_SQLSTATE) : nullptr;
    if (state && std::string(state) == "23505")
      throw sql::UniqueViolation(std::string("PostgreSQL ") + what + ": " + msg);
    if (state && std::string(state) == "23503")
      throw sql::ForeignKeyViolation(std::string("PostgreSQL ") + what + ": " + msg);
    throw Error(std::string("PostgreSQL ") + what + ": " + msg);
  }

  PGconn* conn_ = nullptr;
  const std::string instance_;
  const Announce announce_;
  std::set<std::string> notices_;  // pg_notify calls for after the COMMIT
  std::string change_notice_;      // this instance's: the feeds changed
  std::vector<Statement> queued_;  // sent with the next statement that needs an answer
  std::unordered_map<std::string, std::string> names_;
};

// The other instances' writes: a connection of its own LISTENs on the
// changes channel. A round trip on it (an empty query) brings in the
// notification of every write committed before the query was sent: the
// server delivers a listening session's pending notifications before it
// reports ready for the next query. Callers that ask while a round is under
// way share the next one.
class PgChanges : public sql::RemoteChanges {
 public:
  using Done = std::function<void(std::optional<std::uint64_t>)>;

  PgChanges(std::string url, std::string instance)
      : url_(std::move(url)), instance_(std::move(instance)) {
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_ < 0) throw Error("eventfd failed");
    try {
      listen();
    } catch (...) {
      ::close(wake_);
      throw;
    }
    thread_ = std::thread([this] { run(); });
  }

  ~PgChanges() override {
    {
      std::lock_guard lock(mu_);
      stopping_ = true;
    }
    wake();
    thread_.join();
    for (auto& done : waiting_) done(std::nullopt);
    for (auto& told : announcing_) told(false);
    PQfinish(conn_);
    ::close(wake_);
  }

  void sync(Done done) override {
    std::unique_lock lock(mu_);
    if (!listening_ || stopping_) {  // read from the database meanwhile
      lock.unlock();
      return done(std::nullopt);
    }
    waiting_.push_back(std::move(done));
    start_round();
  }

  // Commits the notifications in the next round, with those of the writes
  // that ask meanwhile (one transaction for them all); false when they could
  // not be sent this way.
  bool announce(const std::set<std::string>& notices) override {
    std::promise<bool> told;
    auto f = told.get_future();
    {
      std::lock_guard lock(mu_);
      if (!listening_ || stopping_) return false;
      notices_.insert(notices.begin(), notices.end());
      announcing_.push_back([&told](bool ok) { told.set_value(ok); });
      start_round();
    }
    return f.get();
  }

 private:
  // With mu_ held.
  void start_round() {
    if (idle_) {  // else the round under way is followed by one for these callers
      idle_ = false;
      wake();
    }
  }

  static constexpr auto kRoundLimit = std::chrono::seconds(2);

  void wake() {
    std::uint64_t one = 1;
    [[maybe_unused]] auto n = ::write(wake_, &one, sizeof one);
  }

  // A fresh connection that listens; throws Error when there is none.
  void listen() {
    PGconn* c = open_connection(url_);
    PGresult* r = PQexec(
        c, (std::string("SET application_name = 'rongdian changes'; LISTEN ") + kChangesChannel)
               .c_str());
    bool ok = PQresultStatus(r) == PGRES_COMMAND_OK;
    PQclear(r);
    if (!ok) {
      std::string msg = PQerrorMessage(c);
      PQfinish(c);
      throw Error("PostgreSQL LISTEN: " + msg);
    }
    PQfinish(conn_);
    conn_ = c;
  }

  // Counts the others' notifications that arrived; false when the connection failed.
  bool take_notifications() {
    if (!PQconsumeInput(conn_) || PQstatus(conn_) != CONNECTION_OK) return false;
    std::uint64_t others = 0;
    while (PGnotify* n = PQnotifies(conn_)) {
      if (instance_ != n->extra) ++others;
      PQfreemem(n);
    }
    if (others) {
      std::lock_guard lock(mu_);
      heard_ += others;
    }
    return true;
  }

  // Waits until the socket has input or `limit_ms` passed; with `wakeable`,
  // also until a caller asks for a round.
  void wait_readable(int limit_ms, bool wakeable) {
    pollfd fds[2] = {{PQsocket(conn_), POLLIN, 0}, {wake_, POLLIN, 0}};
    if (::poll(fds, wakeable ? 2 : 1, limit_ms) > 0 && (fds[1].revents & POLLIN)) {
      std::uint64_t n;
      [[maybe_unused]] auto r = ::read(wake_, &n, sizeof n);
    }
  }

  // Sends `query` (empty: nothing but the round trip) and takes its answers.
  bool round_trip(const std::string& query) {
    if (!PQsendQuery(conn_, query.c_str())) return false;
    auto deadline = std::chrono::steady_clock::now() + kRoundLimit;
    bool ok = true;
    for (;;) {
      while (PQisBusy(conn_)) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        wait_readable(static_cast<int>(left.count()), false);
        if (!take_notifications()) return false;
      }
      PGresult* r = PQgetResult(conn_);
      if (!r) break;
      auto st = PQresultStatus(r);
      PQclear(r);
      if (st != PGRES_EMPTY_QUERY && st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK) ok = false;
    }
    return take_notifications() && ok;
  }

  void run() {
    std::vector<Done> round;
    std::vector<std::function<void(bool)>> told;
    std::set<std::string> notices;
    std::unique_lock lock(mu_);
    while (!stopping_) {
      round.swap(waiting_);
      told.swap(announcing_);
      notices.swap(notices_);
      const bool was_listening = listening_;
      const bool idle = idle_ = round.empty() && told.empty();
      lock.unlock();
      bool ok = false;
      // A round that commits notifications is a round trip too.
      if (was_listening)
        ok = idle ? (wait_readable(1000, true), take_notifications())
                  : round_trip(notices.empty() ? std::string() : notify_transaction(notices));
      notices.clear();
      if (!ok) {
        // Whoever waits reads from the database, or notifies by himself;
        // then listen anew, counting that writes may have gone unheard.
        for (auto& done : round) done(std::nullopt);
        for (auto& t : told) t(false);
        round.clear();
        told.clear();
        ok = relisten();
      }
      lock.lock();
      listening_ = ok;
      const std::uint64_t heard = heard_;
      if (!round.empty() || !told.empty()) {
        // Callers that asked before this round began have their answer.
        lock.unlock();
        for (auto& done : round) done(heard);
        for (auto& t : told) t(true);
        round.clear();
        told.clear();
        lock.lock();
      }
      if (!ok) {  // the database is away: try again in a while
        lock.unlock();
        pollfd p{wake_, POLLIN, 0};
        ::poll(&p, 1, 500);
        lock.lock();
      }
    }
  }

  bool relisten() {
    try {
      listen();
    } catch (const Error&) {
      return false;
    }
    std::lock_guard lock(mu_);
    ++heard_;
    return true;
  }

  const std::string url_;
  const std::string instance_;
  PGconn* conn_ = nullptr;  // the listening connection, used by the thread only
  int wake_ = -1;
  std::mutex mu_;
  bool stopping_ = false;
  bool listening_ = true;      // the last round on the connection went well
  bool idle_ = false;          // the thread waits for a caller (or a notification)
  std::uint64_t heard_ = 0;    // the others' writes heard of
  std::vector<Done> waiting_;  // callers for the next round
  std::vector<std::function<void(bool)>> announcing_;  // writers for the next round
  std::set<std::string> notices_;                      // what they notify
  std::thread thread_;
};

std::string new_instance_id() {
  std::random_device rd;
  std::uint64_t v = (std::uint64_t{rd()} << 32) ^ rd();
  char buf[17];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(v));
  return buf;
}

}  // namespace

std::shared_ptr<Store> open_postgres(const std::string& url, int connections) {
  sql::Dialect d;
  d.name = "postgresql";
  d.migrations = {sql::schema_v1("BIGSERIAL PRIMARY KEY", "BIGINT"),
                  sql::schema_v2("BIGSERIAL PRIMARY KEY", "BIGINT"),
                  sql::schema_v3("BIGINT"),
                  sql::schema_v4(),
                  sql::schema_v5("BIGSERIAL PRIMARY KEY", "TIMESTAMPTZ NOT NULL DEFAULT now()") +
                      kDropChangeTriggers,
                  sql::schema_v6("BIGINT"),
                  sql::schema_v7_functions(),
                  sql::schema_v8_batches(),
                  sql::schema_voice_rows(),
                  sql::schema_v10_comment_pushes(),
                  sql::schema_v11_plans_kept(),
                  sql::schema_v12_comments_checked()};
  d.functions = true;
  // Instances starting together take turns at the schema.
  d.migration_lock = "SELECT pg_advisory_xact_lock(7263540117)";
  std::string instance = new_instance_id();
  // Listening before the first read: no write after it goes unheard.
  auto changes = std::make_shared<PgChanges>(url, instance);
  d.remote_changes = changes;
  std::weak_ptr<PgChanges> weak = changes;
  auto announce = [weak](const std::set<std::string>& notices) {
    auto c = weak.lock();
    return c && c->announce(notices);
  };
  return std::make_shared<sql::SqlStore>(
      std::move(d),
      [url, instance, announce] { return std::make_unique<PgConn>(url, instance, announce); },
      connections);
}

}  // namespace rd::store
