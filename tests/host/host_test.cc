// The web API host as a whole: real processes on loopback, logins through
// real PAM with throwaway accounts, workers and executors killed and
// replaced, stops and restarts, slow and greedy clients, hostile names.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <chrono>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>
#include <thread>

#include "host/web_host.h"
#include "support/btrfs_image.h"
#include "support/btrfs_tool_double.h"
#include "support/command.h"
#include "support/fork_child.h"
#include "support/scratch_dir.h"

namespace vela::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kGetConf[] = "VELA.Snap.Usage.Share/1/get_conf";
constexpr char kSetConf[] = "VELA.Snap.Usage.Share/1/set_conf";
constexpr char kReminderQuery[] = R"({"additional":["reminder"]})";

long MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

std::string LoginBody(const std::string& user, const std::string& password) {
  return R"({"user":")" + user + R"(","password":")" + password + R"("})";
}

int Count(const std::string& text, const std::string& what) {
  int n = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// The ids in a /proc status line, e.g. "Uid:\t0\t999\t0\t999" -> {0, 999, 0, 999}.
std::vector<unsigned> Ids(const std::string& line) {
  std::istringstream in(line.substr(line.find(':') + 1));
  std::vector<unsigned> ids;
  for (unsigned id; in >> id;) ids.push_back(id);
  return ids;
}

// Whether a process with the ids of `pid` (uids, gids, groups) may open
// `path` for reading.
bool OpensWithIdsOf(pid_t pid, const std::string& path) {
  const std::vector<unsigned> uids = Ids(ProcStatus(pid, "Uid"));
  const std::vector<unsigned> gids = Ids(ProcStatus(pid, "Gid"));
  const std::vector<unsigned> groups = Ids(ProcStatus(pid, "Groups"));
  return RunForked([&] {
           std::vector<gid_t> list(groups.begin(), groups.end());
           if (setgroups(list.size(), list.data()) != 0 || setresgid(gids[0], gids[1], gids[2]) != 0 ||
               setresuid(uids[0], uids[1], uids[2]) != 0) {
             return std::string("cannot take the ids");
           }
           const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
           if (fd >= 0) close(fd);
           return std::string(fd >= 0 ? "opened" : strerror(errno));
         }) == "opened";
}

class WebHostTest : public testing::Test {
 protected:
  LocalAccounts accounts_;
  std::string admins_ = accounts_.AddGroup("vtadm");
  std::string admin_ = accounts_.AddUser("vtroot", "right-pass", {admins_});
  std::string plain_ = accounts_.AddUser("vtplain", "plain-pass");

  std::vector<std::string> Flags(std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"--admin-group", admins_});
    return more;
  }
};

TEST_F(WebHostTest, OnlyAdministratorsWithASessionAndItsCsrfTokenReachTheModules) {
  // A file that is no module, one that others could change and a link
  // are logged and skipped; the modules load.
  ScratchDir modules(kSandboxScratch);
  InstallModules(modules.Path());
  WriteFile(modules / "broken.so", "not a module");
  WriteFile(modules / "loose.so", "");
  chmod((modules / "loose.so").c_str(), 0666);
  ASSERT_EQ(0, symlink(VELA_TEST_MODULE_PATH, (modules / "linked.so").c_str()));
  WebHost host(Flags({"--modules-dir", modules.Path()}));
  const int port = host.Port();
  EXPECT_EQ(200, Http(port, "GET", "/").status);
  EXPECT_NE(std::string::npos, Http(port, "GET", "/").body.find("<title>Snapshot usage</title>"));
  EXPECT_EQ(404, Http(port, "GET", "/no-such-file").status);

  EXPECT_EQ(105, Http(port, "POST", std::string("/api/") + kGetConf, kReminderQuery).Code());
  // A right password of someone who may not log in is answered as a wrong
  // one, after the same delay.
  auto start = Clock::now();
  EXPECT_EQ(109, Http(port, "POST", "/auth/login", LoginBody(plain_, "plain-pass")).Code());
  EXPECT_GE(MillisecondsSince(start), 300);
  EXPECT_EQ(109, Http(port, "POST", "/auth/login", LoginBody(admin_, "wrong")).Code());
  EXPECT_EQ(109, Http(port, "POST", "/auth/login", LoginBody("vtnobody", "x")).Code());
  EXPECT_EQ(104, Http(port, "POST", "/auth/login", R"({"user":"x"})").Code());
  // Requests are parsed strictly: a comment is no JSON.
  EXPECT_EQ(104, Http(port, "POST", "/auth/login", R"({"user":"x", /* a */ "password":"y"})").Code());

  const HttpReply login = Http(port, "POST", "/auth/login", LoginBody(admin_, "right-pass"));
  ASSERT_EQ(0, login.Code()) << login.body;
  const std::string cookie = login.Header("Set-Cookie");
  EXPECT_NE(std::string::npos, cookie.find("; Path=/; HttpOnly; SameSite=Strict")) << cookie;
  EXPECT_EQ(std::string::npos, cookie.find("Secure"));
  const Session session{login.SetCookie("vela_session"), login.json["data"]["csrf_token"].asString(), ""};
  EXPECT_EQ(64u, session.csrf.size());

  const std::string api = std::string("/api/") + kGetConf;
  EXPECT_EQ(106, Http(port, "POST", api, kReminderQuery, {"Cookie: " + session.cookie}).Code());
  EXPECT_EQ(106, Http(port, "POST", api, kReminderQuery, {"Cookie: " + session.cookie, "X-Vela-CSRF: 00"}).Code());
  const HttpReply conf = host.Call(session, kGetConf, kReminderQuery);
  EXPECT_EQ(R"({"success":true,"data":{"reminder":true}})", conf.body);
  EXPECT_EQ("no-store", conf.Header("Cache-Control"));
  const std::vector<std::string> auth = {"Cookie: " + session.cookie, "X-Vela-CSRF: " + session.csrf};
  auto withOrigin = [&](const std::string& origin) {
    auto headers = auth;
    headers.push_back("Origin: " + origin);
    return Http(port, "POST", api, kReminderQuery, headers).Code();
  };
  EXPECT_EQ(106, withOrigin("http://evil.example"));
  EXPECT_EQ(0, withOrigin("http://127.0.0.1"));

  // A name made to point at this machine gets nothing, logged in or not;
  // its own names and addresses do.
  for (const std::string name : {"evil.example", "evil.example:5080", "127.0.0.1.evil.example"}) {
    const int fd = Connect(port);
    SendAll(fd, "GET / HTTP/1.1\r\nHost: " + name + "\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(421, ReadReply(fd).status) << name;
    close(fd);
    const std::string text = "POST /api/" + std::string(kGetConf) + " HTTP/1.1\r\nHost: " + name +
                             "\r\nConnection: close\r\n" + auth[0] + "\r\n" + auth[1] + "\r\nContent-Length: 2\r\n\r\n{}";
    const int api_fd = Connect(port);
    SendAll(api_fd, text);
    EXPECT_EQ(421, ReadReply(api_fd).status) << name;
    close(api_fd);
  }
  char hostname[256] = "";
  gethostname(hostname, sizeof(hostname) - 1);
  for (const std::string& name : {std::string("localhost:8080"), std::string(hostname), std::string("LOCALHOST.")}) {
    const int fd = Connect(port);
    SendAll(fd, "GET / HTTP/1.1\r\nHost: " + name + "\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(200, ReadReply(fd).status) << name;
    close(fd);
  }

  EXPECT_EQ(101, host.Call(session, "No.Such.API/1/get_conf").Code());
  EXPECT_EQ(102, host.Call(session, "VELA.Snap.Usage.Share/2/get_conf").Code());
  EXPECT_EQ(103, host.Call(session, "VELA.Snap.Usage.Share/1/no_such").Code());
  EXPECT_EQ(104, host.Call(session, kGetConf, "[1]").Code());
  EXPECT_EQ(104, host.Call(session, kGetConf, "{} // more").Code());
  const HttpReply large = host.Call(session, kGetConf, std::string(70000, ' '));
  EXPECT_EQ(413, large.status);
  EXPECT_EQ(107, large.Code());
  // Module answers pass through: a bad parameter is the module's code 3.
  EXPECT_EQ(3, host.Call(session, kSetConf, R"({"reminder":"yes"})").Code());
  EXPECT_EQ(0, host.Call(session, "VELA.Storage.Volume/1/list").Code());

  const HttpReply again = Http(port, "GET", "/auth/session", "", {"Cookie: " + session.cookie});
  EXPECT_EQ(admin_, again.json["data"]["user"].asString());
  EXPECT_EQ(session.csrf, again.json["data"]["csrf_token"].asString());
  EXPECT_EQ(106, Http(port, "POST", "/auth/logout", "{}", {"Cookie: " + session.cookie}).Code());
  EXPECT_EQ(0, Http(port, "POST", "/auth/logout", "{}", auth).Code());
  EXPECT_EQ(105, host.Call(session, kGetConf, kReminderQuery).Code());

  const std::string log = host.Log();
  EXPECT_NE(std::string::npos, log.find("skipping web API module " + modules / "broken.so")) << log;
  EXPECT_NE(std::string::npos, log.find("skipping web API module " + modules / "loose.so" + ": not owned by root"));
  EXPECT_NE(std::string::npos, log.find("skipping web API module " + modules / "linked.so: it is a symbolic link"));
  EXPECT_NE(std::string::npos, log.find("login of " + admin_ + " from 127.0.0.1 failed")) << log;
  EXPECT_NE(std::string::npos, log.find("login of " + plain_ + " from 127.0.0.1 failed: not a member of group " + admins_));
  EXPECT_NE(std::string::npos, log.find(admin_ + " logged in from 127.0.0.1"));
  // The module's own lines (its switches to root for set_conf) go to
  // syslog, not to the host's standard error.
  EXPECT_EQ(std::string::npos, log.find("WARNING: set")) << log;
}

TEST_F(WebHostTest, ModulesOutsideRootsDirectoriesAreNotLoaded) {
  // Whoever may write to a directory above the modules could swap them.
  ScratchDir open(kSandboxScratch);
  chmod(open.Path().c_str(), 0777);
  InstallModules(open / "modules");
  WebHost host(Flags({"--modules-dir", open / "modules"}));
  const Session session = host.Login(admin_, "right-pass");
  EXPECT_EQ(101, host.Call(session, kGetConf, kReminderQuery).Code());
  EXPECT_NE(std::string::npos, host.Log().find("no web API modules loaded from " + open / "modules" + ": " +
                                               open.Path() + ": its group or others may write to it (mode 0777)"))
      << host.Log();
}

TEST_F(WebHostTest, HttpWorkersHaveNoRightsAndOnlyExecutorsRunModules) {
  WebHost host(Flags());
  const Session session = host.Login(admin_, "right-pass");
  ASSERT_EQ(0, host.Call(session, kSetConf, R"({"reminder":true})").Code());
  const std::string lock = "/run/lock/velabtrfssnapusage/reminder_record.lock";
  ASSERT_EQ(0, access(lock.c_str(), F_OK));

  ASSERT_TRUE(WaitUntil(5000, [&] { return host.Children().size() == 4; }));  // the PAM child is gone
  const std::vector<pid_t> workers = host.ChildrenOf(VELA_TEST_HTTP_USER);
  ASSERT_EQ(2u, workers.size());
  const std::string http = MustRun({"id", "-u", VELA_TEST_HTTP_USER});
  const unsigned httpUid = static_cast<unsigned>(std::stoul(http));
  for (pid_t worker : workers) {
    EXPECT_EQ(std::vector<unsigned>(4, httpUid), Ids(ProcStatus(worker, "Uid")));
    EXPECT_EQ(1u, Ids(ProcStatus(worker, "Groups")).size());
    EXPECT_EQ("CapPrm:\t0000000000000000", ProcStatus(worker, "CapPrm"));
    EXPECT_EQ("CapEff:\t0000000000000000", ProcStatus(worker, "CapEff"));
    EXPECT_EQ("NoNewPrivs:\t1", ProcStatus(worker, "NoNewPrivs"));
    EXPECT_EQ("Seccomp:\t2", ProcStatus(worker, "Seccomp"));
    EXPECT_FALSE(OpensWithIdsOf(worker, lock));
  }

  // Executors: the service account's effective ids, root's saved ones;
  // they open the lock files, and hold no socket that speaks HTTP.
  const std::vector<pid_t> executors = host.ChildrenOf("root");
  ASSERT_EQ(2u, executors.size());
  const std::string web = MustRun({"id", "-u", VELA_TEST_SERVICE_USER});
  const unsigned webUid = static_cast<unsigned>(std::stoul(web));
  std::set<std::string> workerSockets;
  for (pid_t worker : workers) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(worker) + "/fd")) {
      workerSockets.insert(std::filesystem::read_symlink(entry.path()).string());
    }
  }
  for (pid_t executor : executors) {
    EXPECT_EQ((std::vector<unsigned>{0, webUid, 0, webUid}), Ids(ProcStatus(executor, "Uid")));
    EXPECT_TRUE(OpensWithIdsOf(executor, lock));
    int shared = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(executor) + "/fd")) {
      const std::string target = std::filesystem::read_symlink(entry.path()).string();
      shared += target.rfind("socket:", 0) == 0 && workerSockets.count(target) != 0 ? 1 : 0;
    }
    EXPECT_EQ(0, shared) << "an executor shares a socket with a worker";
  }
}

TEST_F(WebHostTest, LoginsAreSlowedWithoutLockingTheAdministratorOut) {
  WebHost host(Flags({"--login-failure-delay-ms", "300", "--login-max-failures", "3", "--login-max-delay", "4",
                      "--login-max-pending-per-address", "1"}));
  const int port = host.Port();
  const Session own = host.Login(admin_, "right-pass");
  ASSERT_FALSE(own.device.empty());
  auto attempt = [&](const std::string& from, const std::string& password, const std::string& device = "") {
    return Http(port, "POST", "/auth/login", LoginBody(admin_, password),
                device.empty() ? std::vector<std::string>{} : std::vector<std::string>{"Cookie: " + device}, from);
  };
  // An attacker's address runs out of tries, each answered after the delay.
  for (int i = 0; i < 3; ++i) {
    const auto start = Clock::now();
    EXPECT_EQ(109, attempt("127.0.0.2", "wrong").Code());
    EXPECT_GE(MillisecondsSince(start), 300);
  }
  HttpReply refused = attempt("127.0.0.2", "right-pass");
  EXPECT_EQ(108, refused.Code());
  const int retryAfter = refused.json["error"]["errors"]["retry_after"].asInt();
  EXPECT_GT(retryAfter, 800);
  EXPECT_EQ(std::to_string(retryAfter), refused.Header("Retry-After"));

  // Other addresses may still try for the user, ever more slowly: after
  // the third failure one second, then two, never more than the limit.
  refused = attempt("127.0.0.3", "wrong");
  EXPECT_EQ(108, refused.Code());
  EXPECT_EQ(1, refused.json["error"]["errors"]["retry_after"].asInt());
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  EXPECT_EQ(109, attempt("127.0.0.3", "wrong").Code());
  EXPECT_EQ(2, attempt("127.0.0.4", "wrong").json["error"]["errors"]["retry_after"].asInt());

  // The administrator's own browser is not held up by any of it, from
  // anywhere, and the right password still works for the one who knows it.
  EXPECT_EQ(0, attempt("127.0.0.2", "right-pass", own.device).Code());
  // A device cookie is the user's: for another user it is an unknown browser.
  const std::string other = accounts_.AddUser("vtother", "other-pass", {admins_});
  EXPECT_EQ(108, Http(port, "POST", "/auth/login", LoginBody(other, "other-pass"), {"Cookie: " + own.device},
                      "127.0.0.2").Code());
  // Logins checked at once from one address are bounded.
  std::vector<std::thread> rush;
  std::atomic<int> busy{0};
  for (int i = 0; i < 4; ++i) {
    rush.emplace_back([&] { busy += attempt("127.0.0.8", "right-pass", own.device).Code() == 108 ? 1 : 0; });
  }
  for (auto& t : rush) t.join();
  EXPECT_GT(busy, 0);
  EXPECT_NE(std::string::npos, host.Log().find("login of " + admin_ + " from 127.0.0.2 refused for " +
                                               std::to_string(retryAfter) + " s: too many failed attempts from the address"))
      << host.Log();
}


TEST(HostInstall, GivesItsDirectoriesAndFilesTheirModesWhateverTheUmask) {
  ScratchDir stage;
  const auto result = RunCommand({"sh", "-c", "umask 077 && DESTDIR=" + stage.Path() + " cmake --install " +
                                                  VELA_TEST_BUILD_DIR + " >/dev/null"});
  ASSERT_EQ(0, result.status) << result.err;
  const auto mode = [&](const std::string& path) {
    struct stat st;
    return stat((stage.Path() + path).c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
  };
  const std::string modules = VELA_TEST_MODULES_DIR;
  EXPECT_EQ(0755, mode(modules.substr(0, modules.rfind('/'))));
  EXPECT_EQ(0755, mode(modules));
  EXPECT_EQ(0644, mode(modules + "/libvelasnapusagewebapi.so"));
  EXPECT_EQ(0755, mode(VELA_TEST_INSTALLED_WEB_DIR));
  EXPECT_EQ(0644, mode(std::string(VELA_TEST_INSTALLED_WEB_DIR) + "/index.html"));
  EXPECT_EQ(0700, mode(VELA_TEST_STATE_DIR));
}

TEST_F(WebHostTest, SessionsEndWhenIdleAndAtTheirMaximumAge) {
  WebHost host(Flags({"--session-idle-timeout", "2", "--session-max-age", "5"}));
  const Session idle = host.Login(admin_, "right-pass");
  const Session busy = host.Login(admin_, "right-pass");
  const auto start = Clock::now();
  // Every use restarts the idle time, up to the maximum age.
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(0, host.Call(busy, kGetConf, kReminderQuery).Code()) << i;
  }
  EXPECT_EQ(105, host.Call(idle, kGetConf, kReminderQuery).Code());
  while (host.Call(busy, kGetConf, kReminderQuery).Code() == 0 && MillisecondsSince(start) < 10000) {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  EXPECT_GE(MillisecondsSince(start), 4500);
  EXPECT_EQ(105, host.Call(busy, kGetConf, kReminderQuery).Code());
}

TEST_F(WebHostTest, SessionsEndWhenTheRightsThatGrantedThemEnd) {
  WebHost host(Flags({"--session-recheck-interval", "1"}));
  const std::string removed = accounts_.AddUser("vtrm", "pass-rm", {admins_});
  const std::string locked = accounts_.AddUser("vtlk", "pass-lk", {admins_});
  const std::string expired = accounts_.AddUser("vtex", "pass-ex", {admins_});
  const std::string changed = accounts_.AddUser("vtpw", "pass-pw", {admins_});
  const std::string deleted = accounts_.AddUser("vtdl", "pass-dl", {admins_});
  const Session sRemoved = host.Login(removed, "pass-rm");
  const Session sLocked = host.Login(locked, "pass-lk");
  const Session sExpired = host.Login(expired, "pass-ex");
  const Session sChanged = host.Login(changed, "pass-pw");
  const Session sChanged2 = host.Login(changed, "pass-pw");
  const Session sDeleted = host.Login(deleted, "pass-dl");
  const Session sAdmin = host.Login(admin_, "right-pass");

  MustRun({"gpasswd", "--delete", removed, admins_});
  MustRun({"usermod", "--lock", locked});
  MustRun({"chage", "--expiredate", "0", expired});
  ASSERT_EQ(0, RunCommand({"chpasswd"}, changed + ":pass-new\n").status);
  MustRun({"userdel", deleted});

  // A method that changes something checks the account first.
  const std::string reminder = R"({"reminder":true})";
  EXPECT_EQ(105, host.Call(sRemoved, kSetConf, reminder).Code());
  EXPECT_EQ(105, host.Call(sDeleted, kSetConf, reminder).Code());
  EXPECT_EQ(0, host.Call(sAdmin, kSetConf, reminder).Code());
  // Reading goes on until the next check, at most the interval later.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  for (const Session* gone : {&sLocked, &sExpired, &sChanged, &sChanged2}) {
    EXPECT_EQ(105, host.Call(*gone, kGetConf, kReminderQuery).Code());
  }
  // The new password gives a session that lives on.
  const Session fresh = host.Login(changed, "pass-new");
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  EXPECT_EQ(0, host.Call(fresh, kGetConf, kReminderQuery).Code());
  EXPECT_EQ(0, host.Call(sAdmin, kGetConf, kReminderQuery).Code());

  const std::string log = host.Log();
  EXPECT_NE(std::string::npos, log.find("ended 1 sessions of " + removed + ": not a member of group " + admins_)) << log;
  EXPECT_NE(std::string::npos, log.find("ended 1 sessions of " + locked + ": the account is locked"));
  EXPECT_NE(std::string::npos, log.find("ended 2 sessions of " + changed + ": the password changed"));
  EXPECT_NE(std::string::npos, log.find("ended 1 sessions of " + expired + ": account: "));
  EXPECT_NE(std::string::npos, log.find("ended 1 sessions of " + deleted + ": account: "));
}

TEST_F(WebHostTest, SlowClientsAndFailedLoginsHoldUpNoOtherRequestOrLogin) {
  // One worker: everything below meets in the same process.
  WebHost host(Flags({"--workers", "1", "--login-failure-delay-ms", "4000"}));
  const int port = host.Port();
  std::vector<int> slow;
  for (int i = 0; i < 5; ++i) {
    slow.push_back(Connect(port));
    SendAll(slow.back(), "POST /api/VELA.Snap.Usage.Share/1/status HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Le");
  }
  const int failing = Connect(port);
  const auto failingSent = Clock::now();
  SendAll(failing, RequestText("POST", "/auth/login", LoginBody(admin_, "wrong"), {}));

  EXPECT_EQ(200, Http(port, "GET", "/").status);
  const Session session = host.Login(admin_, "right-pass");
  EXPECT_EQ(0, host.Call(session, kGetConf, kReminderQuery).Code());
  // All that was answered while the failed login still waits.
  EXPECT_FALSE(WaitReadable(failing, 0));

  EXPECT_EQ(109, ReadReply(failing).Code());
  EXPECT_GE(MillisecondsSince(failingSent), 4000);
  close(failing);
  for (int fd : slow) close(fd);
}

TEST_F(WebHostTest, ConnectionsAreBoundedInTimeAndInNumberAcrossWorkers) {
  WebHost host(Flags({"--max-connections", "16", "--max-connections-per-address", "4", "--proxy-connections", "4",
                      "--trusted-proxies", "127.0.0.9", "--forwarded-for-header", "X-Forwarded-For",
                      "--request-timeout", "2"}));
  const int port = host.Port();
  const auto closedByHost = [](int fd, int ms) {
    char byte;
    return WaitReadable(fd, ms) && read(fd, &byte, 1) <= 0;
  };
  const auto open = [&](const std::string& from, int count) {
    std::vector<int> fds;
    for (int i = 0; i < count; ++i) fds.push_back(Connect(port, from));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return fds;
  };
  // Two workers share one count: a fifth connection from an address is
  // closed, whichever worker takes it.
  std::vector<int> held = open("127.0.0.2", 4);
  const int fifth = Connect(port, "127.0.0.2");
  EXPECT_TRUE(closedByHost(fifth, 2000));
  close(fifth);
  // The last places are kept for the trusted proxy.
  for (const char* from : {"127.0.0.3", "127.0.0.4"}) {
    for (int fd : open(from, 4)) held.push_back(fd);
  }
  const int more = Connect(port, "127.0.0.5");
  EXPECT_TRUE(closedByHost(more, 2000));
  close(more);
  EXPECT_EQ(200, Http(port, "GET", "/", "", {}, "127.0.0.9").status);
  for (int fd : held) close(fd);
  ASSERT_TRUE(WaitUntil(5000, [&] { return Http(port, "GET", "/", "", {}, "127.0.0.6").status == 200; }));

  // A client that sends its headers slowly is cut off once its time is up,
  // however often it sends a line.
  const int dribbler = Connect(port, "127.0.0.6");
  const auto start = Clock::now();
  SendAll(dribbler, "GET / HTTP/1.1\r\n");
  bool closed = false;
  while (!closed && MillisecondsSince(start) < 6000) {
    SendAll(dribbler, "X-Slow: a\r\n");
    closed = closedByHost(dribbler, 400);
  }
  EXPECT_TRUE(closed);
  EXPECT_GE(MillisecondsSince(start), 1900);
  close(dribbler);

  // Only the trusted proxy may name the client.
  const std::string forwarded = "X-Forwarded-For: 10.9.9.9";
  EXPECT_EQ(109, Http(port, "POST", "/auth/login", LoginBody(admin_, "no"), {forwarded}, "127.0.0.7").Code());
  EXPECT_EQ(109, Http(port, "POST", "/auth/login", LoginBody(admin_, "no"), {forwarded}, "127.0.0.9").Code());
  const std::string log = host.Log();
  EXPECT_NE(std::string::npos, log.find("refused a connection from 127.0.0.2: too many from that address")) << log;
  EXPECT_NE(std::string::npos, log.find("refused a connection from 127.0.0.5: too many connections"));
  EXPECT_NE(std::string::npos, log.find("closed a connection from 127.0.0.6: no whole request in time"));
  EXPECT_NE(std::string::npos, log.find("login of " + admin_ + " from 127.0.0.7 failed"));
  EXPECT_NE(std::string::npos, log.find("login of " + admin_ + " from 10.9.9.9 failed"));
}

TEST_F(WebHostTest, KilledAndWornOutProcessesAreReplacedAndSessionsLiveOn) {
  // A stop asked for while a worker starts must not wait for the kill.
  WebHost host(Flags({"--max-requests-per-worker", "4", "--stop-timeout", "60"}));
  const Session session = host.Login(admin_, "right-pass");
  const auto settled = [&] { return host.Children().size() == 4; };  // the login's PAM child is gone
  ASSERT_TRUE(WaitUntil(5000, settled));
  const std::vector<pid_t> workers = host.ChildrenOf(VELA_TEST_HTTP_USER);
  const std::vector<pid_t> executors = host.ChildrenOf("root");
  for (pid_t child : host.Children()) {
    EXPECT_EQ("1", MustRun({"sh", "-c", "ls /proc/" + std::to_string(child) + "/task | wc -l"}).substr(0, 1));
  }

  // Requests of nobody logged in wear no worker out.
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(200, Http(host.Port(), "GET", "/").status);
    EXPECT_EQ(105, Http(host.Port(), "POST", std::string("/api/") + kGetConf, "{}").Code());
  }
  EXPECT_EQ(workers, host.ChildrenOf(VELA_TEST_HTTP_USER));

  // An executor that dies takes its worker along; both are replaced.
  kill(executors[0], SIGKILL);
  EXPECT_TRUE(host.WaitForLog("executor " + std::to_string(executors[0]) + " was killed by signal 9", 5000));
  ASSERT_TRUE(WaitUntil(5000, [&] {
    const auto now = host.ChildrenOf("root");
    return settled() && std::count(now.begin(), now.end(), executors[0]) == 0;
  }));
  EXPECT_NE(workers, host.ChildrenOf(VELA_TEST_HTTP_USER));
  // The session lives in the master, so the new worker knows it, and every
  // request is answered while workers come and go.
  for (int i = 0; i < 12; ++i) EXPECT_EQ(0, host.Call(session, kGetConf, kReminderQuery).Code()) << i;
  EXPECT_TRUE(host.WaitForLog("stops (it served its share of requests)", 5000)) << host.Log();
  ASSERT_TRUE(WaitUntil(5000, settled));
  EXPECT_EQ(0, host.Stop(SIGTERM, 15000));
}

TEST_F(WebHostTest, SigtermFinishesTheRequestInFlightAndCalculationsOutliveTheHost) {
  BtrfsImage volume("/volume1");
  volume.CreateSubvolume("docs");
  MustRun({"mkdir", "-p", "/volume1/@snapshots/docs"});
  volume.Snapshot("/volume1/docs", "/volume1/@snapshots/docs/GMT-2024.03.05-09.04.09");
  BtrfsToolDouble tool;
  tool.Script({"exclusive 600 bytes", "@sleep 1500", "@subvols 100", "processed 600 bytes"});

  WebHost host(Flags());
  const Session session = host.Login(admin_, "right-pass");
  ASSERT_EQ(0, host.Call(session, "VELA.Snap.Usage.Share/1/start",
                         R"({"share_name":"docs","range":{"range_start":1,"range_end":2000000000}})")
                   .Code());

  const std::string body = kReminderQuery;
  const int fd = Connect(host.Port());
  const std::string text = RequestText("POST", std::string("/api/") + kGetConf, body,
                                       {"Cookie: " + session.cookie, "X-Vela-CSRF: " + session.csrf});
  SendAll(fd, text.substr(0, text.size() - 5));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  kill(host.Pid(), SIGTERM);
  EXPECT_TRUE(host.WaitForLog("stopping on signal 15", 5000));
  // New connections are refused while the one in flight is served.
  EXPECT_TRUE(WaitUntil(5000, [&] {
    try {
      close(Connect(host.Port()));
      return false;
    } catch (const std::runtime_error&) {
      return true;
    }
  }));
  SendAll(fd, text.substr(text.size() - 5));
  EXPECT_EQ(R"({"success":true,"data":{"reminder":true}})", ReadReply(fd).body) << host.Log();
  close(fd);
  EXPECT_EQ(0, host.Stop(SIGTERM, 15000));

  // The calculation started through the host finishes without it.
  const std::string status = R"({"additional":[]})";
  EXPECT_TRUE(WaitUntil(20000, [&] {
    return RunCommand({VELA_TEST_RUNNER_PATH, "VELA.Snap.Usage.Share", "1", "status", status}).out.find("\"done\"") !=
           std::string::npos;
  }));
}

TEST_F(WebHostTest, SighupRestartsInPlaceWithoutRefusingAConnection) {
  WebHost host(Flags());
  std::atomic<bool> done{false};
  std::atomic<int> answered{0};
  std::atomic<int> failed{0};
  std::thread client([&] {
    while (!done) {
      try {
        (Http(host.Port(), "GET", "/").status == 200 ? answered : failed)++;
      } catch (const std::runtime_error&) {
        failed++;
      }
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  kill(host.Pid(), SIGHUP);
  EXPECT_TRUE(host.WaitForLog("(a socket handed over)", 15000)) << host.Log();
  const int before = answered;
  EXPECT_TRUE(WaitUntil(5000, [&] { return answered > before + 20; }));
  done = true;
  client.join();
  EXPECT_EQ(0, failed);
  EXPECT_EQ(0, host.Stop(SIGTERM, 15000));
}

TEST_F(WebHostTest, ServesOnlyStrongTlsWithSecureCookies) {
  ScratchDir dir;
  MustRun({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
           "-days", "1", "-subj", "/CN=127.0.0.1", "-keyout", dir / "key.pem", "-out", dir / "cert.pem"});
  WebHost host(Flags({"--tls-cert", dir / "cert.pem", "--tls-key", dir / "key.pem"}));
  const std::string url = "https://127.0.0.1:" + std::to_string(host.Port());
  const std::vector<std::string> curl = {"curl", "--silent", "--show-error", "--cacert", dir / "cert.pem",
                                         "--include"};
  auto with = [&](std::vector<std::string> more) {
    std::vector<std::string> argv = curl;
    argv.insert(argv.end(), more.begin(), more.end());
    return RunCommand(argv);
  };
  const auto login = with({"--data", LoginBody(admin_, "right-pass"), url + "/auth/login"});
  EXPECT_EQ(0, login.status) << login.err;
  EXPECT_NE(std::string::npos, login.out.find("Set-Cookie: __Host-vela_session=")) << login.out;
  EXPECT_NE(std::string::npos, login.out.find("; HttpOnly; SameSite=Strict; Secure")) << login.out;
  EXPECT_NE(std::string::npos, login.out.find("Strict-Transport-Security: max-age=31536000")) << login.out;
  EXPECT_NE(0, RunCommand({"curl", "--silent", "http://127.0.0.1:" + std::to_string(host.Port()) + "/"}).status);
  // TLS 1.1, or 1.2 without an AEAD cipher, gets no connection.
  EXPECT_NE(0, with({"--tlsv1.1", "--tls-max", "1.1", "--ciphers", "DEFAULT@SECLEVEL=0", url + "/"}).status);
  EXPECT_NE(0, with({"--tls-max", "1.2", "--ciphers", "ECDHE-ECDSA-AES128-SHA256", url + "/"}).status);
  EXPECT_EQ(0, with({"--tls-max", "1.2", "--ciphers", "ECDHE-ECDSA-AES128-GCM-SHA256", url + "/"}).status);
}

TEST_F(WebHostTest, UnfinishedRequestsCannotFloodTheLogNorPasswordsLingerInTheMaster) {
  WebHost host(Flags({"--workers", "1", "--request-timeout", "2"}));
  const int linesBefore = Count(host.Log(), "\n");
  for (int i = 0; i < 300; ++i) {
    const int fd = Connect(host.Port());
    SendAll(fd, "GET / HTTP/1.1\r\nHost");
    close(fd);
  }
  // Connections whose close the host has not seen yet count until their
  // time is up.
  ASSERT_TRUE(WaitUntil(6000, [&] { return Http(host.Port(), "GET", "/").status == 200; })) << host.Log();
  EXPECT_LT(Count(host.Log(), "\n") - linesBefore, 50) << host.Log();

  // After a right and a wrong password, neither is anywhere in the
  // master's memory.
  const std::string right = "Wipe-Me-Please-4f1c0b9e";
  const std::string wrong = "Not-The-Right-One-77aa31";
  const std::string user = accounts_.AddUser("vtmem", right, {admins_});
  host.Login(user, right);
  EXPECT_EQ(109, Http(host.Port(), "POST", "/auth/login", LoginBody(user, wrong)).Code());
  std::ifstream maps("/proc/" + std::to_string(host.Pid()) + "/maps");
  const int mem = open(("/proc/" + std::to_string(host.Pid()) + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(mem, 0);
  size_t scanned = 0;
  for (std::string line; std::getline(maps, line);) {
    unsigned long from = 0, to = 0;
    char perms[5] = "";
    // Writable mappings, read in pieces that overlap by a password's
    // length; the sanitizers' shadow memory (terabytes) is no data.
    if (sscanf(line.c_str(), "%lx-%lx %4s", &from, &to, perms) != 3 || perms[0] != 'r' || perms[1] != 'w' ||
        to - from > (1UL << 30)) {
      continue;
    }
    std::string bytes(1 << 20, '\0');
    for (unsigned long at = from; at < to; at += bytes.size() - right.size()) {
      const ssize_t n = pread(mem, bytes.data(), std::min<unsigned long>(bytes.size(), to - at), static_cast<off_t>(at));
      if (n <= 0) break;
      const std::string_view piece(bytes.data(), static_cast<size_t>(n));
      scanned += piece.size();
      EXPECT_EQ(std::string::npos, piece.find(right)) << line;
      EXPECT_EQ(std::string::npos, piece.find(wrong)) << line;
      if (static_cast<size_t>(n) < bytes.size()) break;
    }
  }
  close(mem);
  EXPECT_GT(scanned, 0u);
}

}  // namespace
}  // namespace vela::test
