#include "base/file_name.h"

#include <limits.h>
#include <nettle/sha2.h>

#include <cstdint>

namespace vela::base {

namespace {

std::string NameHash(const std::string& name) {
  struct sha256_ctx context;
  uint8_t digest[SHA256_DIGEST_SIZE];
  sha256_init(&context);
  sha256_update(&context, name.size(), reinterpret_cast<const uint8_t*>(name.data()));
  sha256_digest(&context, sizeof(digest), digest);
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  for (uint8_t byte : digest) {
    hex += kHex[byte >> 4];
    hex += kHex[byte & 0x0f];
  }
  return hex;
}

}  // namespace

std::string FitFileName(const std::string& prefix, const std::string& name, const std::string& suffix) {
  // A name of exactly 255 bytes is shortened too: that length belongs to
  // shortened names, so a name given whole can never pose as one.
  if (prefix.size() + name.size() + suffix.size() < NAME_MAX) return prefix + name + suffix;
  const std::string tail = "~" + NameHash(name) + suffix;
  const size_t keep = NAME_MAX - prefix.size() - tail.size();
  return prefix + name.substr(0, keep) + tail;
}

}  // namespace vela::base
