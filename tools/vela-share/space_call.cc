#include "space_call.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/json_text.h"
#include "vela/vlib_proc.h"

#if !defined(VELA_SHARE_BUILD_PATH) || !defined(VELA_RUNNER_BUILD_PATH) || !defined(VELA_RUNNER_INSTALL_PATH)
#error "the build names this program and the request runner, in the build tree and installed"
#endif

namespace vela::share_tool {

namespace {

// The runner next to this program: the build tree's when run from there,
// else the installed one.
const char* RunnerPath() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n > 0) {
    self[n] = '\0';
    if (strcmp(self, VELA_SHARE_BUILD_PATH) == 0) return VELA_RUNNER_BUILD_PATH;
  }
  return VELA_RUNNER_INSTALL_PATH;
}

}  // namespace

SpaceAnswer CallSpace(const std::string& method, const Json::Value& params) {
  SpaceAnswer answer;
  const char* runner = RunnerPath();
  const std::string paramsText = vela::base::CompactJson(params);
  // An argument vector, no shell: the share's name goes through as it is.
  // The runner gets LC_ALL=C and nothing else of this environment.
  std::vector<char*> argv = {const_cast<char*>(runner), const_cast<char*>("VELA.Snap.Usage.Space"),
                             const_cast<char*>("1"), const_cast<char*>(method.c_str()),
                             const_cast<char*>(paramsText.c_str()), nullptr};
  FILE* out = VLIBCPopenv(runner, "r", argv.data());
  if (out == nullptr) {
    fprintf(stderr, "vela-share: cannot run %s: %s\n", runner, strerror(errno));
    return answer;
  }
  std::string text;
  char buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), out)) > 0) text.append(buffer, n);
  const int status = VLIBCPclose(out);
  Json::Value envelope;
  std::string error;
  // 0 and 1 are answers; anything else is the runner's own failure, which
  // it has said on standard error.
  if ((status != 0 && status != 1) || !vela::base::ParseJsonText(text, envelope, error) || !envelope.isObject()) {
    fprintf(stderr, "vela-share: %s VELA.Snap.Usage.Space 1 %s gave no answer (exit status %d)\n", runner,
            method.c_str(), status);
    return answer;
  }
  answer.called = true;
  answer.success = envelope["success"].isBool() && envelope["success"].asBool();
  answer.data = envelope["data"];
  const Json::Value& code = envelope["error"].isObject() ? envelope["error"]["code"] : Json::Value::nullSingleton();
  if (!answer.success) answer.errorCode = code.isInt() ? code.asInt() : -1;
  return answer;
}

}  // namespace vela::share_tool
