// The web API host as a whole: real processes on loopback, logins through
// real PAM with throwaway accounts, workers killed and replaced, stops,
// slow clients.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <set>
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
constexpr char kReminderQuery[] = R"({"additional":["reminder"]})";

long MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

std::string LoginBody(const std::string& user, const std::string& password) {
  return R"({"user":")" + user + R"(","password":")" + password + R"("})";
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
  // A file that is no module, or one that others could change, is logged
  // and skipped; the modules load.
  ScratchDir modules;
  chmod(modules.Path().c_str(), 0755);
  for (const std::string module : {VELA_TEST_MODULE_PATH, VELA_TEST_STORAGE_MODULE_PATH}) {
    ASSERT_EQ(0, symlink(module.c_str(), (modules / module.substr(module.rfind('/') + 1)).c_str()));
  }
  WriteFile(modules / "broken.so", "not a module");
  WriteFile(modules / "loose.so", "");
  chmod((modules / "loose.so").c_str(), 0666);
  WebHost host(Flags({"--modules-dir", modules.Path()}));
  const int port = host.Port();
  EXPECT_EQ(200, Http(port, "GET", "/").status);
  EXPECT_NE(std::string::npos, Http(port, "GET", "/").body.find("<title>Snapshot usage</title>"));
  EXPECT_EQ(404, Http(port, "GET", "/no-such-file").status);

  EXPECT_EQ(105, Http(port, "POST", std::string("/api/") + kGetConf, kReminderQuery).Code());
  EXPECT_EQ(106, Http(port, "POST", "/auth/login", LoginBody(plain_, "plain-pass")).Code());
  EXPECT_EQ(109, Http(port, "POST", "/auth/login", LoginBody(admin_, "wrong")).Code());
  EXPECT_EQ(109, Http(port, "POST", "/auth/login", LoginBody("vtnobody", "x")).Code());
  EXPECT_EQ(104, Http(port, "POST", "/auth/login", R"({"user":"x"})").Code());

  const HttpReply login = Http(port, "POST", "/auth/login", LoginBody(admin_, "right-pass"));
  ASSERT_EQ(0, login.Code()) << login.body;
  const std::string cookie = login.Header("Set-Cookie");
  EXPECT_NE(std::string::npos, cookie.find("; Path=/; HttpOnly; SameSite=Strict")) << cookie;
  EXPECT_EQ(std::string::npos, cookie.find("Secure"));
  const Session session{cookie.substr(0, cookie.find(';')), login.json["data"]["csrf_token"].asString()};
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

  EXPECT_EQ(101, host.Call(session, "No.Such.API/1/get_conf").Code());
  EXPECT_EQ(102, host.Call(session, "VELA.Snap.Usage.Share/2/get_conf").Code());
  EXPECT_EQ(103, host.Call(session, "VELA.Snap.Usage.Share/1/no_such").Code());
  EXPECT_EQ(104, host.Call(session, kGetConf, "[1]").Code());
  const HttpReply large = host.Call(session, kGetConf, std::string(70000, ' '));
  EXPECT_EQ(413, large.status);
  EXPECT_EQ(107, large.Code());
  // Module answers pass through: a bad parameter is the module's code 3.
  EXPECT_EQ(3, host.Call(session, "VELA.Snap.Usage.Share/1/set_conf", R"({"reminder":"yes"})").Code());
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
  EXPECT_NE(std::string::npos, log.find("login of " + admin_ + " from 127.0.0.1 failed")) << log;
  EXPECT_NE(std::string::npos, log.find("login of " + plain_ + " from 127.0.0.1 refused: not a member of group " + admins_));
  EXPECT_NE(std::string::npos, log.find(admin_ + " logged in from 127.0.0.1"));
}

TEST_F(WebHostTest, FailedLoginsAreDelayedAndCountedPerAddressAndPerUser) {
  WebHost host(Flags({"--login-failure-delay-ms", "700", "--login-max-failures", "3"}));
  const int port = host.Port();
  for (int i = 0; i < 3; ++i) {
    const auto start = Clock::now();
    EXPECT_EQ(109, Http(port, "POST", "/auth/login", LoginBody(admin_, "wrong")).Code());
    EXPECT_GE(MillisecondsSince(start), 700);
  }
  // The user is locked out from everywhere, the address for every user;
  // neither asks PAM again.
  const auto start = Clock::now();
  EXPECT_EQ(108, Http(port, "POST", "/auth/login", LoginBody(admin_, "right-pass"), {}, "127.0.0.2").Code());
  EXPECT_LT(MillisecondsSince(start), 700);
  EXPECT_EQ(108, Http(port, "POST", "/auth/login", LoginBody(plain_, "plain-pass")).Code());
  // Another user from another address is not affected.
  const std::string other = accounts_.AddUser("vtother", "other-pass", {admins_});
  EXPECT_EQ(0, Http(port, "POST", "/auth/login", LoginBody(other, "other-pass"), {}, "127.0.0.3").Code());
  EXPECT_NE(std::string::npos, host.Log().find("login of " + admin_ + " from 127.0.0.2 refused: too many failed attempts"));
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

TEST_F(WebHostTest, KilledAndWornOutWorkersAreReplacedAndSessionsLiveOn) {
  // A stop asked for while a worker starts must not wait for the kill.
  WebHost host(Flags({"--max-requests-per-worker", "4", "--stop-timeout", "60"}));
  ASSERT_TRUE(WaitUntil(5000, [&] { return host.Workers().size() == 2; }));
  const Session session = host.Login(admin_, "right-pass");
  // The login's PAM child may still be on its way out.
  ASSERT_TRUE(WaitUntil(5000, [&] { return host.Workers().size() == 2; }));
  const std::vector<pid_t> before = host.Workers();

  // Workers run one thread each, with the service account's effective ids
  // and root's saved ids.
  for (pid_t worker : before) {
    EXPECT_EQ("1", MustRun({"sh", "-c", "ls /proc/" + std::to_string(worker) + "/task | wc -l"}).substr(0, 1));
  }
  std::ifstream status("/proc/" + std::to_string(before[0]) + "/status");
  std::string line;
  while (std::getline(status, line) && line.rfind("Uid:", 0) != 0) {
  }
  const std::string uid = MustRun({"id", "-u", VELA_TEST_SERVICE_USER});
  EXPECT_EQ("Uid:\t0\t" + uid.substr(0, uid.size() - 1) + "\t0\t" + uid.substr(0, uid.size() - 1), line);

  kill(before[0], SIGKILL);
  EXPECT_TRUE(host.WaitForLog("worker " + std::to_string(before[0]) + " was killed by signal 9", 5000));
  ASSERT_TRUE(WaitUntil(5000, [&] {
    const auto now = host.Workers();
    return now.size() == 2 && std::count(now.begin(), now.end(), before[0]) == 0;
  }));
  // The session lives in the master, so the new worker knows it, and every
  // request is answered while workers come and go.
  for (int i = 0; i < 12; ++i) EXPECT_EQ(0, host.Call(session, kGetConf, kReminderQuery).Code()) << i;
  EXPECT_TRUE(host.WaitForLog("stops (it served its share of requests)", 5000)) << host.Log();
  ASSERT_TRUE(WaitUntil(5000, [&] { return host.Workers().size() == 2; }));
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
  EXPECT_EQ(R"({"success":true,"data":{"reminder":true}})", ReadReply(fd).body);
  close(fd);
  EXPECT_EQ(0, host.Stop(SIGTERM, 15000));

  // The calculation started through the host finishes without it.
  const std::string status = R"({"additional":[]})";
  EXPECT_TRUE(WaitUntil(20000, [&] {
    return RunCommand({VELA_TEST_RUNNER_PATH, "VELA.Snap.Usage.Share", "1", "status", status}).out.find("\"done\"") !=
           std::string::npos;
  }));
}

TEST_F(WebHostTest, ServesHttpsWithSecureCookies) {
  ScratchDir dir;
  MustRun({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
           "-days", "1", "-subj", "/CN=127.0.0.1", "-keyout", dir / "key.pem", "-out", dir / "cert.pem"});
  WebHost host(Flags({"--tls-cert", dir / "cert.pem", "--tls-key", dir / "key.pem"}));
  const std::string url = "https://127.0.0.1:" + std::to_string(host.Port());
  const auto login = RunCommand({"curl", "--silent", "--show-error", "--cacert", dir / "cert.pem", "--include",
                                 "--data", LoginBody(admin_, "right-pass"), url + "/auth/login"});
  EXPECT_EQ(0, login.status) << login.err;
  EXPECT_NE(std::string::npos, login.out.find("; HttpOnly; SameSite=Strict; Secure")) << login.out;
  EXPECT_NE(0, RunCommand({"curl", "--silent", "http://127.0.0.1:" + std::to_string(host.Port()) + "/"}).status);
}

}  // namespace
}  // namespace vela::test
