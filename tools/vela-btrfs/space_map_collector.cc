#include "space_map_collector.h"

#include <algorithm>
#include <array>
#include <map>

#include "disk_format.h"
#include "provider_error.h"

namespace vela::btrfs {

namespace {

// A chain of parents longer than this is taken for a loop in damaged
// metadata: real trees nest far less deep.
constexpr int kMaxPathDepth = 4096;

bool IsZero(const std::array<uint8_t, 16>& uuid) {
  return std::all_of(uuid.begin(), uuid.end(), [](uint8_t byte) { return byte == 0; });
}

uint64_t PairKey(uint32_t high, uint32_t low) { return (uint64_t{high} << 32) | low; }

}  // namespace

SpaceMapCollector::SpaceMapCollector(std::vector<uint64_t> ids, uint64_t fileRowLimit)
    : ids_(std::move(ids)), fileRowLimit_(fileRowLimit) {}

void SpaceMapCollector::Begin(SignatureTable& table, const CommittedFileSystem& fs) {
  table_ = &table;
  sectorSize_ = fs.SectorSize();
  fileRefs_.Clear();
  joining_ = false;
  nextFileRef_ = 0;
  names_.clear();
  nameBytes_.clear();
  files_.clear();
  fileInodes_.clear();
  rows_.clear();
  directoryPaths_.clear();
  content_ = space_map::Content();

  // A line of snapshots is named by its oldest known member: follow "snapshot
  // of" up while the parent is alive, and take the parent's UUID where it is
  // gone. Subvolumes without UUIDs are lines of their own.
  const std::vector<SubvolumeRoot>& subvolumes = fs.Subvolumes();
  std::map<std::array<uint8_t, 16>, const SubvolumeRoot*> byUuid;
  for (const SubvolumeRoot& root : subvolumes) {
    if (!IsZero(root.uuid)) byUuid.emplace(root.uuid, &root);
  }
  std::map<std::pair<std::array<uint8_t, 16>, uint64_t>, uint32_t> lines;
  lineage_.assign(ids_.size(), 0);
  for (size_t i = 0; i < ids_.size(); ++i) {
    const auto own = std::lower_bound(subvolumes.begin(), subvolumes.end(), ids_[i],
                                      [](const SubvolumeRoot& root, uint64_t id) { return root.id < id; });
    if (own == subvolumes.end() || own->id != ids_[i]) continue;  // the walk refuses it
    std::pair<std::array<uint8_t, 16>, uint64_t> line{own->uuid, IsZero(own->uuid) ? own->id : 0};
    const SubvolumeRoot* at = &*own;
    for (size_t steps = 0; steps < subvolumes.size() && !IsZero(at->parentUuid); ++steps) {
      const auto parent = byUuid.find(at->parentUuid);
      if (parent == byUuid.end()) {
        line.first = at->parentUuid;
        break;
      }
      at = parent->second;
      line.first = at->uuid;
    }
    lineage_[i] = lines.emplace(line, static_cast<uint32_t>(lines.size())).first->second;
  }
}

void SpaceMapCollector::Leaf(const TreeBlock& leaf, SignatureTable::Id signature) {
  const uint32_t count = leaf.ItemCount();
  if (count == 0) return;
  const bool freeable = !table_->HasOutside(signature);
  const uint64_t first = leaf.ItemKey(0).objectid;
  const uint64_t last = leaf.ItemKey(count - 1).objectid;
  // Items come by key: an inode's item, then its names, then its extents.
  uint64_t described = 0;  // the inode of the last inode item
  bool directory = false;
  leafNames_.clear();
  for (uint32_t i = 0; i < count; ++i) {
    const DiskKey key = leaf.ItemKey(i);
    switch (key.type) {
      case BTRFS_INODE_ITEM_KEY:
        directory = *ReadIsDirectory(leaf.LeafItem(i));
        described = key.objectid;
        break;
      case BTRFS_INODE_REF_KEY:
      case BTRFS_INODE_EXTREF_KEY:
        leafNames_.push_back(LeafName{*ReadInodeName(leaf.LeafItem(i)), described == key.objectid && directory, false});
        break;
      case BTRFS_EXTENT_DATA_KEY:
        if (!freeable) break;
        if (const auto extent = ReadFileExtent(leaf.LeafItem(i), sectorSize_)) {
          fileRefs_.Add(FileRef{extent->bytenr, key.objectid, signature});
          if (!leafNames_.empty() && leafNames_.back().name.inode == key.objectid) leafNames_.back().hasExtent = true;
        }
        break;
      default:
        break;
    }
  }
  for (const LeafName& kept : leafNames_) {
    const InodeName& name = kept.name;
    if (!kept.directory && !kept.hasExtent && name.inode != first && name.inode != last) continue;
    if (nameBytes_.size() > UINT32_MAX - name.length - 2u) {
      Fail(ProviderError::Kind::kRefused, "the names of the files behind the space map exceed 4 GiB");
    }
    names_.push_back(NameRef{name.inode, name.parent, signature, static_cast<uint32_t>(nameBytes_.size())});
    nameBytes_.push_back(static_cast<char>(name.length & 0xFF));
    nameBytes_.push_back(static_cast<char>(name.length >> 8));
    nameBytes_.append(reinterpret_cast<const char*>(name.name), name.length);
  }
}

uint32_t SpaceMapCollector::FileOf(uint32_t position, uint64_t inode) {
  const auto [at, added] = files_[lineage_[position]].emplace(inode, static_cast<uint32_t>(fileInodes_.size()));
  if (added) fileInodes_.push_back(inode);
  return at->second;
}

void SpaceMapCollector::DataExtent(uint64_t bytenr, uint64_t bytes, SignatureTable::Id signature) {
  if (!joining_) {
    fileRefs_.Flush();
    joining_ = true;
  }
  const FileRef* refs = fileRefs_.data();
  // Both come by ascending address; every reference has its extent.
  while (nextFileRef_ < fileRefs_.size() && refs[nextFileRef_].bytenr < bytenr) ++nextFileRef_;
  const bool freeable = table_->HasMembers(signature) && !table_->HasOutside(signature);
  for (; nextFileRef_ < fileRefs_.size() && refs[nextFileRef_].bytenr == bytenr; ++nextFileRef_) {
    if (!freeable) continue;
    const uint32_t position = table_->Highest(refs[nextFileRef_].signature);
    Row& row = rows_[PairKey(signature, FileOf(position, refs[nextFileRef_].inode))];
    row.bytes += bytes;
    row.position = std::max(row.position, position);
  }
}

std::string SpaceMapCollector::PathOf(uint64_t inode, uint32_t position) {
  std::vector<std::pair<uint64_t, std::string>> chain;  // from the file up: inode, its name
  std::string path;
  uint64_t at = inode;
  for (int depth = 0; at != BTRFS_FIRST_FREE_OBJECTID; ++depth) {
    const auto& known = directoryPaths_[position];
    const auto found = known.find(at);
    if (found != known.end()) {
      path = found->second;
      break;
    }
    const auto first = std::lower_bound(names_.begin(), names_.end(), at,
                                        [](const NameRef& name, uint64_t wanted) { return name.inode < wanted; });
    auto name = first;
    while (name != names_.end() && name->inode == at && !table_->Contains(name->signature, position)) ++name;
    if (name == names_.end() || name->inode != at || depth == kMaxPathDepth) {
      // Not named in what was read (damaged, or a name the reading left
      // out): the path starts at the inode it stops at.
      path = "(inode " + std::to_string(at) + ")";
      break;
    }
    const auto* length = reinterpret_cast<const uint8_t*>(nameBytes_.data() + name->nameAt);
    chain.emplace_back(at, nameBytes_.substr(name->nameAt + 2, length[0] | (length[1] << 8)));
    at = name->parent;
  }
  for (size_t i = chain.size(); i-- > 0;) {
    path += (path.empty() ? "" : "/") + chain[i].second;
    if (i > 0) directoryPaths_[position].emplace(chain[i].first, path);
  }
  return path;
}

void SpaceMapCollector::End(const std::vector<SignatureBytes>& bytes) {
  space_map::Content& content = content_;
  content.rootIds = ids_;
  // Signatures that given subvolumes reach and that hold bytes, numbered
  // anew.
  std::vector<uint32_t> renumbered(table_->Size(), UINT32_MAX);
  for (SignatureTable::Id id = 0; id < bytes.size(); ++id) {
    if (!table_->HasMembers(id) || bytes[id].data + bytes[id].metadata == 0) continue;
    renumbered[id] = static_cast<uint32_t>(content.signatures.size());
    space_map::Signature signature;
    for (const SignatureTable::Run* run = table_->RunsBegin(id); run != table_->RunsEnd(id); ++run) {
      signature.runs.push_back(space_map::Run{run->first, run->last});
    }
    signature.outside = table_->HasOutside(id);
    signature.dataBytes = bytes[id].data;
    signature.metadataBytes = bytes[id].metadata;
    content.signatures.push_back(std::move(signature));
  }

  for (const auto& [key, row] : rows_) {
    content.fileBytes.push_back(space_map::FileBytes{renumbered[key >> 32], static_cast<uint32_t>(key), row.position,
                                                     row.bytes});
  }
  rows_.clear();
  if (content.fileBytes.size() > fileRowLimit_) {
    // The signatures stay exact; of the files, the largest shares are kept.
    const auto limit = content.fileBytes.begin() + static_cast<std::ptrdiff_t>(fileRowLimit_);
    std::nth_element(content.fileBytes.begin(), limit, content.fileBytes.end(),
                     [](const space_map::FileBytes& a, const space_map::FileBytes& b) { return a.bytes > b.bytes; });
    content.fileBytes.erase(limit, content.fileBytes.end());
    content.filesComplete = false;
  }
  std::sort(content.fileBytes.begin(), content.fileBytes.end(),
            [](const space_map::FileBytes& a, const space_map::FileBytes& b) {
              return a.signature != b.signature ? a.signature < b.signature : a.file < b.file;
            });

  // Any name valid in a position will do (a file may have several links).
  std::sort(names_.begin(), names_.end(), [](const NameRef& a, const NameRef& b) { return a.inode < b.inode; });
  std::vector<std::pair<uint32_t, uint32_t>> wanted;  // file, position
  for (const space_map::FileBytes& row : content.fileBytes) wanted.emplace_back(row.file, row.position);
  std::sort(wanted.begin(), wanted.end());
  wanted.erase(std::unique(wanted.begin(), wanted.end()), wanted.end());
  for (const auto& [file, position] : wanted) {
    content.filePaths.push_back(space_map::FilePath{file, position, PathOf(fileInodes_[file], position)});
  }
  // What the walk gathered is not needed any more.
  fileRefs_.Clear();
  std::deque<NameRef>().swap(names_);
  std::string().swap(nameBytes_);
  directoryPaths_.clear();
  table_ = nullptr;
}

space_map::Content SpaceMapCollector::TakeContent(uint64_t generation) {
  content_.generation = generation;
  return std::move(content_);
}

}  // namespace vela::btrfs
