#include "secure_token.h"

#include <gnutls/crypto.h>
#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace vela::webapid {

namespace {

constexpr size_t kTokenBytes = 32;

}  // namespace

std::string NewToken() {
  unsigned char raw[kTokenBytes];
  size_t got = 0;
  while (got < sizeof(raw)) {
    const ssize_t n = getrandom(raw + got, sizeof(raw) - got, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error(std::string("getrandom: ") + strerror(errno));
    }
    got += static_cast<size_t>(n);
  }
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  for (unsigned char byte : raw) {
    text += kHex[byte >> 4];
    text += kHex[byte & 15];
  }
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

bool EqualInConstantTime(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
  return difference == 0;
}

}  // namespace vela::webapid
