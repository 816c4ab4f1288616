// A btrfs file system on a sparse loopback image laid out like a machine
// whose snapshots snapper, Timeshift and btrbk take, the way each of them
// lays them out, made with the real "btrfs subvolume snapshot":
//
//   @                          the root ("/"), with srv/data, a subvolume
//   @/.snapshots/1/snapshot    snapper's snapshot of @ (read-only)
//   @home                      the homes, whose files change between
//                              its five snapshots, in this order:
//   @home/.snapshots/1/snapshot                       snapper, read-only
//   timeshift-btrfs/snapshots/2026-01-05_10-00-01/@home  Timeshift, writable
//   btrbk_snapshots/@home.20260105T1000               btrbk, read-only
//   @home/.snapshots/2/snapshot                       snapper, read-only
//   btrbk_snapshots/@home.20260105T1100               btrbk, read-only
//   timeshift-btrfs/snapshots/2026-01-05_10-00-01/@   Timeshift's of @, writable
//
// It is mounted through "@" alone, as a machine's "/" is, at RootPath().
// Only for use inside the test sandbox.
#ifndef VELA_TESTS_SUPPORT_MACHINE_IMAGE_H_
#define VELA_TESTS_SUPPORT_MACHINE_IMAGE_H_

#include <string>
#include <vector>

#include "support/btrfs_image.h"

namespace vela::test {

class MachineImage {
 public:
  // `name` keeps the mount points of two machines of one test apart.
  // With `secondApart` each snapshot of @home is taken in a second of its
  // own (else they come as fast as they can, mostly within one second).
  explicit MachineImage(const std::string& name = "machine", bool secondApart = false);
  ~MachineImage();
  MachineImage(const MachineImage&) = delete;
  MachineImage& operator=(const MachineImage&) = delete;

  // Where "@" is mounted.
  const std::string& RootPath() const { return root_; }
  const std::string& ImagePath() const { return image_.ImagePath(); }
  // The snapshots of @home (paths from the top level), oldest first.
  static const std::vector<std::string>& HomeSnapshots();
  // Unmounts "@" (before the image is copied).
  void UnmountRoot();

 private:
  BtrfsImage image_;  // mounted at its top level while the layout is made
  std::string root_;
  bool rootMounted_ = false;
};

// The creation time of the subvolume at `path`, as the btrfs tool shows it.
long CreationTime(const std::string& path);
// The snapshot name of time `t` in UTC: "GMT-2024.03.05-09.04.09".
std::string UtcSnapshotName(long t);
// Waits for the clock's next second, so that the next snapshot's creation
// time differs from every earlier one's.
void WaitForNextSecond();

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_MACHINE_IMAGE_H_
