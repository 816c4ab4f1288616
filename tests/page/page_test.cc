// The administrator's page, driven by Debian's Chromium (road.js) through
// the whole road, against the host, the modules and the real size provider
// on a machine's file system whose snapshots other tools took.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

#include "host/web_host.h"
#include "support/btrfs_tool_double.h"
#include "support/command.h"
#include "support/machine_image.h"
#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"

namespace vela::test {
namespace {

TEST(AdministratorsPage, TheWholeRoadInChromium) {
  LocalAccounts accounts;
  const std::string admins = accounts.AddGroup("vtpgadm");
  const std::string admin = accounts.AddUser("vtpage", "page-pass", {admins});

  // A machine's file system mounted through its root subvolume alone, with
  // the homes' snapshots snapper, Timeshift and btrbk took a second apart,
  // adopted as volume 1.
  MachineImage machine("page", true);
  MustRun({VELA_TEST_VELA_SHARE_PATH, "volume", "add", machine.RootPath()});
  ASSERT_EQ("", BindInto(VELA_TEST_PACED_PROVIDER, BtrfsToolDouble::ToolPath()));
  ASSERT_EQ(0, symlink(VELA_TEST_SIZE_PROVIDER_PATH, "/run/vela-test/size-provider"));
  WebHost host({"--admin-group", admins});

  ScratchDir home;
  setenv("HOME", home.Path().c_str(), 1);
  setenv("VELA_PAGE_URL", host.Url().c_str(), 1);
  setenv("VELA_PAGE_USER", admin.c_str(), 1);
  setenv("VELA_PAGE_PASSWORD", "page-pass", 1);
  setenv("VELA_PAGE_SHARE", "@home", 1);
  setenv("VELA_PAGE_SHOTS", VELA_TEST_SCREENSHOT_DIR, 1);
  const CommandResult road = RunCommand({"node", VELA_TEST_PAGE_SCRIPT});
  EXPECT_EQ(0, road.status) << road.out << road.err << "\nhost log:\n" << host.Log();
}

}  // namespace
}  // namespace vela::test
