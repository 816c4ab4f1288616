#include "vela/vela_share.h"

#include <btrfsutil.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "mounts.h"
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

constexpr char kSnapshotRoot[] = "@snapshots";
constexpr mode_t kSnapshotDirMode = 0755;

struct Volume {
  int number;
  std::string path;  // "/volumeN"
  bool btrfs;
};

// Every file system mounted exactly at a "/volumeN", by N.
bool MountedVolumes(std::vector<Volume>* volumes) {
  std::vector<vela::platform::Mount> mounts;
  if (!vela::platform::ReadMounts(&mounts)) return false;
  std::map<int, Volume> byNumber;
  for (const auto& mount : mounts) {
    VOLUME_PATH_INFO info;
    if (VolumePathParseEx(mount.point.c_str(), &info) == 0 && mount.point == info.szVolPath) {
      byNumber[info.volume] = {info.volume, mount.point, mount.fsType == "btrfs"};
    }
  }
  volumes->clear();
  for (auto& [number, volume] : byNumber) volumes->push_back(std::move(volume));
  return true;
}

// A name that can be one entry of a directory.
bool IsEntryName(const char* name) {
  return name != nullptr && *name != '\0' && strlen(name) < sizeof(VELASHARE{}.szName) &&
         strchr(name, '/') == nullptr && strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

// Names beginning with "." or "@" are the system's own subvolumes (the
// snapshot root among them), never shares.
bool IsShareName(const char* name) { return IsEntryName(name) && name[0] != '.' && name[0] != '@'; }

UniqueFd OpenDir(const char* path) { return UniqueFd(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)); }

// The subvolume `name` right in directory `dirFd` (a link is no subvolume
// here), opened; -1 when it is none.
int OpenSubvolume(int dirFd, const char* name) {
  UniqueFd fd(openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.Get() < 0 || btrfs_util_is_subvolume_fd(fd.Get()) != BTRFS_UTIL_OK) return -1;
  return fd.Release();
}

bool IsReadOnlySubvolume(int dirFd, const char* name) {
  UniqueFd fd(OpenSubvolume(dirFd, name));
  bool readOnly = false;
  return fd.Get() >= 0 && btrfs_util_get_subvolume_read_only_fd(fd.Get(), &readOnly) == BTRFS_UTIL_OK &&
         readOnly;
}

// The names of the entries of a directory, in byte order.
bool EntryNames(int dirFd, std::vector<std::string>* names) {
  // A descriptor of its own: closedir() closes it, and it reads from the
  // start whatever was read through `dirFd`.
  UniqueFd fd(openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  DIR* dir = fd.Get() >= 0 ? fdopendir(fd.Get()) : nullptr;
  if (dir == nullptr) return false;
  fd.Release();
  errno = 0;
  while (const struct dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) names->emplace_back(entry->d_name);
  }
  const int readError = errno;
  closedir(dir);
  errno = readError;
  std::sort(names->begin(), names->end());
  return readError == 0;
}

// The share names of one volume, in byte order.
bool ShareNames(const Volume& volume, std::vector<std::string>* names) {
  UniqueFd dir(OpenDir(volume.path.c_str()));
  std::vector<std::string> entries;
  if (dir.Get() < 0 || !EntryNames(dir.Get(), &entries)) return false;
  for (const std::string& name : entries) {
    UniqueFd share(IsShareName(name.c_str()) ? OpenSubvolume(dir.Get(), name.c_str()) : -1);
    if (share.Get() >= 0) names->push_back(name);
  }
  return true;
}

// A share record carries paths that are used to build others; one that
// could lead outside its volume's snapshot directory is refused.
bool IsValidShare(const VELASHARE* share) {
  if (share == nullptr || !IsShareName(share->szName)) return false;
  VOLUME_PATH_INFO info;
  return VolumePathParseEx(share->szVolPath, &info) == 0 && strcmp(share->szVolPath, info.szVolPath) == 0;
}

std::string SnapshotRoot(const VELASHARE* share) {
  return std::string(share->szVolPath) + "/" + kSnapshotRoot;
}

std::string SnapshotDir(const VELASHARE* share) { return SnapshotRoot(share) + "/" + share->szName; }

// Makes directory `name` in `dirFd` unless it is there. False with errno.
bool EnsureDir(int dirFd, const char* name) {
  if (mkdirat(dirFd, name, kSnapshotDirMode) == 0) return true;
  struct stat st;
  if (errno != EEXIST) return false;
  if (fstatat(dirFd, name, &st, 0) != 0) return false;
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return false;
  }
  return true;
}

bool ParseDigits(const char* text, int count, int* value) {
  *value = 0;
  for (int i = 0; i < count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    *value = *value * 10 + (text[i] - '0');
  }
  return true;
}

bool IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysInMonth(int year, int month) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// "YYYY.MM.DD-HH.MM.SS" and nothing after it, as UTC.
bool ParseUtcStamp(const char* text, time_t* time) {
  if (strlen(text) != 19 || text[4] != '.' || text[7] != '.' || text[10] != '-' || text[13] != '.' ||
      text[16] != '.') {
    return false;
  }
  int year, month, day, hour, minute, second;
  if (!ParseDigits(text, 4, &year) || !ParseDigits(text + 5, 2, &month) || !ParseDigits(text + 8, 2, &day) ||
      !ParseDigits(text + 11, 2, &hour) || !ParseDigits(text + 14, 2, &minute) ||
      !ParseDigits(text + 17, 2, &second)) {
    return false;
  }
  if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month) || hour > 23 || minute > 59 ||
      second > 59) {
    return false;
  }
  struct tm broken = {};
  broken.tm_year = year - 1900;
  broken.tm_mon = month - 1;
  broken.tm_mday = day;
  broken.tm_hour = hour;
  broken.tm_min = minute;
  broken.tm_sec = second;
  *time = timegm(&broken);
  return true;
}

// "GMT-" + stamp (UTC), or "GMT" + sign + HH [+ MM when not 00] + "-" +
// stamp (local time at that offset from UTC).
bool ParseSnapName(const char* name, time_t* time) {
  if (name == nullptr || strncmp(name, "GMT", 3) != 0) return false;
  const char* p = name + 3;
  if (p[0] != '+' && p[0] != '-') return false;
  const int sign = p[0] == '+' ? 1 : -1;
  int hours = 0, minutes = 0;
  const char* stamp;
  if (p[0] == '-' && ParseDigits(p + 1, 4, &hours) && p[5] == '.') {
    hours = 0;  // the UTC form: the digits were the year
    stamp = p + 1;
  } else if (ParseDigits(p + 1, 2, &hours) && p[3] == '-') {
    stamp = p + 4;
  } else if (ParseDigits(p + 1, 2, &hours) && ParseDigits(p + 3, 2, &minutes) && p[5] == '-' && minutes != 0) {
    stamp = p + 6;
  } else {
    return false;
  }
  // Zones in use lie between UTC-12 and UTC+14.
  if (hours > 14 || minutes > 59) return false;
  time_t local;
  if (!ParseUtcStamp(stamp, &local)) return false;
  *time = local - sign * (hours * 3600 + minutes * 60);
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

bool PassesAll(const VELASNAPSELECTOR* selectors, const char* name) {
  for (const VELASNAPSELECTOR* s = selectors; s != nullptr; s = s->pNext) {
    if (s->fn(name, s->szArg) != 1) return false;
  }
  return true;
}

int SnapList(const VELASHARE* share, PVLIBSZLIST* ppNames, const VELASNAPSELECTOR* selectors) {
  const std::string dirPath = SnapshotDir(share);
  UniqueFd dir(OpenDir(dirPath.c_str()));
  if (dir.Get() < 0) {
    if (errno == ENOENT) return 0;
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  std::vector<std::string> entries;
  if (!EntryNames(dir.Get(), &entries)) {
    VLIBCErrSet(VLIB_ERR_SYSTEM);
    return -1;
  }
  std::vector<std::pair<time_t, std::string>> snapshots;
  for (const std::string& name : entries) {
    time_t time;
    if (ParseSnapName(name.c_str(), &time) && IsReadOnlySubvolume(dir.Get(), name.c_str()) &&
        PassesAll(selectors, name.c_str())) {
      snapshots.emplace_back(time, name);
    }
  }
  std::sort(snapshots.begin(), snapshots.end());
  for (const auto& snapshot : snapshots) {
    if (VLIBCSzListPush(ppNames, snapshot.second.c_str()) < 0) return -1;
  }
  return static_cast<int>(snapshots.size());
}

// Creates the snapshot directory and returns it opened.
UniqueFd MakeSnapshotDir(const VELASHARE* share) {
  UniqueFd volume(OpenDir(share->szVolPath));
  if (volume.Get() < 0 || !EnsureDir(volume.Get(), kSnapshotRoot)) return UniqueFd();
  UniqueFd root(openat(volume.Get(), kSnapshotRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (root.Get() < 0 || !EnsureDir(root.Get(), share->szName)) return UniqueFd();
  return UniqueFd(openat(root.Get(), share->szName, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// The share's subvolume, opened; -1 with the error set when it is gone.
int OpenShare(const VELASHARE* share) {
  UniqueFd volume(OpenDir(share->szVolPath));
  const int fd = volume.Get() >= 0 ? OpenSubvolume(volume.Get(), share->szName) : -1;
  if (fd < 0) VLIBCErrSet(VLIB_ERR_NOT_FOUND);
  return fd;
}

int ErrorOfErrno() { return errno == EEXIST ? VLIB_ERR_EXISTS : VLIB_ERR_SYSTEM; }

}  // namespace

int VELAShareGet(const char* szName, PVELASHARE* ppShare) {
  if (!IsEntryName(szName) || ppShare == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  if (!IsShareName(szName)) {
    VLIBCErrSet(VLIB_ERR_NOT_FOUND);
    return -1;
  }
  try {
    std::vector<Volume> volumes;
    if (!MountedVolumes(&volumes)) {
      VLIBCErrSet(VLIB_ERR_SYSTEM);
      return -1;
    }
    for (const Volume& volume : volumes) {
      if (!volume.btrfs) continue;
      UniqueFd dir(OpenDir(volume.path.c_str()));
      UniqueFd share(dir.Get() >= 0 ? OpenSubvolume(dir.Get(), szName) : -1);
      if (share.Get() < 0) continue;
      auto* record = static_cast<PVELASHARE>(calloc(1, sizeof(VELASHARE)));
      if (record == nullptr) {
        VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
        return -1;
      }
      snprintf(record->szName, sizeof(record->szName), "%s", szName);
      snprintf(record->szPath, sizeof(record->szPath), "%s/%s", volume.path.c_str(), szName);
      snprintf(record->szVolPath, sizeof(record->szVolPath), "%s", volume.path.c_str());
      record->volume = volume.number;
      *ppShare = record;
      return 0;
    }
  } catch (const std::bad_alloc&) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  VLIBCErrSet(VLIB_ERR_NOT_FOUND);
  return -1;
}

void VELAShareFree(PVELASHARE pShare) { free(pShare); }

int VELAShareEnum(PVLIBSZLIST* ppList, int /*flags*/) {
  if (ppList == nullptr || *ppList == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  try {
    std::vector<Volume> volumes;
    if (!MountedVolumes(&volumes)) {
      VLIBCErrSet(VLIB_ERR_SYSTEM);
      return -1;
    }
    int pushed = 0;
    for (const Volume& volume : volumes) {
      std::vector<std::string> names;
      // A volume that cannot be read hides its own shares, not the others'.
      if (!volume.btrfs || !ShareNames(volume, &names)) continue;
      for (const std::string& name : names) {
        if (VLIBCSzListPush(ppList, name.c_str()) < 0) return -1;
        ++pushed;
      }
    }
    return pushed;
  } catch (const std::bad_alloc&) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
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
  try {
    return SnapList(pShare, ppNames, pSelectors);
  } catch (const std::bad_alloc&) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
}

int VELAShareSnapGetOrCreateSnapDir(PVELASHARE pShare, char* buf, int size, int flags) {
  if (!IsValidShare(pShare) || buf == nullptr || size <= 0 || flags != 0) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  try {
    const std::string path = SnapshotDir(pShare);
    if (path.size() >= static_cast<size_t>(size)) {
      VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
      return -1;
    }
    // Only for a share that is there: a stale record must not leave
    // directories on whatever now lies at its volume's path.
    UniqueFd share(OpenShare(pShare));
    if (share.Get() < 0) return -1;
    UniqueFd dir(MakeSnapshotDir(pShare));
    if (dir.Get() < 0) {
      VLIBCErrSet(VLIB_ERR_SYSTEM);
      return -1;
    }
    memcpy(buf, path.c_str(), path.size() + 1);
    return 1;
  } catch (const std::bad_alloc&) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
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

int VELAShareCreate(int volume, const char* szName) {
  if (volume < 1 || !IsShareName(szName)) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  try {
    std::vector<Volume> volumes;
    if (!MountedVolumes(&volumes)) {
      VLIBCErrSet(VLIB_ERR_SYSTEM);
      return -1;
    }
    const auto found = std::find_if(volumes.begin(), volumes.end(),
                                    [volume](const Volume& v) { return v.number == volume; });
    if (found == volumes.end()) {
      VLIBCErrSet(VLIB_ERR_NOT_FOUND);
      return -1;
    }
    if (!found->btrfs) {
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
    UniqueFd dir(OpenDir(found->path.c_str()));
    struct stat st;
    if (dir.Get() >= 0 && fstatat(dir.Get(), szName, &st, AT_SYMLINK_NOFOLLOW) == 0) {
      VLIBCErrSet(VLIB_ERR_EXISTS);
      return -1;
    }
    if (dir.Get() < 0 ||
        btrfs_util_create_subvolume_fd(dir.Get(), szName, 0, nullptr, nullptr) != BTRFS_UTIL_OK) {
      VLIBCErrSet(ErrorOfErrno());
      return -1;
    }
    return 0;
  } catch (const std::bad_alloc&) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
}

int VELAShareSnapCreate(PVELASHARE pShare, const char* szSnapName) {
  time_t time;
  if (!IsValidShare(pShare) || !IsEntryName(szSnapName) || !ParseSnapName(szSnapName, &time)) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  try {
    UniqueFd share(OpenShare(pShare));
    if (share.Get() < 0) return -1;
    UniqueFd dir(MakeSnapshotDir(pShare));
    if (dir.Get() < 0) {
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
  } catch (const std::bad_alloc&) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
}

int VELAShareSnapDelete(PVELASHARE pShare, const char* szSnapName) {
  time_t time;
  if (!IsValidShare(pShare) || !IsEntryName(szSnapName) || !ParseSnapName(szSnapName, &time)) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  try {
    UniqueFd dir(OpenDir(SnapshotDir(pShare).c_str()));
    // Only what listing shows is a snapshot; anything else of that name in
    // the directory is not this call's to delete.
    if (dir.Get() < 0 || !IsReadOnlySubvolume(dir.Get(), szSnapName)) {
      VLIBCErrSet(dir.Get() < 0 && errno != ENOENT ? VLIB_ERR_SYSTEM : VLIB_ERR_NOT_FOUND);
      return -1;
    }
    if (btrfs_util_delete_subvolume_fd(dir.Get(), szSnapName, 0) != BTRFS_UTIL_OK) {
      VLIBCErrSet(VLIB_ERR_SYSTEM);
      return -1;
    }
    return 0;
  } catch (const std::bad_alloc&) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
}
