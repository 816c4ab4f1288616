#include "vela/vela_volume.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mounted_volumes.h"
#include "snapshot_view.h"
#include "vela/vlib_error.h"

namespace {

constexpr char kVolumePrefix[] = "/volume";

bool IsPathPrefix(const std::string& prefix, const std::string& path) {
  if (prefix == "/") return true;
  return path.compare(0, prefix.size(), prefix) == 0 &&
         (path.size() == prefix.size() || path[prefix.size()] == '/');
}

}  // namespace

int VolumePathParseEx(const char* szPath, PVOLUME_PATH_INFO pInfo) {
  if (szPath == nullptr || pInfo == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  // A share's snapshot directory lies beside the volumes and belongs to one.
  const size_t viewLength = sizeof(vela::platform::kSnapshotViewRoot) - 1;
  if (strncmp(szPath, vela::platform::kSnapshotViewRoot, viewLength) == 0 && szPath[viewLength] == '/') {
    szPath += viewLength;
  }
  const size_t prefixLength = sizeof(kVolumePrefix) - 1;
  if (strncmp(szPath, kVolumePrefix, prefixLength) != 0) {
    VLIBCErrSet(VLIB_ERR_BAD_VOLUME_PATH);
    return -1;
  }
  // Decimal digits without a leading zero: "/volume01" would name volume 1
  // by a path that is not volume 1's.
  const char* p = szPath + prefixLength;
  long long number = 0;
  const char* digits = p;
  while (*p >= '0' && *p <= '9' && number <= INT_MAX) number = number * 10 + (*p++ - '0');
  if (p == digits || *digits == '0' || number > INT_MAX || (*p != '\0' && *p != '/')) {
    VLIBCErrSet(VLIB_ERR_BAD_VOLUME_PATH);
    return -1;
  }
  pInfo->volume = static_cast<int>(number);
  snprintf(pInfo->szVolPath, sizeof(pInfo->szVolPath), "%s%d", kVolumePrefix, pInfo->volume);
  return 0;
}

int VELAMountVolInfoGet(const char* szPath, PVELAMOUNTVOLINFO pInfo) {
  if (szPath == nullptr || pInfo == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  char* resolved = realpath(szPath, nullptr);
  if (resolved == nullptr) {
    VLIBCErrSet(errno == ENOENT || errno == ENOTDIR ? VLIB_ERR_NOT_FOUND : VLIB_ERR_SYSTEM);
    return -1;
  }
  const std::string path = resolved;
  free(resolved);

  std::vector<vela::platform::Mount> mounts;
  if (!vela::platform::ReadMounts(&mounts)) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  // The mount whose point is the longest prefix of the path holds it. The
  // device number cannot tell: every btrfs subvolume has its own.
  const vela::platform::Mount* holder = nullptr;
  for (const auto& mount : mounts) {
    if (IsPathPrefix(mount.point, path) && (holder == nullptr || mount.point.size() > holder->point.size())) {
      holder = &mount;
    }
  }
  VOLUME_PATH_INFO volume;
  if (holder == nullptr || VolumePathParseEx(holder->point.c_str(), &volume) != 0 ||
      holder->point != volume.szVolPath) {
    VLIBCErrSet(VLIB_ERR_BAD_VOLUME_PATH);
    return -1;
  }
  pInfo->volume = volume.volume;
  pInfo->fsType = vela::platform::FsTypeCode(holder->fsType);
  snprintf(pInfo->szMountPath, sizeof(pInfo->szMountPath), "%s", volume.szVolPath);
  snprintf(pInfo->szDevice, sizeof(pInfo->szDevice), "%s", holder->source.c_str());
  return 0;
}

int VELAVolumePathGet(int volume, char* buf, int size) {
  if (volume < 1 || buf == nullptr || size <= 0 ||
      snprintf(buf, static_cast<size_t>(size), "%s%d", kVolumePrefix, volume) >= size) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  return 0;
}
