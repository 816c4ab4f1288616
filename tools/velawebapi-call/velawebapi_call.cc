// velawebapi-call: loads a web API module and calls one of its methods the
// way the web server does, printing the answer as one line of JSON.
//
//   velawebapi-call [--module PATH] API VERSION METHOD [PARAMS_JSON]
//
// Exit status: 0 for a success answer, 1 for an error answer, 2 for a usage
// error, an unknown method or a module that does not load.
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/json_text.h"
#include "vela/webapi.h"
#include "vela/webapi_envelope.h"
#include "vela/webapi_modules.h"

#ifndef VELA_MODULE_BUILD_PATH
#error "VELA_MODULE_BUILD_PATH names the module in the build tree"
#endif
#ifndef VELA_MODULE_INSTALL_PATH
#error "VELA_MODULE_INSTALL_PATH names the installed module"
#endif
#if !defined(VELA_SPACE_MODULE_BUILD_PATH) || !defined(VELA_SPACE_MODULE_INSTALL_PATH)
#error "VELA_SPACE_MODULE_BUILD_PATH and VELA_SPACE_MODULE_INSTALL_PATH name the space module"
#endif
#ifndef VELA_RUNNER_BUILD_PATH
#error "VELA_RUNNER_BUILD_PATH names this program in the build tree"
#endif

namespace {

constexpr int kExitSuccessAnswer = 0;
constexpr int kExitErrorAnswer = 1;
constexpr int kExitUsage = 2;

int Usage(const char* why) {
  if (why != nullptr) fprintf(stderr, "velawebapi-call: %s\n", why);
  fprintf(stderr,
          "usage: velawebapi-call [--module PATH] API VERSION METHOD [PARAMS_JSON]\n"
          "  PARAMS_JSON  a JSON object of the method's parameters (default {})\n"
          "example: velawebapi-call VELA.Snap.Usage.Share 1 get_conf '{\"additional\":[\"reminder\"]}'\n");
  return kExitUsage;
}

// The module that serves `api` next to this program: the space module for
// its API, else the snapshot usage module; the build tree's when run from
// there, else the installed one. True when it is the installed one.
bool DefaultModule(const std::string& api, std::string& path) {
  const bool space = api == "VELA.Snap.Usage.Space";
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n > 0) {
    self[n] = '\0';
    if (strcmp(self, VELA_RUNNER_BUILD_PATH) == 0) {
      path = space ? VELA_SPACE_MODULE_BUILD_PATH : VELA_MODULE_BUILD_PATH;
      return false;
    }
  }
  path = space ? VELA_SPACE_MODULE_INSTALL_PATH : VELA_MODULE_INSTALL_PATH;
  return true;
}

bool ParseParams(const std::string& text, Json::Value& params, std::string& error) {
  if (!vela::base::ParseJsonText(text, params, error)) return false;
  if (!params.isObject()) {
    error = "parameters must be a JSON object";
    return false;
  }
  return true;
}

// The account that runs this program (its real user), named to the module
// as the web server names the logged-in user; one without a name is
// "uid N".
std::string InvokingUser() {
  const uid_t uid = getuid();
  struct passwd entry;
  struct passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(uid, &entry, buffer, sizeof(buffer), &found) == 0 && found != nullptr) return found->pw_name;
  return "uid " + std::to_string(uid);
}

bool ParseVersion(const char* text, unsigned long& version) {
  errno = 0;
  char* end = nullptr;
  version = strtoul(text, &end, 10);
  return errno == 0 && end != text && *end == '\0' && text[0] != '-';
}

}  // namespace

int main(int argc, char** argv) {
  std::string modulePath;
  int i = 1;
  if (i < argc && (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0)) {
    Usage(nullptr);
    return kExitSuccessAnswer;
  }
  if (i < argc && strcmp(argv[i], "--module") == 0) {
    if (i + 1 >= argc) return Usage("--module needs a path");
    modulePath = argv[i + 1];
    i += 2;
  }
  if (argc - i < 3 || argc - i > 4) return Usage("wrong number of arguments");
  const std::string api = argv[i];
  unsigned long version = 0;
  if (!ParseVersion(argv[i + 1], version)) return Usage("VERSION must be a number");
  const std::string method = argv[i + 2];
  Json::Value params(Json::objectValue);
  if (argc - i == 4) {
    std::string error;
    if (!ParseParams(argv[i + 3], params, error)) {
      fprintf(stderr, "velawebapi-call: malformed PARAMS_JSON: %s\n", error.c_str());
      return kExitUsage;
    }
  }
  // A module named here, or the one of the build tree, is the caller's
  // choice; the installed one must be root's all the way up.
  VELA::ModuleTrust trust = VELA::ModuleTrust::kCallerChosen;
  if (modulePath.empty() && DefaultModule(api, modulePath)) trust = VELA::ModuleTrust::kRootOwned;

  VELA::APIModules modules;
  std::string error;
  if (!modules.LoadFile(modulePath, trust, error)) {
    fprintf(stderr, "velawebapi-call: cannot load module %s: %s\n", modulePath.c_str(), error.c_str());
    return kExitUsage;
  }
  VELA_WEBAPI_HANDLER handler = nullptr;
  if (modules.Find(api, version, method, handler) != VELA::APIModules::Lookup::kFound) {
    fprintf(stderr, "velawebapi-call: module %s has no method %s of %s version %lu\n",
            modulePath.c_str(), method.c_str(), api.c_str(), version);
    return kExitUsage;
  }

  VELA::APIRequest request(params);
  request.SetLoginUser(InvokingUser());
  VELA::APIResponse response;
  std::string failure;
  VELA::CallAPIHandler(handler, request, response, &failure);
  if (!failure.empty()) fprintf(stderr, "velawebapi-call: %s %s failed: %s\n", api.c_str(), method.c_str(), failure.c_str());
  printf("%s\n", VELA::WriteAPIEnvelope(response).c_str());
  return response.IsSuccess() ? kExitSuccessAnswer : kExitErrorAnswer;
}
