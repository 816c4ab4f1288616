// Gathers a calculation's space map during the walk that gives its figures:
// the bytes of every signature, and for data extents that only the given
// subvolumes reference, the files behind them with their paths.
//
// Files come from the leaves that only given subvolumes reach: a file
// extent item there says that inode I references extent E in every
// subvolume of the leaf's signature. Rows add up, per extent signature and
// file, the bytes of the extents; the file's path is taken in the newest
// subvolume that references them. A file is an inode of one line of
// snapshots (subvolumes linked by "snapshot of"): the same inode in
// unrelated subvolumes is another file.
//
// Paths are built from the names inode reference items give, kept only
// where they can be needed: a directory's, an inode's whose file extent
// items are in the same leaf, and those of the first and last inode of a
// leaf (an inode whose items run on into the next leaf has its name in one
// leaf and its extents in the other). So memory follows the leaves and the
// freeable files, not every file of the share.
#ifndef VELA_TOOLS_VELA_BTRFS_SPACE_MAP_COLLECTOR_H_
#define VELA_TOOLS_VELA_BTRFS_SPACE_MAP_COLLECTOR_H_

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "committed_file_system.h"
#include "leaf_items.h"
#include "signature_table.h"
#include "sorted_refs.h"
#include "usage_walker.h"
#include "vela/space_map.h"

namespace vela::btrfs {

class SpaceMapCollector : public UsageObserver {
 public:
  // `ids`: the given subvolumes in their order. At most `fileRowLimit`
  // signature-file rows are kept, the largest.
  SpaceMapCollector(std::vector<uint64_t> ids, uint64_t fileRowLimit);

  void Begin(SignatureTable& table, const CommittedFileSystem& fs) override;
  void Leaf(const TreeBlock& leaf, SignatureTable::Id signature) override;
  void DataExtent(uint64_t bytenr, uint64_t bytes, SignatureTable::Id signature) override;
  void End(const std::vector<SignatureBytes>& bytes) override;

  // The map of the last walk that ended; `generation` is the commit it read.
  space_map::Content TakeContent(uint64_t generation);

 private:
  // Inode `inode` references the extent at `bytenr` in the subvolumes of
  // `signature`.
#pragma pack(push, 4)
  struct FileRef {
    uint64_t bytenr;
    uint64_t inode;
    SignatureTable::Id signature;
  };
#pragma pack(pop)
  struct FoldFileRefs {
    SignatureTable* const* table;  // the walk's, set by Begin()
    void operator()(FileRef& into, const FileRef& other) const {
      into.signature = (*table)->Union(into.signature, other.signature);
    }
  };
  struct ByExtentAndInode {
    // Copied out first: packed members cannot be bound to references.
    std::pair<uint64_t, uint64_t> operator()(const FileRef& ref) const {
      const uint64_t bytenr = ref.bytenr, inode = ref.inode;
      return {bytenr, inode};
    }
  };
  // A name of `inode` in directory `parent`, valid in the subvolumes of
  // `signature`: at nameBytes_[nameAt], its length in two bytes, then the
  // name. There may be hundreds of thousands: 24 bytes each.
  struct NameRef {
    uint64_t inode;
    uint64_t parent;
    SignatureTable::Id signature;
    uint32_t nameAt;
  };
  static_assert(sizeof(NameRef) == 24, "a name takes 24 bytes");
  struct Row {
    uint64_t bytes = 0;
    uint32_t position = 0;
  };

  uint32_t FileOf(uint32_t position, uint64_t inode);
  // The path of `inode` in the subvolume at `position`, relative to its top.
  std::string PathOf(uint64_t inode, uint32_t position);

  std::vector<uint64_t> ids_;
  uint64_t fileRowLimit_;
  SignatureTable* table_ = nullptr;
  std::vector<uint32_t> lineage_;  // per position: its line of snapshots
  uint32_t sectorSize_ = 0;
  SortedRefs<FileRef, FoldFileRefs, ByExtentAndInode> fileRefs_{FoldFileRefs{&table_}};
  bool joining_ = false;  // the data extents have begun
  size_t nextFileRef_ = 0;
  // A deque grows without copying what it holds.
  std::deque<NameRef> names_;
  std::string nameBytes_;
  // Files by line of snapshots and inode.
  std::unordered_map<uint64_t, std::unordered_map<uint64_t, uint32_t>> files_;
  std::vector<uint64_t> fileInodes_;
  // Rows by extent signature (high half) and file (low half).
  std::unordered_map<uint64_t, Row> rows_;
  // Paths of directories already built, by position and inode.
  std::unordered_map<uint64_t, std::unordered_map<uint64_t, std::string>> directoryPaths_;
  space_map::Content content_;

  // Per leaf, reused: the names it gives, with what decides whether to keep
  // them.
  struct LeafName {
    InodeName name;
    bool directory;
    bool hasExtent;
  };
  std::vector<LeafName> leafNames_;
};

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_SPACE_MAP_COLLECTOR_H_
