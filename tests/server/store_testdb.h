// Databases for the store and api tests: a fresh SQLite file, or a fresh
// database on the test PostgreSQL server (started by the CTest fixture, or
// named by RONGDIAN_TEST_PG_URL).
#pragma once

#include <memory>
#include <string>

#include "support/ServerProcess.h"

namespace rdtest {

// URL of the test PostgreSQL server, or empty when none is available.
std::string pg_server_url();

// A database of its own for one test; dropped again on destruction.
class TestDatabase {
 public:
  explicit TestDatabase(const std::string& engine);  // "sqlite" or "postgresql"
  ~TestDatabase();
  TestDatabase(const TestDatabase&) = delete;
  TestDatabase& operator=(const TestDatabase&) = delete;

  bool available() const { return !url_.empty(); }
  const std::string& url() const { return url_; }  // for --database and store::open_store
  const std::string& engine() const { return engine_; }
  // Runs SQL statements on the database directly (e.g. to make an older schema).
  void exec(const std::string& sql) const;

 private:
  std::string engine_;
  std::string url_;
  std::string pg_admin_url_, pg_name_;
  std::unique_ptr<TempDir> dir_;
};

}  // namespace rdtest

// Skips the current test when the engine's database cannot be had here.
#define RD_REQUIRE_DATABASE(db)                                                         \
  do {                                                                                  \
    if (!(db).available()) GTEST_SKIP() << "no PostgreSQL test server (run via ctest)"; \
  } while (0)
