// Signals turned into readable bytes on a pipe, so that a poll loop sees
// them. The signal mask stays as it is: a web API module forks calculation
// processes that inherit the mask, and a blocked SIGTERM there would make
// them deaf to "cancel".
#ifndef VELA_WEBAPID_SHARED_SIGNAL_PIPE_H_
#define VELA_WEBAPID_SHARED_SIGNAL_PIPE_H_

#include <initializer_list>
#include <vector>

namespace vela::webapid {

class SignalPipe {
 public:
  // Catches `signals` from now on; only one SignalPipe per process.
  explicit SignalPipe(std::initializer_list<int> signals);
  ~SignalPipe();
  SignalPipe(const SignalPipe&) = delete;
  SignalPipe& operator=(const SignalPipe&) = delete;

  int ReadFd() const;
  // The signals caught since the last call, in order.
  std::vector<int> Drain();
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_SHARED_SIGNAL_PIPE_H_
