#include "store_testdb.h"

#include <libpq-fe.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

namespace rdtest {

namespace {

void pg_exec(const std::string& url, const std::string& sql) {
  PGconn* c = PQconnectdb(url.c_str());
  if (PQstatus(c) != CONNECTION_OK) {
    std::string msg = PQerrorMessage(c);
    PQfinish(c);
    throw std::runtime_error("test PostgreSQL server unreachable at " + url + ": " + msg);
  }
  PGresult* r = PQexec(c, sql.c_str());
  bool ok = PQresultStatus(r) == PGRES_COMMAND_OK || PQresultStatus(r) == PGRES_TUPLES_OK;
  std::string msg = PQresultErrorMessage(r);
  PQclear(r);
  PQfinish(c);
  if (!ok) throw std::runtime_error(sql + ": " + msg);
}

}  // namespace

std::string pg_server_url() {
  if (const char* env = std::getenv("RONGDIAN_TEST_PG_URL"); env && *env) return env;
  // The CTest fixture writes the URL next to the test binaries.
  std::error_code ec;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return {};
  std::ifstream in(exe.parent_path() / "pg-test" / "url");
  std::string url;
  std::getline(in, url);
  return url;
}

TestDatabase::TestDatabase(const std::string& engine) : engine_(engine) {
  if (engine == "sqlite") {
    dir_ = std::make_unique<TempDir>();
    url_ = "sqlite:" + dir_->path() + "/test.db";
    return;
  }
  pg_admin_url_ = pg_server_url();
  if (pg_admin_url_.empty()) return;
  std::random_device rd;
  pg_name_ = "rdtest_" + std::to_string(::getpid()) + "_" + std::to_string(rd());
  pg_exec(pg_admin_url_, "CREATE DATABASE " + pg_name_);
  url_ = pg_admin_url_.substr(0, pg_admin_url_.rfind('/') + 1) + pg_name_;
}

void TestDatabase::exec(const std::string& sql) const {
  if (engine_ != "sqlite") return pg_exec(url_, sql);
  sqlite3* db = nullptr;
  char* err = nullptr;
  int rc = sqlite3_open(url_.substr(7).c_str(), &db);
  if (rc == SQLITE_OK) rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
  std::string msg = err ? err : sqlite3_errmsg(db);
  sqlite3_free(err);
  sqlite3_close(db);
  if (rc != SQLITE_OK) throw std::runtime_error(sql + ": " + msg);
}

TestDatabase::~TestDatabase() {
  if (pg_name_.empty() || url_.empty()) return;
  try {
    pg_exec(pg_admin_url_, "DROP DATABASE IF EXISTS " + pg_name_ + " WITH (FORCE)");
  } catch (...) {
  }
}

}  // namespace rdtest
