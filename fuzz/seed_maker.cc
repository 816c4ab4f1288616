// Makes seed inputs for the fuzz targets from a real btrfs file system
// (its device images, unmounted, with 4 KiB nodes):
//   fuzz_seed_maker WHOLE_OUT BLOCKS_DIR IMAGE...
// WHOLE_OUT gets the input of usage_walker_fuzzer: the chunk tree's
// blocks, then the root tree's, then those of every subvolume tree, moved
// to the addresses the fuzz image gives them (child pointers and root items
// rewritten). BLOCKS_DIR gets each block alone, for tree_block_fuzzer.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "committed_file_system.h"
#include "device_set.h"
#include "disk_format.h"
#include "provider_error.h"
#include "tree_block.h"
#include "base/unique_fd.h"

namespace {

using namespace vela::btrfs;

constexpr uint32_t kNodeSize = 4096;
constexpr uint64_t kFirstBlock = 1 << 20;  // as the fuzz image lays blocks out
constexpr size_t kMaxBlocks = 24;

struct Root {
  uint64_t bytenr;
  uint64_t generation;
  int level;
};

class Collector {
 public:
  explicit Collector(const TreeBlockReader& reader) : reader_(reader) {}

  // Adds the blocks of the tree at `root` not collected yet, root first.
  void AddTree(const Root& root) {
    std::deque<Root> pending = {root};
    while (!pending.empty()) {
      const Root next = pending.front();
      pending.pop_front();
      if (index_.count(next.bytenr) != 0) continue;
      index_[next.bytenr] = blocks_.size();
      blocks_.emplace_back(kNodeSize);
      AlignedBuffer buffer(kNodeSize);
      reader_.Read(next.bytenr, next.generation, next.level, buffer.data());
      memcpy(blocks_.back().data(), buffer.data(), kNodeSize);
      const TreeBlock block(buffer.data(), kNodeSize);
      for (uint32_t i = 0; next.level > 0 && i < block.ItemCount(); ++i) {
        const TreeBlock::ChildPointer child = block.Child(i);
        pending.push_back({child.bytenr, child.generation, next.level - 1});
      }
    }
  }

  // Points child pointers and subvolume root items at the new addresses.
  void Relocate() {
    for (auto& data : blocks_) {
      const TreeBlock block(data.data(), kNodeSize);
      for (uint32_t i = 0; i < block.ItemCount(); ++i) {
        uint8_t* field = nullptr;
        if (block.Level() > 0) {
          field = data.data() + block::kHeaderSize + i * block::kKeyPtrSize + block::kKeyPtrBlockptr;
        } else {
          const TreeBlock::Item item = block.LeafItem(i);
          if (item.key.type != BTRFS_ROOT_ITEM_KEY || !IsSubvolumeTree(item.key.objectid)) continue;
          field = data.data() + (item.data - data.data()) + offsetof(btrfs_root_item, bytenr);
        }
        const auto found = index_.find(Le64(field));
        if (found == index_.end()) continue;
        const uint64_t moved = htole64(kFirstBlock + found->second * kNodeSize);
        memcpy(field, &moved, sizeof moved);
      }
    }
  }

  const std::vector<std::vector<uint8_t>>& Blocks() const { return blocks_; }

 private:
  const TreeBlockReader& reader_;
  std::map<uint64_t, size_t> index_;
  std::vector<std::vector<uint8_t>> blocks_;
};

void Write(const std::string& path, const std::vector<std::vector<uint8_t>>& blocks) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  for (const auto& block : blocks) out.write(reinterpret_cast<const char*>(block.data()), kNodeSize);
  if (!out) Fail(ProviderError::Kind::kSystem, "cannot write %s", path.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: fuzz_seed_maker WHOLE_OUT BLOCKS_DIR IMAGE...\n");
    return 2;
  }
  try {
    DeviceSet devices;
    AlignedBuffer sb(super::kSize);
    uint8_t fsid[kFsidSize];
    for (int i = 3; i < argc; ++i) {
      UniqueFd fd(open(argv[i], O_RDONLY | O_CLOEXEC));
      if (!fd.Valid() || pread(fd.Get(), sb.data(), super::kSize, super::kOffset) != static_cast<ssize_t>(super::kSize)) {
        Fail(ProviderError::Kind::kSystem, "cannot read the superblock of %s", argv[i]);
      }
      memcpy(fsid, sb.data() + super::kFsid, kFsidSize);
      devices.Add(Le64(sb.data() + super::kDevItemDevid), std::move(fd), argv[i]);
    }
    if (Le32(sb.data() + super::kNodeSize) != kNodeSize) Fail(ProviderError::Kind::kRefused, "nodes are not 4 KiB");
    const CommittedFileSystem fs(devices, fsid);
    Collector collector(fs.Reader());
    collector.AddTree({Le64(sb.data() + super::kChunkRoot), Le64(sb.data() + super::kChunkRootGeneration),
                       sb.data()[super::kChunkRootLevel]});
    collector.AddTree({Le64(sb.data() + super::kRoot), fs.Generation(), sb.data()[super::kRootLevel]});
    for (const SubvolumeRoot& root : fs.Subvolumes()) collector.AddTree({root.bytenr, root.generation, root.level});
    if (collector.Blocks().size() > kMaxBlocks) {
      Fail(ProviderError::Kind::kRefused, "%zu blocks: more than the fuzz image holds", collector.Blocks().size());
    }
    const std::string prefix = std::string(argv[2]) + "/" + std::string(argv[1]).substr(std::string(argv[1]).rfind('/') + 1);
    for (size_t i = 0; i < collector.Blocks().size(); ++i) {
      Write(prefix + "-" + std::to_string(i), {collector.Blocks()[i]});
    }
    collector.Relocate();
    Write(argv[1], collector.Blocks());
    printf("%s: %zu blocks\n", argv[1], collector.Blocks().size());
  } catch (const ProviderError& error) {
    fprintf(stderr, "fuzz_seed_maker: %s\n", error.what());
    return 1;
  }
  return 0;
}
