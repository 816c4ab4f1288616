// Private to the platform library: the shares of every volume with their
// names, and the snapshots of a share with the names listings give them.
//
// A share is named by its subvolume's own name (the last component of its
// path) where no other share of any volume has that name. Of shares that
// share a name, the one on the lowest volume, then nearest its volume's
// top, then oldest (lowest subvolume ID) keeps it; each other one is named
// NAME~vN-ID (volume N, subvolume ID), with one more "~" in the rare case
// that this is taken too.
#ifndef VELA_PLATFORM_SHARE_CATALOGUE_H_
#define VELA_PLATFORM_SHARE_CATALOGUE_H_

#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

#include "mounted_volumes.h"
#include "subvolume_catalogue.h"

namespace vela::platform {

struct NamedShare {
  std::string name;
  size_t volume = 0;     // index into Volumes()
  size_t subvolume = 0;  // index into that volume's subvolumes
};

struct ListedSnapshot {
  std::string name;      // the time of its creation (see snapshot_names.h)
  struct timespec otime = {};
  uint64_t id = 0;
  bool readOnly = false;
  const char* tool = "";
  std::string path;      // "/volumeN/..."
};

class ShareCatalogue {
 public:
  // Reads every mounted btrfs volume. A volume that cannot be read hides
  // its own shares, not the others'. False (errno set) only when the mount
  // table cannot be read.
  bool ReadAll();
  // Reads only volume `number`, as far as a share's snapshots go (its
  // shares are not named). False with errno ENOENT when it is not a
  // mounted btrfs volume.
  bool ReadOne(int number);

  const std::vector<VolumeCatalogue>& Volumes() const { return volumes_; }
  // By volume, then by name.
  const std::vector<NamedShare>& Shares() const { return shares_; }
  const NamedShare* Find(const std::string& name) const;
  // The share on volume `number` whose subvolume has this UUID; false
  // when there is none.
  bool FindByUuid(int number, const uint8_t* uuid, size_t* volume, size_t* subvolume) const;
  const Subvolume& SubvolumeOf(const NamedShare& share) const {
    return volumes_[share.volume].subvolumes[share.subvolume];
  }
  // The share's snapshots, oldest first (by creation time, then ID).
  std::vector<ListedSnapshot> Snapshots(size_t volume, size_t subvolume) const;

 private:
  bool Read(int only);
  void NameShares();

  std::vector<VolumeCatalogue> volumes_;
  std::vector<NamedShare> shares_;
};

}  // namespace vela::platform

#endif  // VELA_PLATFORM_SHARE_CATALOGUE_H_
