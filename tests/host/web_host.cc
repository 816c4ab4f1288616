#include "host/web_host.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/command.h"
#include "support/fork_child.h"
#include "support/sandbox_mounts.h"

namespace vela::test {

namespace {

void Must(const std::string& error) {
  if (!error.empty()) throw std::runtime_error(error);
}

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return s;
}

std::string UniqueName(const std::string& prefix) {
  static int serial = 0;
  return prefix + std::to_string(getpid()) + "x" + std::to_string(++serial);
}

// The host's executors and HTTP workers run as these accounts; made in the
// private /etc when the machine has none.
void EnsureServiceAccounts() {
  for (const char* account : {VELA_TEST_SERVICE_USER, VELA_TEST_HTTP_USER}) {
    if (RunCommand({"getent", "passwd", account}).status != 0) MustRun({VELA_TEST_CREATE_SERVICE_ACCOUNT, account});
  }
}

}  // namespace

LocalAccounts::LocalAccounts() { Must(MakePrivate("/etc")); }

LocalAccounts::~LocalAccounts() {
  for (const auto& user : users_) RunCommand({"userdel", user});
  for (const auto& group : groups_) RunCommand({"groupdel", group});
}

std::string LocalAccounts::AddGroup(const std::string& prefix) {
  const std::string name = UniqueName(prefix);
  MustRun({"groupadd", name});
  groups_.push_back(name);
  return name;
}

std::string LocalAccounts::AddUser(const std::string& prefix, const std::string& password,
                                   const std::vector<std::string>& groups) {
  const std::string name = UniqueName(prefix);
  std::vector<std::string> argv = {"useradd", "--no-create-home", "--shell", "/usr/sbin/nologin"};
  std::string list;
  for (const auto& g : groups) list += (list.empty() ? "" : ",") + g;
  if (!list.empty()) argv.insert(argv.end(), {"--groups", list});
  argv.push_back(name);
  MustRun(argv);
  users_.push_back(name);
  const auto result = RunCommand({"chpasswd"}, name + ":" + password + "\n");
  if (result.status != 0) throw std::runtime_error("chpasswd: " + result.err);
  return name;
}

std::string HttpReply::Header(const std::string& name) const {
  const std::string wanted = "\r\n" + Lower(name) + ":";
  const std::string lower = Lower(head);
  const auto at = lower.find(wanted);
  if (at == std::string::npos) return "";
  const auto start = head.find_first_not_of(' ', at + wanted.size());
  return head.substr(start, head.find("\r\n", start) - start);
}

std::string HttpReply::SetCookie(const std::string& name) const {
  const std::string wanted = "\r\nset-cookie: " + Lower(name) + "=";
  const std::string lower = Lower(head);
  const auto at = lower.find(wanted);
  if (at == std::string::npos) return "";
  const auto start = at + strlen("\r\nset-cookie: ");
  return head.substr(start, head.find_first_of(";\r", start) - start);
}

int HttpReply::Code() const { return json["success"].asBool() ? 0 : json["error"]["code"].asInt(); }

int Connect(int port, const std::string& from) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local = {};
  local.sin_family = AF_INET;
  inet_pton(AF_INET, from.c_str(), &local.sin_addr);
  sockaddr_in remote = {};
  remote.sin_family = AF_INET;
  remote.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, "127.0.0.1", &remote.sin_addr);
  const timeval timeout = {60, 0};
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0 ||
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0 ||
      connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof(remote)) != 0) {
    const std::string why = strerror(errno);
    if (fd >= 0) close(fd);
    throw std::runtime_error("connect to port " + std::to_string(port) + " from " + from + ": " + why);
  }
  return fd;
}

void SendAll(int fd, const std::string& text) {
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) throw std::runtime_error(std::string("send: ") + strerror(errno));
    sent += static_cast<size_t>(n);
  }
}

HttpReply ReadReply(int fd) {
  std::string all;
  char buffer[65536];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof(buffer))) > 0) all.append(buffer, static_cast<size_t>(n));
  HttpReply reply;
  const auto end = all.find("\r\n\r\n");
  if (end == std::string::npos) return reply;  // status 0: no answer
  reply.head = all.substr(0, end);
  reply.body = all.substr(end + 4);
  reply.status = atoi(reply.head.c_str() + reply.head.find(' ') + 1);
  if (reply.Header("Content-Type").rfind("application/json", 0) == 0) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    reader->parse(reply.body.data(), reply.body.data() + reply.body.size(), &reply.json, nullptr);
  }
  return reply;
}

std::string RequestText(const std::string& method, const std::string& path, const std::string& body,
                        const std::vector<std::string>& headers) {
  std::string text = method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n";
  for (const auto& h : headers) text += h + "\r\n";
  if (method == "POST") text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return text + "\r\n" + body;
}

HttpReply Http(int port, const std::string& method, const std::string& path, const std::string& body,
               const std::vector<std::string>& headers, const std::string& from) {
  const int fd = Connect(port, from);
  SendAll(fd, RequestText(method, path, body, headers));
  HttpReply reply = ReadReply(fd);
  close(fd);
  return reply;
}

bool WaitUntil(int timeoutMs, const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

void InstallModules(const std::string& dir) {
  mkdir(dir.c_str(), 0755);
  chmod(dir.c_str(), 0755);
  for (const std::string module : {VELA_TEST_MODULE_PATH, VELA_TEST_STORAGE_MODULE_PATH, VELA_TEST_SPACE_MODULE_PATH}) {
    MustRun({"install", "-m", "0644", module, dir + "/" + module.substr(module.rfind('/') + 1)});
  }
}

WebHost::WebHost(const std::vector<std::string>& flags) {
  Must(MakePrivate("/etc"));
  EnsureServiceAccounts();
  WriteFile("/etc/pam.d/vela-webapid", ReadFile(VELA_TEST_PAM_FILE));
  // The executors, with the service account's ids, must reach the modules.
  chmod(dir_.Path().c_str(), 0755);
  const std::string modules = dir_ / "modules";
  InstallModules(modules);
  std::vector<std::string> argv = {VELA_TEST_WEBAPID_PATH, "--config", "/dev/null",
                                   "--listen", "127.0.0.1:0", "--workers", "2",
                                   "--modules-dir", modules, "--web-dir", VELA_TEST_WEB_DIR,
                                   "--state-dir", dir_ / "state",
                                   "--log-stderr", "yes", "--login-failure-delay-ms", "300"};
  argv.insert(argv.end(), flags.begin(), flags.end());
  const std::string log = dir_ / "host.log";
  const int logFd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  pid_ = fork();
  if (pid_ == 0) {
    const int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(null, 1);
    dup2(logFd, 2);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(logFd);
  const std::regex listening("listening on https?://127\\.0\\.0\\.1:([0-9]+)/");
  std::smatch match;
  std::string text;
  // Under the sanitizers a start takes a while.
  if (!WaitUntil(60000, [&] {
        text = Log();
        return std::regex_search(text, match, listening) || WaitForExit(pid_, 0) >= 0;
      }) ||
      match.empty()) {
    throw std::runtime_error("vela-webapid did not start:\n" + text);
  }
  port_ = std::stoi(match[1]);
}

WebHost::~WebHost() {
  if (pid_ > 0 && Stop(SIGTERM, 20000) < 0) {
    kill(pid_, SIGKILL);
    WaitForExit(pid_, 5000);
  }
}

std::string ProcStatus(pid_t pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field + ":", 0) == 0) return line;
  }
  return "";
}

std::vector<pid_t> WebHost::ChildrenOf(const std::string& account) const {
  const std::string uid = MustRun({"id", "-u", account});
  std::vector<pid_t> found;
  for (pid_t pid : Children()) {
    const std::string line = ProcStatus(pid, "Uid");
    if (line.rfind("Uid:\t" + uid.substr(0, uid.size() - 1) + "\t", 0) == 0) found.push_back(pid);
  }
  return found;
}

std::vector<pid_t> WebHost::Children() const {
  std::vector<pid_t> workers;
  DIR* proc = opendir("/proc");
  while (const dirent* entry = proc != nullptr ? readdir(proc) : nullptr) {
    std::ifstream stat(std::string("/proc/") + entry->d_name + "/stat");
    std::string line;
    if (!std::getline(stat, line)) continue;
    // "pid (name) state ppid ...": the name may hold spaces.
    std::istringstream rest(line.substr(line.rfind(')') + 2));
    std::string state;
    pid_t parent = 0;
    if (rest >> state >> parent && parent == pid_ && state != "Z") workers.push_back(atoi(entry->d_name));
  }
  if (proc != nullptr) closedir(proc);
  return workers;
}

int WebHost::Stop(int sig, int timeoutMs) {
  if (pid_ <= 0) return -1;
  kill(pid_, sig);
  const int status = WaitForExit(pid_, timeoutMs);
  if (status >= 0) pid_ = -1;
  return status;
}

std::string WebHost::Log() const { return ReadFile(dir_ / "host.log"); }

bool WebHost::WaitForLog(const std::string& text, int timeoutMs) const {
  return WaitUntil(timeoutMs, [&] { return Log().find(text) != std::string::npos; });
}

Session WebHost::Login(const std::string& user, const std::string& password, const std::string& device) const {
  Json::Value body;
  body["user"] = user;
  body["password"] = password;
  const HttpReply reply = Http(port_, "POST", "/auth/login", Json::FastWriter().write(body),
                               device.empty() ? std::vector<std::string>{} : std::vector<std::string>{"Cookie: " + device});
  Session session{reply.SetCookie("vela_session"), reply.json["data"]["csrf_token"].asString(),
                  reply.SetCookie("vela_device")};
  if (reply.Code() != 0 || session.cookie.empty()) {
    throw std::runtime_error("login of " + user + " failed: " + reply.head + "\n" + reply.body);
  }
  return session;
}

HttpReply WebHost::Call(const Session& session, const std::string& path, const std::string& body) const {
  return Http(port_, "POST", "/api/" + path, body, {"Cookie: " + session.cookie, "X-Vela-CSRF: " + session.csrf});
}

}  // namespace vela::test
