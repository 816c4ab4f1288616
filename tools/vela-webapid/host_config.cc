#include "host_config.h"

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
      {"workers", "number of worker processes", Number(&HostConfig::workers, 1, 64)},
      {"user", "service account whose ids the workers run with", Text(&HostConfig::user)},
      {"admin_group", "only members of this group may log in", Text(&HostConfig::adminGroup)},
      {"pam_service", "PAM service name (/etc/pam.d/NAME)", Text(&HostConfig::pamService)},
      {"modules_dir", "directory whose *.so web API modules are loaded", Text(&HostConfig::modulesDir)},
      {"web_dir", "directory of the administrator's page", Text(&HostConfig::webDir)},
      {"tls_cert", "PEM certificate (chain) file: serve HTTPS", Text(&HostConfig::tlsCert)},
      {"tls_key", "PEM private key file of tls_cert", Text(&HostConfig::tlsKey)},
      {"secure_cookie", "yes: mark the session cookie Secure without TLS here (TLS proxy in front)",
       Flag(&HostConfig::secureCookie)},
      {"allowed_origins", "space-separated origins accepted besides the host's own (a proxy's)",
       [](HostConfig& c, const std::string& v) {
         c.allowedOrigins.clear();
         std::istringstream in(v);
         for (std::string origin; in >> origin;) c.allowedOrigins.push_back(origin);
         return true;
       }},
      {"forwarded_for_header", "header naming the client's address, trusted from loopback peers",
       Text(&HostConfig::forwardedForHeader)},
      {"max_body_bytes", "largest request body", Number(&HostConfig::maxBodyBytes, 1, 16 << 20)},
      {"max_connections", "connections per worker", Number(&HostConfig::maxConnections, 1, 100000)},
      {"max_connections_per_address", "connections from one address per worker",
       Number(&HostConfig::maxConnectionsPerAddress, 1, 100000)},
      {"connection_timeout", "seconds before an idle connection is closed",
       Number(&HostConfig::connectionTimeout, 1, 3600)},
      {"max_requests_per_worker", "requests after which a worker is replaced",
       Number(&HostConfig::maxRequestsPerWorker, 1, LONG_MAX / 2)},
      {"stop_timeout", "seconds stopping workers may take before they are killed",
       Number(&HostConfig::stopTimeout, 1, 3600)},
      {"session_idle_timeout", "seconds of inactivity that end a session",
       Number(&HostConfig::sessionIdleTimeout, 1, 7 * 86400)},
      {"session_max_age", "seconds after login that end a session in any case",
       Number(&HostConfig::sessionMaxAge, 1, 30 * 86400)},
      {"max_sessions", "sessions kept at once; the longest idle goes first",
       Number(&HostConfig::maxSessions, 1, 1000000)},
      {"login_failure_delay_ms", "milliseconds a failed login waits before it is answered",
       Number(&HostConfig::loginFailureDelayMs, 0, 60000)},
      {"login_max_failures", "failed logins per address or user before further attempts are refused",
       Number(&HostConfig::loginMaxFailures, 1, 1000)},
      {"login_failure_window", "seconds a failed login counts",
       Number(&HostConfig::loginFailureWindow, 1, 86400)},
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
  if (config.user.empty() || config.adminGroup.empty() || config.pamService.empty() ||
      config.modulesDir.empty() || config.webDir.empty()) {
    error = "user, admin_group, pam_service, modules_dir and web_dir must not be empty";
    return false;
  }
  if (config.sessionIdleTimeout > config.sessionMaxAge) {
    error = "session_idle_timeout (" + std::to_string(config.sessionIdleTimeout) +
            ") is longer than session_max_age (" + std::to_string(config.sessionMaxAge) + ")";
    return false;
  }
  return true;
}

std::string ConfigKeysHelp() {
  std::string text;
  for (const Key& k : Keys()) text += std::string("  ") + k.name + "\n      " + k.help + "\n";
  return text;
}

}  // namespace vela::webapid
