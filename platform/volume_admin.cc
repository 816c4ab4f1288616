// Adopting mounted btrfs file systems as volumes, and listing volumes.
#include <dirent.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "guarded_call.h"
#include "mounted_volumes.h"
#include "vela/vela_volume.h"
#include "vela/vlib_error.h"
#include "volume_settings.h"

namespace {

using vela::base::UniqueFd;
using vela::platform::GuardedCall;
using vela::platform::AdoptedVolume;
using vela::platform::Mount;
using vela::platform::MountedVolume;

constexpr mode_t kMountPointMode = 0755;
// The top level of every btrfs file system.
constexpr char kTopLevel[] = "subvolid=5";
constexpr char kDeviceByUuid[] = "/dev/disk/by-uuid/";

// The UUID of the btrfs file system holding `path`, "" when it cannot be
// had. libbtrfsutil has no call for the file system's own ID.
std::string FileSystemUuid(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct btrfs_ioctl_fs_info_args args;
  memset(&args, 0, sizeof(args));
  if (!fd.Valid() || ioctl(fd.Get(), BTRFS_IOC_FS_INFO, &args) != 0) return "";
  char text[40];
  const unsigned char* u = args.fsid;
  snprintf(text, sizeof(text), "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", u[0], u[1],
           u[2], u[3], u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13], u[14], u[15]);
  return text;
}

bool IsPathPrefix(const std::string& prefix, const std::string& path) {
  if (prefix == "/") return true;
  return path.compare(0, prefix.size(), prefix) == 0 && (path.size() == prefix.size() || path[prefix.size()] == '/');
}

// A second mount of the file system's top level takes the options of the
// mount it was found through: its own flags, and the file system's options
// but for which subvolume.
void TopLevelMountOptions(const Mount& mount, unsigned long* flags, std::string* data) {
  static const std::map<std::string, unsigned long> kFlags = {
      {"ro", MS_RDONLY},       {"nosuid", MS_NOSUID},         {"nodev", MS_NODEV},
      {"noexec", MS_NOEXEC},   {"noatime", MS_NOATIME},       {"nodiratime", MS_NODIRATIME},
      {"relatime", MS_RELATIME}, {"strictatime", MS_STRICTATIME}, {"lazytime", MS_LAZYTIME},
  };
  *flags = 0;
  std::istringstream own(mount.mountOptions);
  for (std::string option; std::getline(own, option, ',');) {
    const auto found = kFlags.find(option);
    if (found != kFlags.end()) *flags |= found->second;
  }
  *data = kTopLevel;
  std::istringstream super(mount.superOptions);
  for (std::string option; std::getline(super, option, ',');) {
    if (option.empty() || option == "rw" || option == "ro" || option.rfind("subvol=", 0) == 0 ||
        option.rfind("subvolid=", 0) == 0) {
      continue;
    }
    *data += "," + option;
  }
}

// "/volumeN" made when missing; it must be an empty directory, not a link.
bool PrepareMountPoint(const std::string& path) {
  const bool made = mkdir(path.c_str(), kMountPointMode) == 0;
  if (!made && errno != EEXIST) return false;
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (made && fd.Valid() && fchmod(fd.Get(), kMountPointMode) != 0) return false;  // whatever the umask
  DIR* dir = fd.Valid() ? fdopendir(fd.Get()) : nullptr;
  if (dir == nullptr) return false;
  fd.Release();
  bool empty = true;
  while (const struct dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) empty = false;
  }
  closedir(dir);
  if (!empty) errno = ENOTEMPTY;
  return empty;
}

std::string VolumePath(int number) { return "/volume" + std::to_string(number); }

// Mounts the top level of the file system mounted by `from` at "/volumeN".
bool MountTopLevel(const std::string& source, const Mount* from, int number) {
  const std::string path = VolumePath(number);
  if (!PrepareMountPoint(path)) return false;
  unsigned long flags = 0;
  std::string data = kTopLevel;
  if (from != nullptr) TopLevelMountOptions(*from, &flags, &data);
  return mount(source.c_str(), path.c_str(), "btrfs", flags, data.c_str()) == 0;
}

int SetError(int code) {
  VLIBCErrSet(code);
  return -1;
}

int SystemError() { return SetError(errno == ETIMEDOUT ? VLIB_ERR_BUSY : VLIB_ERR_SYSTEM); }

// Reads the settings under their lock; -1 with the error set.
int LockedSettings(UniqueFd* lock, std::vector<AdoptedVolume>* adopted) {
  *lock = vela::platform::LockVolumeSettings();
  if (!lock->Valid()) return SystemError();
  std::string problem;
  if (!vela::platform::ReadVolumeSettings(adopted, &problem)) {
    return SetError(problem.empty() ? VLIB_ERR_SYSTEM : VLIB_ERR_BAD_PARAMETERS);
  }
  return 0;
}

const MountedVolume* MountedAt(const std::vector<MountedVolume>& volumes, int number) {
  for (const MountedVolume& volume : volumes) {
    if (volume.number == number) return &volume;
  }
  return nullptr;
}

const AdoptedVolume* AdoptedAs(const std::vector<AdoptedVolume>& adopted, int number) {
  for (const AdoptedVolume& volume : adopted) {
    if (volume.number == number) return &volume;
  }
  return nullptr;
}

// An adopted volume with the settings locked, and the mounts of now.
struct Adoption {
  UniqueFd lock;
  std::vector<AdoptedVolume> adopted;
  const AdoptedVolume* entry = nullptr;
  std::vector<MountedVolume> volumes;
  std::vector<Mount> mounts;
};

// -1 with the error set (VLIB_ERR_NOT_FOUND when `number` is not adopted).
int LoadAdoption(int number, Adoption* adoption) {
  if (LockedSettings(&adoption->lock, &adoption->adopted) != 0) return -1;
  adoption->entry = AdoptedAs(adoption->adopted, number);
  if (adoption->entry == nullptr) return SetError(VLIB_ERR_NOT_FOUND);
  return vela::platform::ReadMountedVolumes(&adoption->volumes, &adoption->mounts) ? 0 : SetError(VLIB_ERR_SYSTEM);
}

// Whether what is mounted at the volume's path is the adopted file system.
bool HoldsAdopted(const MountedVolume* mounted, const AdoptedVolume& adopted) {
  return mounted != nullptr && mounted->Btrfs() && FileSystemUuid(mounted->path) == adopted.uuid;
}

}  // namespace

int VELAVolumeAdopt(const char* szPath, int volume, int* pVolume) {
  if (szPath == nullptr || volume < 0 || pVolume == nullptr) return SetError(VLIB_ERR_BAD_PARAMETERS);
  return GuardedCall([&] {
    char* resolvedText = realpath(szPath, nullptr);
    if (resolvedText == nullptr) return SetError(errno == ENOENT || errno == ENOTDIR ? VLIB_ERR_NOT_FOUND : VLIB_ERR_SYSTEM);
    const std::string resolved = resolvedText;
    free(resolvedText);
    struct statfs fs;
    if (statfs(resolved.c_str(), &fs) != 0) return SetError(VLIB_ERR_SYSTEM);
    if (fs.f_type != BTRFS_SUPER_MAGIC) return SetError(VLIB_ERR_BAD_FS_TYPE);

    UniqueFd lock;
    std::vector<AdoptedVolume> adopted;
    if (LockedSettings(&lock, &adopted) != 0) return -1;
    std::vector<MountedVolume> volumes;
    std::vector<Mount> mounts;
    if (!vela::platform::ReadMountedVolumes(&volumes, &mounts)) return SetError(VLIB_ERR_SYSTEM);
    const Mount* holder = nullptr;
    for (const Mount& mount : mounts) {
      if (IsPathPrefix(mount.point, resolved) && (holder == nullptr || mount.point.size() >= holder->point.size())) {
        holder = &mount;
      }
    }
    const std::string uuid = FileSystemUuid(resolved);
    if (holder == nullptr || holder->fsType != "btrfs" || uuid.empty()) return SetError(VLIB_ERR_SYSTEM);
    // A file system is one volume at most.
    for (const MountedVolume& mounted : volumes) {
      if (mounted.mount.device == holder->device) return SetError(VLIB_ERR_EXISTS);
    }
    for (const AdoptedVolume& known : adopted) {
      if (known.uuid == uuid) return SetError(VLIB_ERR_EXISTS);
    }
    int number = volume;
    if (number == 0) {
      for (number = 1; MountedAt(volumes, number) != nullptr || AdoptedAs(adopted, number) != nullptr; ++number) {
      }
    } else if (MountedAt(volumes, number) != nullptr || AdoptedAs(adopted, number) != nullptr) {
      return SetError(VLIB_ERR_EXISTS);
    }
    if (!MountTopLevel(holder->source, holder, number)) {
      return SetError(errno == ENOTEMPTY ? VLIB_ERR_EXISTS : VLIB_ERR_SYSTEM);
    }
    adopted.push_back({number, uuid});
    if (!vela::platform::WriteVolumeSettings(adopted)) {
      const int writeError = errno;
      umount2(VolumePath(number).c_str(), 0);  // not kept, so not left mounted either
      errno = writeError;
      return SetError(VLIB_ERR_SYSTEM);
    }
    *pVolume = number;
    return 0;
  });
}

int VELAVolumeRelease(int volume) {
  if (volume < 1) return SetError(VLIB_ERR_BAD_PARAMETERS);
  return GuardedCall([&] {
    Adoption adoption;
    if (LoadAdoption(volume, &adoption) != 0) return -1;
    const MountedVolume* mounted = MountedAt(adoption.volumes, volume);
    // Only the adopted file system is unmounted; whatever else is there now
    // was put there by someone else.
    if (HoldsAdopted(mounted, *adoption.entry) && umount2(mounted->path.c_str(), 0) != 0) {
      return SetError(errno == EBUSY ? VLIB_ERR_BUSY : VLIB_ERR_SYSTEM);
    }
    adoption.adopted.erase(adoption.adopted.begin() + (adoption.entry - adoption.adopted.data()));
    return vela::platform::WriteVolumeSettings(adoption.adopted) ? 0 : SetError(VLIB_ERR_SYSTEM);
  });
}

int VELAVolumeRestore(int volume) {
  if (volume < 1) return SetError(VLIB_ERR_BAD_PARAMETERS);
  return GuardedCall([&] {
    Adoption adoption;
    if (LoadAdoption(volume, &adoption) != 0) return -1;
    const std::string& uuid = adoption.entry->uuid;
    if (const MountedVolume* mounted = MountedAt(adoption.volumes, volume)) {
      return HoldsAdopted(mounted, *adoption.entry) ? 0 : SetError(VLIB_ERR_EXISTS);
    }
    // Where the file system is mounted already (by the system's own mounts
    // at boot), its top level is mounted from there with those options.
    std::vector<std::string> tried;
    for (const Mount& mount : adoption.mounts) {
      if (mount.fsType != "btrfs" || std::find(tried.begin(), tried.end(), mount.device) != tried.end()) continue;
      tried.push_back(mount.device);
      if (FileSystemUuid(mount.point) != uuid) continue;
      return MountTopLevel(mount.source, &mount, volume) ? 0 : SetError(VLIB_ERR_SYSTEM);
    }
    const std::string device = kDeviceByUuid + uuid;
    struct stat st;
    if (stat(device.c_str(), &st) != 0 || !S_ISBLK(st.st_mode)) return SetError(VLIB_ERR_NOT_FOUND);
    return MountTopLevel(device, nullptr, volume) ? 0 : SetError(VLIB_ERR_SYSTEM);
  });
}

int VELAVolumeEnum(PVELAVOLUME* ppVolumes) {
  if (ppVolumes == nullptr) return SetError(VLIB_ERR_BAD_PARAMETERS);
  return GuardedCall([&] {
    std::vector<AdoptedVolume> adopted;
    std::string problem;
    if (!vela::platform::ReadVolumeSettings(&adopted, &problem)) {
      return SetError(problem.empty() ? VLIB_ERR_SYSTEM : VLIB_ERR_BAD_PARAMETERS);
    }
    std::vector<MountedVolume> mounted;
    if (!vela::platform::ReadMountedVolumes(&mounted)) return SetError(VLIB_ERR_SYSTEM);
    std::map<int, VELAVOLUME> byNumber;
    for (const AdoptedVolume& volume : adopted) {
      VELAVOLUME& entry = byNumber[volume.number];
      entry.adopted = TRUE;
      snprintf(entry.szUuid, sizeof(entry.szUuid), "%s", volume.uuid.c_str());
    }
    for (const MountedVolume& volume : mounted) {
      VELAVOLUME& entry = byNumber[volume.number];
      entry.mounted = TRUE;
      entry.fsType = vela::platform::FsTypeCode(volume.mount.fsType);
      snprintf(entry.szDevice, sizeof(entry.szDevice), "%s", volume.mount.source.c_str());
      const std::string uuid = volume.Btrfs() ? FileSystemUuid(volume.path) : "";
      snprintf(entry.szUuid, sizeof(entry.szUuid), "%s", uuid.c_str());
      struct statvfs fs;
      if (statvfs(volume.path.c_str(), &fs) == 0) {
        entry.sizeBytes = static_cast<unsigned long long>(fs.f_blocks) * fs.f_frsize;
        entry.freeBytes = static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
      }
    }
    *ppVolumes = nullptr;
    if (byNumber.empty()) return 0;
    auto* list = static_cast<PVELAVOLUME>(calloc(byNumber.size(), sizeof(VELAVOLUME)));
    if (list == nullptr) return SetError(VLIB_ERR_OUT_OF_MEMORY);
    size_t i = 0;
    for (auto& [number, entry] : byNumber) {
      entry.volume = number;
      snprintf(entry.szPath, sizeof(entry.szPath), "%s", VolumePath(number).c_str());
      list[i++] = entry;
    }
    *ppVolumes = list;
    return static_cast<int>(byNumber.size());
  });
}

void VELAVolumeEnumFree(PVELAVOLUME pVolumes) { free(pVolumes); }
