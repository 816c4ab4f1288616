// What each of a list of subvolumes takes on disk, from one pass over the
// committed trees of every subvolume of the file system.
//
// Every tree block and every data extent gets a summary of the given
// subvolumes reaching it, and of whether any subvolume outside the list
// does. Summaries flow from the roots down, one level at a time: a block's
// parents all sit one level above it, so when a level is read every parent
// has already passed on its summary. Each distinct block is read once,
// however many trees share it, so the cost follows the amount of distinct
// metadata and not the number of snapshots. A data extent takes the union
// of the summaries of the leaves pointing at it.
//
// For the figures a summary is a range: the lowest and highest position
// reaching it. Bytes are exclusive to the subvolume at position p when
// nothing outside the list reaches them and lowest == highest == p; they
// are the marginal bytes of position p (freed by deleting positions 0..p,
// and not by deleting 0..p-1) when nothing outside reaches them and
// highest == p. With an observer (the space map) a summary is the whole
// set, the signature (signature_table.h), and the same figures follow from
// it.
#ifndef VELA_TOOLS_VELA_BTRFS_USAGE_WALKER_H_
#define VELA_TOOLS_VELA_BTRFS_USAGE_WALKER_H_

#include <cstdint>
#include <vector>

#include "committed_file_system.h"
#include "progress_printer.h"
#include "signature_table.h"
#include "tree_block.h"

namespace vela::btrfs {

struct UsageFigures {
  std::vector<uint64_t> exclusive;  // per given subvolume
  std::vector<uint64_t> marginal;   // per given subvolume, in the given order
};

// Bytes of one signature.
struct SignatureBytes {
  uint64_t data = 0;
  uint64_t metadata = 0;
};

// Sees what the walk reads, for those who want more than the figures.
class UsageObserver {
 public:
  virtual ~UsageObserver() = default;
  // A walk of `fs` begins: its signatures will be those of `table`, which
  // lasts until End(). A walk that fails may be followed by another.
  virtual void Begin(SignatureTable& table, const CommittedFileSystem& fs) = 0;
  // Each leaf of a subvolume tree that a given subvolume reaches, once.
  virtual void Leaf(const TreeBlock& leaf, SignatureTable::Id signature) = 0;
  // After the leaves: every data extent with its final signature, once
  // each, by ascending address.
  virtual void DataExtent(uint64_t bytenr, uint64_t bytes, SignatureTable::Id signature) = 0;
  // At the end: the bytes of every signature (indexed by signature).
  virtual void End(const std::vector<SignatureBytes>& bytes) = 0;
};

// `ids` must be distinct live subvolumes of `fs` (throws ProviderError for
// one that is not). Reports the metadata read to `progress`, and what it
// reads to `observer` when there is one.
UsageFigures MeasureUsage(const CommittedFileSystem& fs, const std::vector<uint64_t>& ids,
                          ProgressPrinter& progress, UsageObserver* observer = nullptr);

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_USAGE_WALKER_H_
