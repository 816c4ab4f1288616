#include "usage_walker.h"

#include <algorithm>
#include <limits>
#include <unordered_map>
#include <unordered_set>

#include "disk_format.h"
#include "leaf_items.h"
#include "provider_error.h"

namespace vela::btrfs {

namespace {

struct Reach {
  static constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();
  uint32_t lowest = kNone;
  uint32_t highest = 0;
  bool outside = false;  // a subvolume not in the list reaches it

  void Merge(const Reach& other) {
    lowest = std::min(lowest, other.lowest);
    highest = std::max(highest, other.highest);
    outside = outside || other.outside;
  }
};

struct BlockRef {
  uint64_t bytenr;
  uint64_t generation;
  Reach reach;
};

struct DataRef {
  uint64_t bytenr;
  uint64_t size;
  Reach reach;
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

// Sorts by address and folds the entries of one block into one.
void MergeBlockRefs(std::vector<BlockRef>& refs, int level) {
  std::sort(refs.begin(), refs.end(), [](const BlockRef& a, const BlockRef& b) { return a.bytenr < b.bytenr; });
  size_t out = 0;
  for (size_t i = 0; i < refs.size(); ++i) {
    if (out > 0 && refs[out - 1].bytenr == refs[i].bytenr) {
      if (refs[out - 1].generation != refs[i].generation) {
        Fail(ProviderError::Kind::kBadBlock,
             "tree block at logical %llu (level %d) is referenced with generations %llu and %llu",
             static_cast<unsigned long long>(refs[i].bytenr), level,
             static_cast<unsigned long long>(refs[out - 1].generation),
             static_cast<unsigned long long>(refs[i].generation));
      }
      refs[out - 1].reach.Merge(refs[i].reach);
    } else {
      refs[out++] = refs[i];
    }
  }
  refs.resize(out);
}

void CollectDataRefs(const TreeBlock& leaf, const Reach& reach, uint32_t sectorSize, std::vector<DataRef>& data) {
  for (uint32_t i = 0; i < leaf.ItemCount(); ++i) {
    if (const auto extent = ReadFileExtent(leaf.LeafItem(i), sectorSize)) {
      data.push_back(DataRef{extent->bytenr, extent->bytes, reach});
    }
  }
}

}  // namespace

UsageFigures MeasureUsage(const CommittedFileSystem& fs, const std::vector<uint64_t>& ids, ProgressPrinter& progress) {
  std::unordered_map<uint64_t, uint32_t> position;
  for (size_t i = 0; i < ids.size(); ++i) position.emplace(ids[i], static_cast<uint32_t>(i));

  std::vector<BlockRef> levels[block::kMaxLevel + 1];
  size_t found = 0;
  for (const SubvolumeRoot& root : fs.Subvolumes()) {
    Reach reach;
    const auto it = position.find(root.id);
    if (it == position.end()) {
      reach.outside = true;
    } else {
      reach.lowest = reach.highest = it->second;
      ++found;
    }
    levels[root.level].push_back(BlockRef{root.bytenr, root.generation, reach});
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
  Tally tally(ids.size());
  std::vector<DataRef> data;
  std::vector<TreeBlockReader::Request> requests;
  for (int level = block::kMaxLevel; level >= 0; --level) {
    std::vector<BlockRef>& blocks = levels[level];
    MergeBlockRefs(blocks, level);
    if (blocks.empty()) continue;
    // Once the leaves are known the remaining work is known exactly; above
    // them the estimate only has to stay ahead of what is done.
    const uint64_t known = progress.Processed() + blocks.size() * nodeSize;
    if (level == 0) {
      progress.Estimate(known);
    } else {
      progress.RaiseEstimate(known);
    }
    requests.clear();
    for (const BlockRef& b : blocks) requests.push_back({b.bytenr, b.generation});
    std::vector<BlockRef>* children = level > 0 ? &levels[level - 1] : nullptr;
    fs.Reader().ReadMany(requests, level, [&](size_t index, const TreeBlock& block) {
      const Reach& reach = blocks[index].reach;
      tally.Add(reach, nodeSize);
      if (children != nullptr) {
        for (uint32_t i = 0; i < block.ItemCount(); ++i) {
          const TreeBlock::ChildPointer child = block.Child(i);
          children->push_back(BlockRef{child.bytenr, child.generation, reach});
        }
      } else {
        CollectDataRefs(block, reach, fs.SectorSize(), data);
      }
      progress.Advance(nodeSize);
    });
    std::vector<BlockRef>().swap(blocks);  // read: its memory can go
  }

  std::sort(data.begin(), data.end(), [](const DataRef& a, const DataRef& b) { return a.bytenr < b.bytenr; });
  for (size_t i = 0; i < data.size();) {
    Reach reach = data[i].reach;
    uint64_t size = data[i].size;
    size_t j = i + 1;
    for (; j < data.size() && data[j].bytenr == data[i].bytenr; ++j) {
      reach.Merge(data[j].reach);
      size = std::max(size, data[j].size);
    }
    tally.Add(reach, size);
    i = j;
  }
  return tally.Take();
}

}  // namespace vela::btrfs
