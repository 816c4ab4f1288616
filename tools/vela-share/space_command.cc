#include "space_command.h"

#include <cstdint>
#include <cstdio>
#include <map>

#include "base/json_text.h"
#include "base/numbers.h"
#include "byte_units.h"
#include "space_call.h"

namespace vela::share_tool {

const char kSpaceUsage[] =
    "  space SHARE [--bytes|--json]\n"
    "                              the snapshots of SHARE's last calculation, oldest\n"
    "                              first: ALONE (freed if only it is deleted), ADDED\n"
    "                              (what it holds that the one before it does not),\n"
    "                              ACCUM (freed by deleting it and every older one)\n"
    "                              and where it lies; in powers of 1024, exact bytes\n"
    "                              with --bytes, the answer as JSON with --json\n"
    "  space SHARE --if-deleted SNAPSHOT...\n"
    "                              what deleting those snapshots (names or subvolume\n"
    "                              IDs, any of the calculation's) frees, and the 20\n"
    "                              largest files freed\n"
    "  space SHARE --plan SIZE [--keep-newest K]\n"
    "                              which snapshots to delete to free SIZE (\"50G\",\n"
    "                              \"1.5TiB\", bytes), keeping the newest K: the oldest\n"
    "                              first, and the fewest snapshots\n";

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct Options {
  std::string share;
  bool bytes = false;
  bool json = false;
  bool ifDeleted = false;
  std::vector<std::string> snapshots;
  bool plan = false;
  uint64_t size = 0;
  uint64_t keepNewest = 0;
};

// False with `why` for arguments that are wrong.
bool ParseOptions(const std::vector<std::string>& args, Options& options, std::string& why) {
  if (args.empty() || args[0].empty() || args[0][0] == '-') {
    why = "space needs a share name first";
    return false;
  }
  options.share = args[0];
  bool keepNewest = false;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    const bool hasValue = i + 1 < args.size();
    if (arg == "--bytes") {
      options.bytes = true;
    } else if (arg == "--json") {
      options.json = true;
    } else if (arg == "--if-deleted") {
      options.ifDeleted = true;
      while (i + 1 < args.size() && args[i + 1].rfind("--", 0) != 0) options.snapshots.push_back(args[++i]);
      if (options.snapshots.empty()) {
        why = "--if-deleted needs at least one snapshot";
        return false;
      }
    } else if (arg == "--plan" && hasValue && ParseSize(args[i + 1], options.size)) {
      options.plan = true;
      ++i;
    } else if (arg == "--keep-newest" && hasValue &&
               vela::base::ParseCanonicalDecimal(args[i + 1], options.keepNewest)) {
      keepNewest = true;
      ++i;
    } else if (arg == "--plan" || arg == "--keep-newest") {
      why = arg + (arg == "--plan" ? " needs a size such as 50G, 1.5TiB or a number of bytes"
                                   : " needs a number of snapshots");
      return false;
    } else {
      why = "unknown argument \"" + arg + "\" for space";
      return false;
    }
  }
  if (options.bytes && options.json) {
    why = "--bytes and --json do not go together";
  } else if (options.ifDeleted && options.plan) {
    why = "--if-deleted and --plan do not go together";
  } else if (keepNewest && !options.plan) {
    why = "--keep-newest goes with --plan";
  }
  return why.empty();
}

// One call, with a message when it fails; the answer's data.
bool Call(const Options& options, const std::string& method, const Json::Value& params, Json::Value& data) {
  const SpaceAnswer answer = CallSpace(method, params);
  if (!answer.called) return false;
  if (answer.success) {
    data = answer.data;
    return true;
  }
  const char* share = options.share.c_str();
  switch (answer.errorCode) {
    case 8:
      fprintf(stderr,
              "vela-share: share \"%s\" has no finished calculation with a space map; start one with "
              "velawebapi-call VELA.Snap.Usage.Share 1 start\n",
              share);
      break;
    case 3:
      fprintf(stderr, "vela-share: the space module refused the question about share \"%s\" (%s)\n", share,
              method == "get" ? "not a share name" : "a snapshot not of the calculation, or a bad number");
      break;
    case 1:
      fprintf(stderr, "vela-share: the calculation of share \"%s\" cannot be read; the system log says why\n", share);
      break;
    default:
      fprintf(stderr, "vela-share: the space module answered %s of share \"%s\" with error %d\n", method.c_str(), share,
              answer.errorCode);
  }
  return false;
}

std::string Bytes(const Options& options, const Json::Value& value) {
  const uint64_t bytes = value.isUInt64() ? value.asUInt64() : 0;
  return options.bytes ? std::to_string(bytes) : HumanBytes(bytes);
}

// The calculation's state when it is not done, on standard error.
int NotDone(const Options& options, const Json::Value& data) {
  const std::string state = data["status"].asString();
  if (state == "process" || state == "ready") {
    const uint64_t processed = data["processed_in_bytes"].isUInt64() ? data["processed_in_bytes"].asUInt64() : 0;
    const uint64_t estimated = data["estimated_in_bytes"].isUInt64() ? data["estimated_in_bytes"].asUInt64() : 0;
    fprintf(stderr, "vela-share: the calculation of share \"%s\" is still running (%llu%% read)\n",
            options.share.c_str(),
            estimated > 0 ? static_cast<unsigned long long>(processed * 100.0 / estimated) : 0ULL);
  } else {
    fprintf(stderr, "vela-share: the last calculation of share \"%s\" ended \"%s\": %s\n", options.share.c_str(),
            state.c_str(), data["reason"].asString().c_str());
  }
  return kExitFailed;
}

void PrintTable(const Options& options, const Json::Value& rows) {
  std::vector<std::vector<std::string>> lines = {{"SNAPSHOT", "ALONE", "ADDED", "ACCUM", "PATH"}};
  for (const Json::Value& row : rows) {
    lines.push_back({row["time"].asString(), Bytes(options, row["alone_bytes"]), Bytes(options, row["added_bytes"]),
                     Bytes(options, row["accum_bytes"]),
                     row["exists"].asBool() ? row["path"].asString() : "(deleted since the calculation)"});
  }
  size_t width[4] = {0, 0, 0, 0};
  for (const auto& line : lines) {
    for (size_t c = 0; c < 4; ++c) width[c] = std::max(width[c], line[c].size());
  }
  for (const auto& line : lines) {
    printf("%-*s  %*s  %*s  %*s  %s\n", static_cast<int>(width[0]), line[0].c_str(), static_cast<int>(width[1]),
           line[1].c_str(), static_cast<int>(width[2]), line[2].c_str(), static_cast<int>(width[3]), line[3].c_str(),
           line[4].c_str());
  }
}

// The calculation's snapshots by subvolume ID, from "get".
std::map<uint64_t, Json::Value> RowsById(const Json::Value& rows) {
  std::map<uint64_t, Json::Value> byId;
  for (const Json::Value& row : rows) byId[row["subvol_id"].asUInt64()] = row;
  return byId;
}

std::string Names(const Json::Value& ids, const std::map<uint64_t, Json::Value>& rows) {
  std::string names;
  for (const Json::Value& id : ids) {
    const auto row = rows.find(id.asUInt64());
    names += (names.empty() ? "" : ", ") + (row != rows.end() ? row->second["time"].asString() : id.asString());
  }
  return names.empty() ? "nothing" : names;
}

int IfDeleted(const Options& options, const Json::Value& rows) {
  Json::Value ids(Json::arrayValue);
  for (const std::string& wanted : options.snapshots) {
    bool found = false;
    for (const Json::Value& row : rows) {
      if (row["time"].asString() == wanted || row["subvol_id"].asString() == wanted) {
        ids.append(row["subvol_id"]);
        found = true;
        break;
      }
    }
    if (!found) {
      fprintf(stderr, "vela-share: \"%s\" is none of the snapshots of share \"%s\"'s last calculation (vela-share space %s lists them)\n",
              wanted.c_str(), options.share.c_str(), options.share.c_str());
      return kExitFailed;
    }
  }
  Json::Value params;
  params["share_name"] = options.share;
  params["subvol_ids"] = ids;
  Json::Value freed;
  if (!Call(options, "freed", params, freed)) return kExitFailed;
  if (options.json) {
    printf("%s\n", vela::base::CompactJson(freed).c_str());
    return kExitOk;
  }
  const std::map<uint64_t, Json::Value> byId = RowsById(rows);
  printf("Deleting %s frees %s: %s of data, %s of metadata.\n", Names(ids, byId).c_str(),
         Bytes(options, freed["freed_bytes"]).c_str(), Bytes(options, freed["data_bytes"]).c_str(),
         Bytes(options, freed["metadata_bytes"]).c_str());
  if (freed["files"].empty()) return kExitOk;
  printf("Largest files freed%s:\n", freed["files_complete"].asBool() ? "" : " (the map keeps only the largest)");
  for (const Json::Value& file : freed["files"]) {
    const auto row = byId.find(file["subvol_id"].asUInt64());
    const bool there = row != byId.end() && row->second["exists"].asBool();
    const std::string where =
        there ? row->second["path"].asString() : "(" + file["time"].asString() + ", deleted since the calculation)";
    printf("%12s  %s/%s\n", Bytes(options, file["bytes"]).c_str(), where.c_str(), file["path"].asString().c_str());
  }
  return kExitOk;
}

void PrintProposal(const Options& options, const char* label, const Json::Value& proposal,
                   const std::map<uint64_t, Json::Value>& rows) {
  const Json::Value& ids = proposal["subvol_ids"];
  const char* snapshots = ids.size() == 1 ? "snapshot" : "snapshots";
  const std::string freed = Bytes(options, proposal["freed_bytes"]);
  const char* proven = proposal["exact"].asBool() ? "" : " (the fewest found, not proven)";
  if (proposal["reached"].asBool()) {
    printf("  %-17s delete %u %s, frees %s%s: %s\n", label, ids.size(), snapshots, freed.c_str(), proven,
           Names(ids, rows).c_str());
  } else {
    printf("  %-17s not reachable; at most %s, by deleting %u %s%s: %s\n", label, freed.c_str(), ids.size(),
           snapshots, proven, Names(ids, rows).c_str());
  }
}

int Plan(const Options& options, const Json::Value& rows) {
  Json::Value params;
  params["share_name"] = options.share;
  params["bytes"] = static_cast<Json::UInt64>(options.size);
  params["keep_newest"] = static_cast<Json::UInt64>(options.keepNewest);
  Json::Value plan;
  if (!Call(options, "plan", params, plan)) return kExitFailed;
  if (options.json) {
    printf("%s\n", vela::base::CompactJson(plan).c_str());
    return kExitOk;
  }
  const std::map<uint64_t, Json::Value> byId = RowsById(rows);
  printf("To free %s of share %s, keeping the newest %llu:\n", Bytes(options, plan["bytes"]).c_str(),
         options.share.c_str(), static_cast<unsigned long long>(options.keepNewest));
  PrintProposal(options, "oldest first:", plan["oldest_first"], byId);
  PrintProposal(options, "fewest snapshots:", plan["fewest_snapshots"], byId);
  return kExitOk;
}

}  // namespace

int RunSpace(const std::vector<std::string>& args, std::string& usageError) {
  Options options;
  if (!ParseOptions(args, options, usageError)) return kExitUsage;
  Json::Value params;
  params["share_name"] = options.share;
  Json::Value calculation;
  if (!Call(options, "get", params, calculation)) return kExitFailed;
  const bool questions = options.ifDeleted || options.plan;
  if (options.json && !questions) {
    printf("%s\n", vela::base::CompactJson(calculation).c_str());
    return kExitOk;
  }
  if (calculation["status"].asString() != "done") return NotDone(options, calculation);
  const Json::Value& rows = calculation["snap_list"];
  if (options.ifDeleted) return IfDeleted(options, rows);
  if (options.plan) return Plan(options, rows);
  PrintTable(options, rows);
  return kExitOk;
}

}  // namespace vela::share_tool
