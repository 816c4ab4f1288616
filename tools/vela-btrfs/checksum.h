// Tree block and superblock checksums, in the four algorithms a btrfs file
// system may be made with.
#ifndef VELA_TOOLS_VELA_BTRFS_CHECKSUM_H_
#define VELA_TOOLS_VELA_BTRFS_CHECKSUM_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace vela::btrfs {

class Checksum {
 public:
  // Throws ProviderError for an algorithm this program does not know.
  explicit Checksum(uint16_t csumType);

  // True when the checksum stored in the first bytes of `block` matches the
  // rest of it (everything after the 32-byte checksum area).
  bool Matches(const uint8_t* block, size_t length) const;
  const std::string& Name() const { return name_; }

 private:
  uint16_t type_;
  size_t size_;
  std::string name_;
};

// CRC-32C (Castagnoli) of `length` bytes, as the file system stores it.
uint32_t Crc32c(const uint8_t* data, size_t length);

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_CHECKSUM_H_
