// A long-lived caller of the snapshot usage module, as the web API host's
// executors are: it loads the module once, takes the executors' ids
// (effective ids of the web server's account, real and saved ids 0) and
// calls one method again and again. bench/module-scale.sh builds it against
// each build it compares and drives it.
//
//   module-scale-bench MODULE UID GID call METHOD PARAMS
//       one call; prints the answer as one line of JSON
//   module-scale-bench MODULE UID GID time METHOD PARAMS CALLS
//       three calls to warm up, then CALLS timed calls between two marker
//       syscalls (access("/.module-scale-bench-begin"), "...-end") that a
//       trace can be cut at; prints "p50_ms p95_ms log_lines_per_call
//       answer_bytes"
//
// syslog() is defined here, so the module's log lines are counted (and
// dropped) instead of reaching the machine's log.
#include <dlfcn.h>
#include <grp.h>
#include <json/json.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "vela/webapi.h"

namespace {

long gLogLines = 0;

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

[[noreturn]] void Fail(const std::string& message) {
  fprintf(stderr, "module-scale-bench: %s\n", message.c_str());
  exit(2);
}

VELA_WEBAPI_HANDLER FindHandler(void* module, const std::string& method) {
  auto getTable = reinterpret_cast<VELA_WEBAPI_GET_TABLE>(dlsym(module, VELA_WEBAPI_GET_TABLE_SYMBOL));
  if (getTable == nullptr) Fail("the module exports no table");
  for (const VELA_WEBAPI_ENTRY* entry = getTable(); entry->szAPI != nullptr; ++entry) {
    if (method == entry->szMethod) return entry->pfnHandler;
  }
  Fail("no method " + method);
}

Json::Value Call(VELA_WEBAPI_HANDLER handler, const Json::Value& params) {
  VELA::APIRequest request(params);
  VELA::APIResponse response;
  handler(&request, &response);
  return response.ToJson();
}

double Percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(p * static_cast<double>(values.size() - 1))];
}

}  // namespace

extern "C" void syslog(int, const char*, ...) { ++gLogLines; }

int main(int argc, char** argv) {
  if (argc < 7) Fail("usage: MODULE UID GID call|time METHOD PARAMS [CALLS]");
  void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) Fail(std::string("dlopen: ") + dlerror());
  const uid_t uid = static_cast<uid_t>(atoi(argv[2]));
  const gid_t gid = static_cast<gid_t>(atoi(argv[3]));
  const std::string mode = argv[4];
  const VELA_WEBAPI_HANDLER handler = FindHandler(module, argv[5]);
  Json::Value params;
  std::istringstream in(argv[6]);
  if (!Json::Reader().parse(in, params, false)) Fail("bad parameters");
  if (setgroups(1, &gid) != 0 || setresgid(0, gid, 0) != 0 || setresuid(0, uid, 0) != 0) Fail("cannot set ids");

  if (mode == "call") {
    const Json::Value answer = Call(handler, params);
    printf("%s\n", Compact(answer).c_str());
    return answer["success"].asBool() ? 0 : 1;
  }
  const int calls = argc > 7 ? atoi(argv[7]) : 0;
  if (mode != "time" || calls < 1) Fail("time needs CALLS");
  for (int i = 0; i < 3; ++i) Call(handler, params);
  std::vector<double> ms;
  std::string answer;
  gLogLines = 0;
  (void)!access("/.module-scale-bench-begin", F_OK);
  for (int i = 0; i < calls; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    const Json::Value result = Call(handler, params);
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
    if (i == 0) answer = Compact(result);
  }
  (void)!access("/.module-scale-bench-end", F_OK);
  printf("%.2f %.2f %.1f %zu\n", Percentile(ms, 0.5), Percentile(ms, 0.95),
         static_cast<double>(gLogLines) / calls, answer.size());
  return 0;
}
