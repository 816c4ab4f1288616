#include "shared/host_config.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

namespace vela::webapid {

namespace {

struct Key {
  const char* name;
  const char* help;
  std::function<bool(HostConfig&, const std::string&)> set;
};

bool ParseLong(const std::string& text, long min, long max, long& value) {
  if (text.empty() || text.size() > 18) return false;
  errno = 0;
  char* end = nullptr;
  value = strtol(text.c_str(), &end, 10);
  return errno == 0 && *end == '\0' && value >= min && value <= max;
}

template <typename T>
std::function<bool(HostConfig&, const std::string&)> Number(T HostConfig::*field, long min, long max) {
  return [field, min, max](HostConfig& c, const std::string& v) {
    long n = 0;
    if (!ParseLong(v, min, max, n)) return false;
    c.*field = static_cast<T>(n);
    return true;
  };
}

std::function<bool(HostConfig&, const std::string&)> Text(std::string HostConfig::*field) {
  return [field](HostConfig& c, const std::string& v) {
    c.*field = v;
    return true;
  };
}

std::function<bool(HostConfig&, const std::string&)> Words(std::vector<std::string> HostConfig::*field) {
  return [field](HostConfig& c, const std::string& v) {
    (c.*field).clear();
    std::istringstream in(v);
    for (std::string word; in >> word;) (c.*field).push_back(word);
    return true;
  };
}

std::function<bool(HostConfig&, const std::string&)> Flag(bool HostConfig::*field) {
  return [field](HostConfig& c, const std::string& v) {
    if (v == "yes" || v == "true" || v == "1") {
      c.*field = true;
    } else if (v == "no" || v == "false" || v == "0") {
      c.*field = false;
    } else {
      return false;
    }
    return true;
  };
}

const std::vector<Key>& Keys() {
  static const std::vector<Key> keys = {
      {"listen", "ADDRESS:PORT to listen on ([::1]:PORT for IPv6)", Text(&HostConfig::listen)},
      {"workers", "number of HTTP worker processes (each with an executor of module calls)",
       Number(&HostConfig::workers, 1, 64)},
      {"user", "service account whose ids the executors of module calls run with", Text(&HostConfig::user)},
      {"http_user", "service account of the HTTP workers, which get no rights at all", Text(&HostConfig::httpUser)},
      {"admin_group", "only members of this group may log in", Text(&HostConfig::adminGroup)},
      {"pam_service", "PAM service name (/etc/pam.d/NAME)", Text(&HostConfig::pamService)},
      {"modules_dir", "directory whose *.so web API modules are loaded", Text(&HostConfig::modulesDir)},
      {"web_dir", "directory of the administrator's page", Text(&HostConfig::webDir)},
      {"state_dir", "directory of the host's own state (the key of device cookies)", Text(&HostConfig::stateDir)},
      {"tls_cert", "PEM certificate (chain) file: serve HTTPS", Text(&HostConfig::tlsCert)},
      {"tls_key", "PEM private key file of tls_cert", Text(&HostConfig::tlsKey)},
      {"secure_cookie", "yes: mark the session cookie Secure without TLS here (TLS proxy in front)",
       Flag(&HostConfig::secureCookie)},
      {"allowed_origins", "space-separated origins accepted besides the host's own (a proxy's)",
       Words(&HostConfig::allowedOrigins)},
      {"allowed_hosts", "space-separated Host names answered besides the listen address, localhost and the machine's names",
       Words(&HostConfig::allowedHosts)},
      {"trusted_proxies", "space-separated addresses of reverse proxies", Words(&HostConfig::trustedProxies)},
      {"forwarded_for_header", "header naming the client's address, believed from trusted_proxies only",
       Text(&HostConfig::forwardedForHeader)},
      {"max_body_bytes", "largest request body", Number(&HostConfig::maxBodyBytes, 1, 16 << 20)},
      {"max_connections", "open connections, all workers together", Number(&HostConfig::maxConnections, 1, 100000)},
      {"max_connections_per_address", "open connections from one address (proxies excepted), all workers together",
       Number(&HostConfig::maxConnectionsPerAddress, 1, 100000)},
      {"proxy_connections", "of max_connections, those only trusted proxies may use",
       Number(&HostConfig::proxyConnections, 0, 100000)},
      {"connection_timeout", "seconds a connection may stay open without starting a request",
       Number(&HostConfig::connectionTimeout, 1, 3600)},
      {"request_timeout", "seconds a client has from a request's first line to its whole body",
       Number(&HostConfig::requestTimeout, 1, 3600)},
      {"max_requests_per_worker", "logged-in requests after which a worker and its executor are replaced",
       Number(&HostConfig::maxRequestsPerWorker, 1, LONG_MAX / 2)},
      {"stop_timeout", "seconds stopping workers may take before they are killed",
       Number(&HostConfig::stopTimeout, 1, 3600)},
      {"session_idle_timeout", "seconds of inactivity that end a session",
       Number(&HostConfig::sessionIdleTimeout, 1, 7 * 86400)},
      {"session_max_age", "seconds after login that end a session in any case",
       Number(&HostConfig::sessionMaxAge, 1, 30 * 86400)},
      {"session_recheck_interval", "seconds after which a session's account and group are checked again",
       Number(&HostConfig::sessionRecheckInterval, 1, 60)},
      {"read_only_methods", "module methods that only read (* ends a prefix); others check the account first",
       Words(&HostConfig::readOnlyMethods)},
      {"max_sessions", "sessions kept at once; the longest idle goes first",
       Number(&HostConfig::maxSessions, 1, 1000000)},
      {"login_failure_delay_ms", "milliseconds after its start a failed login is answered",
       Number(&HostConfig::loginFailureDelayMs, 0, 60000)},
      {"login_max_failures", "failed logins per address, browser or user before they are slowed down or refused",
       Number(&HostConfig::loginMaxFailures, 1, 1000)},
      {"login_failure_window", "seconds a failed login counts",
       Number(&HostConfig::loginFailureWindow, 1, 86400)},
      {"login_max_delay", "longest pause in seconds between attempts for one user from unknown browsers",
       Number(&HostConfig::loginMaxDelay, 1, 3600)},
      {"login_max_pending_per_address", "logins from one address checked at once",
       Number(&HostConfig::loginMaxPendingPerAddress, 1, 16)},
      {"login_timeout", "seconds PAM may take for one login", Number(&HostConfig::loginTimeout, 1, 600)},
      {"pid_file", "file to write the master's process ID to", Text(&HostConfig::pidFile)},
      {"log_stderr", "yes: also print log lines on standard error", Flag(&HostConfig::logStderr)},
  };
  return keys;
}

std::string Trim(const std::string& s) {
  const auto first = s.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  const auto last = s.find_last_not_of(" \t\r");
  return s.substr(first, last - first + 1);
}

}  // namespace

bool SetConfigValue(HostConfig& config, const std::string& key, const std::string& value,
                    std::string& error) {
  for (const Key& k : Keys()) {
    if (key != k.name) continue;
    if (k.set(config, value)) return true;
    error = "bad value for " + key + ": '" + value + "'";
    return false;
  }
  error = "unknown setting '" + key + "'";
  return false;
}

bool LoadConfigFile(HostConfig& config, const std::string& path, bool mustExist, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    if (!mustExist && errno == ENOENT) return true;
    error = "cannot read " + path;
    return false;
  }
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    const std::string text = Trim(line.substr(0, line.find('#')));
    if (text.empty()) continue;
    const auto equals = text.find('=');
    std::string keyError;
    if (equals == std::string::npos ||
        !SetConfigValue(config, Trim(text.substr(0, equals)), Trim(text.substr(equals + 1)), keyError)) {
      error = path + ":" + std::to_string(number) + ": " +
              (keyError.empty() ? "expected 'key = value'" : keyError);
      return false;
    }
  }
  return true;
}

bool CheckConfig(const HostConfig& config, std::string& error) {
  if (config.tlsCert.empty() != config.tlsKey.empty()) {
    error = "tls_cert and tls_key go together";
    return false;
  }
  if (config.user.empty() || config.httpUser.empty() || config.adminGroup.empty() || config.pamService.empty() ||
      config.modulesDir.empty() || config.webDir.empty() || config.stateDir.empty()) {
    error = "user, http_user, admin_group, pam_service, modules_dir, web_dir and state_dir must not be empty";
    return false;
  }
  if (!config.forwardedForHeader.empty() && config.trustedProxies.empty()) {
    error = "forwarded_for_header is believed from trusted_proxies only, and none are named";
    return false;
  }
  if (config.proxyConnections >= config.maxConnections) {
    error = "proxy_connections (" + std::to_string(config.proxyConnections) + ") leaves nothing of max_connections (" +
            std::to_string(config.maxConnections) + ") for other clients";
    return false;
  }
  if (config.sessionIdleTimeout > config.sessionMaxAge) {
    error = "session_idle_timeout (" + std::to_string(config.sessionIdleTimeout) +
            ") is longer than session_max_age (" + std::to_string(config.sessionMaxAge) + ")";
    return false;
  }
  return true;
}

bool HostConfig::ReadOnlyMethod(const std::string& method) const {
  for (const std::string& pattern : readOnlyMethods) {
    if (!pattern.empty() && pattern.back() == '*') {
      if (method.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0) return true;
    } else if (method == pattern) {
      return true;
    }
  }
  return false;
}

std::string ConfigKeysHelp() {
  std::string text;
  for (const Key& k : Keys()) text += std::string("  ") + k.name + "\n      " + k.help + "\n";
  return text;
}

}  // namespace vela::webapid
