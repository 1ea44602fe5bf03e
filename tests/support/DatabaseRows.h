// Reads rows out of a test server's SQLite database with the sqlite3 tool,
// for tests that must not link the server (the app's client and UI tests).
#pragma once

#include <cstdio>
#include <string>

namespace rdtest {

// The rows of `sql` on DATA_DIR/rongdian.db as JSON text ("" when none, or
// when sqlite3 failed). `sql` must not hold a single quote.
inline std::string sqlite_json(const std::string& data_dir, const std::string& sql) {
  std::string cmd = "sqlite3 -json '" + data_dir + "/rongdian.db' '" + sql + "' 2>&1";
  std::string out;
  if (FILE* p = ::popen(cmd.c_str(), "r")) {
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    ::pclose(p);
  }
  return out;
}

}  // namespace rdtest
