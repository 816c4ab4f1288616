// Fuzz target: one tree block through the size provider's checks and
// parsers: header and item table checks, child pointers, root items, file
// extent items, and chunk items with the address arithmetic they drive
// (copies, and the sources that rebuild a block from parity).
#include <cstddef>
#include <cstdint>
#include <vector>

#include "chunk_map.h"
#include "in_memory_image.h"
#include "leaf_items.h"
#include "provider_error.h"
#include "tree_block.h"

namespace {

using vela::btrfs::ChunkMap;
using vela::btrfs::ProviderError;
using vela::btrfs::TreeBlock;
using vela::fuzz::InMemoryImage;

// Keeps what the parsers return from being optimised away.
volatile uint64_t gSink;

void ParseChunk(const TreeBlock::Item& item) {
  ChunkMap chunks;
  chunks.Add(item.key.offset, item.data, item.size);
  const uint64_t length = vela::btrfs::Le64(item.data + offsetof(btrfs_chunk, length));
  const uint64_t inside = item.key.offset + ((length / 2) & ~uint64_t{InMemoryImage::kNodeSize - 1});
  gSink = gSink + chunks.ContiguousFrom(inside);
  for (const auto& copy : chunks.Locate(inside, InMemoryImage::kNodeSize)) gSink = gSink + copy.devid + copy.physical;
  for (const auto& source : chunks.ParitySources(inside, InMemoryImage::kNodeSize)) {
    gSink = gSink + source.devid + source.physical;
  }
}

void Parse(const TreeBlock& block) {
  if (block.Level() > 0) {
    for (uint32_t i = 0; i < block.ItemCount(); ++i) gSink = gSink + block.Child(i).bytenr;
    return;
  }
  for (uint32_t i = 0; i < block.ItemCount(); ++i) {
    const TreeBlock::Item item = block.LeafItem(i);
    // Each parser meets every item: a failure of one must not hide the others.
    try {
      if (const auto root = vela::btrfs::ReadSubvolumeRoot(item)) gSink = gSink + root->bytenr;
    } catch (const ProviderError&) {
    }
    try {
      if (const auto extent = vela::btrfs::ReadFileExtent(item, InMemoryImage::kNodeSize)) gSink = gSink + extent->bytes;
    } catch (const ProviderError&) {
    }
    try {
      if (item.key.type == BTRFS_CHUNK_ITEM_KEY) ParseChunk(item);
    } catch (const ProviderError&) {
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < InMemoryImage::kNodeSize) return 0;
  const InMemoryImage image(data, InMemoryImage::kNodeSize);
  ChunkMap chunks;
  image.MapInto(chunks);
  const vela::btrfs::Checksum checksum(BTRFS_CSUM_TYPE_CRC32);
  const vela::btrfs::TreeBlockReader reader(image.Devices(), chunks, checksum, InMemoryImage::kNodeSize,
                                            {std::vector<uint8_t>(image.Fsid(), image.Fsid() + sizeof image.Fsid())},
                                            UINT64_MAX);
  try {
    reader.ReadMany(
        1, [&](size_t) { return vela::btrfs::TreeBlockReader::Request{InMemoryImage::BlockAddress(0), image.Generation(0)}; },
        image.Level(0), [](size_t, const TreeBlock& block) { Parse(block); });
  } catch (const ProviderError&) {
  }
  return 0;
}
