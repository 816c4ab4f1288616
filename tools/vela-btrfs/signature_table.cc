#include "signature_table.h"

#include <algorithm>
#include <utility>

#include "provider_error.h"

namespace vela::btrfs {

namespace {

// Slots for remembered unions (12 bytes each). A union forgotten is found
// again, which costs time, never a wrong answer.
constexpr int kUnionBits = 16;
constexpr size_t kUnionSlots = size_t{1} << kUnionBits;

}  // namespace

SignatureTable::SignatureTable() : index_(1024, kNothing), unions_(kUnionSlots) {
  entries_.push_back(Entry{0, 0, 0, false});
  outside_ = Intern(static_cast<uint32_t>(runs_.size()), true);
}

bool SignatureTable::SameSet(const Entry& x, const Entry& y) const {
  if (x.hash != y.hash || x.outside != y.outside || x.count != y.count) return false;
  const Run* p = runs_.data() + x.first;
  const Run* q = runs_.data() + y.first;
  for (uint32_t i = 0; i < x.count; ++i) {
    if (p[i].first != q[i].first || p[i].last != q[i].last) return false;
  }
  return true;
}

void SignatureTable::GrowIndex() {
  std::vector<Id> grown(index_.size() * 2, kNothing);
  const size_t mask = grown.size() - 1;
  for (Id id : index_) {
    if (id == kNothing) continue;
    size_t slot = entries_[id].hash & mask;
    while (grown[slot] != kNothing) slot = (slot + 1) & mask;
    grown[slot] = id;
  }
  index_.swap(grown);
}

SignatureTable::Id SignatureTable::Intern(uint32_t first, bool outside) {
  if (entries_.size() >= UINT32_MAX / 2 || runs_.size() >= UINT32_MAX) {
    Fail(ProviderError::Kind::kRefused, "more distinct sets of subvolumes than one run can tell apart");
  }
  Entry entry{first, static_cast<uint32_t>(runs_.size() - first), 0, outside};
  uint64_t hash = outside ? 0x9E3779B97F4A7C15ULL : 0xC2B2AE3D27D4EB4FULL;
  for (uint32_t i = first; i < runs_.size(); ++i) {
    hash = (hash ^ ((uint64_t{runs_[i].first} << 32) | runs_[i].last)) * 0x100000001B3ULL;
    hash ^= hash >> 29;
  }
  entry.hash = static_cast<uint32_t>(hash ^ (hash >> 32));
  const size_t mask = index_.size() - 1;
  size_t slot = entry.hash & mask;
  for (; index_[slot] != kNothing; slot = (slot + 1) & mask) {
    if (SameSet(entries_[index_[slot]], entry)) {
      runs_.resize(first);
      return index_[slot];
    }
  }
  const Id id = static_cast<Id>(entries_.size());
  entries_.push_back(entry);
  index_[slot] = id;
  if (entries_.size() * 2 > index_.size()) GrowIndex();
  return id;
}

SignatureTable::Id SignatureTable::Own(uint32_t position) {
  const uint32_t first = static_cast<uint32_t>(runs_.size());
  runs_.push_back(Run{position, position});
  return Intern(first, false);
}

SignatureTable::Id SignatureTable::Union(Id a, Id b) {
  if (a == b || b == kNothing) return a;
  if (a == kNothing) return b;
  if (a > b) std::swap(a, b);
  RememberedUnion& slot = unions_[((uint64_t{a} * 0x9E3779B97F4A7C15ULL) ^ b) * 0xC2B2AE3D27D4EB4FULL >> (64 - kUnionBits)];
  if (slot.a == a && slot.b == b) return slot.result;

  // Both lists are ascending; the merged one joins runs that overlap or
  // touch. runs_ grows meanwhile, so the inputs are read by index.
  const Entry x = entries_[a];
  const Entry y = entries_[b];
  const uint32_t first = static_cast<uint32_t>(runs_.size());
  uint32_t i = 0, j = 0;
  while (i < x.count || j < y.count) {
    Run next;
    if (j == y.count || (i < x.count && runs_[x.first + i].first <= runs_[y.first + j].first)) {
      next = runs_[x.first + i++];
    } else {
      next = runs_[y.first + j++];
    }
    if (runs_.size() > first && next.first <= uint64_t{runs_.back().last} + 1) {
      runs_.back().last = std::max(runs_.back().last, next.last);
    } else {
      runs_.push_back(next);
    }
  }
  const Id result = Intern(first, x.outside || y.outside);
  slot = RememberedUnion{a, b, result};
  return result;
}

bool SignatureTable::Contains(Id id, uint32_t position) const {
  const Run* begin = RunsBegin(id);
  const Run* end = RunsEnd(id);
  const Run* after = std::upper_bound(begin, end, position, [](uint32_t p, const Run& run) { return p < run.first; });
  return after != begin && (after - 1)->last >= position;
}

}  // namespace vela::btrfs
