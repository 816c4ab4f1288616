// What each of a list of subvolumes takes on disk, from one pass over the
// committed trees of every subvolume of the file system.
//
// Every tree block and every data extent gets a summary of the subvolumes
// reaching it: the lowest and highest position in the given list among
// them, and whether any subvolume outside the list does. Summaries flow
// from the roots down, one level at a time: a block's parents all sit one
// level above it, so when a level is read every parent has already passed
// on its summary. Each distinct block is read once, however many trees
// share it, so the cost follows the amount of distinct metadata and not
// the number of snapshots. A data extent takes the union of the summaries
// of the leaves pointing at it.
//
// From a summary: bytes are exclusive to the subvolume at position p when
// nothing outside the list reaches them and lowest == highest == p; they
// are the marginal bytes of position p (freed by deleting positions 0..p,
// and not by deleting 0..p-1) when nothing outside reaches them and
// highest == p.
#ifndef VELA_TOOLS_VELA_BTRFS_USAGE_WALKER_H_
#define VELA_TOOLS_VELA_BTRFS_USAGE_WALKER_H_

#include <cstdint>
#include <vector>

#include "committed_file_system.h"
#include "progress_printer.h"

namespace vela::btrfs {

struct UsageFigures {
  std::vector<uint64_t> exclusive;  // per given subvolume
  std::vector<uint64_t> marginal;   // per given subvolume, in the given order
};

// `ids` must be distinct live subvolumes of `fs` (throws ProviderError for
// one that is not). Reports the metadata read to `progress`.
UsageFigures MeasureUsage(const CommittedFileSystem& fs, const std::vector<uint64_t>& ids,
                          ProgressPrinter& progress);

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_USAGE_WALKER_H_
