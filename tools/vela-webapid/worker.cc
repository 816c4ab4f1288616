#include "worker.h"

#include <poll.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <exception>

#include "http_server.h"
#include "master_link.h"
#include "module_registry.h"
#include "request_router.h"
#include "signal_pipe.h"

namespace vela::webapid {

namespace {

// The longest the loop sleeps before it looks at its master again.
constexpr int kMaxSleepMs = 1000;
// How long a stopping worker keeps idle connections open. A client may be
// sending its next request on one right now; given a moment, it gets its
// answer (with "Connection: close") instead of a connection closed under it.
constexpr auto kIdleLinger = std::chrono::seconds(2);

int Serve(const WorkerSetup& setup) {
  const HostConfig& config = *setup.config;
  BecomeServiceAccount(setup.account);
  if (!FollowMaster(setup.master)) return kWorkerDone;
  SignalPipe signals({SIGTERM, SIGINT, SIGHUP});
  const sigset_t stopSignals = WorkerStopSignals();
  sigprocmask(SIG_UNBLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  ModuleRegistry modules;
  const int loaded = modules.LoadDirectory(config.modulesDir);
  RequestRouter router(config, *setup.files, modules, setup.account);
  HttpServer* server = nullptr;
  // A login may wait for PAM and then for the failure delay.
  const auto answerTimeout = std::chrono::seconds(config.loginTimeout + 5) +
                             std::chrono::milliseconds(config.loginFailureDelayMs);
  MasterLink master(setup.channelFd, std::chrono::duration_cast<std::chrono::milliseconds>(answerTimeout),
                    [&server](HttpRequest* request) { server->Resume(request); });
  HttpServer http(config, setup.listenFd, *setup.tlsCert, *setup.tlsKey, router, master);
  server = &http;
  syslog(LOG_INFO, "worker %d serves as %s with %d web API modules", getpid(), setup.account.name.c_str(),
         loaded);

  int status = kWorkerDone;
  bool stopping = false;
  bool masterGone = false;
  MasterLink::Clock::time_point closeIdleAt;
  const auto stop = [&](const char* why) {
    if (stopping) return;
    stopping = true;
    closeIdleAt = MasterLink::Clock::now() + kIdleLinger;
    http.StopAccepting();
    router.SetStopping();
    syslog(LOG_INFO, "worker %d stops (%s); it finishes the %zu requests in flight first", getpid(), why,
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
    pollfd fds[3] = {{http.PollFd(), POLLIN, 0},
                     {masterGone ? -1 : master.Fd(), POLLIN, 0},
                     {signals.ReadFd(), POLLIN, 0}};
    if (poll(fds, 3, timeout) < 0 && errno != EINTR) {
      syslog(LOG_ERR, "worker %d: poll: %m", getpid());
      return kWorkerCannotStart;
    }
    if (fds[2].revents != 0 && !signals.Drain().empty()) stop("asked to stop");
    if (fds[1].revents != 0 && !master.OnReadable()) {
      masterGone = true;
      stop("its master is gone");
    }
    master.ExpireOverdue();
    http.Run();
    if (router.Poisoned()) {
      status = kWorkerPoisoned;
      stop("its ids could not be restored");
    }
    if (http.RequestsDone() >= config.maxRequestsPerWorker) stop("it served its share of requests");
    // Renewed each time: every switch of ids by a module clears it.
    if (!FollowMaster(setup.master)) stop("its master is gone");
  }
  return status;
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
    syslog(LOG_ERR, "worker %d cannot serve: %s", getpid(), e.what());
  }
  // No exit handlers: they belong to the master this process was forked from.
  _exit(status);
}

}  // namespace vela::webapid
