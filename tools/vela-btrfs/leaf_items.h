// The bodies of the leaf items this program looks into: root items of
// subvolume trees and file extent items pointing at data extents. Every
// field is checked against the item's size before it is read.
#ifndef VELA_TOOLS_VELA_BTRFS_LEAF_ITEMS_H_
#define VELA_TOOLS_VELA_BTRFS_LEAF_ITEMS_H_

#include <cstdint>
#include <optional>

#include "tree_block.h"

namespace vela::btrfs {

struct SubvolumeRoot {
  uint64_t id;
  uint64_t bytenr;      // root block of its tree
  uint64_t generation;  // generation of that block
  int level;
};

// The tree of a live subvolume from a root tree item; nothing for items of
// other kinds, of other trees, and of deleted subvolumes. Throws
// ProviderError for a root item too short or with an impossible level.
std::optional<SubvolumeRoot> ReadSubvolumeRoot(const TreeBlock::Item& item);

struct DataExtent {
  uint64_t bytenr;
  uint64_t bytes;  // on disk, compressed or not
};

// The data extent a file extent item points at; nothing for other items,
// inline data and holes. Throws ProviderError for an item too short for its
// kind and for an extent that is not whole `sectorSize` sectors.
std::optional<DataExtent> ReadFileExtent(const TreeBlock::Item& item, uint32_t sectorSize);

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_LEAF_ITEMS_H_
