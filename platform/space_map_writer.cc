// Writing a space map: built in memory as an SQLite database, then written
// whole through a temporary file beside the target and renamed over it.
#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "base/atomic_file.h"
#include "base/fd_io.h"
#include "base/unique_fd.h"
#include "space_map_format.h"
#include "sqlite_db.h"
#include "vela/space_map.h"

namespace vela::space_map {

namespace {

using platform::SqliteDb;
using platform::SqliteStatement;
namespace format = platform::space_map_format;

// Rows that refer to what the content does not hold would make a map the
// reader refuses: better refused here, before anything is written.
bool Consistent(const Content& content, std::string* error) {
  const uint64_t positions = content.rootIds.size();
  if (positions == 0 || positions > UINT32_MAX) {
    *error = "a space map needs from 1 to 4294967295 subvolumes, not " + std::to_string(positions);
    return false;
  }
  uint64_t total = 0;
  for (size_t i = 0; i < content.signatures.size(); ++i) {
    const Signature& signature = content.signatures[i];
    std::vector<Run> parsed;
    const uint64_t bytes = signature.dataBytes + signature.metadataBytes;
    if (signature.runs.empty() ||
        !format::ParseMembers(format::MembersText(signature.runs), static_cast<uint32_t>(positions), &parsed) ||
        bytes < signature.dataBytes || total + bytes < total) {
      *error = "signature " + std::to_string(i) + " has no members, members out of order or beyond the subvolumes, or too many bytes";
      return false;
    }
    total += bytes;
  }
  for (const FileBytes& row : content.fileBytes) {
    if (row.signature >= content.signatures.size() || row.position >= positions) {
      *error = "a file row names signature " + std::to_string(row.signature) + " or position " +
               std::to_string(row.position) + ", which the map does not hold";
      return false;
    }
  }
  return true;
}

bool Fill(SqliteDb& db, const Content& content, std::string* error) {
  // Nothing here needs to survive a crash: the file is written afterwards.
  if (!db.Execute("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF; PRAGMA page_size = 4096", error)) return false;
  const std::string header = "PRAGMA application_id = " + std::to_string(format::kApplicationId) +
                             "; PRAGMA user_version = " + std::to_string(kSpaceMapFormatVersion);
  if (!db.Execute(header.c_str(), error) || !db.Execute("BEGIN", error)) return false;
  for (size_t i = 0; i < format::kSchemaSize; ++i) {
    if (!db.Execute(format::kSchema[i], error)) return false;
  }
  SqliteStatement meta, subvolume, signature, bytes, path;
  if (!db.Prepare("INSERT INTO meta(key, value) VALUES (?, ?)", &meta, error) ||
      !db.Prepare("INSERT INTO subvolume(position, root_id) VALUES (?, ?)", &subvolume, error) ||
      !db.Prepare("INSERT INTO signature(id, members, outside, data_bytes, metadata_bytes) VALUES (?, ?, ?, ?, ?)",
                  &signature, error) ||
      !db.Prepare("INSERT INTO file_bytes(signature, file, position, bytes) VALUES (?, ?, ?, ?)", &bytes, error) ||
      !db.Prepare("INSERT INTO file_path(file, position, path) VALUES (?, ?, ?)", &path, error)) {
    return false;
  }
  // Each insertion steps once; a failure (a duplicate key, memory) ends it.
  const auto done = [&](SqliteStatement& statement) {
    const bool ok = statement.Step() == SQLITE_DONE;
    if (!ok) *error = db.LastError();
    statement.Reset();
    return ok;
  };
  for (const auto& [key, value] : {std::make_pair("generation", content.generation),
                                   std::make_pair("files_complete", uint64_t{content.filesComplete ? 1u : 0u})}) {
    meta.BindText(1, key);
    meta.BindU64(2, value);
    if (!done(meta)) return false;
  }
  for (size_t i = 0; i < content.rootIds.size(); ++i) {
    subvolume.BindU64(1, i);
    subvolume.BindU64(2, content.rootIds[i]);
    if (!done(subvolume)) return false;
  }
  for (size_t i = 0; i < content.signatures.size(); ++i) {
    const Signature& s = content.signatures[i];
    signature.BindU64(1, i);
    signature.BindText(2, format::MembersText(s.runs));
    signature.BindU64(3, s.outside ? 1 : 0);
    signature.BindU64(4, s.dataBytes);
    signature.BindU64(5, s.metadataBytes);
    if (!done(signature)) return false;
  }
  for (const FileBytes& row : content.fileBytes) {
    bytes.BindU64(1, row.signature);
    bytes.BindU64(2, row.file);
    bytes.BindU64(3, row.position);
    bytes.BindU64(4, row.bytes);
    if (!done(bytes)) return false;
  }
  for (const FilePath& file : content.filePaths) {
    path.BindU64(1, file.file);
    path.BindU64(2, file.position);
    path.BindText(3, file.path);
    if (!done(path)) return false;
  }
  return db.Execute("COMMIT", error);
}

}  // namespace

bool WriteSpaceMap(const std::string& path, const Content& content, unsigned mode, std::string* error) {
  std::string problem;
  if (!Consistent(content, &problem)) {
    *error = "refused to write the space map " + path + ": " + problem;
    return false;
  }
  SqliteDb db;
  if (!db.OpenInMemory(&problem) || !Fill(db, content, &problem)) {
    *error = "cannot build the space map " + path + ": " + problem;
    return false;
  }
  int64_t size = 0;
  unsigned char* image = db.Serialize(&size, &problem);
  if (image == nullptr) {
    *error = "cannot build the space map " + path + ": " + problem;
    return false;
  }
  const size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  base::UniqueFd dirFd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const bool written =
      !name.empty() && name != "." && name != ".." && dirFd.Valid() &&
      base::AtomicReplace(dirFd.Get(), name, {static_cast<mode_t>(mode)},
                          [&](int fd) { return base::WriteAll(fd, image, static_cast<size_t>(size)); });
  const int saved = errno;
  sqlite3_free(image);
  if (!written) {
    *error = "cannot write the space map " + path + ": " + (name.empty() || name == "." || name == ".." ? "not a file name" : strerror(saved));
    return false;
  }
  return true;
}

}  // namespace vela::space_map
