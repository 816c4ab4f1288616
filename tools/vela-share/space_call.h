// Calls a method of the space module the way an administrator would by
// hand: through the request runner velawebapi-call, which loads web API
// modules (this tool loads none and links no calculation library).
#ifndef VELA_TOOLS_VELA_SHARE_SPACE_CALL_H_
#define VELA_TOOLS_VELA_SHARE_SPACE_CALL_H_

#include <json/json.h>

#include <string>

namespace vela::share_tool {

struct SpaceAnswer {
  bool called = false;  // false: the runner did not run or answered nothing (said on standard error)
  bool success = false;
  int errorCode = 0;
  Json::Value data;
};

// Calls "VELA.Snap.Usage.Space" version 1 `method` with `params`.
SpaceAnswer CallSpace(const std::string& method, const Json::Value& params);

}  // namespace vela::share_tool

#endif  // VELA_TOOLS_VELA_SHARE_SPACE_CALL_H_
