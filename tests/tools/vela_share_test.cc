// The administrator's share tool from the command line, on fresh loopback
// volumes: its output columns, exit statuses and messages.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "support/btrfs_image.h"
#include "support/command.h"
#include "vela/vela_share.h"

namespace vela::test {
namespace {

// Runs the tool in the zone of UTC+08:00 without daylight saving time.
CommandResult Tool(std::vector<std::string> args) {
  args.insert(args.begin(), {"env", "TZ=Asia/Taipei", VELA_TEST_VELA_SHARE_PATH});
  return RunCommand(args);
}

bool IsReadOnlySnapshot(const std::string& path) {
  return RunCommand({"btrfs", "property", "get", "-ts", path, "ro"}).out == "ro=true\n";
}

TEST(VelaShare, EveryCommandOnAFreshVolume) {
  BtrfsImage volume1("/volume1");
  BtrfsImage volume2("/volume2");
  auto r = Tool({"create", "1", "media"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("/volume1/media\n", r.out);
  r = Tool({"create", "/volume2", "docs"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("/volume2/docs\n", r.out);
  r = Tool({"list"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ("media\t/volume1\t/volume1/media\ndocs\t/volume2\t/volume2/docs\n", r.out);

  r = Tool({"snapshot", "media"});
  ASSERT_EQ(0, r.status) << r.err;
  const std::string now = r.out.substr(0, r.out.size() - 1);
  time_t taken = 0;
  EXPECT_EQ(0u, now.find("GMT+08-")) << now;
  ASSERT_EQ(0, VELAShareSnapTimeGet(now.c_str(), &taken)) << now;
  EXPECT_LT(std::abs(time(nullptr) - taken), 60) << now;
  EXPECT_TRUE(IsReadOnlySnapshot("/volume1/@snapshots/media/" + now));
  r = Tool({"snapshot", "media", "GMT-2024.03.05-09.04.09"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("GMT-2024.03.05-09.04.09\n", r.out);
  r = Tool({"snapshot", "media", "GMT+0530-2024.03.05-14.00.00"});
  ASSERT_EQ(0, r.status) << r.err;

  r = Tool({"snapshots", "media"});
  EXPECT_EQ(0, r.status) << r.err;
  const std::string listed = r.out;
  EXPECT_EQ(0u, listed.find("GMT+0530-2024.03.05-14.00.00\t1709627400\t2024-03-05 16:30:00 +0800\n"
                            "GMT-2024.03.05-09.04.09\t1709629449\t2024-03-05 17:04:09 +0800\n" +
                            now + "\t"))
      << listed;

  r = Tool({"delete-snapshot", "media", "GMT-2024.03.05-09.04.09"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ("", r.out);
  r = Tool({"snapshots", "media"});
  EXPECT_EQ(std::string::npos, r.out.find("GMT-2024.03.05-09.04.09")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find(now)) << r.out;
  r = Tool({"snapshots", "docs"});
  EXPECT_EQ(0, r.status);
  EXPECT_EQ("", r.out);
}

TEST(VelaShare, EachFailureExitsNonZeroWithItsMessage) {
  BtrfsImage volume1("/volume1");
  MustRun({"mount", "-t", "tmpfs", "tmpfs", "/volume3"});
  ASSERT_EQ(0, Tool({"create", "1", "media"}).status);
  ASSERT_EQ(0, Tool({"snapshot", "media", "GMT+08-2024.03.05-17.04.09"}).status);
  ASSERT_EQ(0, mkdir("/volume1/plain", 0755));

  const struct {
    std::vector<std::string> args;
    int status;
    std::string message;
  } cases[] = {
      {{"create", "4", "x"}, 1, "no volume is mounted at /volume4"},
      {{"create", "3", "x"}, 1, "/volume3 is not a btrfs volume"},
      {{"create", "1", "media"}, 1, "share name \"media\" is taken by /volume1/media"},
      {{"create", "1", "plain"}, 1, "/volume1/plain exists already"},
      {{"create", "1", "@x"}, 1, "\"@x\" is not a share name"},
      {{"snapshot", "nosuch"}, 1, "no share named \"nosuch\""},
      {{"snapshots", "plain"}, 1, "no share named \"plain\""},
      {{"delete-snapshot", "nosuch", "GMT+08-2024.03.05-17.04.09"}, 1, "no share named \"nosuch\""},
      {{"snapshot", "media", "GMT+08-2024.03.05-17.04.09"}, 1,
       "share \"media\" has a snapshot named \"GMT+08-2024.03.05-17.04.09\" already"},
      {{"snapshot", "media", "GMT+0800-2024.03.05-17.04.09"}, 1,
       "\"GMT+0800-2024.03.05-17.04.09\" is not a snapshot name"},
      {{"delete-snapshot", "media", "GMT-2024.03.05-09.04.09"}, 1,
       "share \"media\" has no snapshot named \"GMT-2024.03.05-09.04.09\""},
      {{}, 2, "a command is needed"},
      {{"create", "1"}, 2, "wrong number of arguments for create"},
      {{"list", "extra"}, 2, "wrong number of arguments for list"},
      {{"create", "/volume1/x", "y"}, 2, "VOLUME must be a volume number or /volumeN, not \"/volume1/x\""},
      {{"create", "one", "y"}, 2, "VOLUME must be a volume number or /volumeN, not \"one\""},
      {{"remove", "media"}, 2, "unknown command \"remove\""},
  };
  for (const auto& c : cases) {
    const auto r = Tool(c.args);
    const std::string what = c.args.empty() ? "(none)" : c.args[0] + " " + (c.args.size() > 1 ? c.args[1] : "");
    EXPECT_EQ(c.status, r.status) << what;
    EXPECT_EQ("", r.out) << what;
    EXPECT_EQ(0u, r.err.find("vela-share: " + c.message)) << what << ": " << r.err;
    // A failure is one whole line; a usage error adds the usage text.
    if (c.status == 1) {
      EXPECT_EQ(r.err.size() - 1, r.err.find('\n')) << what << ": " << r.err;
    } else {
      EXPECT_NE(std::string::npos, r.err.find("\nusage: vela-share")) << what;
    }
  }
  EXPECT_EQ(0, Tool({"list"}).status);
  const auto help = Tool({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(0u, help.out.find("usage: vela-share COMMAND")) << help.out;
}

}  // namespace
}  // namespace vela::test
