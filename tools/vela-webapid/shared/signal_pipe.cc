#include "shared/signal_pipe.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace vela::webapid {

namespace {

int gReadFd = -1;
int gWriteFd = -1;
// A process forked from this one (a calculation started by a module) runs
// with these handlers until it installs its own, and by then the pipe's
// numbers may name its own files: only the owner writes.
pid_t gOwner = -1;

void OnSignal(int sig) {
  if (getpid() != gOwner) return;
  const int saved = errno;
  const unsigned char byte = static_cast<unsigned char>(sig);
  const ssize_t written = write(gWriteFd, &byte, 1);
  (void)written;  // a full pipe already holds a wake-up
  errno = saved;
}

}  // namespace

SignalPipe::SignalPipe(std::initializer_list<int> signals) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::runtime_error(std::string("pipe2: ") + strerror(errno));
  }
  gReadFd = fds[0];
  gWriteFd = fds[1];
  gOwner = getpid();
  struct sigaction action = {};
  action.sa_handler = OnSignal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (int sig : signals) sigaction(sig, &action, nullptr);
}

SignalPipe::~SignalPipe() {
  gOwner = -1;
  close(gReadFd);
  close(gWriteFd);
  gReadFd = gWriteFd = -1;
}

int SignalPipe::ReadFd() const { return gReadFd; }

std::vector<int> SignalPipe::Drain() {
  std::vector<int> caught;
  unsigned char buffer[64];
  ssize_t n;
  while ((n = read(gReadFd, buffer, sizeof(buffer))) > 0) {
    for (ssize_t i = 0; i < n; ++i) caught.push_back(buffer[i]);
  }
  return caught;
}

}  // namespace vela::webapid
