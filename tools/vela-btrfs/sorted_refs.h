// References to blocks or extents gathered from many places, kept sorted by
// address (or another key) with all references to one address folded into
// one. Additions
// collect in a small buffer that is sorted, folded and merged in when full,
// so memory follows the number of distinct addresses, not the number of
// references: a leaf shared by a hundred snapshots' nodes takes one entry.
#ifndef VELA_TOOLS_VELA_BTRFS_SORTED_REFS_H_
#define VELA_TOOLS_VELA_BTRFS_SORTED_REFS_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <vector>

namespace vela::btrfs {

// The key references are sorted and folded by: their address.
struct ByBytenr {
  template <typename Ref>
  uint64_t operator()(const Ref& ref) const {
    return ref.bytenr;
  }
};

// `KeyOf` gives a reference's key (by default its member `bytenr`, its
// address); `Fold` is called as fold(Ref& into, const Ref& other) for two
// references with the same key and may throw.
template <typename Ref, typename Fold, typename KeyOf = ByBytenr>
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
  // sorted by key, one per key.
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

template <typename Ref, typename Fold, typename KeyOf>
void SortedRefs<Ref, Fold, KeyOf>::Flush() {
  if (pending_.empty()) return;
  const KeyOf key;
  std::sort(pending_.begin(), pending_.end(), [&key](const Ref& a, const Ref& b) { return key(a) < key(b); });
  size_t count = 0;
  for (const Ref& ref : pending_) {
    if (count > 0 && key(pending_[count - 1]) == key(ref)) {
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
    if (kept > 0 && key(pending_[from - 1]) < key(merged_[kept - 1])) {
      merged_[--to] = merged_[--kept];
    } else if (kept > 0 && key(merged_[kept - 1]) == key(pending_[from - 1])) {
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
