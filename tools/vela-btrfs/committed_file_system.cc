#include "committed_file_system.h"

#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "disk_format.h"
#include "provider_error.h"

namespace vela::btrfs {

namespace {

constexpr uint64_t kSupportedIncompat = ~(kIncompatExtentTreeV2 | kIncompatRaidStripeTree) & ((1ULL << 17) - 1);

// Reads and checks the superblock of `devid`.
void ReadSuper(const DeviceSet& devices, uint64_t devid, AlignedBuffer& buffer) {
  devices.Read(devid, super::kOffset, buffer.data(), super::kSize);
  const uint8_t* sb = buffer.data();
  const std::string& path = devices.Paths().at(devid);
  if (Le64(sb + super::kMagicField) != super::kMagic || Le64(sb + super::kBytenr) != super::kOffset) {
    Fail(ProviderError::Kind::kRefused, "%s holds no btrfs superblock", path.c_str());
  }
  const Checksum checksum(Le16(sb + super::kCsumType));
  if (!checksum.Matches(sb, super::kSize)) {
    Fail(ProviderError::Kind::kBadBlock, "superblock of %s: %s checksum mismatch", path.c_str(),
         checksum.Name().c_str());
  }
  if (Le64(sb + super::kDevItemDevid) != devid) {
    Fail(ProviderError::Kind::kBadBlock, "%s says it is device %llu, expected %llu", path.c_str(),
         static_cast<unsigned long long>(Le64(sb + super::kDevItemDevid)), static_cast<unsigned long long>(devid));
  }
}

void Commit(int fsFd) {
  if (ioctl(fsFd, BTRFS_IOC_SYNC) == 0) return;
  // Without the file system's own commit, a plain sync commits as well.
  if (syncfs(fsFd) != 0) {
    Fail(ProviderError::Kind::kSystem, "cannot commit the file system: %s", strerror(errno));
  }
}

}  // namespace

CommittedFileSystem::CommittedFileSystem(int fsFd) : devices_((Commit(fsFd), fsFd)) {
  AlignedBuffer sb(super::kSize);
  const uint64_t firstDevid = devices_.Paths().begin()->first;
  ReadSuper(devices_, firstDevid, sb);
  const uint8_t* s = sb.data();
  generation_ = Le64(s + super::kGeneration);
  nodeSize_ = Le32(s + super::kNodeSize);
  const uint32_t sectorSize = Le32(s + super::kSectorSize);
  const uint64_t incompat = Le64(s + super::kIncompatFlags);
  if ((incompat & ~kSupportedIncompat) != 0) {
    Fail(ProviderError::Kind::kRefused, "the file system uses features this program cannot read (incompat flags 0x%llx)",
         static_cast<unsigned long long>(incompat));
  }
  if (nodeSize_ < 4096 || nodeSize_ > 65536 || (nodeSize_ & (nodeSize_ - 1)) != 0 || sectorSize < 4096 ||
      nodeSize_ % sectorSize != 0) {
    Fail(ProviderError::Kind::kRefused, "unsupported node size %u or sector size %u", nodeSize_, sectorSize);
  }
  // Every device must carry the same file system at the same generation.
  for (const auto& device : devices_.Paths()) {
    if (device.first == firstDevid) continue;
    AlignedBuffer other(super::kSize);
    ReadSuper(devices_, device.first, other);
    if (memcmp(other.data() + super::kFsid, s + super::kFsid, kFsidSize) != 0 ||
        Le64(other.data() + super::kGeneration) != generation_) {
      Fail(ProviderError::Kind::kBadBlock, "superblock of %s does not match that of %s", device.second.c_str(),
           devices_.Paths().at(firstDevid).c_str());
    }
  }
  checksum_ = std::make_unique<Checksum>(Le16(s + super::kCsumType));
  const uint8_t* metadataFsid =
      (incompat & BTRFS_FEATURE_INCOMPAT_METADATA_UUID) != 0 ? s + super::kMetadataUuid : s + super::kFsid;
  reader_ = std::make_unique<TreeBlockReader>(devices_, chunks_, *checksum_, nodeSize_, metadataFsid, generation_);

  // The system chunks are in the superblock; they map the chunk tree, which
  // maps everything else.
  const uint32_t arraySize = Le32(s + super::kSysChunkArraySize);
  if (arraySize > super::kSysChunkArrayMax) {
    Fail(ProviderError::Kind::kBadBlock, "system chunk array of %u bytes is too large", arraySize);
  }
  const uint8_t* array = s + super::kSysChunkArray;
  size_t pos = 0;
  while (pos < arraySize) {
    if (arraySize - pos < block::kDiskKeySize) Fail(ProviderError::Kind::kBadBlock, "truncated system chunk array");
    const DiskKey key = ReadDiskKey(array + pos);
    pos += block::kDiskKeySize;
    const size_t itemSize = ChunkMap::ItemSize(array + pos, arraySize - pos);
    if (key.type != BTRFS_CHUNK_ITEM_KEY || itemSize == 0 || itemSize > arraySize - pos) {
      Fail(ProviderError::Kind::kBadBlock, "malformed system chunk array");
    }
    chunks_.Add(key.offset, array + pos, itemSize);
    pos += itemSize;
  }
  WalkLeaves(Le64(s + super::kChunkRoot), Le64(s + super::kChunkRootGeneration), s[super::kChunkRootLevel],
             [this](const TreeBlock& leaf) {
               for (uint32_t i = 0; i < leaf.ItemCount(); ++i) {
                 const TreeBlock::Item item = leaf.LeafItem(i);
                 if (item.key.type == BTRFS_CHUNK_ITEM_KEY) chunks_.Add(item.key.offset, item.data, item.size);
               }
             });

  constexpr size_t kRootItemNeeds = offsetof(btrfs_root_item, level) + 1;
  WalkLeaves(Le64(s + super::kRoot), generation_, s[super::kRootLevel], [this](const TreeBlock& leaf) {
    for (uint32_t i = 0; i < leaf.ItemCount(); ++i) {
      const TreeBlock::Item item = leaf.LeafItem(i);
      if (item.key.type != BTRFS_ROOT_ITEM_KEY || !IsSubvolumeTree(item.key.objectid)) continue;
      if (item.size < kRootItemNeeds) {
        Fail(ProviderError::Kind::kBadBlock, "root item of subvolume %llu is too short (%u bytes)",
             static_cast<unsigned long long>(item.key.objectid), item.size);
      }
      if (Le32(item.data + offsetof(btrfs_root_item, refs)) == 0) continue;  // deleted
      const int level = item.data[offsetof(btrfs_root_item, level)];
      if (level > block::kMaxLevel) {
        Fail(ProviderError::Kind::kBadBlock, "root item of subvolume %llu has level %d",
             static_cast<unsigned long long>(item.key.objectid), level);
      }
      subvolumes_.push_back(SubvolumeRoot{item.key.objectid, Le64(item.data + offsetof(btrfs_root_item, bytenr)),
                                          Le64(item.data + offsetof(btrfs_root_item, generation)), level});
    }
  });
  std::sort(subvolumes_.begin(), subvolumes_.end(),
            [](const SubvolumeRoot& a, const SubvolumeRoot& b) { return a.id < b.id; });
}

void CommittedFileSystem::WalkLeaves(uint64_t bytenr, uint64_t generation, int level,
                                     const std::function<void(const TreeBlock&)>& visit) {
  if (level > block::kMaxLevel) {
    Fail(ProviderError::Kind::kBadBlock, "tree root at %llu has level %d", static_cast<unsigned long long>(bytenr),
         level);
  }
  // Levels fall by one at each step, so the walk ends even on a corrupt tree.
  AlignedBuffer buffer(nodeSize_);
  reader_->Read(bytenr, generation, level, buffer.data());
  const TreeBlock node(buffer.data(), nodeSize_);
  if (level == 0) {
    visit(node);
    return;
  }
  for (uint32_t i = 0; i < node.ItemCount(); ++i) {
    const TreeBlock::ChildPointer child = node.Child(i);
    WalkLeaves(child.bytenr, child.generation, level - 1, visit);
  }
}

}  // namespace vela::btrfs
