// References to blocks or extents gathered from many places, kept sorted by
// address with all references to one address folded into one. Additions
// collect in a small buffer that is sorted, folded and merged in when full,
// so memory follows the number of distinct addresses, not the number of
// references: a leaf shared by a hundred snapshots' nodes takes one entry.
#ifndef VELA_TOOLS_VELA_BTRFS_SORTED_REFS_H_
#define VELA_TOOLS_VELA_BTRFS_SORTED_REFS_H_

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <vector>

namespace vela::btrfs {

// `Ref` has a member `bytenr`; `Fold` is called as fold(Ref& into, const
// Ref& other) for two references to the same address and may throw.
template <typename Ref, typename Fold>
class SortedRefs {
  static_assert(std::is_trivially_copyable_v<Ref>, "references are moved as bytes");

 public:
  // `bufferSize` references are sorted at a time before they are merged in.
  explicit SortedRefs(Fold fold, size_t bufferSize = size_t{1} << 15) : fold_(fold), bufferSize_(bufferSize) {}
  ~SortedRefs() { free(merged_); }
  SortedRefs(SortedRefs&& other) noexcept
      : fold_(other.fold_), bufferSize_(other.bufferSize_), merged_(other.merged_), size_(other.size_), capacity_(other.capacity_),
        pending_(std::move(other.pending_)) {
    other.merged_ = nullptr;
    other.size_ = other.capacity_ = 0;
  }
  SortedRefs(const SortedRefs&) = delete;
  SortedRefs& operator=(const SortedRefs&) = delete;
  SortedRefs& operator=(SortedRefs&&) = delete;

  void Add(const Ref& ref) {
    pending_.push_back(ref);
    if (pending_.size() >= bufferSize_) Flush();
  }

  // Folds in what is pending. Then the references are data()[0..size()),
  // sorted by address, one per address.
  void Flush();
  const Ref* data() const { return merged_; }
  size_t size() const { return size_; }

  void Clear() {
    free(merged_);
    merged_ = nullptr;
    size_ = capacity_ = 0;
    std::vector<Ref>().swap(pending_);
  }

 private:
  // realloc() moves a large array by remapping its pages: growing never
  // holds the old and the new array at once.
  void Reserve(size_t wanted) {
    if (wanted <= capacity_) return;
    const size_t capacity = std::max(wanted, capacity_ + capacity_ / 2);
    void* grown = realloc(merged_, capacity * sizeof(Ref));
    if (grown == nullptr) throw std::bad_alloc();
    merged_ = static_cast<Ref*>(grown);
    capacity_ = capacity;
  }

  Fold fold_;
  size_t bufferSize_;
  Ref* merged_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
  std::vector<Ref> pending_;
};

template <typename Ref, typename Fold>
void SortedRefs<Ref, Fold>::Flush() {
  if (pending_.empty()) return;
  std::sort(pending_.begin(), pending_.end(), [](const Ref& a, const Ref& b) { return a.bytenr < b.bytenr; });
  size_t count = 0;
  for (const Ref& ref : pending_) {
    if (count > 0 && pending_[count - 1].bytenr == ref.bytenr) {
      fold_(pending_[count - 1], ref);
    } else {
      pending_[count++] = ref;
    }
  }
  // Merged from the top down into the room above the sorted references;
  // a pending reference to an address already there folds into it.
  Reserve(size_ + count);
  size_t kept = size_, from = count, to = size_ + count;
  while (from > 0) {
    if (kept > 0 && merged_[kept - 1].bytenr > pending_[from - 1].bytenr) {
      merged_[--to] = merged_[--kept];
    } else if (kept > 0 && merged_[kept - 1].bytenr == pending_[from - 1].bytenr) {
      Ref ref = merged_[--kept];
      fold_(ref, pending_[--from]);
      merged_[--to] = ref;
    } else {
      merged_[--to] = pending_[--from];
    }
  }
  // merged_[0..kept) stayed where it was; the rest closes up behind it.
  const size_t tail = size_ + count - to;
  if (to != kept) memmove(static_cast<void*>(merged_ + kept), merged_ + to, tail * sizeof(Ref));
  size_ = kept + tail;
  pending_.clear();
}

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_SORTED_REFS_H_
