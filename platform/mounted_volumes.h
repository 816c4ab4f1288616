// Private to the platform library: the volumes of this machine, that is the
// file systems mounted exactly at a "/volumeN".
#ifndef VELA_PLATFORM_MOUNTED_VOLUMES_H_
#define VELA_PLATFORM_MOUNTED_VOLUMES_H_

#include <string>
#include <vector>

#include "mounts.h"

namespace vela::platform {

struct MountedVolume {
  int number = 0;
  std::string path;  // "/volumeN"
  Mount mount;       // what is mounted there
  bool Btrfs() const { return mount.fsType == "btrfs"; }
};

// Every visible mount at a "/volumeN", by N, and (when `mounts` is not
// null) the whole mount table they were read from. False with errno set
// when the table cannot be read.
bool ReadMountedVolumes(std::vector<MountedVolume>* volumes, std::vector<Mount>* mounts = nullptr);

// The VELA_FS_TYPE_* code of a file-system type ("btrfs").
int FsTypeCode(const std::string& fsType);

}  // namespace vela::platform

#endif  // VELA_PLATFORM_MOUNTED_VOLUMES_H_
