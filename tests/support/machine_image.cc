#include "support/machine_image.h"

#include <unistd.h>

#include <ctime>
#include <sstream>
#include <stdexcept>

#include "support/command.h"
#include "support/sandbox_mounts.h"

namespace vela::test {

namespace {

std::string TopPath(const std::string& name) { return std::string(kSandboxScratch) + "/" + name + "-top"; }

void Write(const std::string& path, int kib) {
  MustRun({"dd", "if=/dev/urandom", "of=" + path, "bs=1K", "count=" + std::to_string(kib), "status=none"});
}

}  // namespace

MachineImage::MachineImage(const std::string& name, bool secondApart)
    : image_(TopPath(name)), root_(std::string(kSandboxScratch) + "/" + name) {
  const std::string top = image_.MountPoint();
  image_.CreateSubvolume("@");
  image_.CreateSubvolume("@home");
  MustRun({"mkdir", "-p", top + "/@/srv", top + "/@/etc", top + "/@home/alice", top + "/btrbk_snapshots",
           top + "/timeshift-btrfs/snapshots/2026-01-05_10-00-01"});
  image_.CreateSubvolume("@/srv/data");
  image_.CreateSubvolume("@/.snapshots");
  image_.CreateSubvolume("@home/.snapshots");
  Write(top + "/@/etc/hostname", 4);
  Write(top + "/@/srv/data/table", 256);
  MustRun({"mkdir", "-p", top + "/@/.snapshots/1"});
  image_.Snapshot(top + "/@", top + "/@/.snapshots/1/snapshot");

  // The homes change between snapshots: some data lives in one snapshot
  // only, some in several, some also in the live share.
  const std::string home = top + "/@home/alice/";
  const std::vector<std::string> changes = {
      "for f in 1 2 3 4; do head -c 200000 /dev/urandom > " + home + "a$f; done",
      "rm " + home + "a1; head -c 300000 /dev/urandom > " + home + "b1",
      "dd if=/dev/urandom of=" + home + "a2 bs=4096 count=10 conv=notrunc status=none; rm " + home + "b1",
      "rm " + home + "a2 " + home + "a3; head -c 150000 /dev/urandom > " + home + "c1",
      "head -c 100000 /dev/urandom >> " + home + "a4; rm " + home + "c1",
  };
  for (size_t i = 0; i < HomeSnapshots().size(); ++i) {
    MustRun({"sh", "-c", changes[i]});
    if (secondApart && i > 0) WaitForNextSecond();
    const std::string path = top + "/" + HomeSnapshots()[i];
    MustRun({"mkdir", "-p", path.substr(0, path.rfind('/'))});
    if (HomeSnapshots()[i].rfind("timeshift-btrfs/", 0) == 0) {
      MustRun({"btrfs", "-q", "subvolume", "snapshot", top + "/@home", path});  // Timeshift's are writable
    } else {
      image_.Snapshot(top + "/@home", path);
    }
  }
  MustRun({"btrfs", "-q", "subvolume", "snapshot", top + "/@", top + "/timeshift-btrfs/snapshots/2026-01-05_10-00-01/@"});
  image_.Sync();
  image_.Unmount();
  MustRun({"mkdir", "-p", root_});
  MustRun({"mount", "-t", "btrfs", "-o", "loop,subvol=@,noatime", image_.ImagePath(), root_});
  rootMounted_ = true;
}

MachineImage::~MachineImage() {
  if (rootMounted_ && RunCommand({"umount", root_}).status != 0) RunCommand({"umount", "-l", root_});
}

void MachineImage::UnmountRoot() {
  if (!rootMounted_) return;
  MustRun({"umount", root_});
  rootMounted_ = false;
}

const std::vector<std::string>& MachineImage::HomeSnapshots() {
  static const std::vector<std::string> kSnapshots = {
      "@home/.snapshots/1/snapshot",
      "timeshift-btrfs/snapshots/2026-01-05_10-00-01/@home",
      "btrbk_snapshots/@home.20260105T1000",
      "@home/.snapshots/2/snapshot",
      "btrbk_snapshots/@home.20260105T1100",
  };
  return kSnapshots;
}

long CreationTime(const std::string& path) {
  std::istringstream shown(MustRun({"env", "TZ=UTC", "btrfs", "subvolume", "show", path}));
  for (std::string line; std::getline(shown, line);) {
    const size_t at = line.find("Creation time:");
    if (at == std::string::npos) continue;
    struct tm broken = {};
    if (strptime(line.c_str() + line.find_first_not_of(" \t", at + 14), "%Y-%m-%d %H:%M:%S", &broken) == nullptr) {
      break;
    }
    return static_cast<long>(timegm(&broken));
  }
  throw std::runtime_error("no creation time shown for " + path);
}

std::string UtcSnapshotName(long t) {
  const time_t when = t;
  struct tm utc;
  gmtime_r(&when, &utc);
  char name[64];
  strftime(name, sizeof(name), "GMT-%Y.%m.%d-%H.%M.%S", &utc);
  return name;
}

void WaitForNextSecond() {
  const time_t now = time(nullptr);
  while (time(nullptr) == now) usleep(10000);
}

}  // namespace vela::test
