#include "shared/secure_token.h"

#include <gnutls/crypto.h>
#include <string.h>
#include <sys/random.h>

#include <cerrno>
#include <stdexcept>

namespace vela::webapid {

namespace {

constexpr size_t kTokenBytes = 32;

}  // namespace

void FillRandom(unsigned char* out, size_t size) {
  size_t got = 0;
  while (got < size) {
    const ssize_t n = getrandom(out + got, size - got, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error(std::string("getrandom: ") + strerror(errno));
    }
    got += static_cast<size_t>(n);
  }
}

std::string Hex(const unsigned char* bytes, size_t size) {
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * size);
  for (size_t i = 0; i < size; ++i) {
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 15];
  }
  return text;
}

std::string NewToken() {
  unsigned char raw[kTokenBytes];
  FillRandom(raw, sizeof(raw));
  std::string text = Hex(raw, sizeof(raw));
  explicit_bzero(raw, sizeof(raw));
  return text;
}

bool IsToken(const std::string& text) {
  if (text.size() != 2 * kTokenBytes) return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

std::string Sha256(const std::string& text) {
  unsigned char digest[32];
  if (gnutls_hash_fast(GNUTLS_DIG_SHA256, text.data(), text.size(), digest) != 0) {
    throw std::runtime_error("SHA-256 is not available");
  }
  return std::string(reinterpret_cast<char*>(digest), sizeof(digest));
}

std::string HmacSha256Hex(const std::string& key, const std::string& text) {
  unsigned char mac[32];
  if (gnutls_hmac_fast(GNUTLS_MAC_SHA256, key.data(), key.size(), text.data(), text.size(), mac) != 0) {
    throw std::runtime_error("HMAC-SHA-256 is not available");
  }
  return Hex(mac, sizeof(mac));
}

bool EqualInConstantTime(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
  return difference == 0;
}

}  // namespace vela::webapid
