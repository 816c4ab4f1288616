#include "http_worker/worker.h"

#include <poll.h>
#include <signal.h>
#include <syslog.h>
#include <time.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <exception>

#include "http_worker/executor_link.h"
#include "http_worker/http_server.h"
#include "http_worker/lockdown.h"
#include "http_worker/master_link.h"
#include "http_worker/request_router.h"
#include "shared/host_codes.h"
#include "shared/host_log.h"
#include "shared/messages.h"
#include "shared/signal_pipe.h"
#include "vela/webapi_envelope.h"

namespace vela::webapid {

namespace {

// The longest the loop sleeps before it looks at deadlines again.
constexpr int kMaxSleepMs = 500;
// How long a stopping worker keeps idle connections open. A client may be
// sending its next request on one right now; given a moment, it gets its
// answer (with "Connection: close") instead of a connection closed under it.
constexpr auto kIdleLinger = std::chrono::seconds(2);

int Serve(const WorkerSetup& setup) {
  const HostConfig& config = *setup.config;
  // The master's secrets came along with the fork: none stays here.
  msg::WipeTicketKey();
  BecomeForGood(setup.account);
  if (!FollowMaster(setup.master)) return kWorkerDone;
  SignalPipe signals({SIGTERM, SIGINT, SIGHUP});
  const sigset_t stopSignals = WorkerStopSignals();
  sigprocmask(SIG_UNBLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  RequestRouter router(config, *setup.files, setup.boundAddress);
  HttpServer* server = nullptr;
  const auto resume = [&server](HttpRequest* request) { server->Resume(request); };
  // A login may wait for PAM and then for the failure delay, a call for
  // an account check.
  const auto answerTimeout = std::chrono::seconds(config.loginTimeout + 5) +
                             std::chrono::milliseconds(config.loginFailureDelayMs);
  MasterLink master(setup.channelFd, std::chrono::duration_cast<std::chrono::milliseconds>(answerTimeout), resume);
  ExecutorLink executor(setup.executorFd, resume);
  const std::string lost = VELA::WriteAPIErrorEnvelope(kCodeUnavailable);
  const auto dispatch = [&](HttpRequest* request, RouteStep& step) {
    if (step.kind == RouteStep::Kind::kAskMaster) {
      const bool asked = master.Ask(request, std::move(step.query), step.secret);
      explicit_bzero(step.secret.data(), step.secret.size());
      if (asked) return true;
      request->answered = true;
      request->masterAnswer[msg::kCode] = kCodeUnavailable;
      return false;
    }
    if (executor.Call(request, std::move(step.call))) return true;
    request->executed = true;
    request->executorAnswer = lost;
    return false;
  };
  const auto forget = [&](HttpRequest* request) {
    master.Forget(request);
    executor.Forget(request);
  };
  HttpServer http(config, setup.listenFd, *setup.tlsCert, *setup.tlsKey, router, *setup.connections, setup.slot,
                  dispatch, forget);
  server = &http;
  // Time zone and log connection set up while files may still be opened.
  tzset();
  HostLog(LOG_INFO, "worker %d serves HTTP as %s", getpid(), setup.account.name.c_str());
  LockDownWorker();

  bool stopping = false;
  bool masterGone = false;
  bool executorGone = false;
  MasterLink::Clock::time_point closeIdleAt;
  const auto stop = [&](const char* why) {
    if (stopping) return;
    stopping = true;
    closeIdleAt = MasterLink::Clock::now() + kIdleLinger;
    http.StopAccepting();
    router.SetStopping();
    HostLog(LOG_INFO, "worker %d stops (%s); it finishes the %zu requests in flight first", getpid(), why,
            http.RequestsInFlight());
  };
  for (;;) {
    if (stopping && http.RequestsInFlight() == 0 &&
        (http.Connections() == 0 || MasterLink::Clock::now() >= closeIdleAt)) {
      break;
    }
    int timeout = http.TimeoutMs();
    if (timeout < 0 || timeout > kMaxSleepMs) timeout = kMaxSleepMs;
    if (stopping) timeout = std::min(timeout, 100);
    if (const auto deadline = master.NextDeadline()) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - MasterLink::Clock::now());
      timeout = std::clamp(static_cast<int>(left.count()) + 1, 0, timeout);
    }
    pollfd fds[4] = {{http.PollFd(), POLLIN, 0},
                     {masterGone ? -1 : master.Fd(), POLLIN, 0},
                     {executorGone ? -1 : executor.Fd(),
                      static_cast<short>(POLLIN | (executor.WantsToWrite() ? POLLOUT : 0)), 0},
                     {signals.ReadFd(), POLLIN, 0}};
    if (poll(fds, 4, timeout) < 0 && errno != EINTR) {
      HostLog(LOG_ERR, "worker %d: poll: %s", getpid(), strerror(errno));
      return kWorkerCannotStart;
    }
    if (fds[3].revents != 0 && !signals.Drain().empty()) stop("asked to stop");
    if (fds[1].revents != 0 && !master.OnReadable()) {
      masterGone = true;
      stop("its master is gone");
    }
    if (fds[2].revents != 0) {
      const bool open = (fds[2].revents & POLLOUT) == 0 || executor.OnWritable(lost);
      if (!open || ((fds[2].revents & (POLLIN | POLLHUP | POLLERR)) != 0 && !executor.OnReadable(lost))) {
        executorGone = true;
        stop("its executor is gone");
      }
    }
    master.ExpireOverdue();
    http.Run();
    http.CloseOverdue();
    if (router.LoggedInRequests() >= config.maxRequestsPerWorker) stop("it served its share of requests");
    if (getppid() != setup.master) stop("its master is gone");
  }
  return kWorkerDone;
}

}  // namespace

sigset_t WorkerStopSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, sig);
  return set;
}

void RunWorker(const WorkerSetup& setup) {
  int status = kWorkerCannotStart;
  try {
    status = Serve(setup);
  } catch (const std::exception& e) {
    HostLog(LOG_ERR, "worker %d cannot serve: %s", getpid(), e.what());
  }
  // No exit handlers: they belong to the master this process was forked from.
  _exit(status);
}

}  // namespace vela::webapid
