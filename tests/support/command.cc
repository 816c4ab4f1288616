#include "command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace vela::test {

CommandResult RunCommand(const std::vector<std::string>& argv, const std::string& input) {
  CommandResult result;
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("pipe: ") + strerror(errno));
  }
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + strerror(errno));
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    dprintf(2, "exec %s: %s\n", args[0], strerror(errno));
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  // Input is small; a reader that does not read it gets EPIPE, not a hang.
  signal(SIGPIPE, SIG_IGN);
  size_t sent = 0;
  while (sent < input.size()) {
    const ssize_t n = write(in[1], input.data() + sent, input.size() - sent);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  close(in[1]);
  struct pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  while (open > 0) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t n = read(fds[i].fd, buffer, sizeof(buffer));
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

std::string MustRun(const std::vector<std::string>& argv) {
  CommandResult result = RunCommand(argv);
  if (result.status != 0) {
    std::string line;
    for (const auto& a : argv) line += a + " ";
    throw std::runtime_error(line + "exited " + std::to_string(result.status) + ": " + result.err +
                             result.out);
  }
  return result.out;
}

}  // namespace vela::test
