// Random tokens, digests and keyed digests: session IDs, CSRF tokens,
// device cookies, call tickets.
#ifndef VELA_WEBAPID_SHARED_SECURE_TOKEN_H_
#define VELA_WEBAPID_SHARED_SECURE_TOKEN_H_

#include <cstddef>
#include <string>

namespace vela::webapid {

// Fills `out` with random bytes from the kernel. Throws std::runtime_error
// when the kernel gives none.
void FillRandom(unsigned char* out, size_t size);
// 256 random bits, as 64 lower-case hex digits.
std::string NewToken();
// Whether `text` has the form NewToken() gives.
bool IsToken(const std::string& text);
std::string Hex(const unsigned char* bytes, size_t size);
// The SHA-256 digest of `text`, as 32 raw bytes.
std::string Sha256(const std::string& text);
// HMAC-SHA-256 of `text` under `key`, as 64 hex digits.
std::string HmacSha256Hex(const std::string& key, const std::string& text);
// Compares in a time that does not depend on where the texts differ.
bool EqualInConstantTime(const std::string& a, const std::string& b);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_SHARED_SECURE_TOKEN_H_
