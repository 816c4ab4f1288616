// Shares and snapshots: on volumes mounted at /volumeN, and on a machine
// laid out by snapper, Timeshift and btrbk whose file system is adopted
// through its root subvolume.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include "support/btrfs_image.h"
#include "support/command.h"
#include "support/machine_image.h"
#include "vela/sz_list.h"
#include "vela/vela_share.h"
#include "vela/vela_volume.h"
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
  vela::platform::SzList list;
  const int n = VELAShareEnum(list.Address(), 0);
  std::vector<std::string> names = Items(list.Get());
  EXPECT_EQ(static_cast<int>(names.size()), n);
  return names;
}

// The share's snapshots passing time selectors with these arguments.
std::vector<std::string> Snapshots(PVELASHARE share, std::initializer_list<std::string> args = {}) {
  PVELASNAPSELECTOR selectors = nullptr;
  for (const std::string& arg : args) {
    EXPECT_EQ(0, VELAShareSnapSelectorAdd(&selectors, VELAShareSnapTimeSelector, arg.c_str())) << arg;
  }
  vela::platform::SzList list;
  const int n = VELAShareSnapList(share, list.Address(), selectors);
  std::vector<std::string> names = Items(list.Get());
  EXPECT_EQ(static_cast<int>(names.size()), n);
  VELAShareSnapEnumFree(selectors);
  return names;
}

struct Listed {
  std::string name, tool, path;
  long time;
  bool readOnly;
};

std::vector<Listed> Infos(PVELASHARE share) {
  PVELASNAPINFO infos = nullptr;
  const int n = VELAShareSnapInfoList(share, &infos);
  std::vector<Listed> listed;
  for (int i = 0; i < n; ++i) {
    listed.push_back({infos[i].szName, infos[i].szTool, infos[i].szPath, infos[i].time, infos[i].readOnly == TRUE});
  }
  VELAShareSnapInfoFree(infos);
  return listed;
}

PVELASHARE GetShare(const std::string& name) {
  PVELASHARE share = nullptr;
  EXPECT_EQ(0, VELAShareGet(name.c_str(), &share)) << name << " " << std::hex << VLIBCErrGet();
  return share;
}

std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

unsigned long long RootId(const std::string& path) {
  return std::stoull(MustRun({"btrfs", "inspect-internal", "rootid", path}));
}

TEST(Shares, AreSubvolumesAnywhereNamedUniquelyAcrossVolumes) {
  BtrfsImage volume1("/volume1");
  BtrfsImage volume2("/volume2");
  for (const char* name : {"share1", "Share 2", ".hidden", "@system", "dup"}) volume1.CreateSubvolume(name);
  volume1.CreateSubvolume("share1/nested");
  ASSERT_EQ(0, mkdir("/volume1/plain", 0755));
  ASSERT_EQ(0, symlink("/volume1/share1", "/volume1/link"));
  volume2.CreateSubvolume("other");
  ASSERT_EQ(0, mkdir("/volume2/deep", 0755));
  volume2.CreateSubvolume("deep/dup");
  volume2.CreateSubvolume("dup");
  MustRun({"mount", "-t", "tmpfs", "tmpfs", "/volume3"});
  ASSERT_EQ(0, mkdir("/volume3/fake", 0755));

  // Of three shares named "dup", the one on the lowest volume keeps the
  // name; of the others, nearest the top first, each gets its volume and ID.
  const std::string dup2 = "dup~v2-" + std::to_string(RootId("/volume2/dup"));
  const std::string deepDup = "dup~v2-" + std::to_string(RootId("/volume2/deep/dup"));
  vela::platform::SzList list;
  ASSERT_EQ(0, VLIBCSzListPush(list.Address(), "kept"));
  EXPECT_EQ(8, VELAShareEnum(list.Address(), 0));
  EXPECT_EQ((std::vector<std::string>{"kept", "@system", "Share 2", "dup", "nested", "share1", deepDup, dup2, "other"}),
            Items(list.Get()));

  PVELASHARE share = GetShare(dup2);
  ASSERT_NE(nullptr, share);
  EXPECT_STREQ("/volume2/dup", share->szPath);
  EXPECT_STREQ("/volume2", share->szVolPath);
  EXPECT_EQ(2, share->volume);
  EXPECT_EQ(RootId("/volume2/dup"), share->subvolId);
  VELAShareFree(share);
  share = GetShare("nested");
  ASSERT_NE(nullptr, share);
  EXPECT_STREQ("/volume1/share1/nested", share->szPath);
  VELAShareFree(share);

  for (const char* name : {"missing", "plain", "link", ".hidden", "fake", "share1/nested", "dup~v2"}) {
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
  EXPECT_TRUE(VELAShareNameIsValid(std::string(255, 'n').c_str(), 255));
  EXPECT_FALSE(VELAShareNameIsValid(std::string(256, 'n').c_str(), 256));
  EXPECT_FALSE(VELAShareNameIsValid("a\0b", 3));
}

TEST(SnapTimeGet, ReadsBothNameFormsHonouringTheOffsetWhateverTheLocalZone) {
  const std::pair<const char*, time_t> good[] = {
      {"GMT-2024.03.05-09.04.09", 1709629449},       {"GMT+08-2024.03.05-17.04.09", 1709629449},
      {"GMT+0530-2024.03.05-14.34.09", 1709629449},  {"GMT-0330-2024.03.05-05.34.09", 1709629449},
      {"GMT+00-2024.03.05-09.04.09", 1709629449},    {"GMT+14-2024.03.05-23.04.09", 1709629449},
      {"GMT-12-2024.03.04-21.04.09", 1709629449},    {"GMT-2024.02.29-00.00.00", 1709164800},
      {"GMT+08-2000.01.01-07.59.59", 946684799},     {"GMT-2024.03.05-09.04.09_258", 1709629449},
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
           "GMT-2024.03.05-24.00.00", "GMT-2024.03.05-09.60.00", "GMT-2024.03.05-09.04.60",
           "GMT-2024.03.05-09.04.09_", "GMT-2024.03.05-09.04.09_0258", "GMT-2024.03.05-09.04.09_x",
           "GMT-2024.03.05-09.04.09_123456789012345678901"}) {
    time_t t = 0;
    EXPECT_EQ(-1, VELAShareSnapTimeGet(name, &t)) << name;
    EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet()) << name;
  }
}

// The machine's file system, adopted through "@": shares anywhere in it,
// snapshots by parent UUID whatever made them and wherever they lie, named
// by their creation time, each reachable through its share's snapshot
// directory by that name.
TEST(Snapshots, OfAMachineAdoptedThroughItsRootAreFoundByParentUuid) {
  MachineImage machine;
  int number = 0;
  ASSERT_EQ(0, VELAVolumeAdopt((machine.RootPath() + "/etc").c_str(), 0, &number)) << std::hex << VLIBCErrGet();
  ASSERT_EQ(1, number);
  const std::string top = "/volume1/";
  // What else people and tools leave on such a machine: a copy received
  // from elsewhere; a writable clone of a snapshot (a restored home); a
  // writable snapshot mounted elsewhere, one that is the default subvolume
  // (a rolled-back root) and one with read-only snapshots of its own, all
  // in use as shares; and an orphan in Timeshift's layout.
  MustRun({"sh", "-c", "btrfs -q send " + top + "btrbk_snapshots/@home.20260105T1000 | btrfs -q receive " + top});
  MustRun({"btrfs", "-q", "subvolume", "snapshot", top + "@home/.snapshots/1/snapshot", top + "restored"});
  for (const char* clone : {"mounted", "rolled-back", "origin"}) {
    MustRun({"btrfs", "-q", "subvolume", "snapshot", top + "@home", top + clone});
  }
  MustRun({"mkdir", "-p", "/run/vela-test/elsewhere"});
  MustRun({"mount", "-t", "btrfs", "-o", "subvol=mounted", machine.ImagePath(), "/run/vela-test/elsewhere"});
  MustRun({"btrfs", "subvolume", "set-default", top + "rolled-back"});
  MustRun({"btrfs", "-q", "subvolume", "snapshot", "-r", top + "origin", top + "origin.20260105T1200"});
  MustRun({"mkdir", "-p", top + "timeshift-btrfs/snapshots/2026-01-06_10-00-01"});
  MustRun({"btrfs", "-q", "subvolume", "snapshot", top + "btrbk_snapshots/@home.20260105T1000",
           top + "timeshift-btrfs/snapshots/2026-01-06_10-00-01/@home"});

  EXPECT_EQ((std::vector<std::string>{"@", "@home", "data", "mounted", "origin", "restored", "rolled-back"}), Shares());
  PVELASHARE home = GetShare("@home");
  ASSERT_NE(nullptr, home);
  EXPECT_STREQ("/volume1/@home", home->szPath);
  EXPECT_EQ(1, home->volume);

  // Oldest first, by creation time; a snapshot of the same second as an
  // older one is told apart by its ID.
  const std::vector<Listed> listed = Infos(home);
  const std::vector<std::string> tools = {"snapper", "timeshift", "btrbk", "snapper", "btrbk"};
  ASSERT_EQ(MachineImage::HomeSnapshots().size(), listed.size());
  std::vector<std::string> names;
  for (size_t i = 0; i < listed.size(); ++i) {
    const std::string path = top + MachineImage::HomeSnapshots()[i];
    const long created = CreationTime(path);
    const bool sameSecond = i > 0 && listed[i - 1].time == created;
    EXPECT_EQ(UtcSnapshotName(created) + (sameSecond ? "_" + std::to_string(RootId(path)) : ""), listed[i].name);
    EXPECT_EQ(created, listed[i].time);
    EXPECT_EQ(tools[i], listed[i].tool);
    EXPECT_EQ(path, listed[i].path);
    EXPECT_EQ(i != 1, listed[i].readOnly) << "Timeshift's snapshots are writable";
    names.push_back(listed[i].name);
  }
  EXPECT_EQ(names, Snapshots(home));
  PVELASHARE root = GetShare("@");
  ASSERT_NE(nullptr, root);
  const std::vector<Listed> ofRoot = Infos(root);
  ASSERT_EQ(2u, ofRoot.size());
  EXPECT_EQ(top + "@/.snapshots/1/snapshot", ofRoot[0].path);
  EXPECT_EQ(top + "timeshift-btrfs/snapshots/2026-01-05_10-00-01/@", ofRoot[1].path);
  VELAShareFree(root);
  PVELASHARE origin = GetShare("origin");
  ASSERT_NE(nullptr, origin);
  ASSERT_EQ(1u, Infos(origin).size());
  EXPECT_EQ("btrbk", Infos(origin)[0].tool);
  VELAShareFree(origin);

  // The snapshot directory leads to each snapshot by its listed name; its
  // paths name volume 1 by their text and are on volume 1 once resolved.
  char dir[4096];
  ASSERT_EQ(1, VELAShareSnapGetOrCreateSnapDir(home, dir, sizeof(dir), 0));
  EXPECT_STREQ("/run/vela-snapshots/volume1/@home", dir);
  for (const Listed& snapshot : listed) {
    const std::string path = std::string(dir) + "/" + snapshot.name;
    char* resolved = realpath(path.c_str(), nullptr);
    EXPECT_EQ(snapshot.path, resolved != nullptr ? resolved : "") << path;
    free(resolved);
    VOLUME_PATH_INFO byText = {};
    VELAMOUNTVOLINFO mounted = {};
    ASSERT_EQ(0, VolumePathParseEx(path.c_str(), &byText)) << path;
    EXPECT_EQ(1, byText.volume);
    EXPECT_STREQ("/volume1", byText.szVolPath);
    ASSERT_EQ(0, VELAMountVolInfoGet(path.c_str(), &mounted)) << path;
    EXPECT_EQ(1, mounted.volume);
    EXPECT_EQ(VELA_FS_TYPE_BTRFS, mounted.fsType);
  }
  struct stat st;
  ASSERT_EQ(0, stat(dir, &st));
  EXPECT_EQ(0040755u, st.st_mode);
  EXPECT_EQ(0u, st.st_uid);
  // Made again as the snapshots are now: a deleted one's link goes. (The
  // one after it may be named anew: it loses its "_ID" when the deleted one
  // was of the same second.)
  MustRun({"btrfs", "-q", "subvolume", "delete", listed[2].path});
  ASSERT_EQ(1, VELAShareSnapGetOrCreateSnapDir(home, dir, sizeof(dir), 0));
  const std::vector<Listed> left = Infos(home);
  ASSERT_EQ(4u, left.size());
  std::vector<std::string> leftNames;
  for (const Listed& snapshot : left) {
    EXPECT_NE(listed[2].path, snapshot.path);
    char* resolved = realpath((std::string(dir) + "/" + snapshot.name).c_str(), nullptr);
    EXPECT_EQ(snapshot.path, resolved != nullptr ? resolved : "") << snapshot.name;
    free(resolved);
    leftNames.push_back(snapshot.name);
  }
  EXPECT_EQ(4u, Entries(dir).size());

  // Time selectors compare creation times, with or without the ID.
  const std::string last = names.back();
  EXPECT_EQ(1, VELAShareSnapTimeSelector(last.c_str(), ("=" + last.substr(0, 23)).c_str()));
  EXPECT_EQ(leftNames,
            Snapshots(home, {">=" + UtcSnapshotName(listed[0].time), "<=" + UtcSnapshotName(listed[4].time)}));
  EXPECT_EQ(std::vector<std::string>{}, Snapshots(home, {">" + UtcSnapshotName(listed[4].time)}));

  // Adopting, listing and the snapshot directory made nothing in the file
  // system: its top level holds what the machine made and this test added.
  EXPECT_EQ((std::vector<std::string>{"@", "@home", "@home.20260105T1000", "btrbk_snapshots", "mounted", "origin",
                                      "origin.20260105T1200", "restored", "rolled-back", "timeshift-btrfs"}),
            Entries("/volume1"));
  VELAShareFree(home);
  MustRun({"umount", "/run/vela-test/elsewhere"});
}

TEST(SnapDir, IsMadeOnlyForAShareThatIsThereAndNeverOnAVolume) {
  BtrfsImage volume("/volume1");
  volume.CreateSubvolume("s");
  PVELASHARE share = GetShare("s");
  ASSERT_NE(nullptr, share);
  EXPECT_EQ(std::vector<std::string>{}, Snapshots(share));
  char small[8];
  EXPECT_EQ(-1, VELAShareSnapGetOrCreateSnapDir(share, small, sizeof(small), 0));
  EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet());
  EXPECT_FALSE(Exists("/run/vela-snapshots"));
  char buf[4096];
  ASSERT_EQ(1, VELAShareSnapGetOrCreateSnapDir(share, buf, sizeof(buf), 0));
  EXPECT_STREQ("/run/vela-snapshots/volume1/s", buf);
  EXPECT_EQ(std::vector<std::string>{}, Entries(buf));
  EXPECT_EQ(std::vector<std::string>{"s"}, Entries("/volume1"));

  // A record of a share that has gone leaves nothing behind.
  MustRun({"btrfs", "-q", "subvolume", "delete", "/volume1/s"});
  volume.CreateSubvolume("s");
  EXPECT_EQ(-1, VELAShareSnapGetOrCreateSnapDir(share, buf, sizeof(buf), 0));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());
  EXPECT_EQ(-1, VELAShareSnapList(share, nullptr, nullptr));
  snprintf(share->szName, sizeof(share->szName), "gone");
  EXPECT_EQ(-1, VELAShareSnapGetOrCreateSnapDir(share, buf, sizeof(buf), 0));
  EXPECT_FALSE(Exists("/run/vela-snapshots/volume1/gone"));
  // Nor can a record lead outside its volume's directories.
  snprintf(share->szName, sizeof(share->szName), "../../run");
  EXPECT_EQ(-1, VELAShareSnapGetOrCreateSnapDir(share, buf, sizeof(buf), 0));
  EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet());
  VELAShareFree(share);

  // A snapshot directory root that someone else could write to is refused.
  share = GetShare("s");
  ASSERT_EQ(0, chmod("/run/vela-snapshots", 0777));
  EXPECT_EQ(-1, VELAShareSnapGetOrCreateSnapDir(share, buf, sizeof(buf), 0));
  EXPECT_EQ(VLIB_ERR_SYSTEM, VLIBCErrGet());
  VELAShareFree(share);
}

TEST(ShareAdministration, CreatesSharesAndTakesAndDeletesItsOwnSnapshots) {
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
      {1, ".x", VLIB_ERR_BAD_PARAMETERS}, {1, "a/b", VLIB_ERR_BAD_PARAMETERS}, {1, "", VLIB_ERR_BAD_PARAMETERS},
  };
  for (const auto& c : refused) {
    EXPECT_EQ(-1, VELAShareCreate(c.volume, c.name)) << c.volume << " " << c.name;
    EXPECT_EQ(c.error, VLIBCErrGet()) << c.volume << " " << c.name;
  }
  ASSERT_EQ(0, mkdir("/volume2/plain", 0755));
  EXPECT_EQ(-1, VELAShareCreate(2, "plain"));
  EXPECT_EQ(VLIB_ERR_EXISTS, VLIBCErrGet());
  EXPECT_FALSE(Exists("/volume3/x"));
  ASSERT_EQ(0, VELAShareCreate(2, "@data"));

  PVELASHARE share = GetShare("docs");
  ASSERT_NE(nullptr, share);
  const char* entry = "GMT+08-2024.03.05-17.04.09";
  const std::string path = std::string("/volume1/@snapshots/docs/") + entry;
  ASSERT_EQ(0, VELAShareSnapCreate(share, entry));
  EXPECT_EQ("ro=true\n", MustRun({"btrfs", "property", "get", "-ts", path, "ro"}));
  EXPECT_EQ(-1, VELAShareSnapCreate(share, entry));
  EXPECT_EQ(VLIB_ERR_EXISTS, VLIBCErrGet());
  for (const char* bad : {"snap", "GMT+08-2024.03.05-17.04.09/x", "../GMT+08-2024.03.05-17.04.09"}) {
    EXPECT_EQ(-1, VELAShareSnapCreate(share, bad)) << bad;
    EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet()) << bad;
    EXPECT_EQ(-1, VELAShareSnapDelete(share, bad)) << bad;
    EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet()) << bad;
  }
  // Listed by its creation time, which its entry's name does not decide.
  const std::vector<Listed> listed = Infos(share);
  ASSERT_EQ(1u, listed.size());
  EXPECT_EQ(UtcSnapshotName(CreationTime(path)), listed[0].name);
  EXPECT_EQ("vela-share", listed[0].tool);

  // A snapshot another tool made is not this call's to delete.
  MustRun({"mkdir", "-p", "/volume1/.snapshots/7"});
  volume1.Snapshot("/volume1/docs", "/volume1/.snapshots/7/snapshot");
  const std::vector<Listed> both = Infos(share);
  ASSERT_EQ(2u, both.size());
  EXPECT_EQ(-1, VELAShareSnapDelete(share, both[1].name.c_str()));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());
  EXPECT_TRUE(Exists("/volume1/.snapshots/7/snapshot"));

  ASSERT_EQ(0, VELAShareSnapDelete(share, listed[0].name.c_str()));
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(-1, VELAShareSnapDelete(share, listed[0].name.c_str()));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());
  VELAShareFree(share);
}

// Snapshots taken and deleted, and a second volume mounted and unmounted,
// all the while the shares and snapshots are listed: every listing either
// answers whole and in order or fails cleanly, and a snapshot it names is
// one that existed.
TEST(Listing, GoesOnWhileSnapshotsComeAndGoAndAVolumeIsUnmounted) {
  BtrfsImage volume1("/volume1");
  BtrfsImage volume2("/volume2");
  volume1.CreateSubvolume("s");
  volume2.CreateSubvolume("t");
  std::atomic<bool> done{false};
  std::thread churn([&] {
    for (int i = 0; !done; ++i) {
      const std::string snapshot = "/volume1/snap" + std::to_string(i % 4);
      if (i % 8 < 4) {
        RunCommand({"btrfs", "-q", "subvolume", "snapshot", "-r", "/volume1/s", snapshot});
      } else {
        RunCommand({"btrfs", "-q", "subvolume", "delete", snapshot});
      }
      if (i % 10 == 0) RunCommand({"umount", "/volume2"});
      if (i % 10 == 5) RunCommand({"mount", "-o", "loop", volume2.ImagePath(), "/volume2"});
    }
  });
  int listings = 0, failures = 0;
  for (const time_t end = time(nullptr) + 2; time(nullptr) < end; ++listings) {
    const std::vector<std::string> shares = Shares();
    EXPECT_TRUE(shares == std::vector<std::string>{"s"} || shares == (std::vector<std::string>{"s", "t"}));
    PVELASHARE share = nullptr;
    if (VELAShareGet("s", &share) != 0) {
      ++failures;
      continue;
    }
    const std::vector<Listed> listed = Infos(share);
    for (size_t i = 0; i < listed.size(); ++i) {
      EXPECT_EQ(0u, listed[i].path.find("/volume1/snap")) << listed[i].path;
      if (i > 0) {
        EXPECT_LE(listed[i - 1].time, listed[i].time);
      }
    }
    char dir[4096];
    if (VELAShareSnapGetOrCreateSnapDir(share, dir, sizeof(dir), 0) != 1) ++failures;
    VELAShareFree(share);
  }
  done = true;
  churn.join();
  EXPECT_GT(listings, 10);
  EXPECT_EQ(0, failures) << "of " << listings;
}

}  // namespace
}  // namespace vela::test
