// Private to the platform library: the subvolumes of one volume and what
// each of them is to the system: a share, a snapshot of one, or neither.
//
// Shares are the subvolumes data is kept in; snapshots are found by their
// parent UUID, wherever they lie and whatever they are called:
//  - A subvolume without a parent UUID is a share.
//  - A read-only one whose parent UUID names a share is a snapshot of it.
//  - A writable one whose parent UUID names a share is a snapshot of it too
//    (several tools take writable snapshots), unless it is in use as a
//    share: mounted somewhere, the file system's default subvolume, or
//    itself the origin of read-only snapshots (a rolled-back root is all of
//    these). Then it is a share.
//  - A writable one whose parent is no share (a clone of a snapshot, such
//    as a restored root) is a share, unless it lies where a snapshot tool
//    keeps snapshots and is not in use: an orphaned snapshot, neither.
//  - A read-only one whose parent is no share, and every received subvolume
//    (a copy of another file system's snapshot), is neither.
//  - The subvolume mounted at "/volumeN" is the volume itself, and
//    subvolumes whose names begin with "." (snapper's ".snapshots") are the
//    system's: neither is ever a share.
#ifndef VELA_PLATFORM_SUBVOLUME_CATALOGUE_H_
#define VELA_PLATFORM_SUBVOLUME_CATALOGUE_H_

#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

#include "mounts.h"

namespace vela::platform {

enum class SubvolumeRole { kNone, kShare, kSnapshot };

struct Subvolume {
  uint64_t id = 0;
  std::string path;  // relative to the volume's mount point
  uint8_t uuid[16] = {};
  uint8_t parentUuid[16] = {};
  bool received = false;
  bool readOnly = false;
  struct timespec otime = {};
  SubvolumeRole role = SubvolumeRole::kNone;
  size_t share = 0;  // a snapshot's share: its index in the catalogue
};

struct VolumeCatalogue {
  int volume = 0;
  std::string mountPath;               // "/volumeN"
  std::vector<Subvolume> subvolumes;   // by ID
};

// Reads the subvolumes below the one mounted at `mountPath` (the mount
// `mount` of the table `mounts`) with libbtrfsutil, and sorts out their
// roles. Needs CAP_SYS_ADMIN. False with errno set when the volume cannot
// be read; a subvolume deleted while it is read makes it start over, a few
// times.
bool ReadVolumeCatalogue(int volume, const std::string& mountPath, const Mount& mount,
                         const std::vector<Mount>& mounts, VolumeCatalogue* catalogue);

// The last component of a subvolume's path.
std::string SubvolumeName(const Subvolume& subvolume);

}  // namespace vela::platform

#endif  // VELA_PLATFORM_SUBVOLUME_CATALOGUE_H_
