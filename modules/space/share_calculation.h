// A share's last calculation as the space methods read it: its status
// record and state, and once it is done its snapshots (root IDs and names,
// from the calculation's results) and its space map. Read through the
// calculation library, in the caller's privileged section.
#ifndef VELA_SPACE_SHARE_CALCULATION_H_
#define VELA_SPACE_SHARE_CALCULATION_H_

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vela/space_map.h"
#include "velabtrfssnapusage/types.h"

namespace VelaSpaceWebAPI {

class ShareCalculation {
 public:
  // Answer codes of the space methods.
  static constexpr int kFailure = 1;
  static constexpr int kBadParameter = 3;
  static constexpr int kNotFound = 8;

  // Reads the share's last calculation. 0 when it is there: a running,
  // failed or stopped one with its record only, a done one with its
  // snapshots and map too. 8 when the share has no calculation, or (with
  // `needDone`, or when done) none that is done with a space map. 1 when
  // something that is there cannot be read or does not agree (logged).
  int Read(const std::string& shareName, bool needDone);

  const Json::Value& Record() const { return record_; }
  CAL_TASK_STATUS State() const { return state_; }
  bool Done() const { return state_ == CAL_TASK_STATUS_DONE; }
  // The calculated snapshots, in the calculation's order (done only).
  const std::vector<unsigned long long>& RootIds() const { return rootIds_; }
  const std::vector<std::string>& Names() const { return names_; }
  // The snapshot's name; empty for an ID outside the calculation.
  std::string NameOf(uint64_t rootId) const;
  // Done only; null otherwise.
  const vela::space_map::SpaceMap* Map() const { return map_.get(); }
  // The accumulated usage the design's report gives, element i for the
  // first i + 1 snapshots (done only). 0, or 1 when it cannot be read.
  int ReportAccumulated(std::vector<unsigned long long>& accumulated) const;

 private:
  std::string shareName_;
  Json::Value record_;
  CAL_TASK_STATUS state_ = CAL_TASK_STATUS_READY;
  std::vector<unsigned long long> rootIds_;
  std::vector<std::string> names_;
  std::unique_ptr<vela::space_map::SpaceMap> map_;
};

}  // namespace VelaSpaceWebAPI

#endif  // VELA_SPACE_SHARE_CALCULATION_H_
