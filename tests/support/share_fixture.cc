#include "support/share_fixture.h"

#include <unistd.h>

#include <ctime>
#include <sstream>
#include <stdexcept>

#include "support/command.h"
#include "support/fork_child.h"
#include "support/syslog_capture.h"
#include "vela/vela_share.h"
#include "velabtrfssnapusage/share_task_status.h"

namespace vela::test {

namespace {

// Takes a read-only snapshot of /volumeN/SHARE (its own name on that
// volume) at DIR/ENTRY and returns how listings show it.
TakenSnapshot TakeSnapshot(const BtrfsImage& volume, const std::string& share, const std::string& dir,
                           const std::string& entry) {
  MustRun({"mkdir", "-p", dir});
  volume.Snapshot(volume.MountPoint() + "/" + share, dir + "/" + entry);
  TakenSnapshot taken;
  taken.path = dir + "/" + entry;
  PVELASHARE record = nullptr;
  PVELASNAPINFO infos = nullptr;
  const int count = VELAShareGet(share.c_str(), &record) == 0 ? VELAShareSnapInfoList(record, &infos) : -1;
  for (int i = 0; i < count; ++i) {
    if (infos[i].szPath == taken.path) {
      taken.name = infos[i].szName;
      taken.time = infos[i].time;
      taken.id = infos[i].subvolId;
    }
  }
  VELAShareSnapInfoFree(infos);
  VELAShareFree(record);
  if (taken.name.empty()) throw std::runtime_error("snapshot " + taken.path + " is not listed");
  return taken;
}

}  // namespace

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

std::string Answer(const VELA::APIResponse& response) {
  if (!response.IsAnswered()) return "unanswered";
  if (response.IsSuccess()) return "ok " + Compact(response.GetData());
  return "error " + std::to_string(response.GetErrorCode());
}

std::string StartParams(const std::string& share, long start, long end) {
  return R"({"share_name":")" + share + R"(","range":{"range_start":)" + std::to_string(start) +
         R"(,"range_end":)" + std::to_string(end) + "}}";
}

void ShareFixture::SetUp() {
  BecomeSubreaper();
  ClearSyslog();
  for (const char* share : {"share1", "share2"}) volume_.CreateSubvolume(share);
  for (int i = 0; i < 3; ++i) Snapshot("share1");
  Snapshot("share2");
  tool_.Script({"exclusive 600 bytes", "processed 300 bytes", "@subvols 100", "processed 600 bytes"});
}

void ShareFixture::TearDown() {
  for (int i = 0; i < 500 && HasChildren(); ++i) WaitForExit(-1, 10);
  EXPECT_FALSE(HasChildren()) << "a calculator process was left behind";
}

TakenSnapshot ShareFixture::Snapshot(const std::string& share) {
  std::vector<TakenSnapshot>& taken = snaps_[share];
  taken.push_back(TakeSnapshot(volume_, share, "/volume1/@snapshots/" + share, "s" + std::to_string(taken.size())));
  return taken.back();
}

std::string ShareFixture::Call(const std::string& method, const std::string& params) {
  return Answer(module_.Call(method, params));
}

std::string ShareFixture::State(const std::string& share) {
  VelaBtrfsUsage::ShareTaskStatus status;
  if (!status.Init(share, false)) return "none";
  std::string state = "-", code = "-";
  status.GetStatusAttr(TASKSTATUS_ATTR_STATUS, state);
  status.GetStatusAttr(TASKSTATUS_ATTR_ERROR_CODE, code);
  return state + " " + code;
}

pid_t ShareFixture::WaitForProcess(const std::string& share) {
  VelaBtrfsUsage::ShareTaskStatus status;
  std::string pid;
  for (int i = 0; i < 1000 && State(share).rfind("process", 0) != 0; ++i) usleep(5000);
  if (!status.Init(share, false) || status.GetStatusAttr(TASKSTATUS_ATTR_PID, pid) != 0) return -1;
  return std::stoi(pid);
}

std::string ShareFixture::WaitForEnd(const std::string& share) {
  for (int i = 0; i < 1000; ++i) {
    const std::string state = State(share);
    if (state.rfind("ready", 0) != 0 && state.rfind("process", 0) != 0) {
      WaitForExit(-1, 5000);  // the child ends right after its last write
      return state;
    }
    usleep(10000);
  }
  return "timed out in " + State(share);
}

std::map<std::string, unsigned long long> ShareFixture::RootIds() {
  std::map<std::string, unsigned long long> ids;
  std::istringstream lines(MustRun({"btrfs", "subvolume", "list", "/volume1"}));
  std::string w1, w2, w3, w4, w5, w6, w7, path;
  unsigned long long id;
  while (lines >> w1 >> id >> w3 >> w4 >> w5 >> w6 >> w7 >> w2 >> path) ids[path] = id;
  return ids;
}

}  // namespace vela::test
