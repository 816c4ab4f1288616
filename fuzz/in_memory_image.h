// A btrfs device in memory for the fuzz targets of the size provider's
// reader: the input, cut into tree blocks, laid out at consecutive logical
// addresses that one chunk maps onto device 1, behind a superblock naming
// block 0 the root of the chunk tree and block 1 that of the root tree.
// Each block gets its address, the file system's ID and a fresh checksum,
// so that mutations reach the parsers instead of failing at the checksum.
#ifndef VELA_FUZZ_IN_MEMORY_IMAGE_H_
#define VELA_FUZZ_IN_MEMORY_IMAGE_H_

#include <cstddef>
#include <cstdint>

#include "chunk_map.h"
#include "device_set.h"
#include "disk_format.h"

namespace vela::fuzz {

class InMemoryImage {
 public:
  static constexpr uint32_t kNodeSize = 4096;
  static constexpr uint64_t kFirstBlock = 1 << 20;  // logical and physical address of block 0
  static constexpr size_t kMaxBlocks = 24;

  // Uses the first kMaxBlocks whole blocks of `data`; there may be none.
  InMemoryImage(const uint8_t* data, size_t size);

  size_t BlockCount() const { return blocks_; }
  static uint64_t BlockAddress(size_t i) { return kFirstBlock + i * kNodeSize; }
  // Header fields of block i as laid out.
  uint64_t Generation(size_t i) const;
  int Level(size_t i) const;

  const btrfs::DeviceSet& Devices() const { return devices_; }
  const uint8_t (&Fsid() const)[btrfs::kFsidSize] { return fsid_; }
  // Adds the chunk holding the blocks, as the superblock lists it.
  void MapInto(btrfs::ChunkMap& chunks) const;

 private:
  size_t blocks_ = 0;
  uint8_t fsid_[btrfs::kFsidSize] = {0x76, 0x65, 0x6c, 0x61, 0x2d, 0x66, 0x75, 0x7a,
                                     0x7a, 0x2d, 0x69, 0x6d, 0x61, 0x67, 0x65, 0x01};
  uint8_t chunkItem_[sizeof(btrfs_chunk)] = {};
  uint8_t headers_[kMaxBlocks][btrfs::block::kHeaderSize] = {};
  btrfs::DeviceSet devices_;
};

}  // namespace vela::fuzz

#endif  // VELA_FUZZ_IN_MEMORY_IMAGE_H_
