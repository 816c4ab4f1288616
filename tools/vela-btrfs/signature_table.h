// Signatures: the sets of subvolumes that reach a tree block or a data
// extent. A signature holds positions in the given list of subvolumes, as
// ascending runs of consecutive positions, and whether any subvolume
// outside the list reaches it too. Deleting a set D of the given
// subvolumes frees exactly the bytes whose signature lies within D and has
// nothing outside.
//
// Each distinct signature is kept once and named by a small number, so a
// reference carries four bytes however many subvolumes reach it. Snapshot
// series give few distinct signatures (mostly runs of consecutive
// snapshots), and the same pairs meet in unions again and again, so unions
// are remembered.
#ifndef VELA_TOOLS_VELA_BTRFS_SIGNATURE_TABLE_H_
#define VELA_TOOLS_VELA_BTRFS_SIGNATURE_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vela::btrfs {

class SignatureTable {
 public:
  using Id = uint32_t;
  struct Run {
    uint32_t first;
    uint32_t last;  // inclusive
  };

  SignatureTable();

  // Nothing reaches it: the neutral element of Union.
  static constexpr Id kNothing = 0;
  // Only subvolumes outside the list.
  Id Outside() const { return outside_; }
  // The subvolume at `position` alone.
  Id Own(uint32_t position);
  Id Union(Id a, Id b);

  size_t Size() const { return entries_.size(); }
  const Run* RunsBegin(Id id) const { return runs_.data() + entries_[id].first; }
  const Run* RunsEnd(Id id) const { return RunsBegin(id) + entries_[id].count; }
  size_t RunCount(Id id) const { return entries_[id].count; }
  bool HasOutside(Id id) const { return entries_[id].outside; }
  // Whether a given subvolume reaches it.
  bool HasMembers(Id id) const { return entries_[id].count > 0; }
  // Lowest and highest position; only for signatures with members.
  uint32_t Lowest(Id id) const { return RunsBegin(id)->first; }
  uint32_t Highest(Id id) const { return (RunsEnd(id) - 1)->last; }
  bool Contains(Id id, uint32_t position) const;

 private:
  struct Entry {
    uint32_t first;  // index of its first run in runs_
    uint32_t count;
    uint32_t hash;   // of its runs and outside flag
    bool outside;
  };
  // The signature of the runs appended to runs_ from `first` on: an
  // existing one (and the runs are taken back), or a new one.
  Id Intern(uint32_t first, bool outside);
  bool SameSet(const Entry& a, const Entry& b) const;
  void GrowIndex();

  std::vector<Run> runs_;
  std::vector<Entry> entries_;
  // Open addressing by hash, linear probing; kNothing marks a free slot
  // (the empty set itself is never looked up). Kept at most half full.
  std::vector<Id> index_;
  // Recent unions, a slot per hash of the pair: small and fixed, and a
  // pair that meets again usually finds its slot still holding it.
  struct RememberedUnion {
    Id a = kNothing;
    Id b = kNothing;
    Id result = kNothing;
  };
  std::vector<RememberedUnion> unions_;
  Id outside_ = kNothing;
};

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_SIGNATURE_TABLE_H_
