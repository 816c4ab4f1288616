// vela-share: the administrator's tool for shares and their snapshots on
// plain Linux, where a volume is a btrfs file system mounted at /volumeN, a
// share a subvolume right under it, and its snapshots read-only snapshots
// in /volumeN/@snapshots/SHARE named by the time they were taken.
//
// Output is one line per item, columns separated by one tab, no header, so
// that scripts can read it; messages go to standard error.
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "vela/sz_list.h"
#include "vela/vela_share.h"
#include "vela/vela_volume.h"
#include "vela/vlib_error.h"
#include "vela/vlib_szlist.h"
#include "velabtrfssnapusage/time_string.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr char kUsage[] =
    "usage: vela-share COMMAND [ARGUMENT]...\n"
    "\n"
    "Commands:\n"
    "  list                        list every share of every mounted btrfs volume,\n"
    "                              one per line: NAME<TAB>VOLUME<TAB>PATH, as in\n"
    "                              docs<TAB>/volume1<TAB>/volume1/docs\n"
    "  create VOLUME NAME          create share NAME on VOLUME (\"1\" or \"/volume1\")\n"
    "                              and print its path\n"
    "  snapshot SHARE [NAME]       take a read-only snapshot of SHARE named NAME, or\n"
    "                              by the local time now; print its name\n"
    "  snapshots SHARE             list SHARE's snapshots, oldest first, one per line:\n"
    "                              NAME<TAB>SECONDS<TAB>LOCAL TIME (seconds since the\n"
    "                              epoch, UTC; local time as 2024-03-05 17:04:09 +0800)\n"
    "  delete-snapshot SHARE NAME  delete snapshot NAME of SHARE\n"
    "  help                        show this text\n"
    "\n"
    "A volume is a btrfs file system mounted at /volumeN. A share is a subvolume\n"
    "right under it whose name does not begin with \".\" or \"@\"; share names are\n"
    "unique across volumes. Snapshots live in /volumeN/@snapshots/SHARE and are\n"
    "named by their time: GMT+08-2024.03.05-17.04.09 is local time at UTC+08:00\n"
    "(minutes only when not zero: GMT+0530-..., GMT-0330-...), and\n"
    "GMT-2024.03.05-09.04.09 is UTC.\n"
    "\n"
    "Exit status: 0 done, 1 failed (the reason on standard error), 2 usage error.\n";

int Usage(const char* why) {
  if (why != nullptr) fprintf(stderr, "vela-share: %s\n", why);
  fputs(kUsage, stderr);
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

// "1" or "/volume1"; 0 when it is neither.
int ParseVolume(const std::string& arg) {
  std::string path = arg;
  if (!arg.empty() && arg[0] != '/') path = "/volume" + arg;
  VOLUME_PATH_INFO info;
  if (VolumePathParseEx(path.c_str(), &info) != 0 || path != info.szVolPath) return 0;
  return info.volume;
}

// The share named `name`, or NULL after a message.
PVELASHARE FindShare(const char* name) {
  PVELASHARE share = nullptr;
  if (VELAShareGet(name, &share) == 0) return share;
  if (VLIBCErrGet() == VLIB_ERR_NOT_FOUND) {
    fprintf(stderr, "vela-share: no share named \"%s\" on any mounted btrfs volume\n", name);
  } else if (VLIBCErrGet() == VLIB_ERR_BAD_PARAMETERS) {
    fprintf(stderr, "vela-share: \"%s\" is not a share name\n", name);
  } else {
    fprintf(stderr, "vela-share: cannot look up share \"%s\": %s\n", name, SystemReason().c_str());
  }
  return nullptr;
}

int List() {
  vela::platform::SzList names;
  if (!names.Ok() || VELAShareEnum(names.Address(), 0) < 0) {
    fprintf(stderr, "vela-share: cannot list shares: %s\n", SystemReason().c_str());
    return kExitFailed;
  }
  int status = kExitOk;
  // Enumeration gives names by volume; each lookup finds the volume again.
  // A name on two volumes (made by hand) is one share to the module: the
  // one on the lowest volume. It is listed once, with a warning.
  std::set<std::string> listed;
  for (int i = 0; i < names.Count(); ++i) {
    if (!listed.insert(names.At(i)).second) {
      fprintf(stderr, "vela-share: warning: share name \"%s\" is on more than one volume; the one on the lowest volume is used\n",
              names.At(i));
      continue;
    }
    PVELASHARE share = FindShare(names.At(i));
    if (share == nullptr) {
      status = kExitFailed;
      continue;
    }
    printf("%s\t%s\t%s\n", share->szName, share->szVolPath, share->szPath);
    VELAShareFree(share);
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
      fprintf(stderr,
              "vela-share: \"%s\" is not a share name: it must not be empty, contain \"/\", or begin with "
              "\".\" or \"@\"\n",
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

int Snapshot(const char* shareName, const char* snapName) {
  char now[64];
  if (snapName == nullptr) {
    if (VelaBtrfsUsage::Utils::SnapNameGenerateByTime(now, sizeof(now), time(nullptr), TRUE) != 0 ||
        now[0] == '\0') {
      fprintf(stderr, "vela-share: cannot name a snapshot by the local time\n");
      return kExitFailed;
    }
    snapName = now;
  }
  time_t when;
  if (VELAShareSnapTimeGet(snapName, &when) != 0) {
    fprintf(stderr,
            "vela-share: \"%s\" is not a snapshot name (like GMT+08-2024.03.05-17.04.09 or "
            "GMT-2024.03.05-09.04.09)\n",
            snapName);
    return kExitFailed;
  }
  PVELASHARE share = FindShare(shareName);
  if (share == nullptr) return kExitFailed;
  int status = kExitOk;
  if (VELAShareSnapCreate(share, snapName) == 0) {
    printf("%s\n", snapName);
  } else if (VLIBCErrGet() == VLIB_ERR_EXISTS) {
    fprintf(stderr, "vela-share: share \"%s\" has a snapshot named \"%s\" already\n", shareName, snapName);
    status = kExitFailed;
  } else {
    fprintf(stderr, "vela-share: cannot snapshot share \"%s\" as \"%s\": %s\n", shareName, snapName,
            SystemReason().c_str());
    status = kExitFailed;
  }
  VELAShareFree(share);
  return status;
}

int Snapshots(const char* shareName) {
  PVELASHARE share = FindShare(shareName);
  if (share == nullptr) return kExitFailed;
  vela::platform::SzList names;
  int status = kExitOk;
  if (!names.Ok() || VELAShareSnapList(share, names.Address(), nullptr) < 0) {
    fprintf(stderr, "vela-share: cannot list the snapshots of share \"%s\": %s\n", shareName,
            SystemReason().c_str());
    status = kExitFailed;
  } else {
    tzset();
    for (int i = 0; i < names.Count(); ++i) {
      time_t when = 0;
      VELAShareSnapTimeGet(names.At(i), &when);  // listed names always parse
      struct tm local;
      char text[64] = "";
      if (localtime_r(&when, &local) != nullptr) strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S %z", &local);
      printf("%s\t%lld\t%s\n", names.At(i), static_cast<long long>(when), text);
    }
  }
  VELAShareFree(share);
  return status;
}

int DeleteSnapshot(const char* shareName, const char* snapName) {
  PVELASHARE share = FindShare(shareName);
  if (share == nullptr) return kExitFailed;
  int status = kExitFailed;
  if (VELAShareSnapDelete(share, snapName) == 0) {
    status = kExitOk;
  } else if (VLIBCErrGet() == VLIB_ERR_NOT_FOUND) {
    fprintf(stderr, "vela-share: share \"%s\" has no snapshot named \"%s\"\n", shareName, snapName);
  } else if (VLIBCErrGet() == VLIB_ERR_BAD_PARAMETERS) {
    fprintf(stderr, "vela-share: \"%s\" is not a snapshot name\n", snapName);
  } else {
    fprintf(stderr, "vela-share: cannot delete snapshot \"%s\" of share \"%s\": %s\n", snapName, shareName,
            SystemReason().c_str());
  }
  VELAShareFree(share);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return Usage("a command is needed");
  const std::string& command = args[0];
  const size_t n = args.size() - 1;
  if (command == "help" || command == "--help" || command == "-h") {
    fputs(kUsage, stdout);
    return kExitOk;
  }
  if (command == "list" && n == 0) return List();
  if (command == "create" && n == 2) return Create(args[1], argv[3]);
  if (command == "snapshot" && (n == 1 || n == 2)) return Snapshot(argv[2], n == 2 ? argv[3] : nullptr);
  if (command == "snapshots" && n == 1) return Snapshots(argv[2]);
  if (command == "delete-snapshot" && n == 2) return DeleteSnapshot(argv[2], argv[3]);
  for (const char* known : {"list", "create", "snapshot", "snapshots", "delete-snapshot"}) {
    if (command == known) {
      const std::string why = "wrong number of arguments for " + command;
      return Usage(why.c_str());
    }
  }
  const std::string why = "unknown command \"" + command + "\"";
  return Usage(why.c_str());
}
