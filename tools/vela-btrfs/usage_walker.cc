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

// How the walk summarises who reaches a block or an extent comes in two
// kinds. Both offer: Own(position), Outside(), Merge(a, b), Count(summary,
// bytes, isData), Leaf(block, summary), DataExtent(bytenr, bytes, summary)
// and Figures(count).

// Enough for the figures alone: the lowest and highest position reaching
// it, and whether anything outside the list does. Eight bytes, merged in a
// step, never more memory than the blocks and extents themselves.
struct Reach {
  static constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();
  uint32_t lowest = kNone;
  uint32_t highest : 31;
  uint32_t outside : 1;  // a subvolume not in the list reaches it

  Reach() : highest(0), outside(0) {}
};
static_assert(sizeof(Reach) == 8, "a reach takes 8 bytes");

class RangeSummaries {
 public:
  using Summary = Reach;
  static constexpr uint64_t kMaxPositions = (1u << 31) - 1;  // in 31 bits

  explicit RangeSummaries(size_t count) {
    figures_.exclusive.assign(count, 0);
    figures_.marginal.assign(count, 0);
  }
  Summary Own(uint32_t position) {
    Reach reach;
    reach.lowest = reach.highest = position;
    return reach;
  }
  Summary Outside() {
    Reach reach;
    reach.outside = 1;
    return reach;
  }
  Summary Merge(Summary a, const Summary& b) {
    a.lowest = std::min(a.lowest, b.lowest);
    a.highest = std::max(a.highest, b.highest);
    a.outside = a.outside | b.outside;
    return a;
  }
  void Count(const Summary& reach, uint64_t bytes, bool /*isData*/) {
    if (reach.outside || reach.lowest == Reach::kNone) return;
    figures_.marginal[reach.highest] += bytes;
    if (reach.lowest == reach.highest) figures_.exclusive[reach.highest] += bytes;
  }
  void Leaf(const TreeBlock& /*leaf*/, const Summary& /*reach*/) {}
  void DataExtent(uint64_t /*bytenr*/, uint64_t /*bytes*/, const Summary& /*reach*/) {}
  UsageFigures Figures() { return std::move(figures_); }

 private:
  UsageFigures figures_;
};

// The whole set (signature_table.h), for the space map: the bytes of every
// signature, the figures derived from them at the end, and an observer
// that sees the leaves and data extents with their signatures. Intermediate
// unions make more signatures than the end keeps, so this takes more
// memory than ranges do.
class SignatureSummaries {
 public:
  using Summary = SignatureTable::Id;
  static constexpr uint64_t kMaxPositions = UINT32_MAX;

  SignatureSummaries(size_t count, SignatureTable& table, UsageObserver& observer)
      : count_(count), table_(table), observer_(observer) {}
  Summary Own(uint32_t position) { return table_.Own(position); }
  Summary Outside() { return table_.Outside(); }
  Summary Merge(Summary a, Summary b) { return table_.Union(a, b); }
  void Count(Summary signature, uint64_t bytes, bool isData) {
    if (signature >= bytes_.size()) bytes_.resize(signature + 1);
    (isData ? bytes_[signature].data : bytes_[signature].metadata) += bytes;
  }
  void Leaf(const TreeBlock& leaf, Summary signature) {
    if (table_.HasMembers(signature)) observer_.Leaf(leaf, signature);
  }
  void DataExtent(uint64_t bytenr, uint64_t bytes, Summary signature) { observer_.DataExtent(bytenr, bytes, signature); }
  UsageFigures Figures() {
    observer_.End(bytes_);
    UsageFigures figures;
    figures.exclusive.assign(count_, 0);
    figures.marginal.assign(count_, 0);
    for (SignatureTable::Id id = 0; id < bytes_.size(); ++id) {
      if (table_.HasOutside(id) || !table_.HasMembers(id)) continue;
      const uint64_t bytes = bytes_[id].data + bytes_[id].metadata;
      figures.marginal[table_.Highest(id)] += bytes;
      if (table_.Lowest(id) == table_.Highest(id)) figures.exclusive[table_.Highest(id)] += bytes;
    }
    return figures;
  }

 private:
  size_t count_;
  SignatureTable& table_;
  UsageObserver& observer_;
  std::vector<SignatureBytes> bytes_;
};

template <class Summaries>
struct BlockRef {
  uint64_t bytenr;
  uint64_t generation;
  typename Summaries::Summary summary;
};

#pragma pack(push, 4)
template <class Summaries>
struct DataRef {
  uint64_t bytenr;
  uint32_t sectors;  // on-disk size
  typename Summaries::Summary summary;
};
#pragma pack(pop)
static_assert(sizeof(DataRef<RangeSummaries>) == 20, "a data reference takes 20 bytes");

// Every parent of a block must record the same generation for it.
template <class Summaries>
struct FoldBlocks {
  int level;
  Summaries* summaries;
  void operator()(BlockRef<Summaries>& into, const BlockRef<Summaries>& other) const {
    if (into.generation != other.generation) {
      Fail(ProviderError::Kind::kBadBlock,
           "tree block at logical %llu (level %d) is referenced with generations %llu and %llu",
           static_cast<unsigned long long>(other.bytenr), level, static_cast<unsigned long long>(into.generation),
           static_cast<unsigned long long>(other.generation));
    }
    into.summary = summaries->Merge(into.summary, other.summary);
  }
};

// An extent is counted whole, at the largest size any reference gives it.
template <class Summaries>
struct FoldData {
  Summaries* summaries;
  void operator()(DataRef<Summaries>& into, const DataRef<Summaries>& other) const {
    into.summary = summaries->Merge(into.summary, other.summary);
    if (other.sectors > into.sectors) into.sectors = other.sectors;
  }
};

template <class Summaries>
UsageFigures Walk(const CommittedFileSystem& fs, const std::vector<uint64_t>& ids, ProgressPrinter& progress,
                  Summaries& summaries) {
  std::unordered_map<uint64_t, uint32_t> position;
  for (size_t i = 0; i < ids.size(); ++i) position.emplace(ids[i], static_cast<uint32_t>(i));

  std::vector<SortedRefs<BlockRef<Summaries>, FoldBlocks<Summaries>>> levels;
  for (int level = 0; level <= block::kMaxLevel; ++level) {
    levels.emplace_back(FoldBlocks<Summaries>{level, &summaries});
  }
  size_t found = 0;
  for (const SubvolumeRoot& root : fs.Subvolumes()) {
    const auto it = position.find(root.id);
    typename Summaries::Summary summary = summaries.Outside();
    if (it != position.end()) {
      summary = summaries.Own(it->second);
      ++found;
    }
    levels[root.level].Add(BlockRef<Summaries>{root.bytenr, root.generation, summary});
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
  SortedRefs<DataRef<Summaries>, FoldData<Summaries>> data(FoldData<Summaries>{&summaries});
  for (int level = block::kMaxLevel; level >= 0; --level) {
    levels[level].Flush();
    const BlockRef<Summaries>* blocks = levels[level].data();
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
          const typename Summaries::Summary summary = blocks[index].summary;
          summaries.Count(summary, nodeSize, false);
          for (uint32_t i = 0; i < block.ItemCount(); ++i) {
            if (level > 0) {
              const TreeBlock::ChildPointer child = block.Child(i);
              levels[level - 1].Add(BlockRef<Summaries>{child.bytenr, child.generation, summary});
            } else if (block.ItemKey(i).type != BTRFS_EXTENT_DATA_KEY) {
              continue;  // most items of a leaf: nothing to parse
            } else if (const auto extent = ReadFileExtent(block.LeafItem(i), sectorSize)) {
              data.Add(DataRef<Summaries>{extent->bytenr, static_cast<uint32_t>(extent->bytes / sectorSize), summary});
            }
          }
          if (level == 0) summaries.Leaf(block, summary);
          progress.Advance(nodeSize);
        });
    levels[level].Clear();  // read: its memory can go
  }
  data.Flush();
  for (size_t i = 0; i < data.size(); ++i) {
    const DataRef<Summaries>& ref = data.data()[i];
    const uint64_t bytes = uint64_t{ref.sectors} * sectorSize;
    summaries.Count(ref.summary, bytes, true);
    summaries.DataExtent(ref.bytenr, bytes, ref.summary);
  }
  return summaries.Figures();
}

}  // namespace

UsageFigures MeasureUsage(const CommittedFileSystem& fs, const std::vector<uint64_t>& ids, ProgressPrinter& progress,
                          UsageObserver* observer) {
  const uint64_t most = observer == nullptr ? RangeSummaries::kMaxPositions : SignatureSummaries::kMaxPositions;
  if (ids.size() > most) {
    Fail(ProviderError::Kind::kRefused, "%zu subvolumes are more than one run can measure", ids.size());
  }
  if (observer == nullptr) {
    RangeSummaries ranges(ids.size());
    return Walk(fs, ids, progress, ranges);
  }
  SignatureTable table;
  observer->Begin(table, fs);
  SignatureSummaries signatures(ids.size(), table, *observer);
  return Walk(fs, ids, progress, signatures);
}

}  // namespace vela::btrfs
