#include "velabtrfssnapusage/file_helpers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vela/sz_list.h"
#include "intl_utils/log.h"
#include "intl_utils/state_files.h"

namespace VelaBtrfsUsage::Utils {

namespace {

constexpr char kLogSource[] = "intl_utils/utils";

}  // namespace

bool SearchTaskFile(const std::string& prefix, const std::string& dirPath, PVLIBSZLIST* out) {
  vela::base::UniqueFd dirFd = OpenStateDirectory(dirPath, false);
  DIR* dir = dirFd.Valid() ? fdopendir(dirFd.Get()) : nullptr;
  // A directory that does not exist holds no task files.
  if (dir == nullptr) return true;
  dirFd.Release();  // the stream owns it now
  bool ok = true;
  while (struct dirent* entry = readdir(dir)) {
    if (entry->d_type != DT_REG) continue;
    if (strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0) continue;
    const std::string path = dirPath + "/" + entry->d_name;
    if (VLIBCSzListPush(out, path.c_str()) < 0) {
      VELA_LOG(LOG_ERR, "Failed to push [%s] to the list" VELA_ERR_FMT, path.c_str(), VELA_ERR_ARGS);
      ok = false;
      break;
    }
  }
  closedir(dir);
  return ok;
}

bool DeleteCandidateFile(PVLIBSZLIST* paths) {
  if (paths == nullptr || *paths == nullptr) return true;
  for (int i = 0; i < (*paths)->nItem; ++i) {
    const char* path = VLIBCSzListGet(*paths, i);
    if (!RemoveStateFile(path)) {
      VELA_LOG(LOG_ERR, "Failed to unlink file (%s) err:(%s) ", path, strerror(errno));
      return false;
    }
  }
  return true;
}

int FileOrDirOpen(const char* path, DIR** dir) {
  if (path == nullptr) {
    VELA_INVALID_ARGUMENT("__null != fname");
    return -1;
  }
  if (dir == nullptr) {
    VELA_INVALID_ARGUMENT("NULL != dirstream");
    return -1;
  }
  struct stat st;
  if (stat(path, &st) != 0) return -1;
  if (S_ISDIR(st.st_mode)) {
    *dir = opendir(path);
    if (*dir == nullptr) return -1;
    const int fd = dirfd(*dir);
    if (fd < 0) {
      closedir(*dir);
      *dir = nullptr;
    }
    return fd;
  }
  if (S_ISREG(st.st_mode)) return open(path, O_RDWR | O_CLOEXEC);
  errno = EINVAL;
  return -1;
}

void FileOrDirClose(int fd, DIR* dir) {
  if (dir != nullptr) {
    closedir(dir);  // closes its descriptor too
  } else if (fd >= 0) {
    close(fd);
  }
}

bool HashToJson(PVLIBSZHASH hash, Json::Value& out) {
  vela::platform::SzList keys;
  if (!keys.Ok()) {
    VELA_LOG(LOG_ERR, "VLIBCSzListAlloc failed. " VELA_ERR_FMT, VELA_ERR_ARGS);
    return true;
  }
  if (VLIBCSzHashEnumKey(hash, keys.Address()) < 0) {
    VELA_LOG(LOG_ERR, "Failed to enum hash key");
  } else {
    for (int i = 0; i < keys.Count(); ++i) {
      const char* key = keys.At(i);
      if (const char* value = VLIBCSzHashGetValue(hash, key)) out[key] = value;
    }
  }
  return true;
}

}  // namespace VelaBtrfsUsage::Utils
