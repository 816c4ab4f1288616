// The bodies of the leaf items this program looks into: root items of
// subvolume trees, file extent items pointing at data extents, and, for the
// space map, inode items and the references naming inodes. Every field is
// checked against the item's size before it is read.
#ifndef VELA_TOOLS_VELA_BTRFS_LEAF_ITEMS_H_
#define VELA_TOOLS_VELA_BTRFS_LEAF_ITEMS_H_

#include <array>
#include <cstdint>
#include <optional>

#include "tree_block.h"

namespace vela::btrfs {

struct SubvolumeRoot {
  uint64_t id;
  uint64_t bytenr;      // root block of its tree
  uint64_t generation;  // generation of that block
  int level;
  // The subvolume's UUID and that of the subvolume it is a snapshot of;
  // all zero when unknown (root items of old file systems lack them).
  std::array<uint8_t, 16> uuid{};
  std::array<uint8_t, 16> parentUuid{};
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

// The first name an inode reference item (INODE_REF or INODE_EXTREF)
// gives its inode: the directory holding it and the name there. Nothing
// for other items; throws ProviderError for a reference that does not fit
// its item.
struct InodeName {
  uint64_t inode;
  uint64_t parent;
  const uint8_t* name;
  uint16_t length;
};
std::optional<InodeName> ReadInodeName(const TreeBlock::Item& item);

// For an inode item: whether the inode is a directory. Nothing for other
// items; throws ProviderError for an item too short.
std::optional<bool> ReadIsDirectory(const TreeBlock::Item& item);

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_LEAF_ITEMS_H_
