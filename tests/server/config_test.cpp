// The server's refusal of the built-in development keys: a packaged server
// started without its own keys must not come up on credentials anyone can read.
#include "Config.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

rd::server::ParseResult parse(std::vector<std::string> args) {
  args.insert(args.begin(), "rongdian-server");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  return rd::server::parse_config(static_cast<int>(argv.size()), argv.data());
}

const std::vector<std::string> kOwnKeys = {
    "--detect-key",         "k1", "--detect-secret",      "s1",
    "--storage-access-key", "k2", "--storage-secret-key", "s2"};

TEST(ServerConfig, RefusesTheDevelopmentKeysUnlessToldItIsADevelopmentInstall) {
  auto r = parse({});
  EXPECT_TRUE(r.exit);
  EXPECT_EQ(r.exit_code, 2);

  // One development key left is enough to refuse.
  auto own = kOwnKeys;
  own.resize(6);
  r = parse(own);
  EXPECT_TRUE(r.exit);
  EXPECT_EQ(r.exit_code, 2);

  r = parse({"--development"});
  EXPECT_FALSE(r.exit);
  EXPECT_FALSE(rd::server::default_notices(r.config).empty());

  ::setenv("RONGDIAN_DEVELOPMENT", "1", 1);
  r = parse({});
  EXPECT_FALSE(r.exit);
  r = parse({"--development=0"});  // a flag wins over the environment
  EXPECT_TRUE(r.exit);
  ::unsetenv("RONGDIAN_DEVELOPMENT");
}

TEST(ServerConfig, StartsOnItsOwnKeysWithoutTheDevelopmentFlag) {
  auto r = parse(kOwnKeys);
  ASSERT_FALSE(r.exit);
  EXPECT_EQ(r.config.detect_key, "k1");
  EXPECT_EQ(r.config.storage_secret_key, "s2");
  // The bucket name is no secret: its default stays, and is announced.
  EXPECT_EQ(rd::server::default_notices(r.config).size(), 1u);
}

}  // namespace
