// The master's channel to one worker: JSON objects (shared/messages.h), one
// per datagram of a SOCK_SEQPACKET socket pair. A message may carry a
// secret (a login's password) after its JSON text and a NUL byte: it never
// passes through the JSON parser, whose copies nobody could wipe, and the
// bytes sent and read here are wiped after use.
#ifndef VELA_WEBAPID_SHARED_CHANNEL_H_
#define VELA_WEBAPID_SHARED_CHANNEL_H_

#include <json/json.h>

#include <string>


namespace vela::webapid {

// Bigger messages are refused: nothing the two exchange comes near it.
inline constexpr size_t kMaxChannelMessage = 16 * 1024;

// Sends without waiting, with `secret` (wiped then) when given. False when
// the message could not be sent whole.
bool SendMessage(int fd, const Json::Value& message, std::string* secret = nullptr);

enum class ReceiveResult { kMessage, kNone, kClosed };
// Takes one message without waiting: kNone when none is queued, kClosed
// when the other side is gone. A message that is not a JSON object is
// skipped.
// `secret`, when given, gets the message's secret ("" when none); the
// caller wipes it.
ReceiveResult ReceiveMessage(int fd, Json::Value& message, std::string* secret = nullptr);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_SHARED_CHANNEL_H_
