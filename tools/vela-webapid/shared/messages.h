// Every message between the host's processes, in one place.
//
// Master <-> HTTP worker: one JSON object per datagram of a SOCK_SEQPACKET
// pair (shared/channel.h). The worker asks, tagging each question with its
// own "id"; the master answers with the same "id", a "code" (0 or a host
// code) and the fields below. Questions:
//
//   "login"   user, address, device; the password as the message's
//             secret (shared/channel.h)        -> session, csrf, user, device
//   "logout"  session, csrf                     -> nothing more
//   "session" session                           -> user, csrf
//   "call"    session, csrf, api, version, method, params_sha256
//                                                -> user, nonce, issued, ticket
//
// A refusal for a while (code 108) carries "retry_after", in seconds.
//
// HTTP worker <-> its executor: frames of a stream socket pair
// (shared/frame_stream.h). The worker sends one call at a time:
//
//   api, version, method, params (the JSON text of the body), user, nonce,
//   issued, ticket
//
// and the executor answers with the answer envelope's text. The ticket is
// what makes the call authenticated: the master signs the call it granted
// with a key only it and the executors hold, so a worker, whatever runs in
// it, cannot make up a call of its own.
#ifndef VELA_WEBAPID_SHARED_MESSAGES_H_
#define VELA_WEBAPID_SHARED_MESSAGES_H_

#include <cstdint>
#include <string>

namespace vela::webapid::msg {

// Questions of a worker.
inline constexpr char kLogin[] = "login";
inline constexpr char kLogout[] = "logout";
inline constexpr char kSession[] = "session";
inline constexpr char kCall[] = "call";

// Fields.
inline constexpr char kOp[] = "op";
inline constexpr char kId[] = "id";
inline constexpr char kCode[] = "code";
inline constexpr char kUser[] = "user";
inline constexpr char kAddress[] = "address";
inline constexpr char kDevice[] = "device";
inline constexpr char kSessionId[] = "session";
inline constexpr char kCsrf[] = "csrf";
inline constexpr char kApi[] = "api";
inline constexpr char kVersion[] = "version";
inline constexpr char kMethod[] = "method";
inline constexpr char kParams[] = "params";
inline constexpr char kParamsDigest[] = "params_sha256";
inline constexpr char kNonce[] = "nonce";
inline constexpr char kIssued[] = "issued";
inline constexpr char kTicket[] = "ticket";
inline constexpr char kRetryAfter[] = "retry_after";

// A call the master granted.
struct CallGrant {
  std::string api;
  uint64_t version = 0;
  std::string method;
  std::string paramsDigest;  // SHA-256 of the params text, hex
  std::string user;
  uint64_t nonce = 0;        // never the same twice in one master's life
  int64_t issued = 0;        // CLOCK_MONOTONIC seconds
};

// A ticket is good for this long after it was issued.
inline constexpr int64_t kTicketLifetimeSeconds = 30;

// The key tickets are signed with: made by the master at its start, held
// by the executors it forks, wiped in the HTTP workers.
void MakeTicketKey();
void WipeTicketKey();
// HMAC-SHA-256 of the grant under the key, hex.
std::string SignCall(const CallGrant& grant);
int64_t MonotonicSeconds();

}  // namespace vela::webapid::msg

#endif  // VELA_WEBAPID_SHARED_MESSAGES_H_
