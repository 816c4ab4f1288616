#include "shared/frame_stream.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace vela::webapid {

namespace {

bool ReadAll(int fd, char* out, size_t size) {
  while (size > 0) {
    const ssize_t n = read(fd, out, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    out += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

std::string Header(size_t size) {
  const uint32_t length = static_cast<uint32_t>(size);
  return std::string(reinterpret_cast<const char*>(&length), sizeof(length));
}

}  // namespace

bool ReadFrame(int fd, std::string& frame) {
  uint32_t length = 0;
  if (!ReadAll(fd, reinterpret_cast<char*>(&length), sizeof(length)) || length > kMaxFrameBytes) return false;
  frame.resize(length);
  return ReadAll(fd, frame.data(), length);
}

bool WriteFrame(int fd, const std::string& frame) {
  if (frame.size() > kMaxFrameBytes) return false;
  const std::string all = Header(frame.size()) + frame;
  for (size_t done = 0; done < all.size();) {
    const ssize_t n = send(fd, all.data() + done, all.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool FrameStream::Send(const std::string& frame) {
  if (frame.size() > kMaxFrameBytes) return false;
  if (written_ == out_.size()) {
    out_.clear();
    written_ = 0;
  }
  out_ += Header(frame.size());
  out_ += frame;
  return OnWritable();
}

bool FrameStream::OnWritable() {
  while (written_ < out_.size()) {
    const ssize_t n = send(fd_, out_.data() + written_, out_.size() - written_, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return true;
    if (n <= 0) return false;
    written_ += static_cast<size_t>(n);
  }
  return true;
}

bool FrameStream::OnReadable() {
  char buffer[65536];
  for (;;) {
    const ssize_t n = recv(fd_, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return true;
    if (n <= 0) return false;
    in_.append(buffer, static_cast<size_t>(n));
    uint32_t length = 0;
    if (in_.size() >= sizeof(length)) {
      memcpy(&length, in_.data(), sizeof(length));
      if (length > kMaxFrameBytes) return false;
    }
  }
}

bool FrameStream::Next(std::string& frame) {
  uint32_t length = 0;
  if (in_.size() < sizeof(length)) return false;
  memcpy(&length, in_.data(), sizeof(length));
  if (in_.size() < sizeof(length) + length) return false;
  frame.assign(in_, sizeof(length), length);
  in_.erase(0, sizeof(length) + length);
  return true;
}

}  // namespace vela::webapid
