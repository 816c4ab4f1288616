#include "shared/connection_table.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>

#include "shared/secure_token.h"

namespace vela::webapid {

ConnectionTable::ConnectionTable(int slots, Limits limits) : slots_(slots), limits_(limits) {
  FillRandom(reinterpret_cast<unsigned char*>(&key_), sizeof(key_));
  bytes_ = sizeof(Row) * static_cast<size_t>(slots);
  void* memory = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error(std::string("cannot map the connection table: ") + strerror(errno));
  rows_ = static_cast<Row*>(memory);
  for (int i = 0; i < slots; ++i) new (&rows_[i]) Row();
  for (int i = 0; i < slots; ++i) ClearSlot(i);
}

ConnectionTable::~ConnectionTable() {
  if (rows_ != nullptr) munmap(rows_, bytes_);
}

void ConnectionTable::ClearSlot(int slot) {
  Row& row = rows_[slot];
  row.total.store(0, std::memory_order_relaxed);
  for (auto& bucket : row.buckets) bucket.store(0, std::memory_order_relaxed);
}

size_t ConnectionTable::Bucket(const std::string& address) const {
  // FNV-1a, started from the table's random key.
  uint64_t hash = 1469598103934665603ULL ^ key_;
  for (unsigned char c : address) hash = (hash ^ c) * 1099511628211ULL;
  hash ^= hash >> 29;
  return static_cast<size_t>(hash % kBuckets);
}

int ConnectionTable::Total() const {
  int total = 0;
  for (int i = 0; i < slots_; ++i) total += rows_[i].total.load(std::memory_order_relaxed);
  return total;
}

ConnectionTable::Admission ConnectionTable::Admit(int slot, const std::string& address, bool proxy) {
  const int total = Total();
  if (total >= limits_.total || (!proxy && total >= limits_.total - limits_.reserved)) return Admission::kHostFull;
  if (!proxy) {
    const size_t bucket = Bucket(address);
    int fromAddress = 0;
    for (int i = 0; i < slots_; ++i) fromAddress += rows_[i].buckets[bucket].load(std::memory_order_relaxed);
    if (fromAddress >= limits_.perAddress) return Admission::kAddressFull;
    rows_[slot].buckets[bucket].fetch_add(1, std::memory_order_relaxed);
  }
  rows_[slot].total.fetch_add(1, std::memory_order_relaxed);
  return Admission::kAdmitted;
}

void ConnectionTable::Release(int slot, const std::string& address, bool proxy) {
  if (!proxy) rows_[slot].buckets[Bucket(address)].fetch_sub(1, std::memory_order_relaxed);
  rows_[slot].total.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace vela::webapid
