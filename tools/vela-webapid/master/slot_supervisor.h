// The master's slots: each holds an HTTP worker, the executor that runs
// its module calls, and the master's end of the worker's channel. The two
// end together: an executor whose worker is gone reads the end of its
// stream and ends, a worker whose executor is gone stops. A slot whose
// processes have ended is refilled: at once when the worker ended on
// purpose (it served its share of logged-in requests), after a growing
// pause when something crashed soon after it started, so that a slot that
// can never run does not turn into a fork loop.
#ifndef VELA_WEBAPID_MASTER_SLOT_SUPERVISOR_H_
#define VELA_WEBAPID_MASTER_SLOT_SUPERVISOR_H_

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

class SlotSupervisor {
 public:
  using Clock = std::chrono::steady_clock;
  // Run in the forked children; never return.
  using RunExecutor = std::function<void(int linkFd)>;
  using RunWorker = std::function<void(int slot, int channelFd, int executorFd)>;
  // Called before a slot gets new processes.
  using Prepare = std::function<void(int slot)>;

  SlotSupervisor(int count, RunExecutor executor, RunWorker worker, Prepare prepare);

  void StartAll();
  // A child ended: true when it was a worker or an executor.
  bool OnExit(pid_t pid, int status);
  // Refills slots whose pause is over; kills what outstays a stop.
  void Tick();
  std::optional<Clock::time_point> NextEvent() const;
  // Asks every worker to finish its requests and stop; kills workers and
  // executors still running after `timeout`.
  void Stop(std::chrono::seconds timeout);
  bool AllEnded() const;

  // The channels: descriptor and serial number of each running worker.
  std::vector<std::pair<int, uint64_t>> Channels() const;
  void Send(uint64_t serial, const Json::Value& message) const;

 private:
  struct Slot {
    pid_t worker = -1;
    pid_t executor = -1;
    UniqueFd channel;
    uint64_t serial = 0;
    Clock::time_point started;
    bool crashed = false;
    int quickCrashes = 0;
    std::optional<Clock::time_point> restartAt;
  };
  void Start(int index);
  void Ended(Slot& slot);

  RunExecutor runExecutor_;
  RunWorker runWorker_;
  Prepare prepare_;
  std::vector<Slot> slots_;
  uint64_t nextSerial_ = 1;
  bool stopping_ = false;
  std::optional<Clock::time_point> killAt_;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_MASTER_SLOT_SUPERVISOR_H_
