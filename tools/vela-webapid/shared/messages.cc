#include "shared/messages.h"

#include <string.h>
#include <time.h>

#include "shared/secure_token.h"

namespace vela::webapid::msg {

namespace {

unsigned char gKey[32];

}  // namespace

void MakeTicketKey() { FillRandom(gKey, sizeof(gKey)); }

void WipeTicketKey() { explicit_bzero(gKey, sizeof(gKey)); }

std::string SignCall(const CallGrant& grant) {
  // Fields separated by a byte none of them may hold.
  const std::string text = grant.api + '\0' + std::to_string(grant.version) + '\0' + grant.method + '\0' +
                           grant.paramsDigest + '\0' + grant.user + '\0' + std::to_string(grant.nonce) + '\0' +
                           std::to_string(grant.issued);
  return HmacSha256Hex(std::string(reinterpret_cast<const char*>(gKey), sizeof(gKey)), text);
}

int64_t MonotonicSeconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

}  // namespace vela::webapid::msg
