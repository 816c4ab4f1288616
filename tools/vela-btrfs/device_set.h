// The block devices of a btrfs file system, opened for reading.
#ifndef VELA_TOOLS_VELA_BTRFS_DEVICE_SET_H_
#define VELA_TOOLS_VELA_BTRFS_DEVICE_SET_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace vela::btrfs {

using vela::base::UniqueFd;

class DeviceSet {
 public:
  DeviceSet() = default;
  DeviceSet(DeviceSet&&) = default;
  DeviceSet& operator=(DeviceSet&&) = default;

  // Opens every device of the mounted file system that `fsFd` (any file on
  // it) belongs to, seed devices included. Devices the kernel lists as
  // missing (a degraded mount) are left out and listed by Missing(). Throws
  // ProviderError when a present device cannot be opened or none is there.
  static DeviceSet OfMountedFileSystem(int fsFd);

  // Adds device `devid`, read through `fd` and named `path` in messages.
  void Add(uint64_t devid, UniqueFd fd, std::string path);

  bool Has(uint64_t devid) const { return devices_.count(devid) != 0; }
  // Present devices, by ID.
  std::vector<uint64_t> Devids() const;
  const std::string& Path(uint64_t devid) const { return devices_.at(devid).path; }
  const std::vector<uint64_t>& Missing() const { return missing_; }

  // Reads `length` bytes at `physical` of device `devid` into `buffer`,
  // which must be aligned to kAlignment, as `physical` and `length` must be.
  // Throws ProviderError on an absent device or a failed or short read.
  void Read(uint64_t devid, uint64_t physical, uint8_t* buffer, size_t length) const;

  // Direct I/O needs sector-aligned buffers, offsets and lengths.
  static constexpr size_t kAlignment = 4096;

 private:
  struct Device {
    UniqueFd fd;
    std::string path;
  };
  std::map<uint64_t, Device> devices_;
  std::vector<uint64_t> missing_;
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
