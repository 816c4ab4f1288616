#include "device_set.h"

#include <fcntl.h>
#include <linux/btrfs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "provider_error.h"

namespace vela::btrfs {

DeviceSet DeviceSet::OfMountedFileSystem(int fsFd) {
  btrfs_ioctl_fs_info_args info{};
  if (ioctl(fsFd, BTRFS_IOC_FS_INFO, &info) != 0) {
    Fail(ProviderError::Kind::kSystem, "cannot read the file system's device list: %s", strerror(errno));
  }
  // The highest ID is that of a device of the mounted file system itself;
  // seed devices it grew from have lower ones.
  DeviceSet set;
  for (uint64_t devid = 1; devid <= info.max_id; ++devid) {
    btrfs_ioctl_dev_info_args dev{};
    dev.devid = devid;
    if (ioctl(fsFd, BTRFS_IOC_DEV_INFO, &dev) != 0) {
      if (errno == ENODEV) continue;  // removed devices leave holes in the numbering
      Fail(ProviderError::Kind::kSystem, "cannot look up device %llu: %s", static_cast<unsigned long long>(devid),
           strerror(errno));
    }
    const std::string path(reinterpret_cast<const char*>(dev.path),
                           strnlen(reinterpret_cast<const char*>(dev.path), sizeof dev.path));
    if (path.empty()) {
      set.missing_.push_back(devid);
      continue;
    }
    // Direct I/O: the file system writes its blocks past the device's page
    // cache, so cached pages of the device could be stale.
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
    if (!fd.Valid() && errno == EINVAL) fd.Reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.Valid()) Fail(ProviderError::Kind::kSystem, "cannot open device %s: %s", path.c_str(), strerror(errno));
    set.Add(devid, std::move(fd), path);
  }
  if (set.devices_.empty()) Fail(ProviderError::Kind::kRefused, "the file system has no readable device");
  return set;
}

void DeviceSet::Add(uint64_t devid, UniqueFd fd, std::string path) {
  devices_[devid] = Device{std::move(fd), std::move(path)};
}

std::vector<uint64_t> DeviceSet::Devids() const {
  std::vector<uint64_t> ids;
  for (const auto& entry : devices_) ids.push_back(entry.first);
  return ids;
}

void DeviceSet::Read(uint64_t devid, uint64_t physical, uint8_t* buffer, size_t length) const {
  const auto found = devices_.find(devid);
  if (found == devices_.end()) {
    Fail(ProviderError::Kind::kBadBlock, "no device %llu in the file system", static_cast<unsigned long long>(devid));
  }
  const Device& device = found->second;
  size_t done = 0;
  while (done < length) {
    const ssize_t n = pread(device.fd.Get(), buffer + done, length - done, static_cast<off_t>(physical + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      Fail(ProviderError::Kind::kSystem, "cannot read %zu bytes at %llu of %s: %s", length,
           static_cast<unsigned long long>(physical), device.path.c_str(), strerror(errno));
    }
    if (n == 0) {
      Fail(ProviderError::Kind::kBadBlock, "read past the end of %s at %llu", device.path.c_str(),
           static_cast<unsigned long long>(physical + done));
    }
    done += static_cast<size_t>(n);
  }
}

AlignedBuffer::AlignedBuffer(size_t size) : size_(size) {
  void* memory = nullptr;
  if (posix_memalign(&memory, DeviceSet::kAlignment, size == 0 ? DeviceSet::kAlignment : size) != 0) {
    throw std::bad_alloc();
  }
  data_ = static_cast<uint8_t*>(memory);
}

AlignedBuffer::~AlignedBuffer() { free(data_); }

}  // namespace vela::btrfs
