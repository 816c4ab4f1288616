// A small btrfs file system on a sparse loopback image, mounted for the
// length of a test. Only for use inside the test sandbox (it may mount at
// "/volumeN", which there is a private empty mount point).
#ifndef VELA_TESTS_SUPPORT_BTRFS_IMAGE_H_
#define VELA_TESTS_SUPPORT_BTRFS_IMAGE_H_

#include <cstdint>
#include <string>
#include <vector>

namespace vela::test {

class BtrfsImage {
 public:
  static constexpr uint64_t kDefaultSize = 256ull << 20;

  // Creates a sparse image of `sizeBytes` under $TMPDIR, formats it with
  // mkfs.btrfs (plus `mkfsArgs`) and mounts it at `mountPoint` (created
  // when missing) with `mountOptions` ("" for none). Throws
  // std::runtime_error on failure.
  explicit BtrfsImage(std::string mountPoint, uint64_t sizeBytes = kDefaultSize,
                      std::vector<std::string> mkfsArgs = {}, std::string mountOptions = "");
  // Unmounts (if mounted) and deletes the image.
  ~BtrfsImage();
  BtrfsImage(const BtrfsImage&) = delete;
  BtrfsImage& operator=(const BtrfsImage&) = delete;

  const std::string& MountPoint() const { return mountPoint_; }
  const std::string& ImagePath() const { return imagePath_; }

  void Mount();
  void Unmount();
  // Flushes the file system so that tree searches see recent changes.
  void Sync() const;

  // Creates a subvolume at MountPoint()/relative and returns its path.
  std::string CreateSubvolume(const std::string& relative) const;
  // Takes a read-only snapshot of `source` at `destination` (absolute paths).
  void Snapshot(const std::string& source, const std::string& destination) const;

 private:
  std::string mountPoint_;
  std::string imagePath_;
  std::string mountOptions_;
  bool mounted_ = false;
};

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_BTRFS_IMAGE_H_
