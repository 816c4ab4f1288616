#include "checksum.h"

#include <gcrypt.h>
#include <xxhash.h>

#include <cstring>
#include <mutex>

#include "disk_format.h"
#include "provider_error.h"

namespace vela::btrfs {

namespace {

// Byte-at-a-time table for machines without the SSE 4.2 instruction.
struct Crc32cTable {
  uint32_t entry[256];
  Crc32cTable() {
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t crc = i;
      for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0x82F63B78u & (0u - (crc & 1u)));
      entry[i] = crc;
    }
  }
};

uint32_t Crc32cPortable(uint32_t crc, const uint8_t* data, size_t length) {
  static const Crc32cTable table;
  for (size_t i = 0; i < length; ++i) crc = table.entry[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return crc;
}

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) uint32_t Crc32cHardware(uint32_t crc, const uint8_t* data,
                                                          size_t length) {
  uint64_t wide = crc;
  while (length >= 8) {
    uint64_t word;
    memcpy(&word, data, 8);
    wide = __builtin_ia32_crc32di(wide, word);
    data += 8;
    length -= 8;
  }
  crc = static_cast<uint32_t>(wide);
  while (length > 0) {
    crc = __builtin_ia32_crc32qi(crc, *data++);
    --length;
  }
  return crc;
}
#endif

void InitGcrypt() {
  static std::once_flag once;
  std::call_once(once, [] {
    gcry_check_version(nullptr);
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
  });
}

}  // namespace

uint32_t Crc32c(const uint8_t* data, size_t length) {
#if defined(__x86_64__)
  static const bool hardware = __builtin_cpu_supports("sse4.2");
  if (hardware) return ~Crc32cHardware(~0u, data, length);
#endif
  return ~Crc32cPortable(~0u, data, length);
}

Checksum::Checksum(uint16_t csumType) : type_(csumType) {
  switch (csumType) {
    case BTRFS_CSUM_TYPE_CRC32:
      size_ = 4;
      name_ = "crc32c";
      break;
    case BTRFS_CSUM_TYPE_XXHASH:
      size_ = 8;
      name_ = "xxhash64";
      break;
    case BTRFS_CSUM_TYPE_SHA256:
      size_ = 32;
      name_ = "sha256";
      InitGcrypt();
      break;
    case BTRFS_CSUM_TYPE_BLAKE2:
      size_ = 32;
      name_ = "blake2b";
      InitGcrypt();
      break;
    default:
      Fail(ProviderError::Kind::kRefused, "unknown checksum type %u", csumType);
  }
}

bool Checksum::Matches(const uint8_t* block, size_t length) const {
  if (length <= kCsumAreaSize) return false;
  const uint8_t* data = block + kCsumAreaSize;
  const size_t dataLength = length - kCsumAreaSize;
  uint8_t computed[kCsumAreaSize] = {};
  switch (type_) {
    case BTRFS_CSUM_TYPE_CRC32: {
      const uint32_t crc = htole32(Crc32c(data, dataLength));
      memcpy(computed, &crc, sizeof crc);
      break;
    }
    case BTRFS_CSUM_TYPE_XXHASH: {
      const uint64_t hash = htole64(XXH64(data, dataLength, 0));
      memcpy(computed, &hash, sizeof hash);
      break;
    }
    case BTRFS_CSUM_TYPE_SHA256:
      gcry_md_hash_buffer(GCRY_MD_SHA256, computed, data, dataLength);
      break;
    case BTRFS_CSUM_TYPE_BLAKE2:
      gcry_md_hash_buffer(GCRY_MD_BLAKE2B_256, computed, data, dataLength);
      break;
  }
  return memcmp(computed, block, size_) == 0;
}

}  // namespace vela::btrfs
