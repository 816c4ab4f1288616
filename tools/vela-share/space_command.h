// "vela-share space": what a share's snapshots hold and what deleting them
// frees, from the space map of the share's last calculation, for
// administrators in a terminal.
//
//   space SHARE [--bytes | --json]                     the per-snapshot table
//   space SHARE --if-deleted SNAPSHOT... [--bytes | --json]   freed bytes, top files
//   space SHARE --plan SIZE [--keep-newest K] [--bytes | --json]   what to delete
#ifndef VELA_TOOLS_VELA_SHARE_SPACE_COMMAND_H_
#define VELA_TOOLS_VELA_SHARE_SPACE_COMMAND_H_

#include <string>
#include <vector>

namespace vela::share_tool {

// The lines of the tool's help text about the command.
extern const char kSpaceUsage[];

// Runs "space" with the arguments after it. The exit status: 0 done, 1
// failed (said on standard error); 2 with `usageError` set for arguments
// that are wrong.
int RunSpace(const std::vector<std::string>& args, std::string& usageError);

}  // namespace vela::share_tool

#endif  // VELA_TOOLS_VELA_SHARE_SPACE_COMMAND_H_
