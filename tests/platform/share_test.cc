// Shares and snapshots on loopback btrfs volumes mounted at /volumeN.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/btrfs_image.h"
#include "support/command.h"
#include "vela/vela_share.h"
#include "vela/vlib_error.h"

namespace vela::test {
namespace {

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> Items(const VLIBSZLIST* list) {
  std::vector<std::string> items;
  for (int i = 0; i < list->nItem; ++i) items.emplace_back(list->pszItem[i]);
  return items;
}

std::vector<std::string> Shares() {
  PVLIBSZLIST list = VLIBCSzListAlloc(1);
  const int n = VELAShareEnum(&list, 0);
  std::vector<std::string> names = Items(list);
  VLIBCSzListFree(list);
  EXPECT_EQ(static_cast<int>(names.size()), n);
  return names;
}

// The share's snapshots passing time selectors with these arguments.
std::vector<std::string> Snapshots(PVELASHARE share, std::initializer_list<const char*> args = {}) {
  PVELASNAPSELECTOR selectors = nullptr;
  for (const char* arg : args) EXPECT_EQ(0, VELAShareSnapSelectorAdd(&selectors, VELAShareSnapTimeSelector, arg)) << arg;
  PVLIBSZLIST list = VLIBCSzListAlloc(1);
  const int n = VELAShareSnapList(share, &list, selectors);
  std::vector<std::string> names = Items(list);
  EXPECT_EQ(static_cast<int>(names.size()), n);
  VLIBCSzListFree(list);
  VELAShareSnapEnumFree(selectors);
  return names;
}

PVELASHARE GetShare(const char* name) {
  PVELASHARE share = nullptr;
  EXPECT_EQ(0, VELAShareGet(name, &share)) << name;
  return share;
}

bool IsReadOnlySnapshot(const std::string& path) {
  return RunCommand({"btrfs", "property", "get", "-ts", path, "ro"}).out == "ro=true\n";
}

TEST(Shares, AreTheSubvolumesRightUnderEachBtrfsVolumeNotBeginningWithDotOrAt) {
  BtrfsImage volume1("/volume1");
  BtrfsImage volume2("/volume2");
  for (const char* name : {"share1", "Share 2", ".hidden", "@system", "dup"}) volume1.CreateSubvolume(name);
  volume1.CreateSubvolume("share1/nested");
  ASSERT_EQ(0, mkdir("/volume1/plain", 0755));
  ASSERT_EQ(0, symlink("/volume1/share1", "/volume1/link"));
  volume2.CreateSubvolume("other");
  volume2.CreateSubvolume("dup");
  MustRun({"mount", "-t", "tmpfs", "tmpfs", "/volume3"});
  ASSERT_EQ(0, mkdir("/volume3/fake", 0755));

  PVLIBSZLIST list = VLIBCSzListAlloc(1);
  ASSERT_EQ(0, VLIBCSzListPush(&list, "kept"));
  EXPECT_EQ(5, VELAShareEnum(&list, 0));
  EXPECT_EQ((std::vector<std::string>{"kept", "Share 2", "dup", "share1", "dup", "other"}), Items(list));
  VLIBCSzListFree(list);

  PVELASHARE share = GetShare("other");
  ASSERT_NE(nullptr, share);
  EXPECT_STREQ("other", share->szName);
  EXPECT_STREQ("/volume2/other", share->szPath);
  EXPECT_STREQ("/volume2", share->szVolPath);
  EXPECT_EQ(2, share->volume);
  VELAShareFree(share);
  share = GetShare("dup");
  ASSERT_NE(nullptr, share);
  EXPECT_EQ(1, share->volume) << "the lowest volume wins";
  VELAShareFree(share);

  // Callers retry VLIB_ERR_BUSY for a minute; a missing share is final.
  for (const char* name : {"missing", "plain", "link", ".hidden", "@system", "fake", "nested", "share1/nested"}) {
    share = nullptr;
    EXPECT_EQ(-1, VELAShareGet(name, &share)) << name;
    EXPECT_EQ(nullptr, share);
    EXPECT_EQ(strchr(name, '/') ? VLIB_ERR_BAD_PARAMETERS : VLIB_ERR_NOT_FOUND, VLIBCErrGet()) << name;
  }
  for (const char* name : {"", ".", "..", "../volume2/other"}) {
    EXPECT_EQ(-1, VELAShareGet(name, &share)) << name;
    EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet()) << name;
  }
  EXPECT_EQ(-1, VELAShareGet(nullptr, &share));
}

TEST(SnapTimeGet, ReadsBothNameFormsHonouringTheOffsetWhateverTheLocalZone) {
  const std::pair<const char*, time_t> good[] = {
      {"GMT-2024.03.05-09.04.09", 1709629449},       {"GMT+08-2024.03.05-17.04.09", 1709629449},
      {"GMT+0530-2024.03.05-14.34.09", 1709629449},  {"GMT-0330-2024.03.05-05.34.09", 1709629449},
      {"GMT+00-2024.03.05-09.04.09", 1709629449},    {"GMT+14-2024.03.05-23.04.09", 1709629449},
      {"GMT-12-2024.03.04-21.04.09", 1709629449},    {"GMT-2024.02.29-00.00.00", 1709164800},
      {"GMT+08-2000.01.01-07.59.59", 946684799},
  };
  for (const char* zone : {"UTC", "America/St_Johns", "Asia/Kolkata"}) {
    setenv("TZ", zone, 1);
    tzset();
    for (const auto& [name, expected] : good) {
      time_t t = 0;
      ASSERT_EQ(0, VELAShareSnapTimeGet(name, &t)) << name;
      EXPECT_EQ(expected, t) << name << " in " << zone;
    }
  }
  for (const char* name : {
           "", "GMT-", "GMT", "gmt-2024.03.05-09.04.09", " GMT-2024.03.05-09.04.09", "GMT-2024.03.05-09.04.09 ",
           "GMT-2024.03.05-09.04.09x", "GMT-2024.03.05-09.04.09/", "GMT+0800-2024.03.05-17.04.09",
           "GMT+8-2024.03.05-17.04.09", "GMT08-2024.03.05-17.04.09", "GMT+15-2024.03.05-17.04.09",
           "GMT+0560-2024.03.05-17.04.09", "GMT+08-2024.3.05-17.04.09", "GMT+08-2024.03.05-17.04.9",
           "GMT+08-+024.03.05-17.04.09", "GMT+08-2024-03-05-17.04.09", "GMT+08-2024.03.05_17.04.09",
           "GMT-2024.00.05-09.04.09", "GMT-2024.13.05-09.04.09", "GMT-2024.03.00-09.04.09",
           "GMT-2024.02.30-09.04.09", "GMT-2023.02.29-09.04.09", "GMT-2024.04.31-09.04.09",
           "GMT-2024.03.05-24.00.00", "GMT-2024.03.05-09.60.00", "GMT-2024.03.05-09.04.60"}) {
    time_t t = 0;
    EXPECT_EQ(-1, VELAShareSnapTimeGet(name, &t)) << name;
    EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet()) << name;
  }
}

TEST(SnapList, OrdersByRealTimeAndSelectsWithEveryOperatorSkippingWhatIsNoSnapshot) {
  BtrfsImage volume("/volume1");
  const std::string sharePath = volume.CreateSubvolume("s");
  PVELASHARE share = GetShare("s");
  ASSERT_NE(nullptr, share);
  // Taken in a +08:00 zone, in UTC and in two zones off the hour; sorted
  // by name they would come in another order.
  const char* byTime[] = {
      "GMT-2024.03.05-08.30.00",       // 08:30 UTC
      "GMT+0530-2024.03.05-14.30.00",  // 09:00, same time as the next: by name
      "GMT+08-2024.03.05-17.00.00",    // 09:00
      "GMT-0330-2024.03.05-06.00.00",  // 09:30, same time as the next
      "GMT-2024.03.05-09.30.00",       // 09:30
      "GMT+08-2024.03.05-18.00.00",    // 10:00
  };
  for (const char* name : {byTime[4], byTime[2], byTime[5], byTime[0], byTime[3], byTime[1]}) {
    ASSERT_EQ(0, VELAShareSnapCreate(share, name)) << name << " " << std::hex << VLIBCErrGet();
  }
  // In the snapshot directory but no snapshots of the share.
  const std::string dir = "/volume1/@snapshots/s";
  ASSERT_EQ(0, mkdir((dir + "/GMT-2024.03.05-09.00.00").c_str(), 0755));
  MustRun({"btrfs", "-q", "subvolume", "snapshot", sharePath, dir + "/GMT-2024.03.05-09.10.00"});
  volume.Snapshot(sharePath, dir + "/GMT+08-2024.13.05-17.00.00");
  volume.Snapshot(sharePath, dir + "/manual");
  ASSERT_EQ(0, symlink((dir + "/" + byTime[0]).c_str(), (dir + "/GMT-2024.03.05-09.20.00").c_str()));

  const std::vector<std::string> all(std::begin(byTime), std::end(byTime));
  EXPECT_EQ(all, Snapshots(share));
  EXPECT_EQ((std::vector<std::string>{byTime[1], byTime[2]}),
            Snapshots(share, {">=GMT-2024.03.05-09.00.00", "<GMT+08-2024.03.05-17.30.00"}));
  EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + 5), Snapshots(share, {"<=GMT+08-2024.03.05-17.30.00"}));
  EXPECT_EQ(std::vector<std::string>(all.begin() + 3, all.end()), Snapshots(share, {">GMT+0530-2024.03.05-14.30.00"}));
  EXPECT_EQ((std::vector<std::string>{byTime[3], byTime[4]}), Snapshots(share, {"=GMT+08-2024.03.05-17.30.00"}));
  EXPECT_EQ(std::vector<std::string>{}, Snapshots(share, {">GMT-2024.03.05-10.00.00"}));

  EXPECT_EQ(1, VELAShareSnapTimeSelector(byTime[2], "=GMT+0530-2024.03.05-14.30.00"));
  EXPECT_EQ(-1, VELAShareSnapTimeSelector("manual", ">=GMT-2024.03.05-09.00.00"));
  PVELASNAPSELECTOR selectors = nullptr;
  for (const char* arg : {"", ">=", "GMT-2024.03.05-09.00.00", "=>GMT-2024.03.05-09.00.00", "==GMT-2024.03.05-09.00.00",
                          ">= GMT-2024.03.05-09.00.00", ">=GMT-2024.03.05-09.00.00x"}) {
    EXPECT_EQ(-1, VELAShareSnapSelectorAdd(&selectors, VELAShareSnapTimeSelector, arg)) << arg;
    EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet()) << arg;
  }
  EXPECT_EQ(nullptr, selectors) << "a refused selector is not added";
  VELAShareFree(share);
}

TEST(SnapDir, IsCreatedOnDemandOnlyAndOnlyForAShareThatIsThere) {
  BtrfsImage volume("/volume1");
  volume.CreateSubvolume("s");
  PVELASHARE share = GetShare("s");
  ASSERT_NE(nullptr, share);
  EXPECT_EQ(std::vector<std::string>{}, Snapshots(share));
  EXPECT_FALSE(Exists("/volume1/@snapshots"));

  char small[8];
  EXPECT_EQ(-1, VELAShareSnapGetOrCreateSnapDir(share, small, sizeof(small), 0));
  EXPECT_FALSE(Exists("/volume1/@snapshots"));
  char buf[4096];
  ASSERT_EQ(1, VELAShareSnapGetOrCreateSnapDir(share, buf, sizeof(buf), 0));
  EXPECT_STREQ("/volume1/@snapshots/s", buf);
  struct stat st;
  ASSERT_EQ(0, stat(buf, &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(1, VELAShareSnapGetOrCreateSnapDir(share, buf, sizeof(buf), 0));

  // A record of a share that has gone leaves nothing behind.
  snprintf(share->szName, sizeof(share->szName), "gone");
  EXPECT_EQ(-1, VELAShareSnapGetOrCreateSnapDir(share, buf, sizeof(buf), 0));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());
  EXPECT_FALSE(Exists("/volume1/@snapshots/gone"));
  // Nor can a record lead outside its volume.
  snprintf(share->szName, sizeof(share->szName), "../../run");
  EXPECT_EQ(-1, VELAShareSnapGetOrCreateSnapDir(share, buf, sizeof(buf), 0));
  EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet());
  VELAShareFree(share);
}

TEST(ShareAdministration, CreatesSharesAndTakesAndDeletesReadOnlySnapshots) {
  BtrfsImage volume1("/volume1");
  BtrfsImage volume2("/volume2");
  MustRun({"mount", "-t", "tmpfs", "tmpfs", "/volume3"});

  ASSERT_EQ(0, VELAShareCreate(1, "docs"));
  EXPECT_EQ(std::vector<std::string>{"docs"}, Shares());
  const struct {
    int volume;
    const char* name;
    int error;
  } refused[] = {
      {1, "docs", VLIB_ERR_EXISTS},     {2, "docs", VLIB_ERR_EXISTS},  // names are unique across volumes
      {3, "x", VLIB_ERR_BAD_FS_TYPE},   {4, "x", VLIB_ERR_NOT_FOUND},     {0, "x", VLIB_ERR_BAD_PARAMETERS},
      {1, "@x", VLIB_ERR_BAD_PARAMETERS}, {1, ".x", VLIB_ERR_BAD_PARAMETERS}, {1, "a/b", VLIB_ERR_BAD_PARAMETERS},
      {1, "", VLIB_ERR_BAD_PARAMETERS},
  };
  for (const auto& c : refused) {
    EXPECT_EQ(-1, VELAShareCreate(c.volume, c.name)) << c.volume << " " << c.name;
    EXPECT_EQ(c.error, VLIBCErrGet()) << c.volume << " " << c.name;
  }
  ASSERT_EQ(0, mkdir("/volume2/plain", 0755));
  EXPECT_EQ(-1, VELAShareCreate(2, "plain"));
  EXPECT_EQ(VLIB_ERR_EXISTS, VLIBCErrGet());
  EXPECT_FALSE(Exists("/volume3/x"));

  PVELASHARE share = GetShare("docs");
  ASSERT_NE(nullptr, share);
  const char* name = "GMT+08-2024.03.05-17.04.09";
  const std::string path = std::string("/volume1/@snapshots/docs/") + name;
  ASSERT_EQ(0, VELAShareSnapCreate(share, name));
  EXPECT_TRUE(IsReadOnlySnapshot(path));
  EXPECT_EQ(-1, VELAShareSnapCreate(share, name));
  EXPECT_EQ(VLIB_ERR_EXISTS, VLIBCErrGet());
  for (const char* bad : {"snap", "GMT+08-2024.03.05-17.04.09/x", "../GMT+08-2024.03.05-17.04.09"}) {
    EXPECT_EQ(-1, VELAShareSnapCreate(share, bad)) << bad;
    EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet()) << bad;
    EXPECT_EQ(-1, VELAShareSnapDelete(share, bad)) << bad;
    EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet()) << bad;
  }

  // A writable subvolume in the snapshot directory is not a snapshot.
  const std::string writable = "/volume1/@snapshots/docs/GMT-2024.03.05-00.00.00";
  MustRun({"btrfs", "-q", "subvolume", "snapshot", "/volume1/docs", writable});
  EXPECT_EQ(-1, VELAShareSnapDelete(share, "GMT-2024.03.05-00.00.00"));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());
  EXPECT_TRUE(Exists(writable));

  ASSERT_EQ(0, VELAShareSnapDelete(share, name));
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(-1, VELAShareSnapDelete(share, name));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());
  VELAShareFree(share);
}

}  // namespace
}  // namespace vela::test
