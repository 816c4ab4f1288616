// The last committed state of a btrfs file system, read from its devices:
// superblock, chunk map and the list of subvolume trees.
#ifndef VELA_TOOLS_VELA_BTRFS_COMMITTED_FILE_SYSTEM_H_
#define VELA_TOOLS_VELA_BTRFS_COMMITTED_FILE_SYSTEM_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_set>
#include <vector>

#include "checksum.h"
#include "chunk_map.h"
#include "device_set.h"
#include "disk_format.h"
#include "leaf_items.h"
#include "tree_block.h"

namespace vela::btrfs {

class CommittedFileSystem {
 public:
  // Reads the committed metadata of the file system with ID `fsid` through
  // `devices`, which must outlive this object. Devices holding another file
  // system are accepted only as seeds it grew from: their blocks carry
  // their own ID. Throws ProviderError.
  CommittedFileSystem(const DeviceSet& devices, const uint8_t (&fsid)[kFsidSize]);

  // The generation of the newest commit on the devices of `fsid`, 0 when
  // no superblock of it can be read. Throws nothing.
  static uint64_t NewestCommit(const DeviceSet& devices, const uint8_t (&fsid)[kFsidSize]);

  uint64_t Generation() const { return generation_; }
  uint32_t NodeSize() const { return nodeSize_; }
  uint32_t SectorSize() const { return sectorSize_; }
  // Live subvolumes (deleted ones waiting for the cleaner are left out:
  // what they hold is being freed), sorted by ID.
  const std::vector<SubvolumeRoot>& Subvolumes() const { return subvolumes_; }
  const TreeBlockReader& Reader() const { return *reader_; }

 private:
  // Calls `visit` for every leaf of the tree rooted at `bytenr`, a tree
  // that shares no block within itself (it is never snapshotted).
  void WalkLeaves(uint64_t bytenr, uint64_t generation, int level,
                  const std::function<void(const TreeBlock&)>& visit);
  void WalkLeaves(uint64_t bytenr, uint64_t generation, int level,
                  const std::function<void(const TreeBlock&)>& visit, std::unordered_set<uint64_t>& seen);

  const DeviceSet& devices_;
  ChunkMap chunks_;
  std::unique_ptr<Checksum> checksum_;
  std::unique_ptr<TreeBlockReader> reader_;
  uint64_t generation_ = 0;
  uint32_t nodeSize_ = 0;
  uint32_t sectorSize_ = 0;
  std::vector<SubvolumeRoot> subvolumes_;
};

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_COMMITTED_FILE_SYSTEM_H_
