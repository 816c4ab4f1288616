#include "leaf_items.h"

#include <sys/stat.h>

#include <cstddef>
#include <cstring>

#include "disk_format.h"
#include "provider_error.h"

namespace vela::btrfs {

std::optional<SubvolumeRoot> ReadSubvolumeRoot(const TreeBlock::Item& item) {
  if (item.key.type != BTRFS_ROOT_ITEM_KEY || !IsSubvolumeTree(item.key.objectid)) return std::nullopt;
  constexpr size_t kNeeds = offsetof(btrfs_root_item, level) + 1;
  if (item.size < kNeeds) {
    Fail(ProviderError::Kind::kBadBlock, "root item of subvolume %llu is too short (%u bytes)",
         static_cast<unsigned long long>(item.key.objectid), item.size);
  }
  if (Le32(item.data + offsetof(btrfs_root_item, refs)) == 0) return std::nullopt;  // deleted
  const int level = item.data[offsetof(btrfs_root_item, level)];
  if (level > block::kMaxLevel) {
    Fail(ProviderError::Kind::kBadBlock, "root item of subvolume %llu has level %d",
         static_cast<unsigned long long>(item.key.objectid), level);
  }
  SubvolumeRoot root{item.key.objectid, Le64(item.data + offsetof(btrfs_root_item, bytenr)),
                     Le64(item.data + offsetof(btrfs_root_item, generation)), level};
  if (item.size >= offsetof(btrfs_root_item, parent_uuid) + root.parentUuid.size()) {
    memcpy(root.uuid.data(), item.data + offsetof(btrfs_root_item, uuid), root.uuid.size());
    memcpy(root.parentUuid.data(), item.data + offsetof(btrfs_root_item, parent_uuid), root.parentUuid.size());
  }
  return root;
}

std::optional<DataExtent> ReadFileExtent(const TreeBlock::Item& item, uint32_t sectorSize) {
  if (item.key.type != BTRFS_EXTENT_DATA_KEY) return std::nullopt;
  const uint8_t type = item.size > file_extent::kType ? item.data[file_extent::kType] : 0;
  if (item.size <= file_extent::kType ||
      ((type == file_extent::kRegular || type == file_extent::kPrealloc) && item.size < file_extent::kSizeWithDisk)) {
    Fail(ProviderError::Kind::kBadBlock, "file extent item of inode %llu is too short (%u bytes)",
         static_cast<unsigned long long>(item.key.objectid), item.size);
  }
  if (type != file_extent::kRegular && type != file_extent::kPrealloc) return std::nullopt;
  const uint64_t bytenr = Le64(item.data + file_extent::kDiskBytenr);
  if (bytenr == 0) return std::nullopt;  // a hole
  const uint64_t bytes = Le64(item.data + file_extent::kDiskNumBytes);
  if (bytes == 0 || bytes % sectorSize != 0 || bytes / sectorSize > UINT32_MAX || bytenr % sectorSize != 0) {
    Fail(ProviderError::Kind::kBadBlock, "file extent item of inode %llu points at %llu bytes at %llu",
         static_cast<unsigned long long>(item.key.objectid), static_cast<unsigned long long>(bytes),
         static_cast<unsigned long long>(bytenr));
  }
  return DataExtent{bytenr, bytes};
}

std::optional<InodeName> ReadInodeName(const TreeBlock::Item& item) {
  size_t header = 0;
  uint64_t parent = 0;
  if (item.key.type == BTRFS_INODE_REF_KEY) {
    header = sizeof(btrfs_inode_ref);
    parent = item.key.offset;
  } else if (item.key.type == BTRFS_INODE_EXTREF_KEY) {
    header = sizeof(btrfs_inode_extref);
    if (item.size >= header) parent = Le64(item.data + offsetof(btrfs_inode_extref, parent_objectid));
  } else {
    return std::nullopt;
  }
  const size_t lengthAt = header - sizeof(uint16_t);  // name_len ends both headers
  const uint16_t length = item.size >= header ? Le16(item.data + lengthAt) : 0;
  if (item.size < header || length == 0 || item.size - header < length) {
    Fail(ProviderError::Kind::kBadBlock, "inode reference of inode %llu does not fit its %u bytes",
         static_cast<unsigned long long>(item.key.objectid), item.size);
  }
  return InodeName{item.key.objectid, parent, item.data + header, length};
}

std::optional<bool> ReadIsDirectory(const TreeBlock::Item& item) {
  if (item.key.type != BTRFS_INODE_ITEM_KEY) return std::nullopt;
  if (item.size < sizeof(btrfs_inode_item)) {
    Fail(ProviderError::Kind::kBadBlock, "inode item of inode %llu is too short (%u bytes)",
         static_cast<unsigned long long>(item.key.objectid), item.size);
  }
  return (Le32(item.data + offsetof(btrfs_inode_item, mode)) & S_IFMT) == S_IFDIR;
}

}  // namespace vela::btrfs
