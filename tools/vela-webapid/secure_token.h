// Random tokens and their digests, for session IDs and CSRF tokens.
#ifndef VELA_WEBAPID_SECURE_TOKEN_H_
#define VELA_WEBAPID_SECURE_TOKEN_H_

#include <string>

namespace vela::webapid {

// 256 random bits from the kernel, as 64 lower-case hex digits. Throws
// std::runtime_error when the kernel gives none.
std::string NewToken();
// Whether `text` has the form NewToken() gives.
bool IsToken(const std::string& text);
// The SHA-256 digest of `text`, as 32 raw bytes.
std::string Sha256(const std::string& text);
// Compares in a time that does not depend on where the texts differ.
bool EqualInConstantTime(const std::string& a, const std::string& b);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_SECURE_TOKEN_H_
