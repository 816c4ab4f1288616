// Messages between the master and one worker: JSON objects, one per
// datagram of a SOCK_SEQPACKET socket pair, each tagged with the "id" of
// the worker's request it belongs to.
#ifndef VELA_WEBAPID_CHANNEL_H_
#define VELA_WEBAPID_CHANNEL_H_

#include <json/json.h>


namespace vela::webapid {

// Bigger messages are refused: nothing the two exchange comes near it.
inline constexpr size_t kMaxChannelMessage = 16 * 1024;

// Sends without waiting. False when the message could not be sent whole.
bool SendMessage(int fd, const Json::Value& message);

enum class ReceiveResult { kMessage, kNone, kClosed };
// Takes one message without waiting: kNone when none is queued, kClosed
// when the other side is gone. A message that is not a JSON object is
// skipped.
ReceiveResult ReceiveMessage(int fd, Json::Value& message);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_CHANNEL_H_
