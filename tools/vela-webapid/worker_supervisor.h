// The master's workers: N slots, each holding a forked worker and the
// master's end of its channel. A worker that ends is replaced: at once when
// it ended on purpose (it served its share of requests), after a growing
// pause when it crashed soon after it started, so that a worker that can
// never run does not turn into a fork loop.
#ifndef VELA_WEBAPID_WORKER_SUPERVISOR_H_
#define VELA_WEBAPID_WORKER_SUPERVISOR_H_

#include <json/json.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "base/unique_fd.h"

namespace vela::webapid {

using vela::base::UniqueFd;

class WorkerSupervisor {
 public:
  using Clock = std::chrono::steady_clock;
  // Runs in the forked child with the child's end of its channel; never returns.
  using RunWorker = std::function<void(int channelFd)>;

  WorkerSupervisor(int count, RunWorker run);

  void StartAll();
  // A child ended: true when it was a worker (its slot is then refilled in time).
  bool OnExit(pid_t pid, int status);
  // Refills slots whose pause is over; kills workers that outstay a stop.
  void Tick();
  std::optional<Clock::time_point> NextEvent() const;
  // Asks every worker to finish its requests and stop; kills those still
  // running after `timeout`.
  void Stop(std::chrono::seconds timeout);
  bool AllEnded() const;

  // The channels: descriptor and serial number of each running worker.
  std::vector<std::pair<int, uint64_t>> Channels() const;
  void Send(uint64_t serial, const Json::Value& message) const;

 private:
  struct Slot {
    pid_t pid = -1;
    UniqueFd channel;
    uint64_t serial = 0;
    Clock::time_point started;
    int quickCrashes = 0;
    std::optional<Clock::time_point> restartAt;
  };
  void Start(Slot& slot);

  RunWorker run_;
  std::vector<Slot> slots_;
  uint64_t nextSerial_ = 1;
  bool stopping_ = false;
  std::optional<Clock::time_point> killAt_;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_WORKER_SUPERVISOR_H_
