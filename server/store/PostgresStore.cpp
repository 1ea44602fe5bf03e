// The scale-out engine: PostgreSQL through libpq. Several server instances
// may share one database; counters change by single UPDATE statements, so
// they stay exact under any number of concurrent writers.
#include <libpq-fe.h>

#include <unordered_map>

#include "store/SqlStore.h"

namespace rd::store {

namespace sql {
std::string schema_v1(const std::string& id_column, const std::string& integer);
std::string schema_v2(const std::string& id_column, const std::string& integer);
std::string schema_v3(const std::string& integer);
}  // namespace sql

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

class PgConn : public sql::Conn {
 public:
  explicit PgConn(const std::string& url) {
    conn_ = PQconnectdb(url.c_str());
    if (!conn_ || PQstatus(conn_) != CONNECTION_OK) {
      std::string msg = conn_ ? PQerrorMessage(conn_) : "out of memory";
      PQfinish(conn_);
      conn_ = nullptr;
      while (!msg.empty() && (msg.back() == '\n' || msg.back() == ' ')) msg.pop_back();
      throw Error("cannot connect to PostgreSQL at " + redacted(url) + ": " + msg);
    }
    exec_script("SET client_min_messages = warning; SET TIME ZONE 'UTC'");
  }

  ~PgConn() override { PQfinish(conn_); }

  bool usable() const override { return PQstatus(conn_) == CONNECTION_OK; }

  std::vector<sql::Row> query(const std::string& text,
                              const std::vector<sql::Param>& params) override {
    const std::string& name = prepare(text);
    std::vector<std::string> texts(params.size());
    std::vector<const char*> values(params.size(), nullptr);
    for (std::size_t i = 0; i < params.size(); ++i) {
      if (auto* n = std::get_if<std::int64_t>(&params[i])) {
        texts[i] = std::to_string(*n);
        values[i] = texts[i].c_str();
      } else if (auto* s = std::get_if<std::string>(&params[i])) {
        values[i] = s->c_str();
      }
    }
    PGresult* res = PQexecPrepared(conn_, name.c_str(), static_cast<int>(params.size()),
                                   values.data(), nullptr, nullptr, 0);
    Result guard{res};
    check(res, "query");
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

  void exec_script(const std::string& text) override {
    PGresult* res = PQexec(conn_, text.c_str());
    Result guard{res};
    check(res, "statement");
  }

  void begin_write() override { exec_script("BEGIN"); }
  void commit() override { exec_script("COMMIT"); }
  void rollback() noexcept override {
    if (PQtransactionStatus(conn_) != PQTRANS_IDLE) PQclear(PQexec(conn_, "ROLLBACK"));
  }

 private:
  struct Result {
    PGresult* r;
    ~Result() { PQclear(r); }
  };

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
  std::unordered_map<std::string, std::string> names_;
};

}  // namespace

std::shared_ptr<Store> open_postgres(const std::string& url, int connections) {
  sql::Dialect d;
  d.name = "postgresql";
  d.migrations = {sql::schema_v1("BIGSERIAL PRIMARY KEY", "BIGINT"),
                  sql::schema_v2("BIGSERIAL PRIMARY KEY", "BIGINT"), sql::schema_v3("BIGINT")};
  // Instances starting together take turns at the schema.
  d.migration_lock = "SELECT pg_advisory_xact_lock(7263540117)";
  return std::make_shared<sql::SqlStore>(
      std::move(d), [url] { return std::make_unique<PgConn>(url); }, connections);
}

}  // namespace rd::store
