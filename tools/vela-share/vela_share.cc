// vela-share: the administrator's tool for volumes, shares and snapshots on
// plain Linux. A volume is a btrfs file system mounted at /volumeN, by any
// means or adopted with "volume add"; its shares are its subvolumes that
// keep data, and their snapshots are found by their parent UUID wherever
// they lie, whichever tool made them.
//
// Output is one line per item, columns separated by one tab, no header, so
// that scripts can read it; messages go to standard error.
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "space_command.h"
#include "vela/sz_list.h"
#include "vela/vela_share.h"
#include "vela/vela_volume.h"
#include "vela/vlib_error.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr char kVolumeSettings[] = VELA_VOLUME_SETTINGS_PATH;
constexpr int kMaxSnapshotsPerSecond = 100;

constexpr char kUsage[] =
    "usage: vela-share COMMAND [ARGUMENT]...\n"
    "\n"
    "Volumes:\n"
    "  volume add PATH [--number N]  adopt the mounted btrfs file system holding PATH\n"
    "                              (whichever subvolume is mounted there) as volume N,\n"
    "                              the lowest free number by default: its top level is\n"
    "                              mounted at /volumeN, and again at every boot by\n"
    "                              \"volume restore\"; nothing in it is changed. Prints\n"
    "                              /volumeN\n"
    "  volume remove N             unmount adopted volume N and forget it (no data is\n"
    "                              touched)\n"
    "  volume restore              mount every adopted volume that is not mounted (run\n"
    "                              at boot by vela-volumes.service)\n"
    "  volumes                     list the volumes, one per line:\n"
    "                              NUMBER<TAB>PATH<TAB>STATE<TAB>DEVICE<TAB>UUID, STATE\n"
    "                              \"mounted\" (at /volumeN by other means), \"adopted\" or\n"
    "                              \"adopted-unmounted\"\n"
    "\n"
    "Shares and snapshots:\n"
    "  list                        list every share of every volume, one per line:\n"
    "                              NAME<TAB>VOLUME<TAB>PATH\n"
    "  create VOLUME NAME          create share NAME right under VOLUME (\"1\" or\n"
    "                              \"/volume1\") and print its path\n"
    "  snapshot SHARE              take a read-only snapshot of SHARE as\n"
    "                              /volumeN/@snapshots/SHARE/<local time now>[_N];\n"
    "                              print its name\n"
    "  snapshots SHARE             list SHARE's snapshots, oldest first, one per line:\n"
    "                              NAME<TAB>SECONDS<TAB>LOCAL TIME<TAB>TOOL<TAB>PATH\n"
    "  delete-snapshot SHARE NAME  delete snapshot NAME of SHARE (only those taken here)\n"
    "\n"
    "Space (from the space map of SHARE's last calculation):\n"
    "%s"
    "\n"
    "  help                        show this text\n"
    "\n"
    "Every subvolume that keeps data is a share, wherever it lies, named by its own\n"
    "name (NAME~vN-ID when another share of any volume has it too). Its snapshots are\n"
    "the subvolumes whose parent UUID is the share's, whichever tool made them\n"
    "(TOOL: snapper, timeshift, btrbk, vela-share, other). A snapshot is named by its\n"
    "creation time in UTC, GMT-2024.03.05-09.04.09, with _ID after it when an older\n"
    "snapshot of the share has the same second; SECONDS are since the epoch.\n"
    "\n"
    "Exit status: 0 done, 1 failed (the reason on standard error), 2 usage error.\n";

void PrintUsage(FILE* to) { fprintf(to, kUsage, vela::share_tool::kSpaceUsage); }

int Usage(const char* why) {
  if (why != nullptr) fprintf(stderr, "vela-share: %s\n", why);
  PrintUsage(stderr);
  return kExitUsage;
}

// The reason of a failed platform call that reported a system error.
std::string SystemReason() {
  const int code = VLIBCErrGet();
  char text[128];
  if (code == VLIB_ERR_SYSTEM) {
    snprintf(text, sizeof(text), "%s", strerror(errno));
  } else {
    snprintf(text, sizeof(text), "platform error 0x%04X", code);
  }
  return text;
}

// A volume number: "1" or "/volume1"; 0 when it is neither.
int ParseVolume(const std::string& arg) {
  std::string path = arg;
  if (!arg.empty() && arg[0] != '/') path = "/volume" + arg;
  VOLUME_PATH_INFO info;
  if (VolumePathParseEx(path.c_str(), &info) != 0 || path != info.szVolPath) return 0;
  return info.volume;
}

using SharePtr = std::unique_ptr<VELASHARE, decltype(&VELAShareFree)>;
using SnapshotsPtr = std::unique_ptr<VELASNAPINFO, decltype(&VELAShareSnapInfoFree)>;
using VolumesPtr = std::unique_ptr<VELAVOLUME, decltype(&VELAVolumeEnumFree)>;

// The share named `name`, or NULL after a message.
SharePtr FindShare(const char* name) {
  PVELASHARE share = nullptr;
  if (VELAShareGet(name, &share) == 0) return SharePtr(share, &VELAShareFree);
  if (VLIBCErrGet() == VLIB_ERR_NOT_FOUND) {
    fprintf(stderr, "vela-share: no share named \"%s\" on any mounted btrfs volume\n", name);
  } else if (VLIBCErrGet() == VLIB_ERR_BAD_PARAMETERS) {
    fprintf(stderr, "vela-share: \"%s\" is not a share name\n", name);
  } else {
    fprintf(stderr, "vela-share: cannot look up share \"%s\": %s\n", name, SystemReason().c_str());
  }
  return SharePtr(nullptr, &VELAShareFree);
}

// The share's snapshots; a negative count after a message.
int ListSnapshots(VELASHARE* share, SnapshotsPtr& snapshots) {
  PVELASNAPINFO raw = nullptr;
  const int count = VELAShareSnapInfoList(share, &raw);
  snapshots.reset(raw);
  if (count < 0) {
    fprintf(stderr, "vela-share: cannot list the snapshots of share \"%s\": %s\n", share->szName,
            SystemReason().c_str());
  }
  return count;
}

int List() {
  vela::platform::SzList names;
  if (!names.Ok() || VELAShareEnum(names.Address(), 0) < 0) {
    fprintf(stderr, "vela-share: cannot list shares: %s\n", SystemReason().c_str());
    return kExitFailed;
  }
  int status = kExitOk;
  for (int i = 0; i < names.Count(); ++i) {
    const SharePtr share = FindShare(names.At(i));
    if (share == nullptr) {
      status = kExitFailed;
      continue;
    }
    printf("%s\t%s\t%s\n", share->szName, share->szVolPath, share->szPath);
  }
  return status;
}

int Create(const std::string& volumeArg, const char* name) {
  const int volume = ParseVolume(volumeArg);
  if (volume == 0) {
    const std::string why = "VOLUME must be a volume number or /volumeN, not \"" + volumeArg + "\"";
    return Usage(why.c_str());
  }
  if (VELAShareCreate(volume, name) == 0) {
    printf("/volume%d/%s\n", volume, name);
    return kExitOk;
  }
  switch (VLIBCErrGet()) {
    case VLIB_ERR_NOT_FOUND:
      fprintf(stderr, "vela-share: no volume is mounted at /volume%d\n", volume);
      break;
    case VLIB_ERR_BAD_FS_TYPE:
      fprintf(stderr, "vela-share: /volume%d is not a btrfs volume; shares need btrfs\n", volume);
      break;
    case VLIB_ERR_BAD_PARAMETERS:
      fprintf(stderr, "vela-share: \"%s\" is not a share name: it must not be empty, contain \"/\", or begin with \".\"\n",
              name);
      break;
    case VLIB_ERR_EXISTS: {
      PVELASHARE existing = nullptr;
      if (VELAShareGet(name, &existing) == 0) {
        fprintf(stderr, "vela-share: share name \"%s\" is taken by %s\n", name, existing->szPath);
        VELAShareFree(existing);
      } else {
        fprintf(stderr, "vela-share: /volume%d/%s exists already\n", volume, name);
      }
      break;
    }
    default:
      fprintf(stderr, "vela-share: cannot create share \"%s\" on /volume%d: %s\n", name, volume,
              SystemReason().c_str());
  }
  return kExitFailed;
}

int Snapshot(const char* shareName) {
  char entry[64];
  if (VELAShareSnapNameMake(time(nullptr), TRUE, entry, sizeof(entry)) != 0 || entry[0] == '\0') {
    fprintf(stderr, "vela-share: cannot name a snapshot by the local time\n");
    return kExitFailed;
  }
  const SharePtr share = FindShare(shareName);
  if (share == nullptr) return kExitFailed;
  // A second snapshot in the same second gets "_2" after the time, and so on.
  const std::string time = entry;
  for (int n = 2; VELAShareSnapCreate(share.get(), entry) != 0; ++n) {
    if (VLIBCErrGet() != VLIB_ERR_EXISTS || n > kMaxSnapshotsPerSecond) {
      fprintf(stderr, "vela-share: cannot snapshot share \"%s\" as \"%s\": %s\n", shareName, entry,
              SystemReason().c_str());
      return kExitFailed;
    }
    snprintf(entry, sizeof(entry), "%s_%d", time.c_str(), n);
  }
  // Listings name it by its creation time, which is the one to use with
  // the other commands.
  SnapshotsPtr snapshots(nullptr, &VELAShareSnapInfoFree);
  const int count = ListSnapshots(share.get(), snapshots);
  const std::string suffix = std::string("/") + entry;
  for (int i = 0; i < count; ++i) {
    const std::string path = snapshots.get()[i].szPath;
    if (path.size() > suffix.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0 &&
        strcmp(snapshots.get()[i].szTool, "vela-share") == 0) {
      printf("%s\n", snapshots.get()[i].szName);
      return kExitOk;
    }
  }
  fprintf(stderr, "vela-share: the snapshot %s of share \"%s\" is not listed\n", entry, shareName);
  return kExitFailed;
}

int Snapshots(const char* shareName) {
  const SharePtr share = FindShare(shareName);
  if (share == nullptr) return kExitFailed;
  SnapshotsPtr snapshots(nullptr, &VELAShareSnapInfoFree);
  const int count = ListSnapshots(share.get(), snapshots);
  if (count < 0) return kExitFailed;
  tzset();
  for (int i = 0; i < count; ++i) {
    const VELASNAPINFO& snapshot = snapshots.get()[i];
    struct tm local;
    char text[64] = "";
    if (localtime_r(&snapshot.time, &local) != nullptr) strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S %z", &local);
    printf("%s\t%lld\t%s\t%s\t%s\n", snapshot.szName, static_cast<long long>(snapshot.time), text, snapshot.szTool,
           snapshot.szPath);
  }
  return kExitOk;
}

int DeleteSnapshot(const char* shareName, const char* snapName) {
  const SharePtr share = FindShare(shareName);
  if (share == nullptr) return kExitFailed;
  if (VELAShareSnapDelete(share.get(), snapName) == 0) return kExitOk;
  const int error = VLIBCErrGet();
  if (error == VLIB_ERR_BAD_PARAMETERS) {
    fprintf(stderr, "vela-share: \"%s\" is not a snapshot name\n", snapName);
    return kExitFailed;
  }
  if (error != VLIB_ERR_NOT_FOUND) {
    fprintf(stderr, "vela-share: cannot delete snapshot \"%s\" of share \"%s\": %s\n", snapName, shareName,
            SystemReason().c_str());
    return kExitFailed;
  }
  SnapshotsPtr snapshots(nullptr, &VELAShareSnapInfoFree);
  const int count = ListSnapshots(share.get(), snapshots);
  for (int i = 0; i < count; ++i) {
    if (strcmp(snapshots.get()[i].szName, snapName) == 0) {
      fprintf(stderr, "vela-share: snapshot \"%s\" of share \"%s\" was made by %s, not here; it is left alone\n",
              snapName, shareName, snapshots.get()[i].szTool);
      return kExitFailed;
    }
  }
  if (count >= 0) fprintf(stderr, "vela-share: share \"%s\" has no snapshot named \"%s\"\n", shareName, snapName);
  return kExitFailed;
}

// The volumes; a negative count after a message.
int ListVolumes(VolumesPtr& volumes) {
  PVELAVOLUME raw = nullptr;
  const int count = VELAVolumeEnum(&raw);
  volumes.reset(raw);
  if (count < 0 && VLIBCErrGet() == VLIB_ERR_BAD_PARAMETERS) {
    fprintf(stderr, "vela-share: %s is damaged: a line is not \"NUMBER UUID\" or names a volume twice\n",
            kVolumeSettings);
  } else if (count < 0) {
    fprintf(stderr, "vela-share: cannot list the volumes: %s\n", SystemReason().c_str());
  }
  return count;
}

int Volumes() {
  VolumesPtr volumes(nullptr, &VELAVolumeEnumFree);
  const int count = ListVolumes(volumes);
  if (count < 0) return kExitFailed;
  for (int i = 0; i < count; ++i) {
    const VELAVOLUME& v = volumes.get()[i];
    const char* state = !v.adopted ? "mounted" : v.mounted ? "adopted" : "adopted-unmounted";
    printf("%d\t%s\t%s\t%s\t%s\n", v.volume, v.szPath, state, v.szDevice, v.szUuid);
  }
  return kExitOk;
}

int VolumeAdd(const char* path, int number) {
  int volume = 0;
  if (VELAVolumeAdopt(path, number, &volume) == 0) {
    printf("/volume%d\n", volume);
    return kExitOk;
  }
  switch (VLIBCErrGet()) {
    case VLIB_ERR_NOT_FOUND:
      fprintf(stderr, "vela-share: %s does not exist\n", path);
      break;
    case VLIB_ERR_BAD_FS_TYPE:
      fprintf(stderr, "vela-share: %s is not on a btrfs file system\n", path);
      break;
    case VLIB_ERR_EXISTS:
      if (number > 0) {
        fprintf(stderr, "vela-share: the file system of %s is a volume already, or /volume%d is taken\n", path,
                number);
      } else {
        fprintf(stderr, "vela-share: the file system of %s is a volume already\n", path);
      }
      break;
    case VLIB_ERR_BAD_PARAMETERS:
      fprintf(stderr, "vela-share: %s is damaged; nothing was changed\n", kVolumeSettings);
      break;
    default:
      fprintf(stderr, "vela-share: cannot adopt the file system of %s: %s\n", path, SystemReason().c_str());
  }
  return kExitFailed;
}

int VolumeRemove(const std::string& arg) {
  const int volume = ParseVolume(arg);
  if (volume == 0) {
    const std::string why = "N must be a volume number or /volumeN, not \"" + arg + "\"";
    return Usage(why.c_str());
  }
  if (VELAVolumeRelease(volume) == 0) return kExitOk;
  switch (VLIBCErrGet()) {
    case VLIB_ERR_NOT_FOUND:
      fprintf(stderr, "vela-share: volume %d is not an adopted volume\n", volume);
      break;
    case VLIB_ERR_BUSY:
      fprintf(stderr, "vela-share: /volume%d is in use; nothing was changed\n", volume);
      break;
    default:
      fprintf(stderr, "vela-share: cannot remove volume %d: %s\n", volume, SystemReason().c_str());
  }
  return kExitFailed;
}

int VolumeRestore() {
  VolumesPtr volumes(nullptr, &VELAVolumeEnumFree);
  const int count = ListVolumes(volumes);
  if (count < 0) return kExitFailed;
  int status = kExitOk;
  for (int i = 0; i < count; ++i) {
    const VELAVOLUME& v = volumes.get()[i];
    if (!v.adopted || v.mounted) continue;
    if (VELAVolumeRestore(v.volume) == 0) {
      printf("%s\n", v.szPath);
      continue;
    }
    status = kExitFailed;
    if (VLIBCErrGet() == VLIB_ERR_NOT_FOUND) {
      fprintf(stderr, "vela-share: the file system %s of volume %d is not to be found\n", v.szUuid, v.volume);
    } else {
      fprintf(stderr, "vela-share: cannot mount volume %d (file system %s): %s\n", v.volume, v.szUuid,
              SystemReason().c_str());
    }
  }
  return status;
}

int Volume(const std::vector<std::string>& args, char** argv) {
  const size_t n = args.size();
  if (n >= 3 && args[1] == "add" && (n == 3 || (n == 5 && args[3] == "--number"))) {
    int number = 0;
    if (n == 5 && (number = ParseVolume(args[4])) == 0) {
      const std::string why = "--number needs a volume number, not \"" + args[4] + "\"";
      return Usage(why.c_str());
    }
    return VolumeAdd(argv[3], number);
  }
  if (n == 3 && args[1] == "remove") return VolumeRemove(args[2]);
  if (n == 2 && args[1] == "restore") return VolumeRestore();
  return Usage(n >= 2 ? "wrong arguments for volume" : "volume needs add, remove or restore");
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return Usage("a command is needed");
  const std::string& command = args[0];
  const size_t n = args.size() - 1;
  if (command == "help" || command == "--help" || command == "-h") {
    PrintUsage(stdout);
    return kExitOk;
  }
  if (command == "volume") return Volume(args, argv);
  if (command == "space") {
    std::string why;
    const int status = vela::share_tool::RunSpace(std::vector<std::string>(args.begin() + 1, args.end()), why);
    return why.empty() ? status : Usage(why.c_str());
  }
  if (command == "volumes" && n == 0) return Volumes();
  if (command == "list" && n == 0) return List();
  if (command == "create" && n == 2) return Create(args[1], argv[3]);
  if (command == "snapshot" && n == 1) return Snapshot(argv[2]);
  if (command == "snapshots" && n == 1) return Snapshots(argv[2]);
  if (command == "delete-snapshot" && n == 2) return DeleteSnapshot(argv[2], argv[3]);
  for (const char* known : {"volumes", "list", "create", "snapshot", "snapshots", "delete-snapshot"}) {
    if (command == known) {
      const std::string why = "wrong number of arguments for " + command;
      return Usage(why.c_str());
    }
  }
  const std::string why = "unknown command \"" + command + "\"";
  return Usage(why.c_str());
}
