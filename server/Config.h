// rongdian-server's configuration: flags, environment variables, defaults.
#pragma once

#include <string>
#include <vector>

namespace rd::server {

struct Config {
  std::string listen = "127.0.0.1:8080";
  std::string data_dir = "./var";
  std::string database;    // empty: SQLite file in data_dir; or postgresql://...
  std::string public_url;  // how clients reach this server; empty: http://HOST:PORT bound
  std::string time_zone;   // for "created_at" readings; empty: the machine's
  std::string models_dir;  // face model folder; empty: the installed models, else the build's
  std::string detect_key;
  std::string detect_secret;
  std::string storage_access_key;
  std::string storage_secret_key;
  std::string storage_bucket;
  std::string storage_download_prefix;
  int threads = 0;             // worker threads; 0: by cores and database (store/install.cpp)
  bool development = false;    // a development install: the built-in credentials are accepted
  bool quiet = false;          // no per-request log lines
  bool hide_disabled = false;  // leave photos marked not enabled out of the lists
  int auth_rate_address = 30;  // login/register attempts per minute per client address; 0: no limit
  int signup_rate = 10;        // sign-ups per hour per client address (x4 per block); 0: no limit
  int signup_rate_total = 600;   // sign-ups per hour on this instance; 0: no limit
  int vote_rate_item = 3;        // votes on one item per day per client address (x4 per block)
  int login_free_failures = 5;   // wrong passwords per mobile and address before waits begin
  int login_delay_ms = 1000;     // the first wait; it doubles with each further wrong password
  std::string trusted_proxies;   // CIDRs whose X-Forwarded-For names the client
  int storage_fail_primary = 0;  // testing: /upload answers this status (0: off)
  int push_pending_limit = 50;   // pushes kept per offline device (the newest)
  int feedback_rate = 5;         // feedback posts per minute per client address; 0: no limit
  int feedback_quota_mb = 1024;  // MiB of voice notes kept at most; 0: no limit
  int storage_unpublished_per_block = 50;   // photo uploads no item uses, per /24 or /64
  int storage_unpublished_mb = 1024;        // MiB of such uploads in all
  int storage_unpublished_seconds = 86400;  // after this they are removed
  int storage_reserve_mb = 64;              // MiB of free disk photos never take
  int max_connections = 0;                  // connections at most; 0: from the descriptor limit
  int cpu_threads = 0;       // threads for hashing, detection, decoding; 0: one per core
  int cpu_queue = 0;         // such requests waiting or running at most; 0: 16 per CPU thread
  int idle_timeout = 30;     // seconds a keep-alive connection may wait for its next request
  int request_timeout = 30;  // seconds to receive a request's head and body, and to send a reply
  int max_connections_per_block = 256;  // per IPv4 /24 or IPv6 /64; 0: no cap
  int body_memory_mb = 256;             // MiB of request bodies held at once; 0: no cap
  int body_memory_block_mb = 32;        // the same per address block; 0: no cap
  int push_queue_kb = 256;              // KiB waiting to be sent to one push connection
  int push_queue_mb = 64;               // MiB waiting on all push connections

  bool trust_claimed_scores = false;  // publish the app's scores unchecked (outside detection)

  std::string host() const;
  unsigned short port() const;
};

struct ParseResult {
  Config config;
  bool exit = false;  // --help was given, or an error was printed
  int exit_code = 0;
};

// Reads flags (--name VALUE or --name=VALUE) over the environment (RONGDIAN_*)
// over the built-in defaults.
ParseResult parse_config(int argc, char** argv);

// Text of --help.
std::string usage();

// Lines saying which local-development defaults are in use (printed at start).
std::vector<std::string> default_notices(const Config& c);

}  // namespace rd::server
