// The administrator's page, driven by Debian's Chromium (road.js) through
// the whole road, against the host, the modules and the real size provider
// on a loopback btrfs volume with a share and real snapshots.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "host/web_host.h"
#include "support/btrfs_image.h"
#include "support/btrfs_tool_double.h"
#include "support/command.h"
#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"

namespace vela::test {
namespace {

// Snapshot names as the NAS takes them, in UTC, `hoursAgo` before now.
std::string SnapshotName(int hoursAgo) {
  const time_t when = time(nullptr) - hoursAgo * 3600;
  struct tm utc;
  gmtime_r(&when, &utc);
  char name[64];
  strftime(name, sizeof(name), "GMT-%Y.%m.%d-%H.%M.%S", &utc);
  return name;
}

void WriteMiB(const std::string& path, int mib) {
  MustRun({"dd", "if=/dev/urandom", "of=" + path, "bs=1M", "count=" + std::to_string(mib), "status=none"});
}

TEST(AdministratorsPage, TheWholeRoadInChromium) {
  LocalAccounts accounts;
  const std::string admins = accounts.AddGroup("vtpgadm");
  const std::string admin = accounts.AddUser("vtpage", "page-pass", {admins});

  // A share whose contents change between four snapshots, and one without any.
  BtrfsImage volume("/volume1");
  MustRun({VELA_TEST_VELA_SHARE_PATH, "create", "1", "docs"});
  MustRun({VELA_TEST_VELA_SHARE_PATH, "create", "1", "media"});
  WriteMiB("/volume1/docs/base.bin", 8);
  for (int i = 0; i < 4; ++i) {
    if (i > 0) WriteMiB("/volume1/docs/part" + std::to_string(i) + ".bin", i * 2);
    if (i == 2) MustRun({"rm", "/volume1/docs/part1.bin"});
    volume.Sync();
    MustRun({VELA_TEST_VELA_SHARE_PATH, "snapshot", "docs", SnapshotName(4 - i)});
  }

  ASSERT_EQ("", BindInto(VELA_TEST_PACED_PROVIDER, BtrfsToolDouble::ToolPath()));
  ASSERT_EQ(0, symlink(VELA_TEST_SIZE_PROVIDER_PATH, "/run/vela-test/size-provider"));
  WebHost host({"--admin-group", admins});

  ScratchDir home;
  setenv("HOME", home.Path().c_str(), 1);
  setenv("VELA_PAGE_URL", host.Url().c_str(), 1);
  setenv("VELA_PAGE_USER", admin.c_str(), 1);
  setenv("VELA_PAGE_PASSWORD", "page-pass", 1);
  setenv("VELA_PAGE_SHARE", "docs", 1);
  setenv("VELA_PAGE_SHOTS", VELA_TEST_SCREENSHOT_DIR, 1);
  const CommandResult road = RunCommand({"node", VELA_TEST_PAGE_SCRIPT});
  EXPECT_EQ(0, road.status) << road.out << road.err << "\nhost log:\n" << host.Log();
}

}  // namespace
}  // namespace vela::test
