#include "vela/vela_subvol.h"

#include <btrfsutil.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <cerrno>
#include <cstdint>

#include "vela/vlib_error.h"

namespace {

// Every subvolume's root directory has this inode number.
constexpr ino_t kSubvolumeRootInode = 256;

}  // namespace

int VELASubvolTest(const char* szPath) {
  if (szPath == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  struct stat st;
  if (stat(szPath, &st) != 0) return -errno;
  if (st.st_ino != kSubvolumeRootInode || !S_ISDIR(st.st_mode)) return 0;
  struct statfs fs;
  if (statfs(szPath, &fs) != 0) return -errno;
  return fs.f_type == BTRFS_SUPER_MAGIC ? 1 : 0;
}

int VELASubvolIdGet(int fd, unsigned long long* pId) {
  if (fd < 0 || pId == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  uint64_t id = 0;
  if (btrfs_util_subvolume_id_fd(fd, &id) != BTRFS_UTIL_OK) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  *pId = id;
  return 0;
}
