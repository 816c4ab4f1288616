// The parts of the btrfs on-disk format this program reads: the superblock,
// tree block headers, node pointers, leaf items and the few item bodies it
// looks into. Offsets are the format's, all values little endian. The
// kernel's UAPI headers define the item bodies (root item, chunk) but not
// the superblock or the tree block layout, so those are spelt out here.
#ifndef VELA_TOOLS_VELA_BTRFS_DISK_FORMAT_H_
#define VELA_TOOLS_VELA_BTRFS_DISK_FORMAT_H_

#include <endian.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vela::btrfs {

inline uint64_t Le64(const uint8_t* p) {
  uint64_t v;
  memcpy(&v, p, sizeof v);
  return le64toh(v);
}
inline uint32_t Le32(const uint8_t* p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
  return le32toh(v);
}
inline uint16_t Le16(const uint8_t* p) {
  uint16_t v;
  memcpy(&v, p, sizeof v);
  return le16toh(v);
}

constexpr size_t kCsumAreaSize = 32;  // every checksum field, whatever the algorithm
constexpr size_t kFsidSize = 16;

// Superblock: the first copy sits 64 KiB into every device.
namespace super {
constexpr uint64_t kOffset = 65536;
constexpr size_t kSize = 4096;
constexpr uint64_t kMagic = 0x4D5F53665248425FULL;  // "_BHRfS_M"
constexpr size_t kFsid = 32;
constexpr size_t kBytenr = 48;
constexpr size_t kFlags = 56;
constexpr uint64_t kFlagSeeding = 1ULL << 32;  // a seed: read-only, sprouts keep using it
constexpr size_t kMagicField = 64;
constexpr size_t kGeneration = 72;
constexpr size_t kRoot = 80;
constexpr size_t kChunkRoot = 88;
constexpr size_t kSectorSize = 144;
constexpr size_t kNodeSize = 148;
constexpr size_t kSysChunkArraySize = 160;
constexpr size_t kChunkRootGeneration = 164;
constexpr size_t kIncompatFlags = 188;
constexpr size_t kCsumType = 196;
constexpr size_t kRootLevel = 198;
constexpr size_t kChunkRootLevel = 199;
constexpr size_t kDevItemDevid = 201;  // first field of the embedded device item
constexpr size_t kMetadataUuid = 571;
constexpr size_t kSysChunkArray = 811;
constexpr size_t kSysChunkArrayMax = 2048;
}  // namespace super

// Tree block header, then node pointers or leaf items.
namespace block {
constexpr size_t kFsid = 32;
constexpr size_t kBytenr = 48;
constexpr size_t kGeneration = 80;
constexpr size_t kNritems = 96;
constexpr size_t kLevel = 100;
constexpr size_t kHeaderSize = 101;
constexpr int kMaxLevel = 7;  // levels run from 0 (leaf) to 7

constexpr size_t kDiskKeySize = 17;  // objectid u64, type u8, offset u64
constexpr size_t kKeyPtrSize = 33;   // disk key, block pointer u64, generation u64
constexpr size_t kKeyPtrBlockptr = 17;
constexpr size_t kKeyPtrGeneration = 25;
constexpr size_t kItemSize = 25;     // disk key, data offset u32, data size u32
constexpr size_t kItemDataOffset = 17;
constexpr size_t kItemDataSize = 21;
}  // namespace block

struct DiskKey {
  uint64_t objectid;
  uint8_t type;
  uint64_t offset;
};

inline DiskKey ReadDiskKey(const uint8_t* p) { return DiskKey{Le64(p), p[8], Le64(p + 9)}; }

// File extent item: only regular and preallocated extents point at data.
namespace file_extent {
constexpr size_t kType = 20;
constexpr size_t kDiskBytenr = 21;
constexpr size_t kDiskNumBytes = 29;
constexpr size_t kSizeWithDisk = 53;
constexpr uint8_t kRegular = 1;
constexpr uint8_t kPrealloc = 2;
}  // namespace file_extent

constexpr uint64_t kIncompatExtentTreeV2 = 1ULL << 13;
constexpr uint64_t kIncompatRaidStripeTree = 1ULL << 14;

// Subvolume trees: the top-level one and those with free object IDs.
inline bool IsSubvolumeTree(uint64_t id) {
  return id == BTRFS_FS_TREE_OBJECTID ||
         (id >= BTRFS_FIRST_FREE_OBJECTID && id <= BTRFS_LAST_FREE_OBJECTID);
}

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_DISK_FORMAT_H_
