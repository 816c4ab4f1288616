#include "committed_file_system.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>
#include <set>

#include "provider_error.h"

namespace vela::btrfs {

namespace {

constexpr uint64_t kSupportedIncompat = ~(kIncompatExtentTreeV2 | kIncompatRaidStripeTree) & ((1ULL << 17) - 1);

// Reads and checks the superblock of `devid`.
void ReadSuper(const DeviceSet& devices, uint64_t devid, AlignedBuffer& buffer) {
  devices.Read(devid, super::kOffset, buffer.data(), super::kSize);
  const uint8_t* sb = buffer.data();
  const std::string& path = devices.Path(devid);
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

bool IsOf(const AlignedBuffer& sb, const uint8_t (&fsid)[kFsidSize]) {
  return memcmp(sb.data() + super::kFsid, fsid, kFsidSize) == 0;
}

// The ID every tree block of the file system of this superblock carries.
const uint8_t* MetadataFsid(const uint8_t* sb) {
  return (Le64(sb + super::kIncompatFlags) & BTRFS_FEATURE_INCOMPAT_METADATA_UUID) != 0 ? sb + super::kMetadataUuid
                                                                                       : sb + super::kFsid;
}

}  // namespace

uint64_t CommittedFileSystem::NewestCommit(const DeviceSet& devices, const uint8_t (&fsid)[kFsidSize]) {
  AlignedBuffer sb(super::kSize);
  uint64_t newest = 0;
  for (uint64_t devid : devices.Devids()) {
    try {
      ReadSuper(devices, devid, sb);
    } catch (const ProviderError&) {
      continue;  // another device may tell
    }
    if (IsOf(sb, fsid)) newest = std::max(newest, Le64(sb.data() + super::kGeneration));
  }
  return newest;
}

CommittedFileSystem::CommittedFileSystem(const DeviceSet& devices, const uint8_t (&fsid)[kFsidSize])
    : devices_(devices) {
  // The newest superblock among the file system's own devices describes the
  // last commit, as the kernel takes it. A device with an older one missed
  // the commits since (a mirror that was away while the file system was
  // mounted degraded, or a device whose superblock a commit in progress has
  // not reached yet): its copies of blocks are read last, and only a copy
  // that passes every check (above all the generation its parent records)
  // is taken. Seed devices keep the superblock of the file system they were.
  AlignedBuffer sb(super::kSize);
  AlignedBuffer candidate(super::kSize);
  uint64_t newestDevid = 0;
  std::map<uint64_t, uint64_t> generations;  // of the file system's own devices
  std::vector<std::vector<uint8_t>> blockFsids;  // the seeds', then the file system's own
  for (uint64_t devid : devices_.Devids()) {
    ReadSuper(devices_, devid, candidate);
    if (!IsOf(candidate, fsid)) {
      if ((Le64(candidate.data() + super::kFlags) & super::kFlagSeeding) == 0) {
        Fail(ProviderError::Kind::kBadBlock, "%s holds another file system, and not as a seed",
             devices_.Path(devid).c_str());
      }
      const uint8_t* seedFsid = MetadataFsid(candidate.data());
      blockFsids.emplace_back(seedFsid, seedFsid + kFsidSize);
      continue;
    }
    const uint64_t generation = Le64(candidate.data() + super::kGeneration);
    generations[devid] = generation;
    if (newestDevid == 0 || generation > generations[newestDevid]) {
      newestDevid = devid;
      memcpy(sb.data(), candidate.data(), super::kSize);
    }
  }
  if (newestDevid == 0) Fail(ProviderError::Kind::kRefused, "no device of the file system can be read");
  std::set<uint64_t> stale;
  for (const auto& [devid, generation] : generations) {
    if (generation < generations[newestDevid]) stale.insert(devid);
  }

  const uint8_t* s = sb.data();
  generation_ = Le64(s + super::kGeneration);
  nodeSize_ = Le32(s + super::kNodeSize);
  sectorSize_ = Le32(s + super::kSectorSize);
  const uint64_t incompat = Le64(s + super::kIncompatFlags);
  if ((incompat & ~kSupportedIncompat) != 0) {
    Fail(ProviderError::Kind::kRefused, "the file system uses features this program cannot read (incompat flags 0x%llx)",
         static_cast<unsigned long long>(incompat));
  }
  if (nodeSize_ < 4096 || nodeSize_ > 65536 || (nodeSize_ & (nodeSize_ - 1)) != 0 || sectorSize_ < 4096 ||
      sectorSize_ > nodeSize_ || (sectorSize_ & (sectorSize_ - 1)) != 0) {
    Fail(ProviderError::Kind::kRefused, "unsupported node size %u or sector size %u", nodeSize_, sectorSize_);
  }
  checksum_ = std::make_unique<Checksum>(Le16(s + super::kCsumType));
  const uint8_t* ownFsid = MetadataFsid(s);
  blockFsids.emplace_back(ownFsid, ownFsid + kFsidSize);
  reader_ = std::make_unique<TreeBlockReader>(devices_, chunks_, *checksum_, nodeSize_, std::move(blockFsids),
                                              generation_);
  reader_->SetStaleDevices(std::move(stale));

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

  WalkLeaves(Le64(s + super::kRoot), generation_, s[super::kRootLevel], [this](const TreeBlock& leaf) {
    for (uint32_t i = 0; i < leaf.ItemCount(); ++i) {
      if (const auto root = ReadSubvolumeRoot(leaf.LeafItem(i))) subvolumes_.push_back(*root);
    }
  });
  std::sort(subvolumes_.begin(), subvolumes_.end(),
            [](const SubvolumeRoot& a, const SubvolumeRoot& b) { return a.id < b.id; });
}

void CommittedFileSystem::WalkLeaves(uint64_t bytenr, uint64_t generation, int level,
                                     const std::function<void(const TreeBlock&)>& visit) {
  std::unordered_set<uint64_t> seen;
  WalkLeaves(bytenr, generation, level, visit, seen);
}

void CommittedFileSystem::WalkLeaves(uint64_t bytenr, uint64_t generation, int level,
                                     const std::function<void(const TreeBlock&)>& visit,
                                     std::unordered_set<uint64_t>& seen) {
  if (level > block::kMaxLevel) {
    Fail(ProviderError::Kind::kBadBlock, "tree root at %llu has level %d", static_cast<unsigned long long>(bytenr),
         level);
  }
  // Levels fall by one at each step and no block is read twice, so the walk
  // ends soon even on a corrupt tree.
  if (!seen.insert(bytenr).second) {
    Fail(ProviderError::Kind::kBadBlock, "tree block at logical %llu is reached twice in one tree",
         static_cast<unsigned long long>(bytenr));
  }
  AlignedBuffer buffer(nodeSize_);
  reader_->Read(bytenr, generation, level, buffer.data());
  const TreeBlock node(buffer.data(), nodeSize_);
  if (level == 0) {
    visit(node);
    return;
  }
  for (uint32_t i = 0; i < node.ItemCount(); ++i) {
    const TreeBlock::ChildPointer child = node.Child(i);
    WalkLeaves(child.bytenr, child.generation, level - 1, visit, seen);
  }
}

}  // namespace vela::btrfs
