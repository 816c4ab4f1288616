#include "worker_supervisor.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "channel.h"
#include "worker.h"

namespace vela::webapid {

namespace {

// A worker that ends within this time of its start counts as a quick crash.
constexpr std::chrono::seconds kQuickCrash(10);
constexpr int kMaxPauseSeconds = 60;

std::string Ending(int status) {
  if (WIFSIGNALED(status)) return "was killed by signal " + std::to_string(WTERMSIG(status));
  return "exited with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

WorkerSupervisor::WorkerSupervisor(int count, RunWorker run)
    : run_(std::move(run)), slots_(static_cast<size_t>(count)) {}

void WorkerSupervisor::StartAll() {
  for (Slot& slot : slots_) Start(slot);
}

void WorkerSupervisor::Start(Slot& slot) {
  slot.restartAt.reset();
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
    syslog(LOG_ERR, "cannot make a worker's channel: %s; trying again in 1 s", strerror(errno));
    slot.restartAt = Clock::now() + std::chrono::seconds(1);
    return;
  }
  UniqueFd ours(fds[0]);
  UniqueFd theirs(fds[1]);
  const sigset_t stopSignals = WorkerStopSignals();
  sigset_t saved;
  sigprocmask(SIG_BLOCK, &stopSignals, &saved);
  const pid_t pid = fork();
  if (pid == 0) run_(theirs.Get());
  sigprocmask(SIG_SETMASK, &saved, nullptr);
  if (pid < 0) {
    syslog(LOG_ERR, "cannot fork a worker: %s; trying again in 1 s", strerror(errno));
    slot.restartAt = Clock::now() + std::chrono::seconds(1);
    return;
  }
  slot.pid = pid;
  slot.channel = std::move(ours);
  slot.serial = nextSerial_++;
  slot.started = Clock::now();
}

bool WorkerSupervisor::OnExit(pid_t pid, int status) {
  const auto it = std::find_if(slots_.begin(), slots_.end(), [pid](const Slot& s) { return s.pid == pid; });
  if (it == slots_.end()) return false;
  Slot& slot = *it;
  slot.pid = -1;
  slot.channel.Reset();
  if (stopping_) return true;
  const Clock::time_point now = Clock::now();
  if (WIFEXITED(status) && WEXITSTATUS(status) == kWorkerDone) {
    slot.quickCrashes = 0;
    Start(slot);
    return true;
  }
  slot.quickCrashes = now - slot.started < kQuickCrash ? slot.quickCrashes + 1 : 0;
  const int pause = slot.quickCrashes == 0 ? 0 : std::min(kMaxPauseSeconds, 1 << std::min(slot.quickCrashes - 1, 6));
  syslog(LOG_ERR, "worker %d %s; a new one starts in %d s", pid, Ending(status).c_str(), pause);
  slot.restartAt = now + std::chrono::seconds(pause);
  return true;
}

void WorkerSupervisor::Tick() {
  const Clock::time_point now = Clock::now();
  if (!stopping_) {
    for (Slot& slot : slots_) {
      if (slot.pid < 0 && slot.restartAt && *slot.restartAt <= now) Start(slot);
    }
    return;
  }
  if (killAt_ && *killAt_ <= now) {
    killAt_.reset();
    for (const Slot& slot : slots_) {
      if (slot.pid < 0) continue;
      syslog(LOG_WARNING, "worker %d did not finish in time; killing it", slot.pid);
      kill(slot.pid, SIGKILL);  // not yet reaped, so still ours
    }
  }
}

std::optional<WorkerSupervisor::Clock::time_point> WorkerSupervisor::NextEvent() const {
  if (stopping_) return killAt_;
  std::optional<Clock::time_point> next;
  for (const Slot& slot : slots_) {
    if (slot.pid < 0 && slot.restartAt && (!next || *slot.restartAt < *next)) next = slot.restartAt;
  }
  return next;
}

void WorkerSupervisor::Stop(std::chrono::seconds timeout) {
  if (stopping_) return;
  stopping_ = true;
  killAt_ = Clock::now() + timeout;
  for (const Slot& slot : slots_) {
    if (slot.pid > 0) kill(slot.pid, SIGTERM);
  }
}

bool WorkerSupervisor::AllEnded() const {
  return std::all_of(slots_.begin(), slots_.end(), [](const Slot& s) { return s.pid < 0; });
}

std::vector<std::pair<int, uint64_t>> WorkerSupervisor::Channels() const {
  std::vector<std::pair<int, uint64_t>> channels;
  for (const Slot& slot : slots_) {
    if (slot.channel.Valid()) channels.emplace_back(slot.channel.Get(), slot.serial);
  }
  return channels;
}

void WorkerSupervisor::Send(uint64_t serial, const Json::Value& message) const {
  for (const Slot& slot : slots_) {
    if (slot.serial != serial || !slot.channel.Valid()) continue;
    if (!SendMessage(slot.channel.Get(), message)) {
      syslog(LOG_ERR, "cannot answer worker %d: %s", slot.pid, strerror(errno));
    }
    return;
  }
}

}  // namespace vela::webapid
