#include "master/slot_supervisor.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "executor/executor.h"
#include "http_worker/worker.h"
#include "shared/channel.h"
#include "shared/host_log.h"

namespace vela::webapid {

namespace {

// A slot whose processes end within this time of their start crashed quickly.
constexpr std::chrono::seconds kQuickCrash(10);
constexpr int kMaxPauseSeconds = 60;

std::string Ending(int status) {
  if (WIFSIGNALED(status)) return "was killed by signal " + std::to_string(WTERMSIG(status));
  return "exited with status " + std::to_string(WEXITSTATUS(status));
}

// Forks with the stop signals blocked; the child unblocks what it wants.
pid_t ForkChild(const std::function<void()>& run) {
  const sigset_t stopSignals = WorkerStopSignals();
  sigset_t saved;
  sigprocmask(SIG_BLOCK, &stopSignals, &saved);
  const pid_t pid = fork();
  if (pid == 0) run();
  sigprocmask(SIG_SETMASK, &saved, nullptr);
  return pid;
}

}  // namespace

SlotSupervisor::SlotSupervisor(int count, RunExecutor executor, RunWorker worker, Prepare prepare)
    : runExecutor_(std::move(executor)),
      runWorker_(std::move(worker)),
      prepare_(std::move(prepare)),
      slots_(static_cast<size_t>(count)) {}

void SlotSupervisor::StartAll() {
  for (size_t i = 0; i < slots_.size(); ++i) Start(static_cast<int>(i));
}

void SlotSupervisor::Start(int index) {
  Slot& slot = slots_[static_cast<size_t>(index)];
  slot.restartAt.reset();
  slot.crashed = false;
  int channel[2];
  int link[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channel) != 0) {
    HostLog(LOG_ERR, "cannot make a worker's channel: %s; trying again in 1 s", strerror(errno));
    slot.restartAt = Clock::now() + std::chrono::seconds(1);
    return;
  }
  UniqueFd ours(channel[0]);
  UniqueFd theirs(channel[1]);
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, link) != 0) {
    HostLog(LOG_ERR, "cannot make an executor's stream: %s; trying again in 1 s", strerror(errno));
    slot.restartAt = Clock::now() + std::chrono::seconds(1);
    return;
  }
  UniqueFd workerEnd(link[0]);
  UniqueFd executorEnd(link[1]);
  prepare_(index);
  slot.executor = ForkChild([&] { runExecutor_(executorEnd.Get()); });
  if (slot.executor > 0) slot.worker = ForkChild([&] { runWorker_(index, theirs.Get(), workerEnd.Get()); });
  if (slot.executor < 0 || slot.worker < 0) {
    HostLog(LOG_ERR, "cannot fork a worker or its executor: %s; trying again in 1 s", strerror(errno));
    // The executor, if it came, reads the end of its stream and ends.
    slot.crashed = true;
    slot.started = Clock::now();
    return;
  }
  slot.channel = std::move(ours);
  slot.serial = nextSerial_++;
  slot.started = Clock::now();
}

bool SlotSupervisor::OnExit(pid_t pid, int status) {
  const auto it = std::find_if(slots_.begin(), slots_.end(),
                               [pid](const Slot& s) { return s.worker == pid || s.executor == pid; });
  if (it == slots_.end()) return false;
  Slot& slot = *it;
  const bool worker = slot.worker == pid;
  const bool onPurpose = WIFEXITED(status) && WEXITSTATUS(status) == (worker ? kWorkerDone : kExecutorDone);
  if (worker) {
    slot.worker = -1;
    slot.channel.Reset();
  } else {
    slot.executor = -1;
  }
  if (!onPurpose && !stopping_) {
    slot.crashed = true;
    HostLog(LOG_ERR, "%s %d %s", worker ? "worker" : "executor", pid, Ending(status).c_str());
  }
  if (slot.worker < 0 && slot.executor < 0) Ended(slot);
  return true;
}

void SlotSupervisor::Ended(Slot& slot) {
  if (stopping_) return;
  const Clock::time_point now = Clock::now();
  if (!slot.crashed) {
    slot.quickCrashes = 0;
    Start(static_cast<int>(&slot - slots_.data()));
    return;
  }
  slot.quickCrashes = now - slot.started < kQuickCrash ? slot.quickCrashes + 1 : 0;
  const int pause = slot.quickCrashes == 0 ? 0 : std::min(kMaxPauseSeconds, 1 << std::min(slot.quickCrashes - 1, 6));
  HostLog(LOG_ERR, "a new worker and executor start in %d s", pause);
  slot.restartAt = now + std::chrono::seconds(pause);
}

void SlotSupervisor::Tick() {
  const Clock::time_point now = Clock::now();
  if (!stopping_) {
    for (size_t i = 0; i < slots_.size(); ++i) {
      Slot& slot = slots_[i];
      if (slot.worker < 0 && slot.executor < 0 && slot.restartAt && *slot.restartAt <= now) {
        Start(static_cast<int>(i));
      }
    }
    return;
  }
  if (killAt_ && *killAt_ <= now) {
    killAt_.reset();
    for (const Slot& slot : slots_) {
      // Not yet reaped, so still ours.
      for (pid_t pid : {slot.worker, slot.executor}) {
        if (pid < 0) continue;
        HostLog(LOG_WARNING, "process %d did not finish in time; killing it", pid);
        kill(pid, SIGKILL);
      }
    }
  }
}

std::optional<SlotSupervisor::Clock::time_point> SlotSupervisor::NextEvent() const {
  if (stopping_) return killAt_;
  std::optional<Clock::time_point> next;
  for (const Slot& slot : slots_) {
    if (slot.worker < 0 && slot.executor < 0 && slot.restartAt && (!next || *slot.restartAt < *next)) {
      next = slot.restartAt;
    }
  }
  return next;
}

void SlotSupervisor::Stop(std::chrono::seconds timeout) {
  if (stopping_) return;
  stopping_ = true;
  killAt_ = Clock::now() + timeout;
  for (const Slot& slot : slots_) {
    if (slot.worker > 0) kill(slot.worker, SIGTERM);
  }
}

bool SlotSupervisor::AllEnded() const {
  return std::all_of(slots_.begin(), slots_.end(), [](const Slot& s) { return s.worker < 0 && s.executor < 0; });
}

std::vector<std::pair<int, uint64_t>> SlotSupervisor::Channels() const {
  std::vector<std::pair<int, uint64_t>> channels;
  for (const Slot& slot : slots_) {
    if (slot.channel.Valid()) channels.emplace_back(slot.channel.Get(), slot.serial);
  }
  return channels;
}

void SlotSupervisor::Send(uint64_t serial, const Json::Value& message) const {
  for (const Slot& slot : slots_) {
    if (slot.serial != serial || !slot.channel.Valid()) continue;
    if (!SendMessage(slot.channel.Get(), message)) {
      HostLog(LOG_ERR, "cannot answer worker %d: %s", slot.worker, strerror(errno));
    }
    return;
  }
}

}  // namespace vela::webapid
