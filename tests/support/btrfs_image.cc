#include "btrfs_image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "command.h"
#include "sandbox_mounts.h"

namespace vela::test {

BtrfsImage::BtrfsImage(std::string mountPoint, uint64_t sizeBytes,
                       std::vector<std::string> mkfsArgs, std::string mountOptions)
    : mountPoint_(std::move(mountPoint)), mountOptions_(std::move(mountOptions)) {
  RequireSandbox("BtrfsImage");
  const char* tmp = getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/btrfs.XXXXXX";
  const int fd = mkstemp(pattern.data());
  if (fd < 0) throw std::runtime_error(std::string("mkstemp: ") + strerror(errno));
  imagePath_ = pattern;
  const bool sized = ftruncate(fd, static_cast<off_t>(sizeBytes)) == 0;
  close(fd);
  if (!sized) {
    unlink(imagePath_.c_str());
    throw std::runtime_error("cannot size image " + imagePath_);
  }
  try {
    std::vector<std::string> mkfs = {"mkfs.btrfs", "-q", "-f"};
    mkfs.insert(mkfs.end(), mkfsArgs.begin(), mkfsArgs.end());
    mkfs.push_back(imagePath_);
    MustRun(mkfs);
    if (mkdir(mountPoint_.c_str(), 0755) != 0 && errno != EEXIST) {
      throw std::runtime_error("mkdir " + mountPoint_ + ": " + strerror(errno));
    }
    Mount();
  } catch (...) {
    unlink(imagePath_.c_str());
    throw;
  }
}

BtrfsImage::~BtrfsImage() {
  if (mounted_) {
    // A busy file system (a test's child still inside) is detached lazily.
    if (RunCommand({"umount", mountPoint_}).status != 0) RunCommand({"umount", "-l", mountPoint_});
  }
  unlink(imagePath_.c_str());
}

void BtrfsImage::Mount() {
  if (mounted_) return;
  std::string options = "loop";
  if (!mountOptions_.empty()) options += "," + mountOptions_;
  MustRun({"mount", "-t", "btrfs", "-o", options, imagePath_, mountPoint_});
  mounted_ = true;
}

void BtrfsImage::Unmount() {
  if (!mounted_) return;
  MustRun({"umount", mountPoint_});
  mounted_ = false;
}

void BtrfsImage::Sync() const { MustRun({"btrfs", "filesystem", "sync", mountPoint_}); }

std::string BtrfsImage::CreateSubvolume(const std::string& relative) const {
  const std::string path = mountPoint_ + "/" + relative;
  MustRun({"btrfs", "-q", "subvolume", "create", path});
  return path;
}

void BtrfsImage::Snapshot(const std::string& source, const std::string& destination) const {
  MustRun({"btrfs", "-q", "subvolume", "snapshot", "-r", source, destination});
}

}  // namespace vela::test
