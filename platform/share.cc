#include "vela/vela_share.h"

#include <btrfsutil.h>
#include <fcntl.h>
#include <linux/btrfs_tree.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "guarded_call.h"
#include "share_catalogue.h"
#include "snapshot_names.h"
#include "snapshot_tool.h"
#include "snapshot_view.h"
#include "vela/vela_volume.h"
#include "vela/vlib_error.h"

// A link of a selector chain: the kind and its own copy of the argument.
struct _tag_VELASNAPSELECTOR {
  VELASNAPSELECTOR_FN fn;
  char* szArg;
  PVELASNAPSELECTOR pNext;
};

namespace {

using vela::base::UniqueFd;
using vela::platform::GuardedCall;
using vela::platform::ListedSnapshot;
using vela::platform::ParseSnapName;
using vela::platform::ShareCatalogue;

constexpr mode_t kSnapshotDirMode = 0755;

// A name that can be one entry of a directory.
bool IsEntryName(const char* name) {
  return name != nullptr && VELAShareNameIsValid(name, strlen(name));
}

// Names beginning with "." are the system's own subvolumes, never shares.
bool IsShareName(const char* name) { return IsEntryName(name) && name[0] != '.'; }

UniqueFd OpenDir(const char* path) { return UniqueFd(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)); }

// A share record carries paths that are used to build others; one that
// could lead outside its volume's directories is refused.
bool IsValidShare(const VELASHARE* share) {
  if (share == nullptr || !IsEntryName(share->szName)) return false;
  VOLUME_PATH_INFO info;
  return VolumePathParseEx(share->szVolPath, &info) == 0 && strcmp(share->szVolPath, info.szVolPath) == 0 &&
         info.volume == share->volume;
}

// The share's snapshots as they are now. False with the error set:
// VLIB_ERR_NOT_FOUND when the share is gone from its volume.
bool CurrentSnapshots(const VELASHARE* share, std::vector<ListedSnapshot>* snapshots) {
  ShareCatalogue catalogue;
  size_t volume = 0, subvolume = 0;
  if (!catalogue.ReadOne(share->volume)) {
    VLIBCErrSet(errno == ENOENT ? VLIB_ERR_NOT_FOUND : VLIB_ERR_SYSTEM);
    return false;
  }
  if (!catalogue.FindByUuid(share->volume, share->uuid, &volume, &subvolume)) {
    VLIBCErrSet(VLIB_ERR_NOT_FOUND);
    return false;
  }
  *snapshots = catalogue.Snapshots(volume, subvolume);
  return true;
}

bool PassesAll(const VELASNAPSELECTOR* selectors, const char* name) {
  for (const VELASNAPSELECTOR* s = selectors; s != nullptr; s = s->pNext) {
    if (s->fn(name, s->szArg) != 1) return false;
  }
  return true;
}

enum class Op { kGreaterEqual, kLessEqual, kGreater, kLess, kEqual };

bool ParseTimeArg(const char* arg, Op* op, time_t* time) {
  if (arg == nullptr) return false;
  static const std::pair<const char*, Op> kOps[] = {
      {">=", Op::kGreaterEqual}, {"<=", Op::kLessEqual}, {">", Op::kGreater}, {"<", Op::kLess}, {"=", Op::kEqual}};
  for (const auto& [text, kind] : kOps) {
    const size_t length = strlen(text);
    if (strncmp(arg, text, length) == 0) {
      *op = kind;
      return ParseSnapName(arg + length, time);
    }
  }
  return false;
}

// Any valid name: a selector that cannot tell for it cannot understand its
// argument.
constexpr char kProbeSnapName[] = "GMT-1970.01.01-00.00.00";

// Makes directory `name` in `dirFd` unless it is there, and opens it.
UniqueFd EnsureDir(int dirFd, const char* name) {
  const bool made = mkdirat(dirFd, name, kSnapshotDirMode) == 0;
  if (!made && errno != EEXIST) return UniqueFd();
  UniqueFd dir(openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (made && dir.Valid() && fchmod(dir.Get(), kSnapshotDirMode) != 0) return UniqueFd();  // whatever the umask
  return dir;
}

// The share's own subvolume, opened; invalid with the error set when what
// lies at its path is not that subvolume any more.
UniqueFd OpenShare(const VELASHARE* share) {
  UniqueFd fd(open(share->szPath, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct btrfs_util_subvolume_info info;
  if (!fd.Valid() || btrfs_util_subvolume_info_fd(fd.Get(), 0, &info) != BTRFS_UTIL_OK ||
      !std::equal(info.uuid, info.uuid + 16, share->uuid)) {
    VLIBCErrSet(VLIB_ERR_NOT_FOUND);
    return UniqueFd();
  }
  return fd;
}

int ErrorOfErrno() { return errno == EEXIST ? VLIB_ERR_EXISTS : VLIB_ERR_SYSTEM; }

void FillSnapInfo(const ListedSnapshot& snapshot, VELASNAPINFO* info) {
  snprintf(info->szName, sizeof(info->szName), "%s", snapshot.name.c_str());
  info->time = snapshot.otime.tv_sec;
  info->subvolId = snapshot.id;
  info->readOnly = snapshot.readOnly ? TRUE : FALSE;
  snprintf(info->szTool, sizeof(info->szTool), "%s", snapshot.tool);
  snprintf(info->szPath, sizeof(info->szPath), "%s", snapshot.path.c_str());
}

bool IsZeroUuid(const uint8_t* uuid) { return std::all_of(uuid, uuid + 16, [](uint8_t b) { return b == 0; }); }

// Deletes subvolume `id` of the file system open at `fd` if it is a
// read-only snapshot of `share` (IDs are never reused while a subvolume
// exists, so the one looked at is the one deleted).
int DeleteReadOnlySnapshotById(int fd, uint64_t id, const VELASHARE* share) {
  struct btrfs_util_subvolume_info info;
  if (btrfs_util_subvolume_info_fd(fd, id, &info) != BTRFS_UTIL_OK) {
    VLIBCErrSet(errno == ENOENT ? VLIB_ERR_NOT_FOUND : VLIB_ERR_SYSTEM);
    return -1;
  }
  if (!std::equal(info.parent_uuid, info.parent_uuid + 16, share->uuid) || !IsZeroUuid(info.received_uuid)) {
    VLIBCErrSet(VLIB_ERR_NOT_FOUND);
    return -1;
  }
  if ((info.flags & BTRFS_ROOT_SUBVOL_RDONLY) == 0) {
    VLIBCErrSet(VLIB_ERR_WRITABLE);
    return -1;
  }
  if (btrfs_util_delete_subvolume_by_id_fd(fd, id) != BTRFS_UTIL_OK) {
    // The kernel's refusals of a subvolume in use: being sent or a swap
    // file's (EBUSY), the default subvolume (EPERM), one holding
    // subvolumes (ENOTEMPTY).
    const bool inUse = errno == EBUSY || errno == EPERM || errno == ENOTEMPTY;
    const int saved = errno;
    VLIBCErrSet(inUse ? VLIB_ERR_BUSY : VLIB_ERR_SYSTEM);
    errno = saved;
    return -1;
  }
  return 0;
}

}  // namespace

BOOL VELAShareNameIsValid(const char* sz, size_t length) {
  if (sz == nullptr || length == 0 || length > 255 || memchr(sz, '\0', length) != nullptr ||
      memchr(sz, '/', length) != nullptr) {
    return FALSE;
  }
  const std::string name(sz, length);
  return name != "." && name != ".." ? TRUE : FALSE;
}

int VELAShareGet(const char* szName, PVELASHARE* ppShare) {
  if (!IsEntryName(szName) || ppShare == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  return GuardedCall([&] {
    ShareCatalogue catalogue;
    if (!catalogue.ReadAll()) {
      VLIBCErrSet(VLIB_ERR_SYSTEM);
      return -1;
    }
    const vela::platform::NamedShare* found = catalogue.Find(szName);
    if (found == nullptr) {
      VLIBCErrSet(VLIB_ERR_NOT_FOUND);
      return -1;
    }
    const vela::platform::VolumeCatalogue& volume = catalogue.Volumes()[found->volume];
    const vela::platform::Subvolume& subvolume = catalogue.SubvolumeOf(*found);
    auto* record = static_cast<PVELASHARE>(calloc(1, sizeof(VELASHARE)));
    if (record == nullptr) {
      VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
      return -1;
    }
    snprintf(record->szName, sizeof(record->szName), "%s", szName);
    snprintf(record->szPath, sizeof(record->szPath), "%s/%s", volume.mountPath.c_str(), subvolume.path.c_str());
    snprintf(record->szVolPath, sizeof(record->szVolPath), "%s", volume.mountPath.c_str());
    record->volume = volume.volume;
    record->subvolId = subvolume.id;
    memcpy(record->uuid, subvolume.uuid, sizeof(record->uuid));
    *ppShare = record;
    return 0;
  });
}

void VELAShareFree(PVELASHARE pShare) { free(pShare); }

int VELAShareEnum(PVLIBSZLIST* ppList, int /*flags*/) {
  if (ppList == nullptr || *ppList == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  return GuardedCall([&] {
    ShareCatalogue catalogue;
    if (!catalogue.ReadAll()) {
      VLIBCErrSet(VLIB_ERR_SYSTEM);
      return -1;
    }
    for (const auto& share : catalogue.Shares()) {
      if (VLIBCSzListPush(ppList, share.name.c_str()) < 0) return -1;
    }
    return static_cast<int>(catalogue.Shares().size());
  });
}

int VELAShareSnapTimeSelector(const char* szSnapName, const char* szArg) {
  Op op;
  time_t bound, time;
  if (!ParseTimeArg(szArg, &op, &bound) || !ParseSnapName(szSnapName, &time)) return -1;
  switch (op) {
    case Op::kGreaterEqual: return time >= bound;
    case Op::kLessEqual: return time <= bound;
    case Op::kGreater: return time > bound;
    case Op::kLess: return time < bound;
    case Op::kEqual: return time == bound;
  }
  return -1;
}

int VELAShareSnapSelectorAdd(PVELASNAPSELECTOR* ppSelectors, VELASNAPSELECTOR_FN fn, const char* szArg) {
  if (ppSelectors == nullptr || fn == nullptr || szArg == nullptr || fn(kProbeSnapName, szArg) < 0) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  auto* link = static_cast<PVELASNAPSELECTOR>(calloc(1, sizeof(VELASNAPSELECTOR)));
  char* arg = strdup(szArg);
  if (link == nullptr || arg == nullptr) {
    free(link);
    free(arg);
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  link->fn = fn;
  link->szArg = arg;
  PVELASNAPSELECTOR* tail = ppSelectors;
  while (*tail != nullptr) tail = &(*tail)->pNext;
  *tail = link;
  return 0;
}

void VELAShareSnapEnumFree(PVELASNAPSELECTOR pSelectors) {
  while (pSelectors != nullptr) {
    PVELASNAPSELECTOR next = pSelectors->pNext;
    free(pSelectors->szArg);
    free(pSelectors);
    pSelectors = next;
  }
}

int VELAShareSnapList(PVELASHARE pShare, PVLIBSZLIST* ppNames, PVELASNAPSELECTOR pSelectors) {
  if (!IsValidShare(pShare) || ppNames == nullptr || *ppNames == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  return GuardedCall([&] {
    std::vector<ListedSnapshot> snapshots;
    if (!CurrentSnapshots(pShare, &snapshots)) return -1;
    int pushed = 0;
    for (const ListedSnapshot& snapshot : snapshots) {
      if (!PassesAll(pSelectors, snapshot.name.c_str())) continue;
      if (VLIBCSzListPush(ppNames, snapshot.name.c_str()) < 0) return -1;
      ++pushed;
    }
    return pushed;
  });
}

int VELAShareSnapInfoList(PVELASHARE pShare, PVELASNAPINFO* ppInfo) {
  if (!IsValidShare(pShare) || ppInfo == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  return GuardedCall([&] {
    std::vector<ListedSnapshot> snapshots;
    if (!CurrentSnapshots(pShare, &snapshots)) return -1;
    *ppInfo = nullptr;
    if (snapshots.empty()) return 0;
    auto* infos = static_cast<PVELASNAPINFO>(calloc(snapshots.size(), sizeof(VELASNAPINFO)));
    if (infos == nullptr) {
      VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
      return -1;
    }
    for (size_t i = 0; i < snapshots.size(); ++i) FillSnapInfo(snapshots[i], &infos[i]);
    *ppInfo = infos;
    return static_cast<int>(snapshots.size());
  });
}

void VELAShareSnapInfoFree(PVELASNAPINFO pInfo) { free(pInfo); }

int VELAShareSnapGetOrCreateSnapDir(PVELASHARE pShare, char* buf, int size, int flags) {
  if (!IsValidShare(pShare) || buf == nullptr || size <= 0 || flags != 0) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  return GuardedCall([&] {
    const std::string path = vela::platform::SnapshotViewDir(pShare->volume, pShare->szName);
    if (path.size() >= static_cast<size_t>(size)) {
      VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
      return -1;
    }
    // Only for a share that is there: a stale record leaves nothing behind.
    std::vector<ListedSnapshot> snapshots;
    if (!CurrentSnapshots(pShare, &snapshots)) return -1;
    int listError = VLIB_ERR_NONE;
    std::string refusal;
    const bool built = vela::platform::RebuildSnapshotView(
        pShare->volume, pShare->szName,
        [&](std::vector<std::pair<std::string, std::string>>* links) {
          if (!CurrentSnapshots(pShare, &snapshots)) {
            listError = VLIBCErrGet();
            return false;
          }
          for (const ListedSnapshot& snapshot : snapshots) links->emplace_back(snapshot.name, snapshot.path);
          return true;
        },
        &refusal);
    if (!built) {
      VLIBCErrSet(listError != VLIB_ERR_NONE ? listError : VLIB_ERR_SYSTEM);
      return -1;
    }
    memcpy(buf, path.c_str(), path.size() + 1);
    return 1;
  });
}

int VELAShareSnapTimeGet(const char* szSnapName, time_t* pTime) {
  time_t time;
  if (pTime == nullptr || !ParseSnapName(szSnapName, &time)) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  *pTime = time;
  return 0;
}

int VELAShareSnapNameMake(time_t t, BOOL localTime, char* buf, size_t size) {
  if (buf == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  if (!vela::platform::MakeSnapName(t, localTime == TRUE, buf, size)) {
    VLIBCErrSet(VLIB_ERR_OPERATION_FAILED);
    return -1;
  }
  return 0;
}

int VELAShareCreate(int volume, const char* szName) {
  if (volume < 1 || !IsShareName(szName)) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  return GuardedCall([&] {
    VELAMOUNTVOLINFO info;
    char volumePath[64];
    if (VELAVolumePathGet(volume, volumePath, sizeof(volumePath)) != 0) return -1;
    if (VELAMountVolInfoGet(volumePath, &info) != 0 || info.volume != volume) {
      VLIBCErrSet(VLIB_ERR_NOT_FOUND);
      return -1;
    }
    if (info.fsType != VELA_FS_TYPE_BTRFS) {
      VLIBCErrSet(VLIB_ERR_BAD_FS_TYPE);
      return -1;
    }
    // Shares are found by name alone, so a name is taken on every volume
    // once one of them has a share of that name.
    PVELASHARE existing = nullptr;
    if (VELAShareGet(szName, &existing) == 0) {
      VELAShareFree(existing);
      VLIBCErrSet(VLIB_ERR_EXISTS);
      return -1;
    }
    UniqueFd dir(OpenDir(volumePath));
    struct stat st;
    if (dir.Valid() && fstatat(dir.Get(), szName, &st, AT_SYMLINK_NOFOLLOW) == 0) {
      VLIBCErrSet(VLIB_ERR_EXISTS);
      return -1;
    }
    if (!dir.Valid() || btrfs_util_create_subvolume_fd(dir.Get(), szName, 0, nullptr, nullptr) != BTRFS_UTIL_OK) {
      VLIBCErrSet(ErrorOfErrno());
      return -1;
    }
    return 0;
  });
}

int VELAShareSnapCreate(PVELASHARE pShare, const char* szSnapName) {
  time_t time;
  if (!IsValidShare(pShare) || !IsEntryName(szSnapName) || !ParseSnapName(szSnapName, &time)) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  UniqueFd share(OpenShare(pShare));
  if (!share.Valid()) return -1;
  UniqueFd volume(OpenDir(pShare->szVolPath));
  UniqueFd root = volume.Valid() ? EnsureDir(volume.Get(), vela::platform::kOwnSnapshotRoot) : UniqueFd();
  UniqueFd dir = root.Valid() ? EnsureDir(root.Get(), pShare->szName) : UniqueFd();
  if (!dir.Valid()) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  struct stat st;
  if (fstatat(dir.Get(), szSnapName, &st, AT_SYMLINK_NOFOLLOW) == 0) {
    VLIBCErrSet(VLIB_ERR_EXISTS);
    return -1;
  }
  if (btrfs_util_create_snapshot_fd2(share.Get(), dir.Get(), szSnapName, BTRFS_UTIL_CREATE_SNAPSHOT_READ_ONLY,
                                     nullptr, nullptr) != BTRFS_UTIL_OK) {
    VLIBCErrSet(ErrorOfErrno());
    return -1;
  }
  return 0;
}

int VELAShareSnapDelete(PVELASHARE pShare, const char* szSnapName) {
  time_t time;
  if (!IsValidShare(pShare) || !IsEntryName(szSnapName) || !ParseSnapName(szSnapName, &time)) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  return GuardedCall([&] {
    std::vector<ListedSnapshot> snapshots;
    if (!CurrentSnapshots(pShare, &snapshots)) return -1;
    const auto found = std::find_if(snapshots.begin(), snapshots.end(), [&](const ListedSnapshot& s) {
      return s.name == szSnapName && strcmp(s.tool, "vela-share") == 0;
    });
    if (found == snapshots.end()) {
      VLIBCErrSet(VLIB_ERR_NOT_FOUND);
      return -1;
    }
    const size_t slash = found->path.rfind('/');
    UniqueFd dir(OpenDir(found->path.substr(0, slash).c_str()));
    if (!dir.Valid() ||
        btrfs_util_delete_subvolume_fd(dir.Get(), found->path.c_str() + slash + 1, 0) != BTRFS_UTIL_OK) {
      VLIBCErrSet(VLIB_ERR_SYSTEM);
      return -1;
    }
    return 0;
  });
}

int VELAShareSnapDeleteReadOnly(PVELASHARE pShare, unsigned long long subvolId) {
  if (!IsValidShare(pShare) || subvolId == 0) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  UniqueFd share(OpenShare(pShare));
  if (!share.Valid()) return -1;
  return DeleteReadOnlySnapshotById(share.Get(), subvolId, pShare);
}
