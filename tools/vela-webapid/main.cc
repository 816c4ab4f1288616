// vela-webapid: serves web API modules and the administrator's page over
// HTTP(S), with logins through PAM.
//
//   vela-webapid [--config FILE] [--KEY=VALUE]...
//
// Settings come from the configuration file (default VELA_WEBAPID_CONFIG),
// then from flags, which name the same keys ("--workers=2" or
// "--workers 2"; dashes and underscores alike). Must start as root.
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "master/master.h"
#include "shared/host_config.h"
#include "shared/host_log.h"

#ifndef VELA_WEBAPID_CONFIG
#error "VELA_WEBAPID_CONFIG names the default configuration file"
#endif
#ifndef VELA_WEBAPID_MODULES_DIR
#error "VELA_WEBAPID_MODULES_DIR names the default modules directory"
#endif
#ifndef VELA_WEBAPID_WEB_DIR
#error "VELA_WEBAPID_WEB_DIR names the default page directory"
#endif
#ifndef VELA_WEBAPID_STATE_DIR
#error "VELA_WEBAPID_STATE_DIR names the default directory of the host's own state"
#endif

namespace {

constexpr int kExitUsage = 2;

int Usage(const char* why) {
  if (why != nullptr) fprintf(stderr, "vela-webapid: %s\n", why);
  fprintf(stderr,
          "usage: vela-webapid [--config FILE] [--KEY=VALUE]...\n"
          "  --config FILE  settings file of KEY = VALUE lines (default %s)\n"
          "keys:\n%s",
          VELA_WEBAPID_CONFIG, vela::webapid::ConfigKeysHelp().c_str());
  return why == nullptr ? 0 : kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  using vela::webapid::HostConfig;
  HostConfig config;
  config.modulesDir = VELA_WEBAPID_MODULES_DIR;
  config.webDir = VELA_WEBAPID_WEB_DIR;
  config.stateDir = VELA_WEBAPID_STATE_DIR;

  // Flags as KEY/VALUE pairs; the file is read first so flags win.
  std::string configPath = VELA_WEBAPID_CONFIG;
  bool configGiven = false;
  std::vector<std::pair<std::string, std::string>> flags;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") return Usage(nullptr);
    if (arg.rfind("--", 0) != 0 || arg.size() == 2) return Usage(("unexpected argument " + arg).c_str());
    std::string key = arg.substr(2);
    std::string value;
    const auto equals = key.find('=');
    if (equals != std::string::npos) {
      value = key.substr(equals + 1);
      key.resize(equals);
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      return Usage(("--" + key + " needs a value").c_str());
    }
    for (char& c : key) c = c == '-' ? '_' : c;
    if (key == "config") {
      configPath = value;
      configGiven = true;
    } else {
      flags.emplace_back(key, value);
    }
  }
  std::string error;
  if (!vela::webapid::LoadConfigFile(config, configPath, configGiven, error)) return Usage(error.c_str());
  for (const auto& [key, value] : flags) {
    if (!vela::webapid::SetConfigValue(config, key, value, error)) return Usage(error.c_str());
  }
  if (!vela::webapid::CheckConfig(config, error)) return Usage(error.c_str());
  if (geteuid() != 0) {
    fprintf(stderr, "vela-webapid: must start as root (it runs PAM and gives its executors root's saved ids)\n");
    return 1;
  }

  vela::webapid::OpenHostLog(config.logStderr);
  return vela::webapid::RunMaster(config, argv);
}
