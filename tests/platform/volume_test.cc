// Volume paths and the volume a path lies on.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/btrfs_image.h"
#include "support/command.h"
#include "support/machine_image.h"
#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"
#include "vela/vela_volume.h"
#include "vela/vlib_error.h"

namespace vela::test {
namespace {

TEST(VolumePathParseEx, ReadsTheVolumeFromThePathTextAlone) {
  const std::pair<const char*, int> good[] = {
      {"/volume1", 1}, {"/volume1/", 1}, {"/volume12/share/dir", 12}, {"/volume2147483647", 2147483647}};
  for (const auto& [path, number] : good) {
    VOLUME_PATH_INFO info = {};
    ASSERT_EQ(0, VolumePathParseEx(path, &info)) << path;
    EXPECT_EQ(number, info.volume) << path;
    EXPECT_EQ("/volume" + std::to_string(number), info.szVolPath) << path;
  }
  // No I/O: a volume that does not exist still parses.
  VOLUME_PATH_INFO info = {};
  EXPECT_EQ(0, VolumePathParseEx("/volume7/not/there", &info));
  // A share's snapshot directory belongs to its volume.
  ASSERT_EQ(0, VolumePathParseEx("/run/vela-snapshots/volume12/share/GMT-2024.03.05-09.04.09", &info));
  EXPECT_EQ(12, info.volume);
  EXPECT_STREQ("/volume12", info.szVolPath);
  for (const char* path : {"/run/vela-snapshots", "/run/vela-snapshots/", "/run/vela-snapshots/volume0/s",
                           "/run/vela-snapshotsvolume1", "/run/vela-snapshots//volume1", "/run/volume1"}) {
    EXPECT_EQ(-1, VolumePathParseEx(path, &info)) << path;
  }

  for (const char* path : {"", "/", "/volume", "/volume/", "/volume0", "/volume01", "/volume1x", "/volume1.",
                           "volume1", "/volumes1", "/Volume1", "/volume-1", "/volume+1", "//volume1",
                           "/volume2147483648", "/volume99999999999999999999"}) {
    EXPECT_EQ(-1, VolumePathParseEx(path, &info)) << path;
    EXPECT_EQ(VLIB_ERR_BAD_VOLUME_PATH, VLIBCErrGet()) << path;
  }
  EXPECT_EQ(-1, VolumePathParseEx(nullptr, &info));
  EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet());
}

TEST(MountVolInfoGet, FindsTheVolumeMountHoldingAPathThroughSubvolumesAndLinks) {
  BtrfsImage volume("/volume1");
  const std::string share = volume.CreateSubvolume("share");
  ASSERT_EQ(0, mkdir((share + "/dir").c_str(), 0755));
  // The test is only worth something where the device numbers differ.
  struct stat top, inShare;
  ASSERT_EQ(0, stat("/volume1", &top));
  ASSERT_EQ(0, stat((share + "/dir").c_str(), &inShare));
  ASSERT_NE(top.st_dev, inShare.st_dev);
  ScratchDir scratch;
  ASSERT_EQ(0, symlink((share + "/dir").c_str(), (scratch / "link").c_str()));

  for (const std::string& path : {std::string("/volume1"), share + "/dir", scratch / "link"}) {
    VELAMOUNTVOLINFO info = {};
    ASSERT_EQ(0, VELAMountVolInfoGet(path.c_str(), &info)) << path;
    EXPECT_EQ(1, info.volume) << path;
    EXPECT_EQ(VELA_FS_TYPE_BTRFS, info.fsType) << path;
    EXPECT_STREQ("/volume1", info.szMountPath) << path;
    EXPECT_EQ(0, strncmp("/dev/loop", info.szDevice, 9)) << info.szDevice;
  }

  // Another file system mounted inside the volume holds what is below it.
  ASSERT_EQ(0, mkdir((share + "/mnt").c_str(), 0755));
  MustRun({"mount", "-t", "tmpfs", "inner", share + "/mnt"});
  VELAMOUNTVOLINFO info = {};
  EXPECT_EQ(-1, VELAMountVolInfoGet((share + "/mnt").c_str(), &info));
  EXPECT_EQ(VLIB_ERR_BAD_VOLUME_PATH, VLIBCErrGet());
  MustRun({"umount", share + "/mnt"});

  EXPECT_EQ(-1, VELAMountVolInfoGet("/volume1/missing", &info));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());
  // An empty mount point is a directory of the root file system.
  EXPECT_EQ(-1, VELAMountVolInfoGet("/volume2", &info));
  EXPECT_EQ(VLIB_ERR_BAD_VOLUME_PATH, VLIBCErrGet());
  EXPECT_EQ(-1, VELAMountVolInfoGet("/run", &info));
  EXPECT_EQ(VLIB_ERR_BAD_VOLUME_PATH, VLIBCErrGet());
}

TEST(MountVolInfoGet, AVolumeOfAnotherFileSystemIsSeenAsItsTopMount) {
  MustRun({"mount", "-t", "tmpfs", "lower", "/volume3"});
  MustRun({"mount", "-t", "tmpfs", "upper", "/volume3"});
  ASSERT_EQ(0, mkdir("/volume3/dir", 0755));
  VELAMOUNTVOLINFO info = {};
  ASSERT_EQ(0, VELAMountVolInfoGet("/volume3/dir", &info));
  EXPECT_EQ(3, info.volume);
  EXPECT_NE(VELA_FS_TYPE_BTRFS, info.fsType);
  EXPECT_EQ(VELA_FS_TYPE_UNKNOWN, info.fsType);
  EXPECT_STREQ("upper", info.szDevice);
}

std::string Uuid(const std::string& image) {
  std::string uuid = MustRun({"blkid", "-o", "value", "-s", "UUID", image});
  return uuid.substr(0, uuid.find('\n'));
}

std::string Options(const std::string& mountPoint) { return MustRun({"findmnt", "-n", "-o", "OPTIONS", mountPoint}); }

std::vector<VELAVOLUME> Volumes() {
  PVELAVOLUME list = nullptr;
  const int n = VELAVolumeEnum(&list);
  std::vector<VELAVOLUME> volumes(list, list + (n > 0 ? n : 0));
  VELAVolumeEnumFree(list);
  return volumes;
}

// A file system adopted through a mount of one of its subvolumes: its top
// level at /volumeN with that mount's options, kept in the settings, made
// again after a "restart", released without a trace, and never twice.
TEST(VolumeAdoption, AdoptsReleasesAndRestoresThroughTheSettings) {
  MachineImage machine;
  BtrfsImage native("/volume1");
  BtrfsImage other(std::string(kSandboxScratch) + "/other");
  int number = 0;
  EXPECT_EQ(-1, VELAVolumeAdopt("/run", 0, &number));
  EXPECT_EQ(VLIB_ERR_BAD_FS_TYPE, VLIBCErrGet());
  EXPECT_EQ(-1, VELAVolumeAdopt("/run/no/such/dir", 0, &number));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());
  EXPECT_EQ(-1, VELAVolumeAdopt("/volume1", 0, &number)) << "a volume already";
  EXPECT_EQ(VLIB_ERR_EXISTS, VLIBCErrGet());
  WriteFile("/volume4/left", "");
  EXPECT_EQ(-1, VELAVolumeAdopt(machine.RootPath().c_str(), 4, &number)) << "not mounted over files";
  EXPECT_EQ(VLIB_ERR_EXISTS, VLIBCErrGet());

  ASSERT_EQ(0, VELAVolumeAdopt(machine.RootPath().c_str(), 3, &number)) << std::hex << VLIBCErrGet();
  EXPECT_EQ(3, number);
  struct stat st;
  EXPECT_EQ(0, stat("/volume3/@home/alice", &st));
  EXPECT_NE(std::string::npos, Options("/volume3").find("noatime")) << Options("/volume3");
  EXPECT_NE(std::string::npos, Options("/volume3").find("subvolid=5,subvol=/")) << Options("/volume3");
  const std::string settings = ReadFile(VELA_TEST_VOLUME_SETTINGS);
  EXPECT_NE(std::string::npos, settings.find("\n3 " + Uuid(machine.ImagePath()) + "\n")) << settings;
  EXPECT_EQ(-1, VELAVolumeAdopt("/volume3/@home", 0, &number));
  EXPECT_EQ(VLIB_ERR_EXISTS, VLIBCErrGet());
  EXPECT_EQ(-1, VELAVolumeAdopt(other.MountPoint().c_str(), 3, &number));
  EXPECT_EQ(VLIB_ERR_EXISTS, VLIBCErrGet());
  ASSERT_EQ(0, VELAVolumeAdopt(other.MountPoint().c_str(), 0, &number));
  EXPECT_EQ(2, number) << "the lowest free number";

  std::vector<VELAVOLUME> volumes = Volumes();
  ASSERT_EQ(3u, volumes.size());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(i + 1, volumes[i].volume);
    EXPECT_TRUE(volumes[i].mounted);
    EXPECT_EQ(i > 0, volumes[i].adopted == TRUE);
    EXPECT_EQ(VELA_FS_TYPE_BTRFS, volumes[i].fsType);
    EXPECT_GT(volumes[i].sizeBytes, volumes[i].freeBytes);
  }
  EXPECT_EQ(Uuid(machine.ImagePath()), volumes[2].szUuid);

  // After a restart the file system is mounted where the system mounts it;
  // its top level comes back at /volume3 with the same options.
  MustRun({"umount", "/volume3"});
  volumes = Volumes();
  ASSERT_EQ(3u, volumes.size());
  EXPECT_FALSE(volumes[2].mounted);
  EXPECT_EQ(Uuid(machine.ImagePath()), volumes[2].szUuid);
  ASSERT_EQ(0, VELAVolumeRestore(3)) << std::hex << VLIBCErrGet();
  EXPECT_EQ(0, stat("/volume3/@home/alice", &st));
  EXPECT_NE(std::string::npos, Options("/volume3").find("noatime"));
  EXPECT_EQ(0, VELAVolumeRestore(3)) << "mounted already";
  EXPECT_EQ(-1, VELAVolumeRestore(5));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());

  // In use, it stays; released, it goes, and all its data stays.
  ASSERT_EQ(0, chdir("/volume3/@home"));
  EXPECT_EQ(-1, VELAVolumeRelease(3));
  EXPECT_EQ(VLIB_ERR_BUSY, VLIBCErrGet());
  EXPECT_EQ(settings.substr(0, settings.size() - 1), ReadFile(VELA_TEST_VOLUME_SETTINGS).substr(0, settings.size() - 1));
  ASSERT_EQ(0, chdir("/"));
  ASSERT_EQ(0, VELAVolumeRelease(3));
  EXPECT_NE(0, stat("/volume3/@home", &st));
  EXPECT_EQ(0, stat((machine.RootPath() + "/srv/data/table").c_str(), &st));
  EXPECT_EQ(std::string::npos, ReadFile(VELA_TEST_VOLUME_SETTINGS).find("\n3 "));
  EXPECT_EQ(-1, VELAVolumeRelease(3));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());
  EXPECT_EQ(2u, Volumes().size());

  // A damaged settings file is reported, never rewritten.
  const std::string damaged = ReadFile(VELA_TEST_VOLUME_SETTINGS) + "4 not-a-uuid\n";
  WriteFile(VELA_TEST_VOLUME_SETTINGS, damaged);
  PVELAVOLUME list = nullptr;
  EXPECT_EQ(-1, VELAVolumeEnum(&list));
  EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet());
  EXPECT_EQ(-1, VELAVolumeAdopt(machine.RootPath().c_str(), 0, &number));
  EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet());
  EXPECT_EQ(damaged, ReadFile(VELA_TEST_VOLUME_SETTINGS));
}

}  // namespace
}  // namespace vela::test
