// Frames on a stream socket: a 4-byte length (host order: both ends are
// processes of this machine) and that many bytes. Used between an HTTP
// worker and its executor, whose messages (a module's answer) may be far
// larger than a datagram.
#ifndef VELA_WEBAPID_SHARED_FRAME_STREAM_H_
#define VELA_WEBAPID_SHARED_FRAME_STREAM_H_

#include <cstddef>
#include <string>

namespace vela::webapid {

// Larger frames are refused: the other end is broken.
inline constexpr size_t kMaxFrameBytes = 256u << 20;

// Blocking, for the executor: one whole frame, or false when the other
// end is gone or broke the format.
bool ReadFrame(int fd, std::string& frame);
bool WriteFrame(int fd, const std::string& frame);

// Non-blocking, for the worker's poll loop.
class FrameStream {
 public:
  explicit FrameStream(int fd) : fd_(fd) {}
  int Fd() const { return fd_; }
  // Queues a frame and writes what the socket takes now.
  bool Send(const std::string& frame);
  bool WantsToWrite() const { return written_ < out_.size(); }
  // Writes more of what is queued; false when the other end is gone.
  bool OnWritable();
  // Reads what is there; false when the other end is gone or broke the
  // format. Complete frames are then taken with Next().
  bool OnReadable();
  bool Next(std::string& frame);

 private:
  int fd_;
  std::string in_;
  std::string out_;
  size_t written_ = 0;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_SHARED_FRAME_STREAM_H_
