// A rongdian-server on a test database, and a small client for its /api.
#pragma once

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <memory>
#include <string>
#include <vector>

#include "store_testdb.h"
#include "support/ServerProcess.h"

namespace rdtest {

struct ApiReply {
  int status = 0;
  boost::json::object body;  // empty when the reply was not a JSON object
  bool is_error() const { return body.contains("error"); }
  std::string error() const {
    auto* e = body.if_contains("error");
    return e && e->is_string() ? std::string(e->get_string()) : std::string();
  }
  std::string text(const char* key) const {
    auto* v = body.if_contains(key);
    return v && v->is_string() ? std::string(v->get_string()) : std::string();
  }
  std::int64_t number(const char* key) const {
    auto* v = body.if_contains(key);
    return v && v->is_int64() ? v->get_int64() : -1;
  }
};

class ApiServer {
 public:
  // A fresh database of `engine`; extra server flags after the database. The
  // server takes published scores as claimed (--trust-claimed-scores): the
  // tests publish made-up ones; "--trust-claimed-scores=0" in `extra` checks them.
  // Sign-ups and votes have no budgets (--signup-rate 0, --vote-rate-item 0)
  // unless `extra` sets them.
  explicit ApiServer(const std::string& engine, std::vector<std::string> extra = {});
  // A server on an existing database and data folder (for restarts).
  ApiServer(const std::string& database_url, const std::string& data_dir,
            std::vector<std::string> extra);

  bool available() const { return db_url_.size() > 0; }
  ServerProcess& process() { return *proc_; }
  const std::string& database_url() const { return db_url_; }
  void restart();  // same database and data folder, after a stop or kill

  using Headers = std::vector<std::pair<std::string, std::string>>;
  // POST /api?cmd=CMD with the body (its "cmd" is added as the app does),
  // and extra headers ("Authorization", or "X-Forwarded-For" for a server
  // that trusts 127.0.0.1 as its proxy).
  ApiReply call(const std::string& cmd, boost::json::object body, Headers headers = {}) const;
  ApiReply raw(const std::string& target, const std::string& body) const;

  // Registers a user and returns his id ("" on failure).
  std::string register_user(const std::string& mobile, const std::string& password = "secret",
                            const std::string& nickname = "小明");
  // Uploads a photo (a small PNG by default) under a fresh key, as the app's
  // uploader does; returns its public URL as the app publishes it.
  std::string upload_photo(const std::string& bytes = {});
  // Publishes an item on a freshly uploaded photo; returns its id as the app
  // holds it (text).
  std::string add_item(const std::string& user_id, std::int64_t score,
                       const std::string& description = "看我", bool enabled = true);

 private:
  std::unique_ptr<TestDatabase> db_;
  std::unique_ptr<TempDir> data_;
  std::string db_url_, data_dir_;
  std::vector<std::string> extra_;
  std::unique_ptr<ServerProcess> proc_;
  int uploads_ = 0;
};

// A small picture without a face; each variant has other bytes.
std::string small_png(int variant = 0);

// "Authorization: Bearer ID", as the app proves its session.
ApiServer::Headers bearer(const std::string& user_id);

ApiReply parse_reply(const HttpReply& r);

}  // namespace rdtest

#define RD_REQUIRE_SERVER(s)                                                           \
  do {                                                                                 \
    if (!(s).available()) GTEST_SKIP() << "no PostgreSQL test server (run via ctest)"; \
    ASSERT_TRUE((s).process().ok()) << (s).process().startup_output();                 \
  } while (0)
