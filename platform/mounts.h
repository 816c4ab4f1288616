// Private to the platform library: this process's mount table, as read
// from /proc/self/mountinfo.
#ifndef VELA_PLATFORM_MOUNTS_H_
#define VELA_PLATFORM_MOUNTS_H_

#include <string>
#include <vector>

namespace vela::platform {

struct Mount {
  int id = 0;
  int parentId = 0;
  std::string device;        // "MAJOR:MINOR": the same for every mount of one file system
  std::string point;         // the mount point, unescaped
  std::string mountOptions;  // this mount's own: "rw,noatime"
  std::string fsType;        // "btrfs", "tmpfs", ...
  std::string source;        // the mounted device, unescaped
  std::string superOptions;  // the file system's: "rw,space_cache=v2,subvolid=256,subvol=/@"
};

// The value of option `key` in a comma-separated option list ("subvolid"
// in "rw,subvolid=256"); false when it is not there.
bool FindOption(const std::string& options, const std::string& key, std::string* value);

// The mounts seen by this process, each hidden mount (one with another
// mounted over it at the same point) left out. False with errno set when
// the table cannot be read.
bool ReadMounts(std::vector<Mount>* mounts);

}  // namespace vela::platform

#endif  // VELA_PLATFORM_MOUNTS_H_
