#include "usage_walker.h"

#include <algorithm>
#include <limits>
#include <unordered_map>
#include <unordered_set>

#include "disk_format.h"
#include "leaf_items.h"
#include "provider_error.h"
#include "sorted_refs.h"

namespace vela::btrfs {

namespace {

// Small, because there is one for every distinct block and extent.
struct Reach {
  static constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();
  static constexpr uint32_t kMaxPosition = (1u << 31) - 1;
  uint32_t lowest = kNone;
  uint32_t highest : 31;
  uint32_t outside : 1;  // a subvolume not in the list reaches it

  Reach() : highest(0), outside(0) {}
  void Merge(const Reach& other) {
    lowest = std::min(lowest, other.lowest);
    highest = std::max(highest, other.highest);
    outside = outside | other.outside;
  }
};
static_assert(sizeof(Reach) == 8, "a reach takes 8 bytes");

struct BlockRef {
  uint64_t bytenr;
  uint64_t generation;
  Reach reach;
};

#pragma pack(push, 4)
struct DataRef {
  uint64_t bytenr;
  uint32_t sectors;  // on-disk size
  Reach reach;
};
#pragma pack(pop)
static_assert(sizeof(DataRef) == 20, "a data reference takes 20 bytes");

// Every parent of a block must record the same generation for it.
struct FoldBlocks {
  int level;
  void operator()(BlockRef& into, const BlockRef& other) const {
    if (into.generation != other.generation) {
      Fail(ProviderError::Kind::kBadBlock,
           "tree block at logical %llu (level %d) is referenced with generations %llu and %llu",
           static_cast<unsigned long long>(other.bytenr), level, static_cast<unsigned long long>(into.generation),
           static_cast<unsigned long long>(other.generation));
    }
    into.reach.Merge(other.reach);
  }
};

// An extent is counted whole, at the largest size any reference gives it.
struct FoldData {
  void operator()(DataRef& into, const DataRef& other) const {
    into.reach.Merge(other.reach);
    if (other.sectors > into.sectors) into.sectors = other.sectors;
  }
};

class Tally {
 public:
  explicit Tally(size_t count) {
    figures_.exclusive.assign(count, 0);
    figures_.marginal.assign(count, 0);
  }
  void Add(const Reach& reach, uint64_t bytes) {
    if (reach.outside || reach.lowest == Reach::kNone) return;
    figures_.marginal[reach.highest] += bytes;
    if (reach.lowest == reach.highest) figures_.exclusive[reach.highest] += bytes;
  }
  UsageFigures Take() { return std::move(figures_); }

 private:
  UsageFigures figures_;
};

}  // namespace

UsageFigures MeasureUsage(const CommittedFileSystem& fs, const std::vector<uint64_t>& ids, ProgressPrinter& progress) {
  if (ids.size() > Reach::kMaxPosition) {
    Fail(ProviderError::Kind::kRefused, "%zu subvolumes are more than one run can measure", ids.size());
  }
  std::unordered_map<uint64_t, uint32_t> position;
  for (size_t i = 0; i < ids.size(); ++i) position.emplace(ids[i], static_cast<uint32_t>(i));

  std::vector<SortedRefs<BlockRef, FoldBlocks>> levels;
  for (int level = 0; level <= block::kMaxLevel; ++level) levels.emplace_back(FoldBlocks{level});
  size_t found = 0;
  for (const SubvolumeRoot& root : fs.Subvolumes()) {
    Reach reach;
    const auto it = position.find(root.id);
    if (it == position.end()) {
      reach.outside = 1;
    } else {
      reach.lowest = reach.highest = it->second;
      ++found;
    }
    levels[root.level].Add(BlockRef{root.bytenr, root.generation, reach});
  }
  if (found != ids.size()) {
    std::unordered_set<uint64_t> live;
    for (const SubvolumeRoot& root : fs.Subvolumes()) live.insert(root.id);
    for (uint64_t id : ids) {
      if (live.count(id) == 0) {
        Fail(ProviderError::Kind::kRefused, "no subvolume with root ID %llu", static_cast<unsigned long long>(id));
      }
    }
  }

  const uint64_t nodeSize = fs.NodeSize();
  const uint32_t sectorSize = fs.SectorSize();
  Tally tally(ids.size());
  SortedRefs<DataRef, FoldData> data(FoldData{});
  for (int level = block::kMaxLevel; level >= 0; --level) {
    levels[level].Flush();
    const BlockRef* blocks = levels[level].data();
    const size_t count = levels[level].size();
    if (count == 0) continue;
    // Once the leaves are known the remaining work is known exactly; above
    // them the estimate only has to stay ahead of what is done.
    const uint64_t known = progress.Processed() + count * nodeSize;
    if (level == 0) {
      progress.Estimate(known);
    } else {
      progress.RaiseEstimate(known);
    }
    fs.Reader().ReadMany(
        count, [&](size_t i) { return TreeBlockReader::Request{blocks[i].bytenr, blocks[i].generation}; }, level,
        [&](size_t index, const TreeBlock& block) {
          const Reach reach = blocks[index].reach;
          tally.Add(reach, nodeSize);
          for (uint32_t i = 0; i < block.ItemCount(); ++i) {
            if (level > 0) {
              const TreeBlock::ChildPointer child = block.Child(i);
              levels[level - 1].Add(BlockRef{child.bytenr, child.generation, reach});
            } else if (const auto extent = ReadFileExtent(block.LeafItem(i), sectorSize)) {
              data.Add(DataRef{extent->bytenr, static_cast<uint32_t>(extent->bytes / sectorSize), reach});
            }
          }
          progress.Advance(nodeSize);
        });
    levels[level].Clear();  // read: its memory can go
  }
  data.Flush();
  for (size_t i = 0; i < data.size(); ++i) tally.Add(data.data()[i].reach, uint64_t{data.data()[i].sectors} * sectorSize);
  return tally.Take();
}

}  // namespace vela::btrfs
