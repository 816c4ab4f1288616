// The administrator's page, driven by Debian's Chromium (road.js) through
// the whole road, against the host, the modules and the real size provider:
// a machine's file system whose snapshots other tools took, and a volume
// whose share has 200 snapshots, where what the page says deleting some of
// them frees is held against the kernel's quota groups.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "host/web_host.h"
#include "size_provider/dataset.h"
#include "support/btrfs_image.h"
#include "support/btrfs_tool_double.h"
#include "support/command.h"
#include "support/machine_image.h"
#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"

namespace vela::test {
namespace {

constexpr int kManySnapshots = 200;

// 200 read-only snapshots of /volume2/many: between two of them a file
// comes and the one before the last goes, so that each file lives in two
// snapshots. Their root IDs, oldest first.
std::vector<uint64_t> TakeManySnapshots() {
  MustRun({"sh", "-c",
           "set -e; mkdir /volume2/snaps; for i in $(seq 1 " + std::to_string(kManySnapshots) +
               "); do head -c 16384 /dev/urandom > /volume2/many/f$i; rm -f /volume2/many/f$((i - 2)); "
               "btrfs -q subvolume snapshot -r /volume2/many /volume2/snaps/many.$i; done"});
  std::map<int, uint64_t> byNumber;
  std::istringstream listed(MustRun({"btrfs", "subvolume", "list", "/volume2"}));
  for (std::string line; std::getline(listed, line);) {
    const size_t at = line.find("path snaps/many.");
    if (at != std::string::npos) byNumber[std::stoi(line.substr(at + 16))] = std::stoull(line.substr(3));
  }
  std::vector<uint64_t> ids;
  for (const auto& [number, id] : byNumber) ids.push_back(id);
  return ids;
}

// What the kernel's level-1 quota group of `ids` holds exclusively, on a
// byte copy of the volume's image (the volume itself never sees a quota).
uint64_t KernelFreedBy(BtrfsImage& volume, const std::vector<uint64_t>& ids) {
  volume.Unmount();
  ScratchDir scratch;
  MustRun({"cp", "--sparse=always", volume.ImagePath(), scratch / "copy.img"});
  MustRun({"mkdir", scratch / "copy"});
  MustRun({"mount", "-t", "btrfs", "-o", "loop", scratch / "copy.img", scratch / "copy"});
  const uint64_t freed = QuotaGroupsOfSets(scratch / "copy", {ids}).at("1/1").exclusive;
  MustRun({"umount", scratch / "copy"});
  volume.Mount();
  return freed;
}

std::string Joined(const std::vector<uint64_t>& ids) {
  std::string text;
  for (uint64_t id : ids) text += (text.empty() ? "" : ",") + std::to_string(id);
  return text;
}

TEST(AdministratorsPage, TheWholeRoadInChromium) {
  LocalAccounts accounts;
  const std::string admins = accounts.AddGroup("vtpgadm");
  const std::string admin = accounts.AddUser("vtpage", "page-pass", {admins});

  // A machine's file system mounted through its root subvolume alone, with
  // the homes' snapshots snapper, Timeshift and btrbk took a second apart,
  // adopted as volume 1; and volume 2, a share with 200 snapshots.
  MachineImage machine("page", true);
  MustRun({VELA_TEST_VELA_SHARE_PATH, "volume", "add", machine.RootPath()});
  BtrfsImage volume2("/volume2");
  MustRun({VELA_TEST_VELA_SHARE_PATH, "create", "2", "many"});
  const std::vector<uint64_t> many = TakeManySnapshots();
  ASSERT_EQ(static_cast<size_t>(kManySnapshots), many.size());
  // A set that is no run of snapshots: the second to fourth, the tenth and
  // one far later.
  const std::vector<uint64_t> whatIf = {many[1], many[2], many[3], many[9], many[120]};
  const uint64_t kernelFreed = KernelFreedBy(volume2, whatIf);

  // The size tool runs with an environment of its own: the paced provider
  // finds the real one, and how to pace it, at fixed places.
  ASSERT_EQ("", BindInto(VELA_TEST_PACED_PROVIDER, BtrfsToolDouble::ToolPath()));
  ASSERT_EQ(0, symlink(VELA_TEST_SIZE_PROVIDER_PATH, "/run/vela-test/size-provider"));
  setenv("VELA_PAGE_PACE_FILE", "/run/vela-test/pace", 1);
  ScratchDir scratch;
  WebHost host({"--admin-group", admins});

  setenv("HOME", scratch.Path().c_str(), 1);
  setenv("VELA_PAGE_URL", host.Url().c_str(), 1);
  setenv("VELA_PAGE_USER", admin.c_str(), 1);
  setenv("VELA_PAGE_PASSWORD", "page-pass", 1);
  setenv("VELA_PAGE_SHOTS", VELA_TEST_SCREENSHOT_DIR, 1);
  setenv("VELA_PAGE_MANY_IDS", Joined(many).c_str(), 1);
  setenv("VELA_PAGE_WHATIF_IDS", Joined(whatIf).c_str(), 1);
  setenv("VELA_PAGE_WHATIF_BYTES", std::to_string(kernelFreed).c_str(), 1);
  const CommandResult road = RunCommand({"node", VELA_TEST_PAGE_SCRIPT});
  EXPECT_EQ(0, road.status) << road.out << road.err << "\nhost log:\n" << host.Log();
  // The figures the closing note quotes: screenshots and the page's weight.
  std::cout << road.out;
}

}  // namespace
}  // namespace vela::test
