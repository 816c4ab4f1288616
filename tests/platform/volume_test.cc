// Volume paths and the volume a path lies on.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "support/btrfs_image.h"
#include "support/command.h"
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

}  // namespace
}  // namespace vela::test
