// Real btrfs data for the size provider's tests: a share whose files churn
// between read-only snapshots, the kernel's quota groups as the reference,
// where tree blocks lie on the image, and a read throttle that makes a run
// last long enough to watch. Only for use inside the test sandbox.
#ifndef VELA_TESTS_SIZE_PROVIDER_DATASET_H_
#define VELA_TESTS_SIZE_PROVIDER_DATASET_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vela::test {

// What BuildChurnDataset made under a volume's mount point.
struct ChurnDataset {
  std::string share;                   // the live share, a writable subvolume
  std::string other;                   // a second share holding reflinks of the first
  std::string restored;                // a writable snapshot of the oldest snapshot, changed
  std::vector<std::string> snapshots;  // read-only snapshots of the share, oldest first
  // A read-only snapshot taken between the last two of `snapshots`; the
  // data it shares with the second last one is gone from the share before
  // the last one is taken. Tests delete it.
  std::string doomed;
};

// Fills a freshly mounted btrfs at `mount`: `smallFiles` inline-sized files
// (they make the trees wide and, with small nodes, deep), large files of
// random bytes, compressed files, a preallocated file, and eight snapshots
// with overwrites in the middle of files, appends, truncations, deletions,
// new files and reflink copies (within the share, to the other share, from a
// snapshot back into the share, and into the top-level subvolume) between
// them. Throws std::runtime_error when a step fails.
ChurnDataset BuildChurnDataset(const std::string& mount, int smallFiles);

// The root ID of the subvolume at `path`.
uint64_t RootId(const std::string& path);
// Root IDs of every live subvolume of the btrfs at `mount`, the top level (5)
// included.
std::vector<uint64_t> AllRootIds(const std::string& mount);

// Quota group figures by ID ("0/257", "1/3"), as the kernel reports them.
struct Qgroup {
  uint64_t referenced = 0;
  uint64_t exclusive = 0;
};
std::map<std::string, Qgroup> ReadQgroups(const std::string& mount);

// The kernel's figures on the btrfs mounted at `mount` (a byte copy: this
// enables quotas there): quota group "0/ID" for every subvolume, and for the
// i-th of `orders` (0-based) a level i+1 group "i+1/k" holding the first k
// subvolumes of that order, so that its exclusive figure is what deleting
// them together frees.
std::map<std::string, Qgroup> QuotaGroupsOfPrefixes(const std::string& mount,
                                                    const std::vector<std::vector<uint64_t>>& orders);
// The same with a level 1 group "1/k" for the k-th (1-based) of `sets`.
std::map<std::string, Qgroup> QuotaGroupsOfSets(const std::string& mount, const std::vector<std::vector<uint64_t>>& sets);

// Loop devices over image files, for file systems of several devices. Each
// is forgotten by the kernel's list of btrfs devices and detached on
// Detach() or when the object goes away (its file system unmounted first).
class LoopDevices {
 public:
  LoopDevices() = default;
  ~LoopDevices();
  LoopDevices(const LoopDevices&) = delete;
  LoopDevices& operator=(const LoopDevices&) = delete;

  // Attaches `image`, made sparse with `bytes` unless it exists; returns
  // the device ("/dev/loopN").
  std::string Attach(const std::string& image, uint64_t bytes = 0);
  void Detach(const std::string& device);

 private:
  std::vector<std::string> devices_;
};

// A tree block as listed by the file system's own dump of a tree.
struct TreeBlockInfo {
  uint64_t bytenr = 0;
  int level = 0;
};
// Every block of the tree `rootId`, read from the image file (which, unlike
// the loop device's page cache, sees what the mounted file system wrote).
std::vector<TreeBlockInfo> TreeBlocks(const std::string& image, uint64_t rootId);
// Level of the root block of each subvolume tree, by root ID.
std::map<uint64_t, int> RootLevels(const std::string& image);
// Byte offsets in the image of every copy of the metadata at `logical`.
std::vector<uint64_t> PhysicalCopies(const std::string& image, uint64_t logical);

// The loop device ("/dev/loopN") backing `image`.
std::string LoopDevice(const std::string& image);

// A block I/O control group that limits reads from one device to a number of
// bytes per second. Processes join it by writing their pid into Procs().
// Removed when the object goes away (its processes must have ended).
class ReadThrottle {
 public:
  ReadThrottle(const std::string& device, uint64_t bytesPerSecond);
  ~ReadThrottle();
  ReadThrottle(const ReadThrottle&) = delete;
  ReadThrottle& operator=(const ReadThrottle&) = delete;

  // The file a process writes its pid (or "0" for itself) into to join.
  std::string Procs() const { return path_ + "/cgroup.procs"; }

 private:
  std::string path_;
};

}  // namespace vela::test

#endif  // VELA_TESTS_SIZE_PROVIDER_DATASET_H_
