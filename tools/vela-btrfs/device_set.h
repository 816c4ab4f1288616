// The block devices of a mounted btrfs file system, opened for reading.
#ifndef VELA_TOOLS_VELA_BTRFS_DEVICE_SET_H_
#define VELA_TOOLS_VELA_BTRFS_DEVICE_SET_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace vela::btrfs {

class DeviceSet {
 public:
  // Opens every device of the file system that `fsFd` (any file on it)
  // belongs to. Throws ProviderError when one cannot be opened.
  explicit DeviceSet(int fsFd);
  ~DeviceSet();
  DeviceSet(const DeviceSet&) = delete;
  DeviceSet& operator=(const DeviceSet&) = delete;

  // Reads `length` bytes at `physical` of device `devid` into `buffer`,
  // which must be aligned to kAlignment, as `physical` and `length` must be.
  // Throws ProviderError on an unknown device or a failed or short read.
  void Read(uint64_t devid, uint64_t physical, uint8_t* buffer, size_t length) const;

  const std::map<uint64_t, std::string>& Paths() const { return paths_; }

  // Direct I/O needs sector-aligned buffers, offsets and lengths.
  static constexpr size_t kAlignment = 4096;

 private:
  std::map<uint64_t, int> fds_;
  std::map<uint64_t, std::string> paths_;
};

// A heap buffer aligned for DeviceSet::Read.
class AlignedBuffer {
 public:
  explicit AlignedBuffer(size_t size);
  ~AlignedBuffer();
  AlignedBuffer(const AlignedBuffer&) = delete;
  AlignedBuffer& operator=(const AlignedBuffer&) = delete;
  uint8_t* data() { return data_; }
  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_DEVICE_SET_H_
