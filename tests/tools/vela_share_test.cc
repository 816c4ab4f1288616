// The administrator's share tool from the command line, on fresh loopback
// volumes and on a machine's file system adopted through its root: its
// output columns, exit statuses and messages.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "support/btrfs_image.h"
#include "support/command.h"
#include "support/machine_image.h"
#include "vela/vela_share.h"

namespace vela::test {
namespace {

// Runs the tool in the zone of UTC+08:00 without daylight saving time.
CommandResult Tool(std::vector<std::string> args) {
  args.insert(args.begin(), {"env", "TZ=Asia/Taipei", VELA_TEST_VELA_SHARE_PATH});
  return RunCommand(args);
}

std::string LocalTime(long t) {
  const time_t when = t + 8 * 3600;
  struct tm local;
  gmtime_r(&when, &local);
  char text[64];
  strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S +0800", &local);
  return text;
}

TEST(VelaShare, SharesAndSnapshotsOnAFreshVolume) {
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

  // Named on disk by the local time, listed by the creation time in UTC.
  r = Tool({"snapshot", "media"});
  ASSERT_EQ(0, r.status) << r.err;
  const std::string name = r.out.substr(0, r.out.size() - 1);
  time_t taken = 0;
  ASSERT_EQ(0, VELAShareSnapTimeGet(name.c_str(), &taken)) << name;
  EXPECT_EQ(UtcSnapshotName(taken), name);
  EXPECT_LT(std::abs(time(nullptr) - taken), 60) << name;
  r = Tool({"snapshots", "media"});
  const size_t at = r.out.find("\tvela-share\t/volume1/@snapshots/media/GMT+08-");
  ASSERT_NE(std::string::npos, at) << r.out;
  const std::string path = r.out.substr(at + 12, r.out.size() - at - 13);
  EXPECT_EQ("ro=true\n", MustRun({"btrfs", "property", "get", "-ts", path, "ro"}));

  // A snapshot made by another tool is listed with it, and left alone.
  MustRun({"mkdir", "-p", "/volume1/.snapshots/1"});
  volume1.Snapshot("/volume1/media", "/volume1/.snapshots/1/snapshot");
  r = Tool({"snapshots", "media"});
  EXPECT_EQ(0, r.status) << r.err;
  const long other = CreationTime("/volume1/.snapshots/1/snapshot");
  const std::string rootId = MustRun({"btrfs", "inspect-internal", "rootid", "/volume1/.snapshots/1/snapshot"});
  const std::string otherName = UtcSnapshotName(other) + (other == taken ? "_" + rootId.substr(0, rootId.size() - 1) : "");
  EXPECT_EQ(name + "\t" + std::to_string(taken) + "\t" + LocalTime(taken) + "\tvela-share\t" + path + "\n" +
                otherName + "\t" + std::to_string(other) + "\t" + LocalTime(other) +
                "\tsnapper\t/volume1/.snapshots/1/snapshot\n",
            r.out);
  r = Tool({"delete-snapshot", "media", otherName});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("vela-share: snapshot \"" + otherName +
                "\" of share \"media\" was made by snapper, not here; it is left alone\n",
            r.err);
  r = Tool({"delete-snapshot", "media", name});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ("", r.out);
  r = Tool({"snapshots", "media"});
  EXPECT_EQ(std::string::npos, r.out.find("vela-share")) << r.out;
  r = Tool({"snapshots", "docs"});
  EXPECT_EQ(0, r.status);
  EXPECT_EQ("", r.out);
  // Taken in one second, or not: each is a snapshot of its own.
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0, Tool({"snapshot", "docs"}).status);
  r = Tool({"snapshots", "docs"});
  EXPECT_EQ(3, std::count(r.out.begin(), r.out.end(), '\n')) << r.out;
}

TEST(VelaShare, AdoptsAMachinesFileSystemListsAndReleasesIt) {
  MachineImage machine;
  BtrfsImage native("/volume2");
  auto r = Tool({"volume", "add", machine.RootPath() + "/etc"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("/volume1\n", r.out);
  r = Tool({"list"});
  EXPECT_EQ("@\t/volume1\t/volume1/@\n@home\t/volume1\t/volume1/@home\ndata\t/volume1\t/volume1/@/srv/data\n", r.out);
  r = Tool({"snapshots", "@home"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("\ttimeshift\t/volume1/timeshift-btrfs/snapshots/2026-01-05_10-00-01/@home\n"))
      << r.out;
  r = Tool({"volumes"});
  const std::string uuid = MustRun({"blkid", "-o", "value", "-s", "UUID", machine.ImagePath()});
  EXPECT_EQ(0u, r.out.find("1\t/volume1\tadopted\t/dev/loop")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("\t" + uuid + "2\t/volume2\tmounted\t/dev/loop")) << r.out;

  // At boot the adopted file system comes back; what is mounted stays.
  MustRun({"umount", "/volume1"});
  EXPECT_EQ(0u, Tool({"volumes"}).out.find("1\t/volume1\tadopted-unmounted\t\t" + uuid));
  r = Tool({"volume", "restore"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ("/volume1\n", r.out);
  EXPECT_EQ("", Tool({"volume", "restore"}).out);

  r = Tool({"volume", "remove", "1"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ("", r.out);
  EXPECT_EQ(0u, Tool({"volumes"}).out.find("2\t/volume2\tmounted\t"));
  struct stat st;
  EXPECT_NE(0, stat("/volume1/@home", &st));
}

TEST(VelaShare, EachFailureExitsNonZeroWithItsMessage) {
  BtrfsImage volume1("/volume1");
  MustRun({"mount", "-t", "tmpfs", "tmpfs", "/volume3"});
  ASSERT_EQ(0, Tool({"create", "1", "media"}).status);
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
      {{"create", "1", ".x"}, 1, "\".x\" is not a share name"},
      {{"snapshot", "nosuch"}, 1, "no share named \"nosuch\""},
      {{"snapshots", "plain"}, 1, "no share named \"plain\""},
      {{"delete-snapshot", "nosuch", "GMT+08-2024.03.05-17.04.09"}, 1, "no share named \"nosuch\""},
      {{"delete-snapshot", "media", "GMT-2024.03.05-09.04.09"}, 1,
       "share \"media\" has no snapshot named \"GMT-2024.03.05-09.04.09\""},
      {{"delete-snapshot", "media", "snap"}, 1, "\"snap\" is not a snapshot name"},
      {{"volume", "add", "/run"}, 1, "/run is not on a btrfs file system"},
      {{"volume", "add", "/volume1"}, 1, "the file system of /volume1 is a volume already"},
      {{"volume", "add", "/no/such/dir"}, 1, "/no/such/dir does not exist"},
      {{"volume", "remove", "1"}, 1, "volume 1 is not an adopted volume"},
      {{}, 2, "a command is needed"},
      {{"create", "1"}, 2, "wrong number of arguments for create"},
      {{"snapshot", "media", "GMT-2024.03.05-09.04.09"}, 2, "wrong number of arguments for snapshot"},
      {{"list", "extra"}, 2, "wrong number of arguments for list"},
      {{"create", "/volume1/x", "y"}, 2, "VOLUME must be a volume number or /volumeN, not \"/volume1/x\""},
      {{"create", "one", "y"}, 2, "VOLUME must be a volume number or /volumeN, not \"one\""},
      {{"volume", "add", "/volume1", "--number", "x"}, 2, "--number needs a volume number, not \"x\""},
      {{"volume", "remove", "one"}, 2, "N must be a volume number or /volumeN, not \"one\""},
      {{"volume"}, 2, "volume needs add, remove or restore"},
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
