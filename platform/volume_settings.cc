#include "volume_settings.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <sstream>

#include "base/atomic_file.h"
#include "base/fd_io.h"
#include "base/record_lock.h"

#ifndef VELA_VOLUME_SETTINGS_PATH
#error "VELA_VOLUME_SETTINGS_PATH is set by the build"
#endif

namespace vela::platform {

namespace {

using vela::base::UniqueFd;

constexpr char kSettingsPath[] = VELA_VOLUME_SETTINGS_PATH;
constexpr char kLockPath[] = "/run/lock/vela-volumes.lock";
constexpr mode_t kSettingsMode = 0644;
constexpr mode_t kLockMode = 0600;
constexpr mode_t kSettingsDirMode = 0755;
// A settings file is a few lines; anything much larger is not one.
constexpr size_t kMaxSettingsBytes = 1 << 20;

constexpr char kHeader[] =
    "# Btrfs file systems adopted as volumes: NUMBER UUID. Each is mounted at\n"
    "# /volumeNUMBER (its top level) by \"vela-share volume add\" and, at boot,\n"
    "# by \"vela-share volume restore\" (vela-volumes.service). Change it with\n"
    "# \"vela-share volume add\" and \"vela-share volume remove\".\n";

std::string DirOf(const std::string& path) { return path.substr(0, path.rfind('/')); }
std::string BaseOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool ParseNumber(const std::string& text, int* number) {
  if (text.empty() || text.size() > 9 || text[0] == '0' ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  *number = std::stoi(text);
  return true;
}

// A UUID as the file keeps it: lower case, 8-4-4-4-12 digits.
bool IsUuidText(const std::string& text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : std::string("0123456789abcdef").find(text[i]) == std::string::npos) return false;
  }
  return true;
}

}  // namespace

UniqueFd LockVolumeSettings() {
  UniqueFd fd(open(kLockPath, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kLockMode));
  // Root's alone whatever the umask: nobody else can hold it and stop the
  // volumes from being changed.
  if (!fd.Valid() || fchown(fd.Get(), 0, 0) != 0 || fchmod(fd.Get(), kLockMode) != 0) return UniqueFd();
  const int error = vela::base::WaitForRecordLock(fd.Get(), true, vela::base::LockWaitLimitMs());
  if (error != 0) {
    errno = error;
    return UniqueFd();
  }
  return fd;
}

bool ReadVolumeSettings(std::vector<AdoptedVolume>* volumes, std::string* problem) {
  volumes->clear();
  problem->clear();
  UniqueFd fd(open(kSettingsPath, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.Valid()) return errno == ENOENT;
  std::string text;
  if (!vela::base::ReadToEnd(fd.Get(), kMaxSettingsBytes, text)) return false;
  std::istringstream lines(text);
  std::string line;
  std::set<int> numbers;
  std::set<std::string> uuids;
  for (int lineNumber = 1; std::getline(lines, line); ++lineNumber) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string number, uuid, extra;
    AdoptedVolume volume;
    if (!(words >> number >> uuid) || (words >> extra) || !ParseNumber(number, &volume.number) ||
        !IsUuidText(uuid)) {
      *problem = "line " + std::to_string(lineNumber) + " is not \"NUMBER UUID\": " + line;
    } else if (!numbers.insert(volume.number).second || !uuids.insert(uuid).second) {
      *problem = "line " + std::to_string(lineNumber) + " names a volume or file system again: " + line;
    }
    if (!problem->empty()) {
      volumes->clear();
      errno = EINVAL;
      return false;
    }
    volume.uuid = uuid;
    volumes->push_back(volume);
  }
  std::sort(volumes->begin(), volumes->end(),
            [](const AdoptedVolume& a, const AdoptedVolume& b) { return a.number < b.number; });
  return true;
}

bool WriteVolumeSettings(const std::vector<AdoptedVolume>& volumes) {
  const std::string dirPath = DirOf(kSettingsPath);
  const bool made = mkdir(dirPath.c_str(), kSettingsDirMode) == 0;
  if (!made && errno != EEXIST) return false;
  UniqueFd dir(open(dirPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir.Valid() || (made && fchmod(dir.Get(), kSettingsDirMode) != 0)) return false;  // whatever the umask
  std::string text = kHeader;
  for (const AdoptedVolume& volume : volumes) text += std::to_string(volume.number) + " " + volume.uuid + "\n";
  return vela::base::AtomicReplace(dir.Get(), BaseOf(kSettingsPath), {kSettingsMode, 0, 0}, [&](int fd) {
    return vela::base::WriteAll(fd, text.data(), text.size());
  });
}

}  // namespace vela::platform
