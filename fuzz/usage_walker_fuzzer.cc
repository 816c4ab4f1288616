// Fuzz target: a whole file system of mutated tree blocks through the size
// provider: superblock, chunk tree, root tree and every subvolume tree,
// walked level by level into figures, and again into a space map. The
// figures must keep their shape whatever the blocks say, and be the same
// both ways.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <set>
#include <vector>

#include "committed_file_system.h"
#include "in_memory_image.h"
#include "line_writer.h"
#include "progress_printer.h"
#include "provider_error.h"
#include "space_map_collector.h"
#include "usage_walker.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const vela::fuzz::InMemoryImage image(data, size);
  if (image.BlockCount() < 2) return 0;
  try {
    const vela::btrfs::CommittedFileSystem fs(image.Devices(), image.Fsid());
    // Some subvolumes given, newest first, the others outside the list.
    std::set<uint64_t> given;
    for (const auto& root : fs.Subvolumes()) {
      if (root.id % 3 != 0) given.insert(root.id);
    }
    const std::vector<uint64_t> ids(given.rbegin(), given.rend());
    vela::btrfs::LineWriter lines(stdout);
    vela::btrfs::ProgressPrinter progress(false, lines);
    const vela::btrfs::UsageFigures figures = vela::btrfs::MeasureUsage(fs, ids, progress);
    if (figures.exclusive.size() != ids.size() || figures.marginal.size() != ids.size()) __builtin_trap();
    // The space map's walk keeps whole sets where the figures keep ranges:
    // the same figures must follow, and its content must be one a map holds.
    vela::btrfs::SpaceMapCollector collector(ids, 4);
    const vela::btrfs::UsageFigures mapped = vela::btrfs::MeasureUsage(fs, ids, progress, &collector);
    if (mapped.exclusive != figures.exclusive || mapped.marginal != figures.marginal) __builtin_trap();
    const vela::space_map::Content content = collector.TakeContent(fs.Generation());
    if (content.fileBytes.size() > 4 || content.rootIds != ids) __builtin_trap();
    // What one subvolume alone holds, it also holds beyond those before it.
    for (size_t i = 0; i < ids.size(); ++i) {
      if (figures.exclusive[i] > figures.marginal[i]) __builtin_trap();
    }
  } catch (const vela::btrfs::ProviderError&) {
  }
  return 0;
}
