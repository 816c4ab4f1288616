// The web API host under test: throwaway local accounts in the sandbox's
// private /etc, the host itself as a child process on a loopback port, and
// plain HTTP requests to it.
#ifndef VELA_TESTS_HOST_WEB_HOST_H_
#define VELA_TESTS_HOST_WEB_HOST_H_

#include <json/json.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"

namespace vela::test {

// Accounts made for one test and removed after it. /etc becomes private to
// the sandbox first, so nothing reaches the machine's account files.
class LocalAccounts {
 public:
  LocalAccounts();
  ~LocalAccounts();
  LocalAccounts(const LocalAccounts&) = delete;
  LocalAccounts& operator=(const LocalAccounts&) = delete;

  // Names are made unique from `prefix`; each returns the name made.
  std::string AddGroup(const std::string& prefix);
  std::string AddUser(const std::string& prefix, const std::string& password,
                      const std::vector<std::string>& groups = {});

 private:
  std::vector<std::string> users_;
  std::vector<std::string> groups_;
};

struct HttpReply {
  int status = 0;
  std::string head;  // status line and headers
  std::string body;
  Json::Value json;  // the body, when it is JSON

  // A header's value ("" when absent); names compare without case.
  std::string Header(const std::string& name) const;
  // "NAME=VALUE" of the cookie NAME the answer sets ("" when none).
  std::string SetCookie(const std::string& name) const;
  // The error code of an envelope, 0 for a success.
  int Code() const;
};

// A connection to the host from a loopback address of this machine.
int Connect(int port, const std::string& from = "127.0.0.1");
// Sends all of `text`; throws on failure.
void SendAll(int fd, const std::string& text);
// Reads until the host closes the connection.
HttpReply ReadReply(int fd);
// The text of one request; Content-Length is added for a body.
std::string RequestText(const std::string& method, const std::string& path, const std::string& body,
                        const std::vector<std::string>& headers);
// One request on a connection of its own.
HttpReply Http(int port, const std::string& method, const std::string& path, const std::string& body = "",
               const std::vector<std::string>& headers = {}, const std::string& from = "127.0.0.1");

// Copies the project's modules into `dir` (made 0755), as the install
// step does: the host loads root's regular files only.
void InstallModules(const std::string& dir);

struct Session {
  std::string cookie;  // "vela_session=..."
  std::string csrf;
  std::string device;  // "vela_device=...": this browser is known from now on
};

class WebHost {
 public:
  // Starts vela-webapid on a free loopback port, with the project's modules
  // and page, PAM service file in place, the service account made when
  // missing, and `flags` added; waits until it listens.
  explicit WebHost(const std::vector<std::string>& flags);
  ~WebHost();
  WebHost(const WebHost&) = delete;
  WebHost& operator=(const WebHost&) = delete;

  int Port() const { return port_; }
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
  pid_t Pid() const { return pid_; }
  // The master's children now (HTTP workers, executors, PAM children).
  std::vector<pid_t> Children() const;
  // Those running with the real uid of `account`.
  std::vector<pid_t> ChildrenOf(const std::string& account) const;
  // Sends `sig` and waits up to `timeoutMs` for the host to end: its exit
  // status, 128 + a signal, or -1 when it is still running.
  int Stop(int sig, int timeoutMs);
  std::string Log() const;
  bool WaitForLog(const std::string& text, int timeoutMs) const;

  // Logs in (from a browser known by `device`, when given); throws unless
  // the login succeeds.
  Session Login(const std::string& user, const std::string& password, const std::string& device = "") const;
  // POST /api/<path> with the session's cookie and CSRF token.
  HttpReply Call(const Session& session, const std::string& path, const std::string& body = "{}") const;

 private:
  ScratchDir dir_{kSandboxScratch};
  pid_t pid_ = -1;
  int port_ = 0;
};

// A line of /proc/PID/status ("Uid:\t0\t999\t0\t999"); "" when none.
std::string ProcStatus(pid_t pid, const std::string& field);

// Polls `condition` every 20 ms for up to `timeoutMs`.
bool WaitUntil(int timeoutMs, const std::function<bool()>& condition);

}  // namespace vela::test

#endif  // VELA_TESTS_HOST_WEB_HOST_H_
