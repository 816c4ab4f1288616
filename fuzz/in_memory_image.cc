#include "in_memory_image.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "checksum.h"
#include "base/unique_fd.h"

namespace vela::fuzz {

namespace {

using btrfs::Crc32c;
using btrfs::kCsumAreaSize;
namespace block = btrfs::block;
namespace super = btrfs::super;

template <typename T>
void Put(uint8_t* at, T value) {
  memcpy(at, &value, sizeof value);  // little-endian host, as on disk
}

void Seal(uint8_t* data, size_t size) { Put<uint32_t>(data, htole32(Crc32c(data + kCsumAreaSize, size - kCsumAreaSize))); }

}  // namespace

InMemoryImage::InMemoryImage(const uint8_t* data, size_t size) {
  blocks_ = std::min(size / kNodeSize, kMaxBlocks);
  std::vector<uint8_t> blocks(std::max<size_t>(blocks_, 1) * kNodeSize, 0);
  for (size_t i = 0; i < blocks_; ++i) {
    uint8_t* b = blocks.data() + i * kNodeSize;
    memcpy(b, data + i * kNodeSize, kNodeSize);
    Put<uint64_t>(b + block::kBytenr, htole64(BlockAddress(i)));
    memcpy(b + block::kFsid, fsid_, sizeof fsid_);
    Seal(b, kNodeSize);
    memcpy(headers_[i], b, block::kHeaderSize);
  }

  // One chunk, system and metadata at once, on device 1 at the same offset.
  Put<uint64_t>(chunkItem_ + offsetof(btrfs_chunk, length), htole64(std::max<size_t>(blocks_, 1) * kNodeSize));
  Put<uint64_t>(chunkItem_ + offsetof(btrfs_chunk, owner), htole64(BTRFS_EXTENT_TREE_OBJECTID));
  Put<uint64_t>(chunkItem_ + offsetof(btrfs_chunk, stripe_len), htole64(64 * 1024));
  Put<uint64_t>(chunkItem_ + offsetof(btrfs_chunk, type),
                htole64(BTRFS_BLOCK_GROUP_SYSTEM | BTRFS_BLOCK_GROUP_METADATA));
  Put<uint32_t>(chunkItem_ + offsetof(btrfs_chunk, sector_size), htole32(kNodeSize));
  Put<uint16_t>(chunkItem_ + offsetof(btrfs_chunk, num_stripes), htole16(1));
  Put<uint64_t>(chunkItem_ + offsetof(btrfs_chunk, stripe) + offsetof(btrfs_stripe, devid), htole64(1));
  Put<uint64_t>(chunkItem_ + offsetof(btrfs_chunk, stripe) + offsetof(btrfs_stripe, offset), htole64(kFirstBlock));

  std::vector<uint8_t> superblock(super::kSize, 0);
  uint8_t* sb = superblock.data();
  memcpy(sb + super::kFsid, fsid_, sizeof fsid_);
  Put<uint64_t>(sb + super::kBytenr, htole64(super::kOffset));
  Put<uint64_t>(sb + super::kMagicField, htole64(super::kMagic));
  Put<uint64_t>(sb + super::kGeneration, htole64(blocks_ > 1 ? Generation(1) : 1));
  Put<uint64_t>(sb + super::kRoot, htole64(BlockAddress(1)));
  Put<uint64_t>(sb + super::kChunkRoot, htole64(BlockAddress(0)));
  Put<uint32_t>(sb + super::kSectorSize, htole32(kNodeSize));
  Put<uint32_t>(sb + super::kNodeSize, htole32(kNodeSize));
  Put<uint64_t>(sb + super::kChunkRootGeneration, htole64(blocks_ > 0 ? Generation(0) : 1));
  Put<uint16_t>(sb + super::kCsumType, htole16(BTRFS_CSUM_TYPE_CRC32));
  sb[super::kRootLevel] = static_cast<uint8_t>(blocks_ > 1 ? Level(1) : 0);
  sb[super::kChunkRootLevel] = static_cast<uint8_t>(blocks_ > 0 ? Level(0) : 0);
  Put<uint64_t>(sb + super::kDevItemDevid, htole64(1));
  uint8_t* array = sb + super::kSysChunkArray;
  Put<uint64_t>(array, htole64(BTRFS_FIRST_CHUNK_TREE_OBJECTID));
  array[8] = BTRFS_CHUNK_ITEM_KEY;
  Put<uint64_t>(array + 9, htole64(kFirstBlock));
  memcpy(array + block::kDiskKeySize, chunkItem_, sizeof chunkItem_);
  Put<uint32_t>(sb + super::kSysChunkArraySize, htole32(block::kDiskKeySize + sizeof chunkItem_));
  Seal(sb, super::kSize);

  btrfs::UniqueFd fd(memfd_create("vela-fuzz-image", MFD_CLOEXEC));
  if (!fd.Valid() || ftruncate(fd.Get(), static_cast<off_t>(kFirstBlock + blocks.size())) != 0 ||
      pwrite(fd.Get(), sb, super::kSize, super::kOffset) != static_cast<ssize_t>(super::kSize) ||
      pwrite(fd.Get(), blocks.data(), blocks.size(), kFirstBlock) != static_cast<ssize_t>(blocks.size())) {
    throw std::runtime_error("cannot make the in-memory image");
  }
  devices_.Add(1, std::move(fd), "in-memory image");
}

uint64_t InMemoryImage::Generation(size_t i) const { return btrfs::Le64(headers_[i] + block::kGeneration); }

int InMemoryImage::Level(size_t i) const { return headers_[i][block::kLevel]; }

void InMemoryImage::MapInto(btrfs::ChunkMap& chunks) const { chunks.Add(kFirstBlock, chunkItem_, sizeof chunkItem_); }

}  // namespace vela::fuzz
