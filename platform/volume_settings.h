// Private to the platform library: the volume settings file, which keeps
// the btrfs file systems adopted as volumes. One line per volume, its
// number and its file system's UUID:
//
//   # comment
//   1 a89fae9d-5b6a-4e9e-ab5e-3460b8029ae9
//
// Written whole through a temporary file, under a lock file, by
// "vela-share volume add" and "remove"; read at boot by
// "vela-share volume restore" (the unit vela-volumes.service).
#ifndef VELA_PLATFORM_VOLUME_SETTINGS_H_
#define VELA_PLATFORM_VOLUME_SETTINGS_H_

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace vela::platform {

struct AdoptedVolume {
  int number = 0;
  std::string uuid;  // lower-case, 8-4-4-4-12 hexadecimal digits
};

// The exclusive lock of the settings: held across a read and the write
// that follows it. Invalid (errno set, ETIMEDOUT when the wait ran out)
// when it cannot be had.
vela::base::UniqueFd LockVolumeSettings();
// The adopted volumes, by number; none when there is no settings file.
// False with errno set, or EINVAL and `problem` naming the line when the
// file is not as written here.
bool ReadVolumeSettings(std::vector<AdoptedVolume>* volumes, std::string* problem);
// Replaces the settings file. False with errno set; the old file is whole.
bool WriteVolumeSettings(const std::vector<AdoptedVolume>& volumes);

}  // namespace vela::platform

#endif  // VELA_PLATFORM_VOLUME_SETTINGS_H_
