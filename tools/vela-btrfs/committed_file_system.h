// The last committed state of a mounted btrfs file system, read from its
// devices: superblock, chunk map and the list of subvolume trees.
#ifndef VELA_TOOLS_VELA_BTRFS_COMMITTED_FILE_SYSTEM_H_
#define VELA_TOOLS_VELA_BTRFS_COMMITTED_FILE_SYSTEM_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "checksum.h"
#include "chunk_map.h"
#include "device_set.h"
#include "tree_block.h"

namespace vela::btrfs {

struct SubvolumeRoot {
  uint64_t id;
  uint64_t bytenr;      // root block of its tree
  uint64_t generation;  // generation of that block
  int level;
};

class CommittedFileSystem {
 public:
  // Commits the file system's pending changes (so recent snapshots and
  // writes are on disk), then reads its committed metadata through the
  // devices. `fsFd` is any open file on the file system. Throws
  // ProviderError.
  explicit CommittedFileSystem(int fsFd);

  uint64_t Generation() const { return generation_; }
  uint32_t NodeSize() const { return nodeSize_; }
  // Live subvolumes (deleted ones waiting for the cleaner are left out:
  // what they hold is being freed), sorted by ID.
  const std::vector<SubvolumeRoot>& Subvolumes() const { return subvolumes_; }
  const TreeBlockReader& Reader() const { return *reader_; }

 private:
  // Calls `visit` for every leaf of the tree rooted at `bytenr`.
  void WalkLeaves(uint64_t bytenr, uint64_t generation, int level,
                  const std::function<void(const TreeBlock&)>& visit);

  DeviceSet devices_;
  ChunkMap chunks_;
  std::unique_ptr<Checksum> checksum_;
  std::unique_ptr<TreeBlockReader> reader_;
  uint64_t generation_ = 0;
  uint32_t nodeSize_ = 0;
  std::vector<SubvolumeRoot> subvolumes_;
};

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_COMMITTED_FILE_SYSTEM_H_
