// Open connections counted across all HTTP workers, in memory the master
// maps before it forks them. Each worker slot has a row of counters that
// only its worker writes; the master clears a row before a new worker takes
// the slot, so a worker that dies leaves no count behind. Addresses fall
// into buckets by a keyed hash: two addresses that share a bucket share a
// limit, which errs on the safe side, and nobody can aim at a bucket
// without the key.
#ifndef VELA_WEBAPID_SHARED_CONNECTION_TABLE_H_
#define VELA_WEBAPID_SHARED_CONNECTION_TABLE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace vela::webapid {

class ConnectionTable {
 public:
  struct Limits {
    int total;        // all connections
    int perAddress;   // from one address that is not a trusted proxy
    int reserved;     // of `total`, for trusted proxies only
  };
  enum class Admission { kAdmitted, kAddressFull, kHostFull };

  // Throws std::runtime_error when the memory cannot be mapped.
  ConnectionTable(int slots, Limits limits);
  ~ConnectionTable();
  ConnectionTable(const ConnectionTable&) = delete;
  ConnectionTable& operator=(const ConnectionTable&) = delete;

  // In the master, before a new worker takes the slot.
  void ClearSlot(int slot);
  // In a worker: counts a new connection from `address` (raw bytes) when
  // the limits allow it. Workers admit side by side, so a limit may be
  // passed by at most one connection per worker.
  Admission Admit(int slot, const std::string& address, bool proxy);
  // The connection admitted with the same arguments has closed.
  void Release(int slot, const std::string& address, bool proxy);
  int Total() const;

 private:
  static constexpr size_t kBuckets = 4096;
  struct Row {
    std::atomic<int32_t> total;
    std::atomic<int32_t> buckets[kBuckets];
  };
  size_t Bucket(const std::string& address) const;

  int slots_;
  Limits limits_;
  uint64_t key_;
  Row* rows_ = nullptr;
  size_t bytes_ = 0;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_SHARED_CONNECTION_TABLE_H_
