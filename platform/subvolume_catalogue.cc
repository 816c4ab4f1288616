#include "subvolume_catalogue.h"

#include <btrfsutil.h>
#include <fcntl.h>
#include <linux/btrfs_tree.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include "base/numbers.h"
#include "base/unique_fd.h"
#include "snapshot_tool.h"

namespace vela::platform {

namespace {

using vela::base::UniqueFd;

// A subvolume deleted between the iterator's steps fails the walk; the
// next walk no longer meets it.
constexpr int kReadAttempts = 3;

using Uuid = std::array<uint8_t, 16>;

Uuid ToUuid(const uint8_t* bytes) {
  Uuid uuid;
  std::copy(bytes, bytes + 16, uuid.begin());
  return uuid;
}

bool IsZero(const uint8_t* bytes) {
  return std::all_of(bytes, bytes + 16, [](uint8_t b) { return b == 0; });
}

// Subvolume IDs mounted from this file system anywhere but at `mountPath`.
std::set<uint64_t> MountedElsewhere(const Mount& mount, const std::string& mountPath,
                                    const std::vector<Mount>& mounts) {
  std::set<uint64_t> ids;
  for (const Mount& other : mounts) {
    std::string value;
    uint64_t id = 0;
    if (other.device == mount.device && other.point != mountPath && FindOption(other.superOptions, "subvolid", &value) &&
        vela::base::ParseRootId(value.c_str(), id)) {
      ids.insert(id);
    }
  }
  return ids;
}

// One walk over the subvolumes; false with errno and `error` set.
bool ListSubvolumes(int fd, std::vector<Subvolume>* subvolumes, btrfs_util_error* error) {
  btrfs_util_subvolume_iterator* iterator = nullptr;
  *error = btrfs_util_create_subvolume_iterator_fd(fd, 0, 0, &iterator);
  if (*error != BTRFS_UTIL_OK) return false;
  subvolumes->clear();
  for (;;) {
    char* path = nullptr;
    struct btrfs_util_subvolume_info info;
    *error = btrfs_util_subvolume_iterator_next_info(iterator, &path, &info);
    if (*error != BTRFS_UTIL_OK) break;
    Subvolume subvolume;
    subvolume.id = info.id;
    subvolume.path = path;
    free(path);
    std::copy(info.uuid, info.uuid + 16, subvolume.uuid);
    std::copy(info.parent_uuid, info.parent_uuid + 16, subvolume.parentUuid);
    subvolume.received = !IsZero(info.received_uuid);
    subvolume.readOnly = (info.flags & BTRFS_ROOT_SUBVOL_RDONLY) != 0;
    subvolume.otime = info.otime;
    subvolumes->push_back(std::move(subvolume));
  }
  const int walkErrno = errno;
  btrfs_util_destroy_subvolume_iterator(iterator);
  errno = walkErrno;
  if (*error != BTRFS_UTIL_ERROR_STOP_ITERATION) return false;
  *error = BTRFS_UTIL_OK;
  return true;
}

bool IsHidden(const Subvolume& subvolume) { return SubvolumeName(subvolume)[0] == '.'; }

void SortOutRoles(std::vector<Subvolume>& subvolumes, const std::set<uint64_t>& inUseIds) {
  // A parent is always older than its snapshots, so with the subvolumes in
  // ID order every parent's role is known before its snapshots are met.
  std::sort(subvolumes.begin(), subvolumes.end(), [](const Subvolume& a, const Subvolume& b) { return a.id < b.id; });
  std::map<Uuid, size_t> byUuid;
  for (size_t i = 0; i < subvolumes.size(); ++i) byUuid[ToUuid(subvolumes[i].uuid)] = i;
  std::set<size_t> originsOfReadOnly;
  for (const Subvolume& s : subvolumes) {
    const auto parent = byUuid.find(ToUuid(s.parentUuid));
    if (s.readOnly && !IsZero(s.parentUuid) && parent != byUuid.end()) originsOfReadOnly.insert(parent->second);
  }
  for (size_t i = 0; i < subvolumes.size(); ++i) {
    Subvolume& s = subvolumes[i];
    s.role = SubvolumeRole::kNone;
    if (s.received) continue;
    const auto parent = IsZero(s.parentUuid) ? byUuid.end() : byUuid.find(ToUuid(s.parentUuid));
    const bool ofShare = parent != byUuid.end() && subvolumes[parent->second].role == SubvolumeRole::kShare;
    bool share = false;
    if (IsZero(s.parentUuid)) {
      share = true;
    } else if (s.readOnly) {
      if (!ofShare) continue;
      s.role = SubvolumeRole::kSnapshot;
      s.share = parent->second;
      continue;
    } else {
      const bool inUse = inUseIds.count(s.id) != 0 || originsOfReadOnly.count(i) != 0;
      if (!inUse && ofShare) {
        s.role = SubvolumeRole::kSnapshot;
        s.share = parent->second;
        continue;
      }
      share = inUse || strcmp(SnapshotToolOf(s.path), "other") == 0;
    }
    if (share && !IsHidden(s)) s.role = SubvolumeRole::kShare;
  }
}

}  // namespace

std::string SubvolumeName(const Subvolume& subvolume) {
  const size_t slash = subvolume.path.rfind('/');
  return slash == std::string::npos ? subvolume.path : subvolume.path.substr(slash + 1);
}

bool ReadVolumeCatalogue(int volume, const std::string& mountPath, const Mount& mount,
                         const std::vector<Mount>& mounts, VolumeCatalogue* catalogue) {
  UniqueFd fd(open(mountPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.Valid()) return false;
  std::set<uint64_t> inUse = MountedElsewhere(mount, mountPath, mounts);
  uint64_t defaultId = 0;
  if (btrfs_util_get_default_subvolume_fd(fd.Get(), &defaultId) != BTRFS_UTIL_OK) return false;
  inUse.insert(defaultId);
  catalogue->volume = volume;
  catalogue->mountPath = mountPath;
  btrfs_util_error error = BTRFS_UTIL_OK;
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    if (ListSubvolumes(fd.Get(), &catalogue->subvolumes, &error)) {
      SortOutRoles(catalogue->subvolumes, inUse);
      return true;
    }
    // Only a subvolume that vanished under the walk is worth a new one.
    if (errno != ENOENT) break;
  }
  if (errno == 0) errno = EIO;
  return false;
}

}  // namespace vela::platform
