#include "pam_child/pam_check.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <shadow.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "base/json_text.h"
#include "shared/host_codes.h"
#include "shared/secure_token.h"

namespace vela::webapid {

namespace {


struct Conversation {
  const std::string* user;
  const std::string* password;
};

int Converse(int count, const struct pam_message** messages, struct pam_response** responses, void* data) {
  const auto* conversation = static_cast<const Conversation*>(data);
  auto* answers = static_cast<pam_response*>(calloc(static_cast<size_t>(count), sizeof(pam_response)));
  if (answers == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    switch (messages[i]->msg_style) {
      case PAM_PROMPT_ECHO_OFF:
        answers[i].resp = strdup(conversation->password->c_str());
        break;
      case PAM_PROMPT_ECHO_ON:
        answers[i].resp = strdup(conversation->user->c_str());
        break;
      case PAM_ERROR_MSG:
      case PAM_TEXT_INFO:
        break;
      default:
        for (int j = 0; j < i; ++j) free(answers[j].resp);
        free(answers);
        return PAM_CONV_ERR;
    }
  }
  *responses = answers;
  return PAM_SUCCESS;
}

// The host waits for a failed login itself, without holding anyone up;
// PAM's own pause is left out.
void NoPamDelay(int, unsigned, void*) {}

bool InGroup(const std::string& user, const std::string& group) {
  const struct group* g = getgrnam(group.c_str());
  const struct passwd* pw = getpwnam(user.c_str());
  if (g == nullptr || pw == nullptr) return false;
  const gid_t wanted = g->gr_gid;
  int count = 64;
  std::vector<gid_t> groups;
  for (int attempt = 0; attempt < 4; ++attempt) {
    groups.resize(static_cast<size_t>(count));
    const int previous = count;
    if (getgrouplist(pw->pw_name, pw->pw_gid, groups.data(), &count) >= 0) {
      groups.resize(static_cast<size_t>(count));
      for (gid_t gid : groups) {
        if (gid == wanted) return true;
      }
      return false;
    }
    if (count <= previous) count = previous * 4;
  }
  return false;
}

// A keyed digest of the account's password hash: it tells a changed or
// locked password from the one a session was granted with, and is of no
// use to anyone without the host's key.
std::string PasswordFingerprint(const std::string& user, const std::string& key) {
  const struct spwd* entry = getspnam(user.c_str());
  if (entry == nullptr || entry->sp_pwdp == nullptr) return "";
  return HmacSha256Hex(key, entry->sp_pwdp);
}

bool Locked(const std::string& user) {
  const struct spwd* entry = getspnam(user.c_str());
  return entry != nullptr && entry->sp_pwdp != nullptr && entry->sp_pwdp[0] == '!';
}

PamVerdict Check(const PamCheckRequest& request) {
  PamVerdict verdict{kCodeLoginFailed, request.user, "", ""};
  Conversation data{&request.user, &request.password};
  const struct pam_conv conversation = {Converse, &data};
  pam_handle_t* handle = nullptr;
  int result = pam_start(request.service.c_str(), request.user.c_str(), &conversation, &handle);
  if (result != PAM_SUCCESS) {
    verdict.code = kCodeUnavailable;
    verdict.why = std::string("pam_start: ") + pam_strerror(handle, result);
    return verdict;
  }
  pam_set_item(handle, PAM_RHOST, request.address.c_str());
  pam_set_item(handle, PAM_FAIL_DELAY, reinterpret_cast<const void*>(NoPamDelay));
  result = request.login ? pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK) : PAM_SUCCESS;
  if (result != PAM_SUCCESS) {
    verdict.why = std::string("authentication: ") + pam_strerror(handle, result);
  } else if ((result = pam_acct_mgmt(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK)) != PAM_SUCCESS) {
    verdict.code = kCodeNotPermitted;
    verdict.why = std::string("account: ") + pam_strerror(handle, result);
  } else {
    const void* item = nullptr;
    if (pam_get_item(handle, PAM_USER, &item) == PAM_SUCCESS && item != nullptr) {
      verdict.user = static_cast<const char*>(item);
    }
    if (Locked(verdict.user)) {
      verdict.code = kCodeNotPermitted;
      verdict.why = "the account is locked";
    } else if (!InGroup(verdict.user, request.adminGroup)) {
      verdict.code = kCodeNotPermitted;
      verdict.why = "not a member of group " + request.adminGroup;
    } else {
      verdict.code = 0;
      verdict.fingerprint = PasswordFingerprint(verdict.user, request.fingerprintKey);
    }
  }
  pam_end(handle, result);
  return verdict;
}

[[noreturn]] void RunChild(const PamCheckRequest& request, int verdictFd) {
  // Back to default actions: the master's handlers are not for this process.
  for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGPIPE}) signal(sig, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  // Keep only the verdict pipe: the master's sockets and its log connection
  // are not for PAM modules.
  closelog();
  // Number 3, still closed on exec: a helper a PAM module runs must not
  // hold the pipe open.
  if (verdictFd != 3 && dup3(verdictFd, 3, O_CLOEXEC) != 3) _exit(1);
  close_range(4, ~0U, 0);
  const PamVerdict verdict = Check(request);
  Json::Value out;
  out["code"] = verdict.code;
  out["fingerprint"] = verdict.fingerprint;
  // Short enough for one atomic write on the pipe.
  out["user"] = verdict.user.substr(0, 256);
  out["why"] = verdict.why.substr(0, 512);
  const std::string text = vela::base::CompactJson(out);
  const ssize_t written = write(3, text.data(), text.size());
  _exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
}

}  // namespace

PamCheckChild StartPamCheck(const PamCheckRequest& request) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe2: ") + strerror(errno));
  UniqueFd readEnd(fds[0]);
  UniqueFd writeEnd(fds[1]);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + strerror(errno));
  if (pid == 0) RunChild(request, writeEnd.Get());
  PamCheckChild child;
  child.pid = pid;
  child.verdict = std::move(readEnd);
  return child;
}

PamVerdict ReadPamVerdict(int fd) {
  // The child writes its verdict at once, in one piece; one read takes it
  // all, and never waits on whatever else may hold the pipe open.
  char buffer[PIPE_BUF];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof(buffer))) < 0 && errno == EINTR) {
  }
  const std::string text(buffer, n > 0 ? static_cast<size_t>(n) : 0);
  Json::Value value;
  if (!vela::base::ParseJsonObject(text, value) || !value["code"].isInt() || !value["user"].isString()) {
    return PamVerdict{kCodeUnavailable, "", "", "the PAM check ended without a verdict"};
  }
  return PamVerdict{value["code"].asInt(), value["user"].asString(), value["fingerprint"].asString(),
                    value["why"].asString()};
}

}  // namespace vela::webapid
