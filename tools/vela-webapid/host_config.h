// The host's settings: built-in defaults, then the configuration file
// ("key = value" lines), then command-line flags ("--key=value"), each
// overriding the one before.
#ifndef VELA_WEBAPID_HOST_CONFIG_H_
#define VELA_WEBAPID_HOST_CONFIG_H_

#include <cstddef>
#include <string>
#include <vector>

namespace vela::webapid {

struct HostConfig {
  std::string listen = "127.0.0.1:5080";  // ADDRESS:PORT, [IPv6]:PORT; port 0 picks one
  int workers = 4;
  std::string user = VELA_WEBAPID_USER;  // the service account whose ids the workers run with
  std::string adminGroup = "sudo";
  std::string pamService = "vela-webapid";
  std::string modulesDir;
  std::string webDir;
  std::string tlsCert;  // PEM files; both or neither
  std::string tlsKey;
  bool secureCookie = false;  // Secure cookies without TLS here: behind a TLS proxy
  std::vector<std::string> allowedOrigins;  // beyond the host's own
  std::string forwardedForHeader;  // trusted from loopback peers only
  size_t maxBodyBytes = 64 * 1024;
  int maxConnections = 256;            // per worker
  int maxConnectionsPerAddress = 64;   // per worker
  int connectionTimeout = 30;          // seconds of silence before a connection is closed
  long maxRequestsPerWorker = 10000;
  int stopTimeout = 10;                // seconds a stopping worker may take
  int sessionIdleTimeout = 15 * 60;
  int sessionMaxAge = 12 * 60 * 60;
  int maxSessions = 1024;
  int loginFailureDelayMs = 2000;
  int loginMaxFailures = 5;
  int loginFailureWindow = 15 * 60;
  int loginTimeout = 30;               // seconds PAM may take for one login
  std::string pidFile;
  bool logStderr = false;

  bool Tls() const { return !tlsCert.empty(); }
};

// Sets one key from its text form. False with `error` set for an unknown
// key or a value out of range.
bool SetConfigValue(HostConfig& config, const std::string& key, const std::string& value,
                    std::string& error);
// Reads a configuration file. A missing file is an error only when
// `mustExist`.
bool LoadConfigFile(HostConfig& config, const std::string& path, bool mustExist, std::string& error);
// Checks settings that depend on each other.
bool CheckConfig(const HostConfig& config, std::string& error);
// One line per key with its meaning, for --help.
std::string ConfigKeysHelp();

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_HOST_CONFIG_H_
