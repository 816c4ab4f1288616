// Logical to physical address translation: the file system's chunks, each a
// logical range laid out on one or more devices by its profile.
#ifndef VELA_TOOLS_VELA_BTRFS_CHUNK_MAP_H_
#define VELA_TOOLS_VELA_BTRFS_CHUNK_MAP_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace vela::btrfs {

struct PhysicalLocation {
  uint64_t devid;
  uint64_t physical;
};

class ChunkMap {
 public:
  // Adds the chunk starting at `logical` from a chunk item's bytes. Throws
  // ProviderError for an item that is malformed or uses a layout this
  // program cannot read.
  void Add(uint64_t logical, const uint8_t* item, size_t itemSize);
  // Size of the chunk item starting at `item`, read from its stripe count,
  // or 0 when `available` bytes cannot hold even the fixed part.
  static size_t ItemSize(const uint8_t* item, size_t available);

  // Every copy of the `length` bytes at `logical`, first copy first. The
  // range must lie in one chunk and one stripe; throws ProviderError if not.
  std::vector<PhysicalLocation> Locate(uint64_t logical, uint64_t length) const;
  // For a range in a chunk with parity (RAID5/6): the same bytes in the
  // other data stripes of its row and in the row's first parity stripe,
  // whose XOR rebuilds the range. Empty for chunks without parity. The range
  // must lie in one chunk and one stripe; throws ProviderError if not.
  std::vector<PhysicalLocation> ParitySources(uint64_t logical, uint64_t length) const;
  // How many bytes from `logical` on lie contiguously on the devices (the
  // rest of the stripe or chunk), 0 for an unmapped address.
  uint64_t ContiguousFrom(uint64_t logical) const;

 private:
  struct Stripe {
    uint64_t devid;
    uint64_t offset;
  };
  struct Chunk {
    uint64_t length;
    uint64_t stripeLength;
    uint64_t type;
    uint16_t subStripes;
    std::vector<Stripe> stripes;
  };
  // A row of a RAID5/6 chunk: which full stripe, and which of its data
  // stripes holds an offset.
  struct RaidRow {
    uint64_t row = 0;
    uint64_t dataIndex = 0;
    uint64_t dataStripes = 0;
  };
  static RaidRow RowOf(const Chunk& chunk, uint64_t offset);
  const Chunk* Find(uint64_t logical, uint64_t* start) const;
  // Find() for a range that must lie in one stripe; throws if it does not.
  const Chunk* FindRange(uint64_t logical, uint64_t length, uint64_t* start) const;

  std::map<uint64_t, Chunk> chunks_;
};

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_CHUNK_MAP_H_
