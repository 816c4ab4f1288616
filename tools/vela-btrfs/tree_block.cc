#include "tree_block.h"

#include <algorithm>
#include <cstring>

#include "provider_error.h"

namespace vela::btrfs {

namespace {

// Neighbouring blocks are read together, up to this many bytes at once.
constexpr size_t kMaxMergedRead = 1 << 20;

}  // namespace

TreeBlock::ChildPointer TreeBlock::Child(uint32_t i) const {
  const uint8_t* p = data_ + block::kHeaderSize + static_cast<size_t>(i) * block::kKeyPtrSize;
  return ChildPointer{ReadDiskKey(p), Le64(p + block::kKeyPtrBlockptr), Le64(p + block::kKeyPtrGeneration)};
}

TreeBlock::Item TreeBlock::LeafItem(uint32_t i) const {
  const uint8_t* p = data_ + block::kHeaderSize + static_cast<size_t>(i) * block::kItemSize;
  const uint32_t offset = Le32(p + block::kItemDataOffset);
  return Item{ReadDiskKey(p), data_ + block::kHeaderSize + offset, Le32(p + block::kItemDataSize)};
}

std::string TreeBlock::StructureProblem() const {
  const size_t room = size_ - block::kHeaderSize;
  const uint64_t count = ItemCount();
  if (Level() > 0) {
    if (count == 0) return "node without children";
    if (count * block::kKeyPtrSize > room) return Format("%llu children do not fit", static_cast<unsigned long long>(count));
    return std::string();
  }
  if (count * block::kItemSize > room) return Format("%llu items do not fit", static_cast<unsigned long long>(count));
  const uint64_t table = count * block::kItemSize;
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t* p = data_ + block::kHeaderSize + static_cast<size_t>(i) * block::kItemSize;
    const uint64_t offset = Le32(p + block::kItemDataOffset);
    const uint64_t size = Le32(p + block::kItemDataSize);
    if (offset < table || offset + size > room) return Format("item %u lies outside the leaf", i);
  }
  return std::string();
}

TreeBlockReader::TreeBlockReader(const DeviceSet& devices, const ChunkMap& chunks, const Checksum& checksum,
                                 uint32_t nodeSize, std::vector<std::vector<uint8_t>> blockFsids,
                                 uint64_t newestGeneration)
    : devices_(devices),
      chunks_(chunks),
      checksum_(checksum),
      nodeSize_(nodeSize),
      blockFsids_(std::move(blockFsids)),
      newestGeneration_(newestGeneration) {}

std::string TreeBlockReader::Problem(const uint8_t* data, uint64_t logical, uint64_t generation,
                                     int level) const {
  if (Le64(data + block::kBytenr) != logical) {
    return Format("the block there says it is at %llu", static_cast<unsigned long long>(Le64(data + block::kBytenr)));
  }
  if (std::none_of(blockFsids_.begin(), blockFsids_.end(), [data](const std::vector<uint8_t>& fsid) {
        return memcmp(data + block::kFsid, fsid.data(), kFsidSize) == 0;
      })) {
    return "it belongs to another file system";
  }
  if (!checksum_.Matches(data, nodeSize_)) return checksum_.Name() + " checksum mismatch";
  const uint64_t found = Le64(data + block::kGeneration);
  if (found != generation || found > newestGeneration_) {
    return Format("generation %llu, expected %llu", static_cast<unsigned long long>(found),
                  static_cast<unsigned long long>(generation));
  }
  if (data[block::kLevel] != level) return Format("level %d, expected %d", data[block::kLevel], level);
  return TreeBlock(data, nodeSize_).StructureProblem();
}

std::vector<PhysicalLocation> TreeBlockReader::PreferredCopies(uint64_t logical) const {
  std::vector<PhysicalLocation> copies = chunks_.Locate(logical, nodeSize_);
  if (!stale_.empty()) {
    std::stable_partition(copies.begin(), copies.end(),
                          [this](const PhysicalLocation& copy) { return stale_.count(copy.devid) == 0; });
  }
  return copies;
}

bool TreeBlockReader::RebuildFromParity(const std::vector<PhysicalLocation>& sources, uint8_t* buffer,
                                        uint64_t* absent) const {
  for (const PhysicalLocation& source : sources) {
    if (!devices_.Has(source.devid)) {
      *absent = source.devid;
      return false;
    }
  }
  AlignedBuffer part(nodeSize_);
  memset(buffer, 0, nodeSize_);
  for (const PhysicalLocation& source : sources) {
    devices_.Read(source.devid, source.physical, part.data(), nodeSize_);
    for (uint32_t i = 0; i < nodeSize_; i += sizeof(uint64_t)) {
      uint64_t a, b;
      memcpy(&a, buffer + i, sizeof a);
      memcpy(&b, part.data() + i, sizeof b);
      a ^= b;
      memcpy(buffer + i, &a, sizeof a);
    }
  }
  return true;
}

void TreeBlockReader::Read(uint64_t logical, uint64_t generation, int level, uint8_t* buffer) const {
  if (logical % DeviceSet::kAlignment != 0) {
    Fail(ProviderError::Kind::kBadBlock, "tree block address %llu is not aligned",
         static_cast<unsigned long long>(logical));
  }
  std::string problem;
  std::vector<uint64_t> missing;
  bool readOne = false;
  for (const PhysicalLocation& copy : PreferredCopies(logical)) {
    if (!devices_.Has(copy.devid)) {
      missing.push_back(copy.devid);
      continue;
    }
    devices_.Read(copy.devid, copy.physical, buffer, nodeSize_);
    readOne = true;
    problem = Problem(buffer, logical, generation, level);
    if (problem.empty()) return;
  }
  const std::vector<PhysicalLocation> sources = chunks_.ParitySources(logical, nodeSize_);
  uint64_t absent = 0;
  if (!sources.empty()) {
    if (RebuildFromParity(sources, buffer, &absent)) {
      const std::string rebuilt = Problem(buffer, logical, generation, level);
      if (rebuilt.empty()) return;
      problem = readOne ? problem + "; rebuilt from parity: " + rebuilt : "rebuilt from parity: " + rebuilt;
      readOne = true;
    } else if (readOne) {
      problem += Format("; device %llu, which its parity needs, is missing", static_cast<unsigned long long>(absent));
    }
  }
  if (!readOne) {
    // Not damage: what the block is cannot be known from the devices here.
    std::string devids;
    for (uint64_t devid : missing) devids += (devids.empty() ? "" : ", ") + std::to_string(devid);
    if (absent != 0) {
      Fail(ProviderError::Kind::kRefused,
           "tree block at logical %llu (level %d) cannot be read: it lies on missing device %s, and device %llu, also missing, would be needed to rebuild it from parity",
           static_cast<unsigned long long>(logical), level, devids.c_str(), static_cast<unsigned long long>(absent));
    }
    Fail(ProviderError::Kind::kRefused, "tree block at logical %llu (level %d) cannot be read: every copy is on a missing device (%s)",
         static_cast<unsigned long long>(logical), level, devids.c_str());
  }
  Fail(ProviderError::Kind::kBadBlock, "bad tree block at logical %llu (level %d): %s",
       static_cast<unsigned long long>(logical), level, problem.c_str());
}

void TreeBlockReader::ReadMany(size_t count, const std::function<Request(size_t)>& request, int level,
                               const std::function<void(size_t, const TreeBlock&)>& visit) const {
  const size_t maxBlocks = std::min(std::max<size_t>(1, kMaxMergedRead / nodeSize_), count);
  AlignedBuffer merged(maxBlocks * nodeSize_);
  AlignedBuffer single(nodeSize_);
  size_t i = 0;
  while (i < count) {
    const uint64_t first = request(i).logical;
    if (first % DeviceSet::kAlignment != 0) {
      Fail(ProviderError::Kind::kBadBlock, "tree block address %llu is not aligned",
           static_cast<unsigned long long>(first));
    }
    // A run of blocks that follow each other on disk, within one stripe.
    const uint64_t contiguous = chunks_.ContiguousFrom(first);
    size_t run = 1;
    while (i + run < count && run < maxBlocks && request(i + run).logical == first + run * nodeSize_ &&
           (run + 1) * nodeSize_ <= contiguous) {
      ++run;
    }
    const std::vector<PhysicalLocation> copies = PreferredCopies(first);
    const auto present = std::find_if(copies.begin(), copies.end(),
                                      [this](const PhysicalLocation& copy) { return devices_.Has(copy.devid); });
    if (present != copies.end()) devices_.Read(present->devid, present->physical, merged.data(), run * nodeSize_);
    for (size_t k = 0; k < run; ++k) {
      const Request wanted = request(i + k);
      const uint8_t* data = merged.data() + k * nodeSize_;
      if (present == copies.end() || !Problem(data, wanted.logical, wanted.generation, level).empty()) {
        // Another copy may be good; Read() tries them all and reports.
        Read(wanted.logical, wanted.generation, level, single.data());
        data = single.data();
      }
      visit(i + k, TreeBlock(data, nodeSize_));
    }
    i += run;
  }
}

}  // namespace vela::btrfs
