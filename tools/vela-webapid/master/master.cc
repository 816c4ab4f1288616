#include "master/master.h"

#include <fcntl.h>
#include <grp.h>
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
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "executor/executor.h"
#include "http_worker/worker.h"
#include "master/auth_service.h"
#include "master/listen_socket.h"
#include "master/slot_supervisor.h"
#include "shared/channel.h"
#include "shared/connection_table.h"
#include "shared/host_log.h"
#include "shared/messages.h"
#include "shared/signal_pipe.h"
#include "shared/static_files.h"

#ifndef VELA_WEB_SERVER_GROUP
#error "VELA_WEB_SERVER_GROUP names the group that may open the modules' lock files"
#endif

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

// The HTTP workers must not be able to open what the web server's group
// may: the modules' lock files above all.
void CheckHttpAccount(const ServiceAccount& http, const ServiceAccount& executor) {
  const struct group* web = getgrnam(VELA_WEB_SERVER_GROUP);
  bool member = http.gid == executor.gid || (web != nullptr && web->gr_gid == http.gid);
  for (char** name = web != nullptr ? web->gr_mem : nullptr; name != nullptr && *name != nullptr; ++name) {
    member = member || http.name == *name;
  }
  if (http.uid == executor.uid || member) {
    throw std::runtime_error("the HTTP workers' account " + http.name + " shares ids with " + executor.name +
                             " or is in group " + VELA_WEB_SERVER_GROUP + "; it must have neither");
  }
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
  Master(const HostConfig& config, char** argv)
      : config_(config),
        argv_(argv),
        auth_(config, [this](uint64_t channel, const Json::Value& answer) { slots_.Send(channel, answer); }),
        slots_(
            config.workers, [this](int linkFd) { StartExecutor(linkFd); },
            [this](int slot, int channelFd, int executorFd) { StartWorker(slot, channelFd, executorFd); },
            [this](int slot) { connections_->ClearSlot(slot); }) {}

  int Run() {
    executorAccount_ = LookUpServiceAccount(config_.user);
    httpAccount_ = LookUpServiceAccount(config_.httpUser);
    CheckHttpAccount(httpAccount_, executorAccount_);
    tlsCert_ = ReadSecretFile(config_.tlsCert);
    tlsKey_ = ReadSecretFile(config_.tlsKey);
    files_.Load(config_.webDir);
    connections_ = std::make_unique<ConnectionTable>(
        config_.workers, ConnectionTable::Limits{config_.maxConnections, config_.maxConnectionsPerAddress,
                                                 config_.trustedProxies.empty() ? 0 : config_.proxyConnections});
    msg::MakeTicketKey();
    listen_ = InheritedListenSocket();
    const bool inherited = listen_.Valid();
    if (!inherited) listen_ = BindListenSocket(config_.listen);
    boundAddress_ = BoundAddress(listen_.Get());
    SignalPipe signals({SIGTERM, SIGINT, SIGHUP, SIGCHLD});
    signalFd_ = signals.ReadFd();
    signal(SIGPIPE, SIG_IGN);
    const PidFile pidFile(config_.pidFile);

    slots_.StartAll();
    HostLog(LOG_INFO, "listening on %s://%s/%s with %d workers running as %s, their module calls as %s; %zu page files from %s",
            config_.Tls() ? "https" : "http", boundAddress_.c_str(), inherited ? " (a socket handed over)" : "",
            config_.workers, httpAccount_.name.c_str(), executorAccount_.name.c_str(), files_.Count(),
            config_.webDir.c_str());

    bool stopping = false;
    bool restarting = false;
    while (!(stopping && slots_.AllEnded())) {
      Wait();
      for (int sig : signals.Drain()) {
        if (sig == SIGCHLD) {
          Reap();
        } else if (!stopping) {
          stopping = true;
          restarting = sig == SIGHUP;
          HostLog(LOG_INFO, "%s on signal %d: workers finish the requests in flight",
                  restarting ? "restarting" : "stopping", sig);
          slots_.Stop(std::chrono::seconds(config_.stopTimeout));
          // The workers' copies close as they stop accepting; a restart
          // keeps the master's, so connections wait instead of being refused.
          if (!restarting) listen_.Reset();
        }
      }
      auth_.RunTimers();
      slots_.Tick();
    }
    auth_.KillChecks();
    ReapRemaining();
    if (restarting) Restart();
    HostLog(LOG_INFO, "stopped");
    return 0;
  }

 private:
  // Sleeps until a signal, a message, a PAM verdict or the next timer.
  void Wait() {
    std::vector<pollfd> fds;
    std::vector<uint64_t> serials;
    for (const auto& [fd, serial] : slots_.Channels()) {
      fds.push_back({fd, POLLIN, 0});
      serials.push_back(serial);
    }
    const size_t channels = fds.size();
    for (int fd : auth_.VerdictFds()) fds.push_back({fd, POLLIN, 0});
    // The signal pipe is last: a SIGCHLD is then handled after the
    // messages and verdicts that came before it.
    fds.push_back({signalFd_, POLLIN, 0});

    Clock::time_point next = auth_.NextTimer();
    if (const auto event = slots_.NextEvent()) next = std::min(next, *event);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
    const int timeout = static_cast<int>(std::clamp<long long>(left + 1, 0, 60000));
    if (poll(fds.data(), fds.size(), timeout) < 0) return;  // EINTR: the signal pipe has it

    for (size_t i = 0; i < channels; ++i) {
      if (fds[i].revents == 0) continue;
      Json::Value message;
      std::string secret;
      while (ReceiveMessage(fds[i].fd, message, &secret) == ReceiveResult::kMessage) {
        try {
          auth_.OnMessage(serials[i], message, secret);
        } catch (const std::exception& e) {
          HostLog(LOG_ERR, "cannot answer a worker's request: %s", e.what());
        }
        explicit_bzero(secret.data(), secret.size());
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
      if (!slots_.OnExit(pid, status)) auth_.OnChildExit(pid);
    }
  }

  // Every child was told to end or killed; each is collected, none waited
  // for longer than the kill takes.
  void ReapRemaining() {
    int status = 0;
    while (waitpid(-1, &status, 0) > 0 || errno == EINTR) {
    }
  }

  [[noreturn]] void Restart() {
    HostLog(LOG_INFO, "restarting in place with the listening socket");
    closelog();
    CloseAllBut({listen_.Get()});
    if (!HandOverListenSocket(listen_.Get())) _exit(1);
    execv("/proc/self/exe", argv_);
    _exit(1);
  }

  // In a forked child: nothing of the master's state stays but what the
  // child is for.
  void LeaveMaster(std::vector<int> keep) {
    auth_.Forget();
    // The log connection is among the descriptors closed: forget it first,
    // or the next line would go to whatever reuses its number.
    closelog();
    CloseAllBut(std::move(keep));
    OpenHostLog(config_.logStderr);
  }

  void StartExecutor(int linkFd) {
    LeaveMaster({linkFd});
    // Executors never speak TLS: the key has no business there.
    explicit_bzero(tlsKey_.data(), tlsKey_.size());
    RunExecutor(ExecutorSetup{&config_, executorAccount_, getppid(), linkFd});
  }

  void StartWorker(int slot, int channelFd, int executorFd) {
    LeaveMaster({listen_.Get(), channelFd, executorFd});
    RunWorker(WorkerSetup{&config_, &files_, &tlsCert_, &tlsKey_, connections_.get(), slot, httpAccount_, getppid(),
                          listen_.Get(), channelFd, executorFd, boundAddress_});
  }

  const HostConfig& config_;
  char** argv_;
  AuthService auth_;
  SlotSupervisor slots_;
  ServiceAccount executorAccount_;
  ServiceAccount httpAccount_;
  StaticFiles files_;
  std::unique_ptr<ConnectionTable> connections_;
  std::string tlsCert_;
  std::string tlsKey_;
  UniqueFd listen_;
  std::string boundAddress_;
  int signalFd_ = -1;
};

}  // namespace

int RunMaster(const HostConfig& config, char** argv) {
  try {
    Master master(config, argv);
    return master.Run();
  } catch (const std::exception& e) {
    HostLog(LOG_ERR, "cannot start: %s", e.what());
    return 1;
  }
}

}  // namespace vela::webapid
