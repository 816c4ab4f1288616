#include "chunk_map.h"

#include <cstddef>

#include "disk_format.h"
#include "provider_error.h"

namespace vela::btrfs {

namespace {

constexpr size_t kStripesOffset = offsetof(btrfs_chunk, stripe);
constexpr size_t kStripeSize = sizeof(btrfs_stripe);

bool IsStriped(uint64_t type) {
  return (type & (BTRFS_BLOCK_GROUP_RAID0 | BTRFS_BLOCK_GROUP_RAID10 | BTRFS_BLOCK_GROUP_RAID56_MASK)) != 0;
}

int ParityStripes(uint64_t type) {
  if (type & BTRFS_BLOCK_GROUP_RAID6) return 2;
  if (type & BTRFS_BLOCK_GROUP_RAID5) return 1;
  return 0;
}

}  // namespace

size_t ChunkMap::ItemSize(const uint8_t* item, size_t available) {
  if (available < kStripesOffset) return 0;
  const uint16_t stripes = Le16(item + offsetof(btrfs_chunk, num_stripes));
  return kStripesOffset + static_cast<size_t>(stripes) * kStripeSize;
}

void ChunkMap::Add(uint64_t logical, const uint8_t* item, size_t itemSize) {
  const size_t needed = ItemSize(item, itemSize);
  if (needed == 0 || needed > itemSize) {
    Fail(ProviderError::Kind::kBadBlock, "malformed chunk item at logical %llu",
         static_cast<unsigned long long>(logical));
  }
  Chunk chunk;
  chunk.length = Le64(item + offsetof(btrfs_chunk, length));
  chunk.stripeLength = Le64(item + offsetof(btrfs_chunk, stripe_len));
  chunk.type = Le64(item + offsetof(btrfs_chunk, type));
  chunk.subStripes = Le16(item + offsetof(btrfs_chunk, sub_stripes));
  const uint16_t count = Le16(item + offsetof(btrfs_chunk, num_stripes));
  for (uint16_t i = 0; i < count; ++i) {
    const uint8_t* stripe = item + kStripesOffset + i * kStripeSize;
    chunk.stripes.push_back(Stripe{Le64(stripe + offsetof(btrfs_stripe, devid)),
                                   Le64(stripe + offsetof(btrfs_stripe, offset))});
  }
  const bool lengthOk = chunk.length > 0 && logical + chunk.length > logical;
  const bool stripeLengthOk = chunk.stripeLength > 0 && (chunk.stripeLength & (chunk.stripeLength - 1)) == 0;
  bool layoutOk = count > 0 && lengthOk && stripeLengthOk;
  if (chunk.type & BTRFS_BLOCK_GROUP_RAID10) {
    layoutOk = layoutOk && chunk.subStripes > 0 && count % chunk.subStripes == 0;
  }
  if (chunk.type & BTRFS_BLOCK_GROUP_RAID56_MASK) layoutOk = layoutOk && count > ParityStripes(chunk.type);
  if (!layoutOk) {
    Fail(ProviderError::Kind::kBadBlock,
         "malformed chunk item at logical %llu (length %llu, stripe length %llu, %u stripes)",
         static_cast<unsigned long long>(logical), static_cast<unsigned long long>(chunk.length),
         static_cast<unsigned long long>(chunk.stripeLength), count);
  }
  chunks_[logical] = std::move(chunk);
}

const ChunkMap::Chunk* ChunkMap::Find(uint64_t logical, uint64_t* start) const {
  auto it = chunks_.upper_bound(logical);
  if (it == chunks_.begin()) return nullptr;
  --it;
  if (logical - it->first >= it->second.length) return nullptr;
  *start = it->first;
  return &it->second;
}

uint64_t ChunkMap::ContiguousFrom(uint64_t logical) const {
  uint64_t start = 0;
  const Chunk* chunk = Find(logical, &start);
  if (chunk == nullptr) return 0;
  const uint64_t offset = logical - start;
  if (!IsStriped(chunk->type)) return chunk->length - offset;
  return chunk->stripeLength - offset % chunk->stripeLength;
}

std::vector<PhysicalLocation> ChunkMap::Locate(uint64_t logical, uint64_t length) const {
  uint64_t start = 0;
  const Chunk* chunk = FindRange(logical, length, &start);
  const uint64_t offset = logical - start;
  const auto& stripes = chunk->stripes;
  std::vector<PhysicalLocation> copies;
  if (!IsStriped(chunk->type)) {
    // Single, DUP and the RAID1 family: every stripe is a whole copy.
    for (const Stripe& s : stripes) copies.push_back({s.devid, s.offset + offset});
    return copies;
  }
  const uint64_t within = offset % chunk->stripeLength;
  uint64_t row = offset / chunk->stripeLength;
  const uint64_t count = stripes.size();
  const auto at = [&](uint64_t index, uint64_t r) {
    return PhysicalLocation{stripes[index].devid, stripes[index].offset + r * chunk->stripeLength + within};
  };
  if (chunk->type & BTRFS_BLOCK_GROUP_RAID0) {
    const uint64_t index = row % count;
    copies.push_back(at(index, row / count));
  } else if (chunk->type & BTRFS_BLOCK_GROUP_RAID10) {
    const uint64_t groups = count / chunk->subStripes;
    const uint64_t first = (row % groups) * chunk->subStripes;
    for (uint64_t i = first; i < first + chunk->subStripes; ++i) copies.push_back(at(i, row / groups));
  } else {
    // RAID5/6: the data stripe of the row, its position rotated by the row
    // number. A block that cannot be read there is rebuilt from the rest of
    // the row (ParitySources).
    const RaidRow r = RowOf(*chunk, offset);
    copies.push_back(at((r.row + r.dataIndex) % count, r.row));
  }
  return copies;
}

std::vector<PhysicalLocation> ChunkMap::ParitySources(uint64_t logical, uint64_t length) const {
  uint64_t start = 0;
  const Chunk* chunk = FindRange(logical, length, &start);
  std::vector<PhysicalLocation> sources;
  if ((chunk->type & BTRFS_BLOCK_GROUP_RAID56_MASK) == 0) return sources;
  const uint64_t offset = logical - start;
  const uint64_t within = offset % chunk->stripeLength;
  const RaidRow r = RowOf(*chunk, offset);
  const uint64_t count = chunk->stripes.size();
  // In each row the stripes are, rotated by the row number: the data
  // stripes in order, then P (the XOR of the data stripes), then Q.
  for (uint64_t i = 0; i <= r.dataStripes; ++i) {
    if (i == r.dataIndex) continue;
    const Stripe& s = chunk->stripes[(r.row + i) % count];
    sources.push_back({s.devid, s.offset + r.row * chunk->stripeLength + within});
  }
  return sources;
}

ChunkMap::RaidRow ChunkMap::RowOf(const Chunk& chunk, uint64_t offset) {
  RaidRow r;
  r.dataStripes = chunk.stripes.size() - static_cast<uint64_t>(ParityStripes(chunk.type));
  const uint64_t stripeNumber = offset / chunk.stripeLength;
  r.dataIndex = stripeNumber % r.dataStripes;
  r.row = stripeNumber / r.dataStripes;
  return r;
}

const ChunkMap::Chunk* ChunkMap::FindRange(uint64_t logical, uint64_t length, uint64_t* start) const {
  const Chunk* chunk = Find(logical, start);
  if (chunk == nullptr || ContiguousFrom(logical) < length) {
    Fail(ProviderError::Kind::kBadBlock, "logical address %llu (+%llu) is not mapped to one device range",
         static_cast<unsigned long long>(logical), static_cast<unsigned long long>(length));
  }
  return chunk;
}

}  // namespace vela::btrfs
