#include "mounted_volumes.h"

#include <algorithm>

#include "vela/vela_volume.h"

namespace vela::platform {

bool ReadMountedVolumes(std::vector<MountedVolume>* volumes, std::vector<Mount>* mounts) {
  std::vector<Mount> all;
  if (!ReadMounts(&all)) return false;
  volumes->clear();
  for (const Mount& mount : all) {
    VOLUME_PATH_INFO info;
    if (VolumePathParseEx(mount.point.c_str(), &info) == 0 && mount.point == info.szVolPath) {
      volumes->push_back({info.volume, mount.point, mount});
    }
  }
  std::sort(volumes->begin(), volumes->end(),
            [](const MountedVolume& a, const MountedVolume& b) { return a.number < b.number; });
  if (mounts != nullptr) *mounts = std::move(all);
  return true;
}

int FsTypeCode(const std::string& fsType) {
  if (fsType == "btrfs") return VELA_FS_TYPE_BTRFS;
  if (fsType == "ext4") return VELA_FS_TYPE_EXT4;
  if (fsType == "xfs") return VELA_FS_TYPE_XFS;
  return VELA_FS_TYPE_UNKNOWN;
}

}  // namespace vela::platform
