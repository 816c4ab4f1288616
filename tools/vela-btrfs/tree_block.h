// Reading and checking tree blocks. A block read from disk is trusted only
// after its checksum, its own address, its file system ID, the generation
// its parent recorded and its level all match, and its item table fits in
// it: the metadata may be corrupt, or may be rewritten by the running file
// system while it is read.
#ifndef VELA_TOOLS_VELA_BTRFS_TREE_BLOCK_H_
#define VELA_TOOLS_VELA_BTRFS_TREE_BLOCK_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "checksum.h"
#include "chunk_map.h"
#include "device_set.h"
#include "disk_format.h"

namespace vela::btrfs {

// A checked tree block in memory.
class TreeBlock {
 public:
  TreeBlock(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  int Level() const { return data_[block::kLevel]; }
  uint32_t ItemCount() const { return Le32(data_ + block::kNritems); }

  // Nodes (level > 0): the i-th child pointer.
  struct ChildPointer {
    DiskKey key;
    uint64_t bytenr;
    uint64_t generation;
  };
  ChildPointer Child(uint32_t i) const;

  // Leaves (level 0): the i-th item and its data.
  struct Item {
    DiskKey key;
    const uint8_t* data;
    uint32_t size;
  };
  Item LeafItem(uint32_t i) const;
  // Leaves: the key of the i-th item alone, cheaper than the whole item.
  DiskKey ItemKey(uint32_t i) const {
    return ReadDiskKey(data_ + block::kHeaderSize + static_cast<size_t>(i) * block::kItemSize);
  }

  // Why the block's item table does not fit in it; empty when it fits.
  std::string StructureProblem() const;

 private:
  const uint8_t* data_;
  size_t size_;
};

class TreeBlockReader {
 public:
  // `blockFsids` are the IDs a tree block header may carry: the file
  // system's own and those of its seeds; `newestGeneration` the superblock's
  // generation, which no block exceeds.
  TreeBlockReader(const DeviceSet& devices, const ChunkMap& chunks, const Checksum& checksum,
                  uint32_t nodeSize, std::vector<std::vector<uint8_t>> blockFsids, uint64_t newestGeneration);

  // Devices whose superblock is older than the commit being read: their
  // copies are tried after those of the others.
  void SetStaleDevices(std::set<uint64_t> devids) { stale_ = std::move(devids); }

  // Reads the block at `logical`, trying every copy on a present device
  // until one passes the checks, then, in a chunk with parity, the block
  // rebuilt from the rest of its row. Throws ProviderError naming the block
  // and the reason when none does: kind kBadBlock for a block that fails
  // its checks, kRefused for one that lies on missing devices only.
  void Read(uint64_t logical, uint64_t generation, int level, uint8_t* buffer) const;

  struct Request {
    uint64_t logical;
    uint64_t generation;
  };
  // Reads `count` blocks of one level, the i-th as `request(i)` says (in
  // ascending address order), merging neighbours into larger device reads,
  // and calls `visit` for each checked block in order.
  void ReadMany(size_t count, const std::function<Request(size_t index)>& request, int level,
                const std::function<void(size_t index, const TreeBlock&)>& visit) const;

  uint32_t NodeSize() const { return nodeSize_; }

 private:
  std::string Problem(const uint8_t* data, uint64_t logical, uint64_t generation, int level) const;
  // Copies of the block at `logical`, those on stale devices last.
  std::vector<PhysicalLocation> PreferredCopies(uint64_t logical) const;
  // XOR of the `sources` into `buffer`; false when a source's device is
  // missing, naming it in `absent`.
  bool RebuildFromParity(const std::vector<PhysicalLocation>& sources, uint8_t* buffer, uint64_t* absent) const;

  const DeviceSet& devices_;
  const ChunkMap& chunks_;
  const Checksum& checksum_;
  uint32_t nodeSize_;
  std::vector<std::vector<uint8_t>> blockFsids_;
  uint64_t newestGeneration_;
  std::set<uint64_t> stale_;
};

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_TREE_BLOCK_H_
