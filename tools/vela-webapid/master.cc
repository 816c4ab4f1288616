#include "master.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "auth_service.h"
#include "channel.h"
#include "listen_socket.h"
#include "signal_pipe.h"
#include "static_files.h"
#include "worker.h"
#include "worker_supervisor.h"

namespace vela::webapid {

namespace {

std::string ReadSecretFile(const std::string& path) {
  if (path.empty()) return "";
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  if (!in || !(text << in.rdbuf())) throw std::runtime_error("cannot read " + path);
  return text.str();
}

// Closes every descriptor above 2 except those in `keep`.
void CloseAllBut(std::vector<int> keep) {
  std::sort(keep.begin(), keep.end());
  unsigned next = 3;
  for (int fd : keep) {
    if (fd < static_cast<int>(next)) continue;
    if (static_cast<unsigned>(fd) > next) close_range(next, static_cast<unsigned>(fd) - 1, 0);
    next = static_cast<unsigned>(fd) + 1;
  }
  close_range(next, ~0U, 0);
}

class PidFile {
 public:
  explicit PidFile(std::string path) : path_(std::move(path)) {
    if (path_.empty()) return;
    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    const std::string text = std::to_string(getpid()) + "\n";
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      const std::string why = strerror(errno);
      if (fd >= 0) close(fd);
      throw std::runtime_error("cannot write " + path_ + ": " + why);
    }
    close(fd);
  }
  ~PidFile() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  PidFile(const PidFile&) = delete;
  PidFile& operator=(const PidFile&) = delete;

 private:
  std::string path_;
};

class Master {
 public:
  explicit Master(const HostConfig& config)
      : config_(config),
        auth_(config, [this](uint64_t channel, const Json::Value& answer) { workers_.Send(channel, answer); }),
        workers_(config.workers, [this](int channelFd) { StartWorker(channelFd); }) {}

  int Run() {
    account_ = LookUpServiceAccount(config_.user);
    tlsCert_ = ReadSecretFile(config_.tlsCert);
    tlsKey_ = ReadSecretFile(config_.tlsKey);
    files_.Load(config_.webDir);
    listen_ = BindListenSocket(config_.listen);
    SignalPipe signals({SIGTERM, SIGINT, SIGHUP, SIGCHLD});
    signalFd_ = signals.ReadFd();
    signal(SIGPIPE, SIG_IGN);
    const PidFile pidFile(config_.pidFile);

    workers_.StartAll();
    syslog(LOG_INFO, "listening on %s://%s/ with %d workers running as %s; %zu page files from %s",
           config_.Tls() ? "https" : "http", BoundAddress(listen_.Get()).c_str(), config_.workers,
           account_.name.c_str(), files_.Count(), config_.webDir.c_str());

    bool stopping = false;
    while (!(stopping && workers_.AllEnded())) {
      Wait();
      for (int sig : signals.Drain()) {
        if (sig == SIGCHLD) {
          Reap();
        } else if (!stopping) {
          stopping = true;
          syslog(LOG_INFO, "stopping on signal %d: workers finish the requests in flight", sig);
          workers_.Stop(std::chrono::seconds(config_.stopTimeout));
          listen_.Reset();  // the workers' copies close as they stop accepting
        }
      }
      auth_.RunTimers();
      workers_.Tick();
    }
    auth_.KillChecks();
    ReapRemaining();
    syslog(LOG_INFO, "stopped");
    return 0;
  }

 private:
  // Sleeps until a signal, a message, a PAM verdict or the next timer.
  void Wait() {
    std::vector<pollfd> fds;
    std::vector<uint64_t> serials;
    for (const auto& [fd, serial] : workers_.Channels()) {
      fds.push_back({fd, POLLIN, 0});
      serials.push_back(serial);
    }
    const size_t channels = fds.size();
    for (int fd : auth_.VerdictFds()) fds.push_back({fd, POLLIN, 0});
    // The signal pipe is last: a SIGCHLD is then handled after the
    // messages and verdicts that came before it.
    fds.push_back({signalFd_, POLLIN, 0});

    Clock::time_point next = auth_.NextTimer();
    if (const auto event = workers_.NextEvent()) next = std::min(next, *event);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
    const int timeout = static_cast<int>(std::clamp<long long>(left + 1, 0, 60000));
    if (poll(fds.data(), fds.size(), timeout) < 0) return;  // EINTR: the signal pipe has it

    for (size_t i = 0; i < channels; ++i) {
      if (fds[i].revents == 0) continue;
      Json::Value message;
      while (ReceiveMessage(fds[i].fd, message) == ReceiveResult::kMessage) {
        try {
          auth_.OnMessage(serials[i], message);
        } catch (const std::exception& e) {
          syslog(LOG_ERR, "cannot answer a worker's request: %s", e.what());
        }
      }
    }
    for (size_t i = channels; i + 1 < fds.size(); ++i) {
      if (fds[i].revents != 0) auth_.OnVerdictReadable(fds[i].fd);
    }
  }

  void Reap() {
    int status = 0;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
      if (!workers_.OnExit(pid, status)) auth_.OnChildExit(pid);
    }
  }

  // Every child was told to end or killed; each is collected, none waited
  // for longer than the kill takes.
  void ReapRemaining() {
    int status = 0;
    while (waitpid(-1, &status, 0) > 0 || errno == EINTR) {
    }
  }

  void StartWorker(int channelFd) {
    auth_.Forget();
    // The log connection is among the descriptors closed: forget it first,
    // or the next line would go to whatever reuses its number.
    closelog();
    CloseAllBut({listen_.Get(), channelFd});
    openlog("vela-webapid", LOG_PID | (config_.logStderr ? LOG_PERROR : 0), LOG_DAEMON);
    RunWorker(WorkerSetup{&config_, &files_, &tlsCert_, &tlsKey_, account_, getppid(), listen_.Get(), channelFd});
  }

  const HostConfig& config_;
  AuthService auth_;
  WorkerSupervisor workers_;
  ServiceAccount account_;
  StaticFiles files_;
  std::string tlsCert_;
  std::string tlsKey_;
  UniqueFd listen_;
  int signalFd_ = -1;
};

}  // namespace

int RunMaster(const HostConfig& config) {
  try {
    Master master(config);
    return master.Run();
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "cannot start: %s", e.what());
    return 1;
  }
}

}  // namespace vela::webapid
