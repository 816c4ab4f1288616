// Subvolume identification and snapshot listing on real loopback btrfs
// volumes at /volume1 and /volume2 of the test's sandbox.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <map>
#include <sstream>

#include "support/btrfs_image.h"
#include "support/command.h"
#include "support/machine_image.h"
#include "support/syslog_capture.h"
#include "vela/vlib_error.h"
#include "velabtrfssnapusage/btrfs_tool.h"
#include "velabtrfssnapusage/share_snapshot.h"
#include "vela/sz_list.h"

namespace VelaBtrfsUsage {
namespace {

using vela::test::BtrfsImage;
using vela::test::FindSyslog;
using vela::test::MustRun;

constexpr char kSnap1[] = "GMT+08-2024.03.05-17.04.09";  // 09:04:09 UTC
constexpr char kSnap2[] = "GMT-2024.03.05-10.00.00";
constexpr char kSnap3[] = "GMT+0530-2024.03.05-16.00.00";  // 10:30:00 UTC

// Root ID by path, as the btrfs tool lists them.
std::map<std::string, unsigned long long> ListedIds(const std::string& mount) {
  std::map<std::string, unsigned long long> ids;
  std::istringstream lines(MustRun({"btrfs", "subvolume", "list", mount}));
  std::string id, gen, top, level, pathWord, path;
  unsigned long long rootId, generation, topLevel;
  while (lines >> id >> rootId >> gen >> generation >> top >> level >> topLevel >> pathWord >> path) {
    ids[mount + "/" + path] = rootId;
  }
  return ids;
}

void Fill(vela::platform::SzList& list, const std::vector<std::string>& items) {
  for (const auto& item : items) VLIBCSzListPush(list.Address(), item.c_str());
}

std::vector<std::string> Items(PVLIBSZLIST list) {
  std::vector<std::string> items;
  for (int i = 0; i < list->nItem; ++i) items.push_back(VLIBCSzListGet(list, i));
  return items;
}

class Volumes : public testing::Test {
 protected:
  void SetUp() override {
    vela::test::ClearSyslog();
    share1_ = volume1_.CreateSubvolume("share1");
    ASSERT_EQ(0, mkdir("/volume1/@snapshots", 0755));
    ASSERT_EQ(0, mkdir("/volume1/@snapshots/share1", 0755));
    for (const char* name : {kSnap1, kSnap2, kSnap3}) {
      volume1_.Snapshot(share1_, snaps1_ + name);
    }
    const std::string share2 = volume2_.CreateSubvolume("share2");
    ASSERT_EQ(0, mkdir("/volume2/@snapshots", 0755));
    ASSERT_EQ(0, mkdir("/volume2/@snapshots/share2", 0755));
    volume2_.Snapshot(share2, "/volume2/@snapshots/share2/" + std::string(kSnap1));
  }

  BtrfsImage volume1_{"/volume1"};
  BtrfsImage volume2_{"/volume2"};
  std::string share1_;
  const std::string snaps1_ = "/volume1/@snapshots/share1/";
};

TEST_F(Volumes, RootIdsMatchTheBtrfsToolsListAndLinksAreResolved) {
  const auto listed = ListedIds("/volume1");
  vela::platform::SzList paths;
  Fill(paths, {snaps1_ + kSnap2, snaps1_ + kSnap1});
  vela::platform::SzList ids;
  VLIBCSzListPush(ids.Address(), "stale");
  ASSERT_EQ(0, BtrfsTool::PathToRootId(paths.Address(), ids.Address()));
  EXPECT_EQ((std::vector<std::string>{std::to_string(listed.at(snaps1_ + kSnap2)),
                                      std::to_string(listed.at(snaps1_ + kSnap1))}),
            Items(ids.Get()));

  ASSERT_EQ(0, symlink((snaps1_ + kSnap3).c_str(), "/volume1/latest"));
  unsigned long long rootId = 0;
  ASSERT_EQ(0, BtrfsTool::SubvolRootIdLookup("/volume1/latest", rootId));
  EXPECT_EQ(listed.at(snaps1_ + kSnap3), rootId);
  EXPECT_EQ(1, BtrfsTool::SubvolTest(share1_.c_str()));
  EXPECT_EQ(1, BtrfsTool::SubvolTest("/volume1"));
}

TEST_F(Volumes, PlainDirectoriesAndPathsOffTheVolumesAreRefused) {
  ASSERT_EQ(0, mkdir((share1_ + "/dir").c_str(), 0755));
  ASSERT_EQ(0, symlink((share1_ + "/dir").c_str(), "/volume1/dirlink"));
  EXPECT_EQ(0, BtrfsTool::SubvolTest((share1_ + "/dir").c_str()));
  EXPECT_EQ(-ENOENT, BtrfsTool::SubvolTest("/volume1/missing"));
  unsigned long long rootId = 0;
  EXPECT_EQ(-1, BtrfsTool::SubvolRootIdLookup("/volume1/dirlink", rootId));
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "'/volume1/share1/dir' is not a subvolume").size())
      << "messages name the resolved path";
  EXPECT_EQ(-1, BtrfsTool::SubvolRootIdLookup("/volume1/missing", rootId));
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Failed to get realpath of '/volume1/missing', errno:No such file or directory").size());

  int volume = 0;
  vela::platform::SzList offVolume;
  Fill(offVolume, {"/tmp"});
  EXPECT_EQ(-1, Utils::SameVolumeCheck(offVolume.Address(), volume));
  EXPECT_EQ(0xBE00, VLIBCErrGet());
  ASSERT_EQ(0, mount("tmpfs", "/volume3", "tmpfs", 0, nullptr));
  vela::platform::SzList notBtrfs;
  Fill(notBtrfs, {"/volume3"});
  EXPECT_EQ(-1, Utils::SameVolumeCheck(notBtrfs.Address(), volume));
  EXPECT_EQ(0xD900, VLIBCErrGet());
  umount2("/volume3", MNT_DETACH);
  vela::platform::SzList none;
  Fill(none, {});
  EXPECT_EQ(0, Utils::SameVolumeCheck(none.Address(), volume));
  EXPECT_EQ(-1, volume);
}

TEST_F(Volumes, SnapshotsOnTwoVolumesFailTheSameVolumeCheck) {
  vela::platform::SzList mixed;
  Fill(mixed, {snaps1_ + kSnap1, "/volume2/@snapshots/share2/" + std::string(kSnap1)});
  int volume = 0;
  EXPECT_EQ(1, Utils::SameVolumeCheck(mixed.Address(), volume));
  vela::platform::SzList ids;
  EXPECT_EQ(-1, BtrfsTool::PathToRootId(mixed.Address(), ids.Address()));
  EXPECT_EQ(0, ids.Count());
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Same volume check fails").size());
  vela::platform::SzList same;
  Fill(same, {"/volume2/@snapshots/share2/" + std::string(kSnap1)});
  EXPECT_EQ(0, Utils::SameVolumeCheck(same.Address(), volume));
  EXPECT_EQ(2, volume);
}

// Listed as paths in the share's snapshot directory, which lead to the
// snapshots wherever they lie, selected by creation time.
TEST_F(Volumes, ShareSnapshotListsSelectByCreationTimeWhateverTheZoneOfTheBound) {
  ASSERT_EQ(0, mkdir((snaps1_ + "not-a-snapshot").c_str(), 0755));
  vela::test::WaitForNextSecond();
  volume1_.Snapshot(share1_, "/volume1/latest");
  const long latest = vela::test::CreationTime("/volume1/latest");
  vela::platform::SzList paths;
  Json::Value all;
  ASSERT_EQ(0, Utils::ShareSnapListGet("share1", paths.Address(), all));
  const std::vector<std::string> listed = Items(paths.Get());
  ASSERT_EQ(4u, listed.size());
  const std::string dir = "/run/vela-snapshots/volume1/share1/";
  const std::vector<std::string> real = {snaps1_ + kSnap1, snaps1_ + kSnap2, snaps1_ + kSnap3, "/volume1/latest"};
  for (size_t i = 0; i < listed.size(); ++i) {
    EXPECT_EQ(0u, listed[i].find(dir)) << listed[i];
    char* resolved = realpath(listed[i].c_str(), nullptr);
    EXPECT_EQ(real[i], resolved != nullptr ? resolved : "") << "oldest first: " << listed[i];
    free(resolved);
  }
  Json::Value notArray;
  notArray["time"] = ">=GMT-2024.03.05-09.30.00";
  VLIBCSzListRemoveAll(paths.Get());
  ASSERT_EQ(0, Utils::ShareSnapListGet("share1", paths.Address(), notArray));
  EXPECT_EQ(4, paths.Count());

  // The bound in the zone of UTC+08:00 and in UTC selects the same.
  for (const std::string zone : {"GMT+08", "GMT"}) {
    const time_t at = latest + (zone == "GMT" ? 0 : 8 * 3600);
    struct tm broken;
    gmtime_r(&at, &broken);
    char bound[64];
    strftime(bound, sizeof(bound), (">=" + zone + "-%Y.%m.%d-%H.%M.%S").c_str(), &broken);
    Json::Value range;
    range["time"].append(bound);
    range["time"].append("<=GMT-2999.01.01-00.00.00");
    VLIBCSzListRemoveAll(paths.Get());
    ASSERT_EQ(0, Utils::ShareSnapListGet("share1", paths.Address(), range));
    EXPECT_EQ((std::vector<std::string>{listed.back()}), Items(paths.Get())) << bound;
  }

  Json::Value bad;
  bad["time"].append("~GMT-2024.03.05-09.30.00");
  VLIBCSzListRemoveAll(paths.Get());
  EXPECT_EQ(-1, Utils::ShareSnapListGet("share1", paths.Address(), bad));
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Failed to add selector (~GMT-2024.03.05-09.30.00)").size());
  EXPECT_EQ(-1, Utils::ShareSnapListGet("no-such-share", paths.Address(), all));
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "VELAShareGet failed. share (no-such-share)").size());
}

}  // namespace
}  // namespace VelaBtrfsUsage
