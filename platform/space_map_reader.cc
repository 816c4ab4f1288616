// Reading a space map: the file is read whole into memory and opened there
// read-only, so no lock, journal or other file of SQLite's is ever looked
// for beside it; its schema must be exactly the format's, so a crafted file
// cannot run views or triggers of its own. Signatures are loaded and
// checked at once; file rows are read as questions need them.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "base/fd_io.h"
#include "base/unique_fd.h"
#include "space_map_format.h"
#include "space_map_queries.h"
#include "sqlite_db.h"
#include "vela/space_map.h"

namespace vela::space_map {

namespace {

using platform::SqliteDb;
using platform::SqliteStatement;
namespace format = platform::space_map_format;
namespace queries = platform::space_map_queries;

// A space map of a million files is some tens of MiB; a file far larger is
// no map of ours.
constexpr uint64_t kMaxMapBytes = uint64_t{1} << 30;

}  // namespace

struct SpaceMap::State {
  std::string path;
  SqliteDb db;
  std::vector<uint64_t> rootIds;
  std::unordered_map<uint64_t, uint32_t> positionOf;
  uint64_t generation = 0;
  bool filesComplete = false;
  std::vector<Signature> signatures;
};

namespace {

Status Corrupt(const std::string& path, const std::string& why, std::string* error) {
  *error = "the space map " + path + " is corrupt: " + why;
  return Status::kCorrupt;
}

// One number from a one-row, one-column query.
bool QueryNumber(SqliteDb& db, const char* sql, uint64_t* value) {
  SqliteStatement statement;
  std::string ignored;  // the caller says what went wrong
  if (!db.Prepare(sql, &statement, &ignored) || statement.Step() != SQLITE_ROW || !statement.IsInteger(0)) return false;
  *value = statement.ColumnU64(0);
  return true;
}

// The tables are exactly the format's: no other table, view, trigger or
// index (SQLite's own indexes of primary keys have no SQL).
bool SchemaIsTheFormats(SqliteDb& db) {
  SqliteStatement statement;
  std::string ignored;
  if (!db.Prepare("SELECT type, name, sql FROM sqlite_schema", &statement, &ignored)) return false;
  size_t tables = 0;
  int step;
  while ((step = statement.Step()) == SQLITE_ROW) {
    const std::string type = statement.ColumnText(0);
    const std::string name = statement.ColumnText(1);
    if (type == "index" && !statement.IsText(2) && name.rfind("sqlite_autoindex_", 0) == 0) continue;
    size_t i = 0;
    while (i < format::kSchemaSize && name != format::kTables[i]) ++i;
    if (type != "table" || i == format::kSchemaSize || statement.ColumnText(2) != format::kSchema[i]) return false;
    ++tables;
  }
  return step == SQLITE_DONE && tables == format::kSchemaSize;
}

Status LoadTables(SpaceMap::State& state, const std::string& path, std::string* error) {
  SqliteDb& db = state.db;
  uint64_t complete = 0;
  SqliteStatement meta;
  std::string problem;
  if (!db.Prepare("SELECT key, value FROM meta", &meta, &problem)) return Corrupt(path, problem, error);
  int step;
  bool haveGeneration = false, haveComplete = false;
  while ((step = meta.Step()) == SQLITE_ROW) {
    const std::string key = meta.ColumnText(0);
    if (!meta.IsInteger(1)) return Corrupt(path, "meta value of " + key + " is not a number", error);
    if (key == "generation") {
      state.generation = meta.ColumnU64(1);
      haveGeneration = true;
    } else if (key == "files_complete") {
      complete = meta.ColumnU64(1);
      haveComplete = true;
    }
  }
  if (step != SQLITE_DONE || !haveGeneration || !haveComplete || complete > 1) {
    return Corrupt(path, "its meta table lacks the generation or the completeness of its file lists", error);
  }
  state.filesComplete = complete == 1;

  SqliteStatement subvolumes;
  if (!db.Prepare("SELECT position, root_id FROM subvolume ORDER BY position", &subvolumes, &problem)) {
    return Corrupt(path, problem, error);
  }
  while ((step = subvolumes.Step()) == SQLITE_ROW) {
    const uint64_t rootId = subvolumes.ColumnU64(1);
    if (subvolumes.ColumnU64(0) != state.rootIds.size() || !subvolumes.IsInteger(1) ||
        !state.positionOf.emplace(rootId, static_cast<uint32_t>(state.rootIds.size())).second) {
      return Corrupt(path, "subvolume " + std::to_string(rootId) + " is out of place or there twice", error);
    }
    state.rootIds.push_back(rootId);
  }
  if (step != SQLITE_DONE || state.rootIds.empty() || state.rootIds.size() > UINT32_MAX) {
    return Corrupt(path, "its list of subvolumes is empty or unreadable", error);
  }

  SqliteStatement signatures;
  if (!db.Prepare("SELECT id, members, outside, data_bytes, metadata_bytes FROM signature ORDER BY id", &signatures,
                  &problem)) {
    return Corrupt(path, problem, error);
  }
  uint64_t total = 0;
  while ((step = signatures.Step()) == SQLITE_ROW) {
    Signature signature;
    const uint64_t id = signatures.ColumnU64(0);
    const uint64_t outside = signatures.ColumnU64(2);
    signature.dataBytes = signatures.ColumnU64(3);
    signature.metadataBytes = signatures.ColumnU64(4);
    const uint64_t bytes = signature.dataBytes + signature.metadataBytes;
    // Sums of any set of signatures must not overflow: the sum of all.
    const bool numbers = signatures.IsText(1) && signatures.IsInteger(2) && signatures.IsInteger(3) &&
                         signatures.IsInteger(4) && outside <= 1 && bytes >= signature.dataBytes &&
                         total + bytes >= total;
    if (id != state.signatures.size() || !numbers ||
        !format::ParseMembers(signatures.ColumnText(1), static_cast<uint32_t>(state.rootIds.size()),
                              &signature.runs)) {
      return Corrupt(path, "signature " + std::to_string(id) + " is out of place or malformed", error);
    }
    total += bytes;
    signature.outside = outside == 1;
    state.signatures.push_back(std::move(signature));
  }
  if (step != SQLITE_DONE || state.signatures.size() > UINT32_MAX) return Corrupt(path, "its signatures cannot be read", error);
  return Status::kOk;
}

}  // namespace

SpaceMap::SpaceMap(std::unique_ptr<State> state) : state_(std::move(state)) {}
SpaceMap::~SpaceMap() = default;

Status SpaceMap::Open(const std::string& path, std::unique_ptr<SpaceMap>* map, std::string* error) {
  base::UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.Valid()) {
    const int saved = errno;
    *error = "cannot open the space map " + path + ": " + strerror(saved);
    return saved == ENOENT ? Status::kMissing : Status::kUnreadable;
  }
  struct stat st;
  if (fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    *error = "the space map " + path + " is not a regular file";
    return Status::kUnreadable;
  }
  if (static_cast<uint64_t>(st.st_size) > kMaxMapBytes) {
    return Corrupt(path, std::to_string(st.st_size) + " bytes are more than a space map holds", error);
  }
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  auto* image = static_cast<unsigned char*>(sqlite3_malloc64(size == 0 ? 1 : size));
  if (image == nullptr) {
    *error = "no memory for the space map " + path;
    return Status::kUnreadable;
  }
  bool failed = false;
  const size_t read = base::ReadAll(fd.Get(), image, size, failed);
  if (failed || read != size) {
    const int saved = errno;
    sqlite3_free(image);
    *error = "cannot read the space map " + path + ": " + (failed ? strerror(saved) : "it changed while it was read");
    return Status::kUnreadable;
  }

  auto state = std::make_unique<State>();
  state->path = path;
  std::string problem;
  if (!state->db.OpenInMemory(&problem)) {
    sqlite3_free(image);
    *error = "cannot read the space map " + path + ": " + problem;
    return Status::kUnreadable;
  }
  if (!state->db.LoadImage(image, size, &problem)) return Corrupt(path, problem, error);
  uint64_t application = 0, version = 0;
  if (!QueryNumber(state->db, "PRAGMA application_id", &application) ||
      static_cast<int32_t>(application) != format::kApplicationId) {
    return Corrupt(path, "it is no space map", error);
  }
  if (!QueryNumber(state->db, "PRAGMA user_version", &version) || version != kSpaceMapFormatVersion) {
    *error = "the space map " + path + " has format version " + std::to_string(static_cast<int64_t>(version)) +
             ", this program reads version " + std::to_string(kSpaceMapFormatVersion);
    return Status::kWrongVersion;
  }
  if (!SchemaIsTheFormats(state->db)) return Corrupt(path, "its tables are not those of the format", error);
  const Status loaded = LoadTables(*state, path, error);
  if (loaded != Status::kOk) return loaded;
  map->reset(new SpaceMap(std::move(state)));
  return Status::kOk;
}

const std::vector<uint64_t>& SpaceMap::RootIds() const { return state_->rootIds; }
uint64_t SpaceMap::Generation() const { return state_->generation; }
bool SpaceMap::FilesComplete() const { return state_->filesComplete; }

std::vector<SnapshotBytes> SpaceMap::Snapshots() const {
  std::vector<SnapshotBytes> rows =
      queries::SnapshotRows(state_->signatures, static_cast<uint32_t>(state_->rootIds.size()));
  for (size_t i = 0; i < rows.size(); ++i) rows[i].rootId = state_->rootIds[i];
  return rows;
}

Status SpaceMap::FreedBy(const std::vector<uint64_t>& rootIds, size_t maxFiles, Freed* freed, std::string* error) const {
  std::vector<bool> deleted(state_->rootIds.size(), false);
  for (uint64_t rootId : rootIds) {
    const auto found = state_->positionOf.find(rootId);
    if (found == state_->positionOf.end()) {
      *error = "subvolume " + std::to_string(rootId) + " is not one of the space map's";
      return Status::kUnknownSubvolume;
    }
    deleted[found->second] = true;
  }
  *freed = Freed();
  freed->filesComplete = state_->filesComplete;
  const std::vector<uint32_t> ids = queries::FreedSignatures(state_->signatures, deleted);
  for (uint32_t id : ids) {
    freed->dataBytes += state_->signatures[id].dataBytes;
    freed->metadataBytes += state_->signatures[id].metadataBytes;
  }
  freed->freedBytes = freed->dataBytes + freed->metadataBytes;
  if (maxFiles == 0) return Status::kOk;

  // Per file: its bytes in the freed signatures, and the newest position
  // that references them, where its path is taken.
  struct Share {
    uint64_t bytes = 0;
    uint32_t position = 0;
  };
  std::unordered_map<uint32_t, Share> files;
  SqliteStatement rows;
  std::string problem;
  if (!state_->db.Prepare("SELECT file, position, bytes FROM file_bytes WHERE signature = ?", &rows, &problem)) {
    return Corrupt(state_->path, problem, error);
  }
  for (uint32_t id : ids) {
    if (state_->signatures[id].dataBytes == 0) continue;  // tree blocks only: no file behind them
    rows.BindU64(1, id);
    int step;
    while ((step = rows.Step()) == SQLITE_ROW) {
      const uint64_t file = rows.ColumnU64(0);
      const uint64_t position = rows.ColumnU64(1);
      const uint64_t bytes = rows.ColumnU64(2);
      // A row's position is one that references its signature's extents,
      // so one of those deleted.
      if (file > UINT32_MAX || position >= deleted.size() || !deleted[position]) {
        return Corrupt(state_->path, "file row " + std::to_string(file) + " of signature " + std::to_string(id) + " names a position outside it", error);
      }
      Share& share = files[static_cast<uint32_t>(file)];
      if (share.bytes + bytes < bytes) return Corrupt(state_->path, "the bytes of file " + std::to_string(file) + " overflow", error);
      share.bytes += bytes;
      share.position = std::max(share.position, static_cast<uint32_t>(position));
    }
    if (step != SQLITE_DONE) return Corrupt(state_->path, "the file rows cannot be read: " + state_->db.LastError(), error);
    rows.Reset();
  }
  std::vector<std::pair<uint32_t, Share>> largest(files.begin(), files.end());
  const size_t kept = std::min(maxFiles, largest.size());
  std::partial_sort(largest.begin(), largest.begin() + static_cast<std::ptrdiff_t>(kept), largest.end(),
                    [](const auto& a, const auto& b) {
                      return a.second.bytes != b.second.bytes ? a.second.bytes > b.second.bytes : a.first < b.first;
                    });
  SqliteStatement paths;
  if (!state_->db.Prepare("SELECT path FROM file_path WHERE file = ? AND position = ?", &paths, &problem)) {
    return Corrupt(state_->path, problem, error);
  }
  for (size_t i = 0; i < kept; ++i) {
    paths.BindU64(1, largest[i].first);
    paths.BindU64(2, largest[i].second.position);
    if (paths.Step() != SQLITE_ROW || !paths.IsText(0)) {
      return Corrupt(state_->path, "file " + std::to_string(largest[i].first) + " has no path", error);
    }
    freed->files.push_back(
        FileShare{paths.ColumnText(0), state_->rootIds[largest[i].second.position], largest[i].second.bytes});
    paths.Reset();
  }
  return Status::kOk;
}

Plan SpaceMap::PlanFor(uint64_t bytes, uint64_t keepNewest) const {
  const uint32_t positions = static_cast<uint32_t>(state_->rootIds.size());
  const auto toProposal = [&](const queries::PositionProposal& found) {
    Proposal proposal;
    for (uint32_t position : found.positions) proposal.rootIds.push_back(state_->rootIds[position]);
    proposal.freedBytes = found.freedBytes;
    proposal.reached = found.reached;
    proposal.exact = found.exact;
    return proposal;
  };
  Plan plan;
  plan.oldestFirst = toProposal(queries::OldestFirst(state_->signatures, positions, bytes, keepNewest));
  plan.fewestSnapshots = toProposal(queries::FewestSnapshots(state_->signatures, positions, bytes, keepNewest));
  return plan;
}

}  // namespace vela::space_map
