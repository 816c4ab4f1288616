// The module as the web server sees it: loaded with dlopen, its table read,
// its handlers called with JSON parameters.
#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/fork_child.h"
#include "support/module_loader.h"
#include "support/scratch_dir.h"
#include "support/syslog_capture.h"

// The id calls of the module land here first: counted, optionally failed,
// then made with the raw system call (tests are single-threaded).
namespace {
int gSetresuidCalls = 0;
int gSetresgidCalls = 0;
int gFailSetresuidErrno = 0;
}  // namespace

extern "C" __attribute__((visibility("default"))) int setresuid(uid_t r, uid_t e, uid_t s) {
  ++gSetresuidCalls;
  if (gFailSetresuidErrno != 0) {
    errno = gFailSetresuidErrno;
    return -1;
  }
  return static_cast<int>(syscall(SYS_setresuid, r, e, s));
}

extern "C" __attribute__((visibility("default"))) int setresgid(gid_t r, gid_t e, gid_t s) {
  ++gSetresgidCalls;
  return static_cast<int>(syscall(SYS_setresgid, r, e, s));
}

namespace vela::test {
namespace {

constexpr char kRecord[] = "/usr/local/velabtrfssnapusage/reminder_record";
constexpr int kAuthInfo = LOG_AUTH | LOG_INFO;
constexpr int kAuthErr = LOG_AUTH | LOG_ERR;

std::string Answer(const VELA::APIResponse& response) {
  if (!response.IsAnswered()) return "unanswered";
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  if (response.IsSuccess()) return "ok " + Json::writeString(builder, response.GetData());
  return "error " + std::to_string(response.GetErrorCode());
}

bool Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// Drops the effective ids to 1000 while real and saved ids stay 0: what a
// web server worker looks like.
void BecomeWebWorker() {
  if (syscall(SYS_setresgid, -1, 1000, -1) != 0 || syscall(SYS_setresuid, -1, 1000, -1) != 0) {
    _exit(99);
  }
}

class ModuleTest : public testing::Test {
 protected:
  void SetUp() override { ClearSyslog(); }
  ModuleLoader module_{ModulePath()};
};

TEST_F(ModuleTest, TableHoldsTheSevenMethodsInOrderThenAnAllZeroRow) {
  const auto* table = module_.Table();
  EXPECT_EQ(module_.Symbol("gTable"), static_cast<const void*>(table));
  const std::vector<std::string> methods = {"start",    "status",   "get_report", "cancel",
                                            "clean",    "get_conf", "set_conf"};
  size_t rows = 0;
  for (; table[rows].szAPI != nullptr; ++rows) {
    ASSERT_LT(rows, methods.size());
    EXPECT_STREQ("VELA.Snap.Usage.Share", table[rows].szAPI);
    EXPECT_EQ(table[0].szAPI, table[rows].szAPI) << "one API name object for every row";
    EXPECT_EQ(1u, table[rows].version);
    EXPECT_EQ(methods[rows], table[rows].szMethod);
    EXPECT_NE(nullptr, table[rows].pfnHandler);
  }
  EXPECT_EQ(methods.size(), rows);
  EXPECT_EQ(0u, table[rows].version);
  EXPECT_EQ(nullptr, table[rows].szMethod);
  EXPECT_EQ(nullptr, table[rows].pfnHandler);
}

TEST_F(ModuleTest, ReminderDefaultsToTrueAndSetConfStoresIt) {
  EXPECT_EQ("ok {\"reminder\":true}", Answer(module_.Call("get_conf", R"({"additional":["reminder"]})")));
  EXPECT_FALSE(Exists(kRecord)) << "a reader creates no record";
  EXPECT_EQ("ok null", Answer(module_.Call("set_conf", R"({"reminder":false})")));
  EXPECT_EQ("ok {\"reminder\":false}", Answer(module_.Call("get_conf", R"({"additional":["reminder"]})")));
  EXPECT_EQ("ok {\"reminder\":false}",
            Answer(module_.Call("get_conf", R"({"additional":["reminder","other","reminder"]})")));
  for (const char* params : {R"({"additional":["other"]})", "{}", R"({"additional":[]})",
                             R"({"additional":"reminder"})", R"({"additional":[7,{}]})"}) {
    EXPECT_EQ("ok null", Answer(module_.Call("get_conf", params))) << params;
  }
}

TEST_F(ModuleTest, SetConfKeepsOtherKeysAndACorruptRecordStillAnswersTrue) {
  ASSERT_EQ(0, mkdir("/usr/local/velabtrfssnapusage", 0755));
  WriteFile(kRecord, R"({"other":5})");
  EXPECT_EQ("ok null", Answer(module_.Call("set_conf", R"({"reminder":true})")));
  Json::Value record;
  Json::Reader().parse(ReadFile(kRecord), record, false);
  EXPECT_EQ(5, record["other"].asInt());
  EXPECT_TRUE(record["reminder"].asBool());

  for (const char* corrupt : {"", "{\"reminder\": fal", "[1,2]", "{\"reminder\":\"no\"}"}) {
    WriteFile(kRecord, corrupt);
    EXPECT_EQ("ok {\"reminder\":true}", Answer(module_.Call("get_conf", R"({"additional":["reminder"]})")))
        << corrupt;
  }
  WriteFile(kRecord, "[1,2]");
  EXPECT_EQ("ok null", Answer(module_.Call("set_conf", R"({"reminder":false})")));
  EXPECT_EQ("ok {\"reminder\":false}", Answer(module_.Call("get_conf", R"({"additional":["reminder"]})")));
}

TEST_F(ModuleTest, MissingMistypedOrEmptyParametersAnswerThreeAndCreateNothing) {
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"set_conf", "{}"},
      {"set_conf", R"({"reminder":"x"})"},
      {"set_conf", R"({"reminder":1})"},
      {"start", R"({"range":{"range_start":0,"range_end":1}})"},
      {"start", R"({"share_name":"","range":{"range_start":0,"range_end":1}})"},
      {"start", R"({"share_name":7,"range":{"range_start":0,"range_end":1}})"},
      {"start", R"({"share_name":"s","range":{"range_start":0}})"},
      {"start", R"({"share_name":"s","range":{"range_end":0}})"},
      {"start", R"({"share_name":"s","range":[0,1]})"},
      {"start", R"({"share_name":"s"})"},
  };
  std::vector<std::pair<std::string, std::string>> all = bad;
  for (const char* method : {"get_report", "cancel", "clean"}) {
    for (const char* params : {"{}", R"({"share_name":""})", R"({"share_name":["s"]})",
                               R"({"share_name":null})"}) {
      all.emplace_back(method, params);
    }
  }
  for (const auto& [method, params] : all) {
    EXPECT_EQ("error 3", Answer(module_.Call(method, params))) << method << " " << params;
  }
  for (const char* dir : {"/run/velabtrfssnapusage", "/run/lock/velabtrfssnapusage",
                          "/usr/local/velabtrfssnapusage"}) {
    EXPECT_FALSE(Exists(dir)) << dir;
  }
  EXPECT_TRUE(CapturedSyslog().empty()) << DumpSyslog();
}

TEST_F(ModuleTest, AWorkerWithSavedRootIdsDoesItsFileWorkAsRootAndGetsItsIdsBack) {
  const std::string report = RunForked([&] {
    BecomeWebWorker();
    const std::string answer = Answer(module_.Call("set_conf", R"({"reminder":false})"));
    return answer + " euid=" + std::to_string(geteuid()) + " egid=" + std::to_string(getegid());
  });
  EXPECT_EQ("ok null euid=1000 egid=1000", report);
  struct stat st;
  ASSERT_EQ(0, stat(kRecord, &st));
  EXPECT_EQ(0u, st.st_uid) << "written as root";

  // Enter: gid then uid to 0; leave: uid to 0 to regain the right to set the
  // gid back. Switches back to 1000 are not reported.
  const auto records = CapturedSyslog();
  std::vector<std::string> auth;
  for (const auto& r : records) {
    if (r.priority != kAuthInfo) continue;
    EXPECT_EQ(0u, r.text.rfind("share:", 0)) << r.text;
    auth.push_back(r.text.substr(r.text.find(' ') + 1));
  }
  EXPECT_EQ((std::vector<std::string>{"WARNING: setresgid(-1, 0, -1)", "WARNING: setresuid(-1, 0, -1)",
                                      "WARNING: setresuid(-1, 0, -1)"}),
            auth)
      << DumpSyslog();
}

TEST_F(ModuleTest, AProcessAlreadyRootMakesNoIdCallsAndLogsNothing) {
  gSetresuidCalls = gSetresgidCalls = 0;
  EXPECT_EQ("ok null", Answer(module_.Call("set_conf", R"({"reminder":true})")));
  EXPECT_EQ("ok {\"reminder\":true}", Answer(module_.Call("get_conf", R"({"additional":["reminder"]})")));
  EXPECT_EQ(0, gSetresuidCalls);
  EXPECT_EQ(0, gSetresgidCalls);
  for (const auto& r : CapturedSyslog()) EXPECT_NE(LOG_AUTH, r.priority & LOG_FACMASK) << r.text;
}

TEST_F(ModuleTest, AFailedElevationIsLoggedAndTheWorkStillRunsWithTheIdsItHas) {
  const std::string report = RunForked([&] {
    BecomeWebWorker();
    gFailSetresuidErrno = EPERM;
    const std::string answer = Answer(module_.Call("set_conf", R"({"reminder":false})"));
    gFailSetresuidErrno = 0;
    return answer;
  });
  // Without root the record's directory cannot be made under /usr/local.
  EXPECT_EQ("error 1", report);
  EXPECT_EQ(1u, FindSyslog(kAuthInfo, "WARNING: setresgid(-1, 0, -1)").size()) << DumpSyslog();
  EXPECT_EQ(1u, FindSyslog(kAuthErr, "ERROR: setresuid(-1, 0, -1) [Operation not permitted]").size());
  EXPECT_EQ(1u, FindSyslog(kAuthErr, "ERROR: ENTERCriticalSection").size());
  EXPECT_EQ(1u, FindSyslog(kAuthErr, "ERROR: LEAVECriticalSection").size())
      << "the leave step cannot regain root either";
  EXPECT_FALSE(Exists(kRecord));
}

}  // namespace
}  // namespace vela::test
