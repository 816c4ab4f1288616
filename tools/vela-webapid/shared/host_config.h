// The host's settings: built-in defaults, then the configuration file
// ("key = value" lines), then command-line flags ("--key=value"), each
// overriding the one before.
#ifndef VELA_WEBAPID_SHARED_HOST_CONFIG_H_
#define VELA_WEBAPID_SHARED_HOST_CONFIG_H_

#include <cstddef>
#include <string>
#include <vector>

namespace vela::webapid {

struct HostConfig {
  std::string listen = "127.0.0.1:5080";  // ADDRESS:PORT, [IPv6]:PORT; port 0 picks one
  int workers = 4;
  std::string user = VELA_WEBAPID_USER;            // the executors' account: the ids modules are built for
  std::string httpUser = VELA_WEBAPID_HTTP_USER;   // the HTTP workers' account: no rights at all
  std::string adminGroup = "sudo";
  std::string pamService = "vela-webapid";
  std::string modulesDir;
  std::string webDir;
  std::string stateDir;  // the host's own state: the key of device cookies
  std::string tlsCert;  // PEM files; both or neither
  std::string tlsKey;
  bool secureCookie = false;  // Secure cookies without TLS here: behind a TLS proxy
  std::vector<std::string> allowedOrigins;  // beyond the host's own
  std::vector<std::string> allowedHosts;    // Host names beyond the listen address, localhost and the machine's names
  std::vector<std::string> trustedProxies;  // addresses of reverse proxies
  std::string forwardedForHeader;  // believed from trusted proxies only
  size_t maxBodyBytes = 64 * 1024;
  int maxConnections = 1024;           // across all workers
  int maxConnectionsPerAddress = 32;   // across all workers; proxies excepted
  int proxyConnections = 64;           // of max_connections, kept for trusted proxies
  int connectionTimeout = 30;          // seconds a connection may stay open without starting a request
  int requestTimeout = 10;             // seconds from a request's first line to its whole body
  long maxRequestsPerWorker = 10000;   // logged-in requests
  int stopTimeout = 10;                // seconds a stopping worker may take
  int sessionIdleTimeout = 15 * 60;
  int sessionMaxAge = 12 * 60 * 60;
  int sessionRecheckInterval = 60;     // seconds between checks of a session's account
  std::vector<std::string> readOnlyMethods = {"get*", "list", "status", "freed", "plan"};
  int maxSessions = 1024;
  int loginFailureDelayMs = 2000;
  int loginMaxFailures = 5;
  int loginFailureWindow = 15 * 60;
  int loginMaxDelay = 60;              // longest pause between attempts for one user from unknown browsers
  int loginMaxPendingPerAddress = 4;
  int loginTimeout = 30;               // seconds PAM may take for one login
  std::string pidFile;
  bool logStderr = false;

  // Whether `method` only reads: it runs without a fresh check of the
  // session's account.
  bool ReadOnlyMethod(const std::string& method) const;
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

#endif  // VELA_WEBAPID_SHARED_HOST_CONFIG_H_
