// Mount work of the test sandbox: a private view of the file system in
// which the system's fixed state paths are fresh and empty and files can be
// put at any path without touching the machine.
#ifndef VELA_TESTS_SUPPORT_SANDBOX_MOUNTS_H_
#define VELA_TESTS_SUPPORT_SANDBOX_MOUNTS_H_

#include <string>

namespace vela::test {

// Environment variable set inside the sandbox; code that mounts or writes
// fixed system paths refuses to run without it.
inline constexpr char kSandboxEnv[] = "VELA_SANDBOX";
// Private scratch area of one sandbox (on its own tmpfs /run).
inline constexpr char kSandboxScratch[] = "/run/vela-test";

// True when this process runs inside the sandbox.
bool InSandbox();
// Aborts the process with a message unless it runs inside the sandbox.
void RequireSandbox(const char* what);

// Makes `dst` show `src` (a file or a directory) in this mount namespace.
// When `dst` does not exist, it is created; if its directory belongs to the
// real machine, an overlay is laid over that directory first so that the
// machine's files stay untouched. Returns an error text, empty on success.
std::string BindInto(const std::string& src, const std::string& dst);
// Makes every later change below the directory `dir` private to this
// sandbox (an overlay over it, unless its changes are private already), so
// that a test can run programs that edit, say, /etc/passwd. Returns an
// error text, empty on success.
std::string MakePrivate(const std::string& dir);
// Makes `path` absent in this mount namespace without touching the
// machine: when its directory belongs to the real machine, an overlay is
// laid over that directory first, so the removal is a private whiteout.
// A missing path is fine. Returns an error text, empty on success.
std::string RemoveInto(const std::string& path);

// Gives this sandbox a group `name` with id `gid` (in place of any group of
// that name the machine has), by binding a copy of /etc/group. Returns an error text, empty on success.
std::string AddGroup(const std::string& name, unsigned gid);

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_SANDBOX_MOUNTS_H_
