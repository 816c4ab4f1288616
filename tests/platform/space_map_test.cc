// The space map's file and its answers: what any set of snapshots frees
// and the plans, against sums over every subset; maps that are damaged,
// crafted or of another version; the writer's refusals and atomic writes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "support/scratch_dir.h"
#include "vela/space_map.h"

namespace vela::test {
namespace {

using space_map::Content;
using space_map::Run;
using space_map::Signature;
using space_map::SpaceMap;
using space_map::Status;

Signature Sig(std::vector<Run> runs, uint64_t data, uint64_t metadata, bool outside = false) {
  Signature signature;
  signature.runs = std::move(runs);
  signature.dataBytes = data;
  signature.metadataBytes = metadata;
  signature.outside = outside;
  return signature;
}

// Four snapshots 257..260: blocks of their own, data of 257-258 that only
// they hold, data reflinked into 257 and 259 (not a run), data that the
// live share also holds, and the files behind the data.
Content Sample() {
  Content content;
  content.rootIds = {257, 258, 259, 260};
  content.generation = 42;
  content.signatures = {
      Sig({{0, 0}}, 0, 16384),      Sig({{1, 1}}, 4096, 0),       Sig({{0, 1}}, 100000, 0),
      Sig({{2, 2}}, 0, 16384),      Sig({{1, 3}}, 50000, 0, true), Sig({{0, 0}, {2, 2}}, 7000, 0),
      Sig({{3, 3}}, 8192, 16384),
  };
  content.fileBytes = {{1, 0, 1, 4096}, {2, 0, 1, 100000}, {5, 1, 2, 7000}, {6, 2, 3, 8192}};
  content.filePaths = {{0, 1, "dir/big"}, {1, 2, "copy"}, {2, 3, "new"}};
  return content;
}

std::unique_ptr<SpaceMap> Written(const ScratchDir& dir, const Content& content) {
  std::string error;
  EXPECT_TRUE(space_map::WriteSpaceMap(dir / "map", content, 0600, &error)) << error;
  std::unique_ptr<SpaceMap> map;
  EXPECT_EQ(Status::kOk, SpaceMap::Open(dir / "map", &map, &error)) << error;
  return map;
}

space_map::Freed FreedBy(const SpaceMap& map, const std::vector<uint64_t>& ids, size_t files = 20) {
  space_map::Freed freed;
  std::string error;
  EXPECT_EQ(Status::kOk, map.FreedBy(ids, files, &freed, &error)) << error;
  return freed;
}

TEST(SpaceMap, AnswersPerSnapshotForAnySetAndWithTheFilesBehindTheData) {
  ScratchDir dir;
  const auto map = Written(dir, Sample());
  ASSERT_TRUE(map);
  EXPECT_EQ((std::vector<uint64_t>{257, 258, 259, 260}), map->RootIds());
  EXPECT_EQ(42u, map->Generation());
  EXPECT_TRUE(map->FilesComplete());
  struct stat st;
  ASSERT_EQ(0, stat((dir / "map").c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 07777);

  const auto rows = map->Snapshots();
  ASSERT_EQ(4u, rows.size());
  const uint64_t alone[] = {16384, 4096, 16384, 24576};
  const uint64_t added[] = {123384, 54096, 23384, 24576};
  const uint64_t accum[] = {16384, 120480, 143864, 168440};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(257 + i, rows[i].rootId);
    EXPECT_EQ(alone[i], rows[i].aloneBytes) << i;
    EXPECT_EQ(added[i], rows[i].addedBytes) << i;
    EXPECT_EQ(accum[i], rows[i].accumBytes) << i;
  }

  const auto first = FreedBy(*map, {258, 257});
  EXPECT_EQ(120480u, first.freedBytes);
  EXPECT_EQ(104096u, first.dataBytes);
  EXPECT_EQ(16384u, first.metadataBytes);
  ASSERT_EQ(1u, first.files.size());
  EXPECT_EQ("dir/big", first.files[0].path);
  EXPECT_EQ(258u, first.files[0].rootId);
  EXPECT_EQ(104096u, first.files[0].bytes);

  // Not consecutive: the reflinked data goes only with both of its holders.
  const auto apart = FreedBy(*map, {257, 259, 257});
  EXPECT_EQ(39768u, apart.freedBytes);
  ASSERT_EQ(1u, apart.files.size());
  EXPECT_EQ("copy", apart.files[0].path);
  EXPECT_EQ(0u, FreedBy(*map, {}).freedBytes);

  const auto all = FreedBy(*map, {257, 258, 259, 260}, 2);
  EXPECT_EQ(168440u, all.freedBytes);
  ASSERT_EQ(2u, all.files.size()) << "no more than asked for";
  EXPECT_EQ("dir/big", all.files[0].path);
  EXPECT_EQ("new", all.files[1].path);
  EXPECT_TRUE(FreedBy(*map, {257, 258}, 0).files.empty());

  space_map::Freed freed;
  std::string error;
  EXPECT_EQ(Status::kUnknownSubvolume, map->FreedBy({257, 999}, 20, &freed, &error));
  EXPECT_NE(std::string::npos, error.find("999")) << error;

  // The oldest two reach 120000; so do no fewer. Keeping the newest two
  // leaves 257 and 258; 10^9 cannot be freed, and the most that can is.
  const auto plan = map->PlanFor(120000, 0);
  EXPECT_EQ((std::vector<uint64_t>{257, 258}), plan.oldestFirst.rootIds);
  EXPECT_EQ(120480u, plan.oldestFirst.freedBytes);
  EXPECT_TRUE(plan.oldestFirst.reached);
  EXPECT_EQ((std::vector<uint64_t>{257, 258}), plan.fewestSnapshots.rootIds);
  EXPECT_FALSE(plan.fewestSnapshots.exact) << "one signature is not a run";
  const auto kept = map->PlanFor(20000, 2);
  EXPECT_EQ((std::vector<uint64_t>{257, 258}), kept.fewestSnapshots.rootIds);
  const auto most = map->PlanFor(1000000000, 0);
  EXPECT_FALSE(most.oldestFirst.reached);
  EXPECT_FALSE(most.fewestSnapshots.reached);
  EXPECT_EQ(168440u, most.oldestFirst.freedBytes);
  EXPECT_EQ(168440u, most.fewestSnapshots.freedBytes);
  EXPECT_TRUE(map->PlanFor(0, 0).fewestSnapshots.rootIds.empty());
}

// ---------------------------------------------------------------------------
// Every answer against sums over every subset of snapshots, on random maps.

struct Brute {
  const std::vector<Signature>& signatures;
  uint64_t Freed(uint32_t set) const {  // bit i: position i deleted
    uint64_t sum = 0;
    for (const Signature& s : signatures) {
      bool within = !s.outside;
      for (const Run& run : s.runs) {
        for (uint32_t p = run.first; p <= run.last; ++p) within = within && (set >> p & 1);
      }
      if (within) sum += s.dataBytes + s.metadataBytes;
    }
    return sum;
  }
  uint64_t Referenced(uint32_t set) const {
    uint64_t sum = 0;
    for (const Signature& s : signatures) {
      bool touches = false;
      for (const Run& run : s.runs) {
        for (uint32_t p = run.first; p <= run.last; ++p) touches = touches || (set >> p & 1);
      }
      if (touches) sum += s.dataBytes + s.metadataBytes;
    }
    return sum;
  }
};

Content RandomContent(std::mt19937& random, uint32_t positions, bool runsOnly) {
  Content content;
  for (uint32_t i = 0; i < positions; ++i) content.rootIds.push_back(300 + i);
  for (int k = 0; k < 24; ++k) {
    const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    const uint32_t a = below(positions);
    const uint32_t b = a + below(positions - a);
    std::vector<Run> runs = {{a, b}};
    if (!runsOnly && b + 2 < positions && below(3) == 0) runs.push_back({b + 2, b + 2 + below(positions - b - 2)});
    content.signatures.push_back(Sig(runs, (random() % 50) * 4096, (random() % 4) * 16384, random() % 5 == 0));
  }
  return content;
}

TEST(SpaceMap, FreedBytesSnapshotRowsAndPlansAgreeWithSumsOverEverySubset) {
  std::mt19937 random(11);
  constexpr uint32_t kPositions = 7;
  for (int round = 0; round < 24; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const bool runsOnly = round % 2 == 0;
    const Content content = RandomContent(random, kPositions, runsOnly);
    ScratchDir dir;
    const auto map = Written(dir, content);
    ASSERT_TRUE(map);
    const Brute brute{content.signatures};

    const auto rows = map->Snapshots();
    for (uint32_t i = 0; i < kPositions; ++i) {
      EXPECT_EQ(brute.Freed(1u << i), rows[i].aloneBytes) << i;
      EXPECT_EQ(brute.Freed((2u << i) - 1), rows[i].accumBytes) << i;
      const uint64_t added = i == 0 ? brute.Referenced(1) : brute.Referenced(3u << (i - 1)) - brute.Referenced(1u << (i - 1));
      EXPECT_EQ(added, rows[i].addedBytes) << i;
    }
    for (uint32_t set = 0; set < (1u << kPositions); set += 5) {
      std::vector<uint64_t> ids;
      for (uint32_t p = 0; p < kPositions; ++p) {
        if (set >> p & 1) ids.push_back(300 + p);
      }
      EXPECT_EQ(brute.Freed(set), FreedBy(*map, ids, 0).freedBytes) << set;
    }

    for (uint64_t keep : {0, 2}) {
      const uint32_t candidates = (1u << (kPositions - keep)) - 1;
      const uint64_t most = brute.Freed(candidates);
      for (uint64_t want : {uint64_t{1}, most / 3, most / 2, most, most + 1}) {
        SCOPED_TRACE("want " + std::to_string(want) + " keeping " + std::to_string(keep));
        const auto plan = map->PlanFor(want, keep);
        const uint64_t target = std::min(want, most);
        size_t fewest = kPositions + 1;
        for (uint32_t set = 0; set <= candidates; ++set) {
          if ((set & ~candidates) == 0 && brute.Freed(set) >= target) fewest = std::min<size_t>(fewest, __builtin_popcount(set));
        }
        for (const auto* proposal : {&plan.oldestFirst, &plan.fewestSnapshots}) {
          uint32_t set = 0;
          for (uint64_t id : proposal->rootIds) set |= 1u << (id - 300);
          EXPECT_EQ(0u, set & ~candidates) << "the newest are kept";
          EXPECT_EQ(brute.Freed(set), proposal->freedBytes) << "the freed bytes are exact";
          EXPECT_GE(proposal->freedBytes, target);
          EXPECT_EQ(want <= most, proposal->reached);
        }
        uint32_t prefix = 0;
        while (brute.Freed(prefix) < target) prefix = prefix * 2 + 1;
        EXPECT_EQ(static_cast<size_t>(__builtin_popcount(prefix)), plan.oldestFirst.rootIds.size()) << "the shortest prefix";
        if (runsOnly) {
          EXPECT_TRUE(plan.fewestSnapshots.exact);
          EXPECT_EQ(fewest, plan.fewestSnapshots.rootIds.size()) << "proven fewest";
        }
        EXPECT_LE(plan.fewestSnapshots.rootIds.size(), plan.oldestFirst.rootIds.size());
      }
    }
  }
}

// ---------------------------------------------------------------------------
// Maps that cannot be trusted: a clear status and a sentence, never a crash.

void Sql(const std::string& path, const std::string& statement) {
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
  char* message = nullptr;
  const int result = sqlite3_exec(db, statement.c_str(), nullptr, nullptr, &message);
  EXPECT_EQ(SQLITE_OK, result) << statement << ": " << (message != nullptr ? message : "");
  sqlite3_free(message);
  sqlite3_close(db);
}

Status Opened(const std::string& path, std::string* error) {
  std::unique_ptr<SpaceMap> map;
  const Status status = SpaceMap::Open(path, &map, error);
  EXPECT_EQ(status == Status::kOk, map != nullptr);
  return status;
}

TEST(SpaceMap, AMapThatIsMissingDamagedCraftedOrOfAnotherVersionIsRefusedWithAReason) {
  ScratchDir dir;
  std::string error;
  ASSERT_TRUE(space_map::WriteSpaceMap(dir / "good", Sample(), 0600, &error)) << error;
  const std::string good = ReadFile(dir / "good");
  EXPECT_EQ(Status::kMissing, Opened(dir / "missing", &error));
  ASSERT_EQ(0, symlink((dir / "good").c_str(), (dir / "link").c_str()));
  EXPECT_EQ(Status::kUnreadable, Opened(dir / "link", &error)) << "a link in its place is not followed";
  EXPECT_EQ(Status::kUnreadable, Opened(dir.Path(), &error));

  std::mt19937 random(3);
  std::string noise(8192, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  for (const std::string& bytes : {std::string(), noise, good.substr(0, 100), good.substr(0, 4096),
                                   std::string("SQLite format 3") + std::string(1, '\0') + noise}) {
    WriteFile(dir / "bad", bytes);
    EXPECT_EQ(Status::kCorrupt, Opened(dir / "bad", &error)) << bytes.size() << " bytes";
    EXPECT_NE(std::string::npos, error.find(dir / "bad")) << error;
  }

  struct Change {
    const char* what;
    const char* sql;
    Status status;
  };
  const Change changes[] = {
      {"another program's database", "PRAGMA application_id = 7", Status::kCorrupt},
      {"a newer format", "PRAGMA user_version = 2", Status::kWrongVersion},
      {"a table of its own", "CREATE TABLE extra(x)", Status::kCorrupt},
      {"a view in place of a table", "DROP TABLE meta; CREATE VIEW meta AS SELECT 'generation' AS key, 1 AS value",
       Status::kCorrupt},
      {"a trigger", "CREATE TRIGGER t AFTER INSERT ON meta BEGIN SELECT 1; END", Status::kCorrupt},
      {"no generation", "DELETE FROM meta WHERE key = 'generation'", Status::kCorrupt},
      {"a run backwards", "UPDATE signature SET members = '1-0' WHERE id = 2", Status::kCorrupt},
      {"runs that touch", "UPDATE signature SET members = '0,1' WHERE id = 2", Status::kCorrupt},
      {"a position beyond the subvolumes", "UPDATE signature SET members = '0-4' WHERE id = 2", Status::kCorrupt},
      {"members that are no number", "UPDATE signature SET members = '0-x' WHERE id = 2", Status::kCorrupt},
      {"bytes as text", "UPDATE signature SET data_bytes = 'many' WHERE id = 2", Status::kCorrupt},
      {"bytes that overflow together", "UPDATE signature SET data_bytes = -2 WHERE id = 1", Status::kCorrupt},
      {"a signature missing", "DELETE FROM signature WHERE id = 3", Status::kCorrupt},
      {"a subvolume twice", "UPDATE subvolume SET root_id = 257 WHERE position = 1", Status::kCorrupt},
      {"no subvolume", "DELETE FROM subvolume", Status::kCorrupt},
  };
  for (const Change& change : changes) {
    SCOPED_TRACE(change.what);
    WriteFile(dir / "changed", good);
    Sql(dir / "changed", change.sql);
    EXPECT_EQ(change.status, Opened(dir / "changed", &error));
    EXPECT_NE(std::string::npos, error.find(change.status == Status::kWrongVersion ? "format version 2" : "corrupt"))
        << error;
  }

  // File rows are read when a question needs them.
  for (const char* sql : {"UPDATE file_bytes SET position = 0 WHERE signature = 6",
                          "DELETE FROM file_path WHERE file = 2"}) {
    SCOPED_TRACE(sql);
    WriteFile(dir / "rows", good);
    Sql(dir / "rows", sql);
    std::unique_ptr<SpaceMap> map;
    ASSERT_EQ(Status::kOk, SpaceMap::Open(dir / "rows", &map, &error)) << error;
    space_map::Freed freed;
    EXPECT_EQ(Status::kCorrupt, map->FreedBy({260}, 20, &freed, &error));
    EXPECT_EQ(Status::kOk, map->FreedBy({260}, 0, &freed, &error)) << "the bytes need no file rows";
  }
}

TEST(SpaceMap, TheWriterRefusesWhatTheMapCouldNotHoldAndReplacesAMapWhole) {
  ScratchDir dir;
  std::string error;
  ASSERT_TRUE(space_map::WriteSpaceMap(dir / "map", Sample(), 0600, &error)) << error;
  const std::string before = ReadFile(dir / "map");

  Content bad = Sample();
  bad.fileBytes.push_back({9, 0, 0, 1});
  EXPECT_FALSE(space_map::WriteSpaceMap(dir / "map", bad, 0600, &error));
  bad = Sample();
  bad.signatures[2].runs = {{0, 1}, {2, 2}};  // touching: not one text per set
  EXPECT_FALSE(space_map::WriteSpaceMap(dir / "map", bad, 0600, &error));
  bad = Sample();
  bad.rootIds.clear();
  EXPECT_FALSE(space_map::WriteSpaceMap(dir / "map", bad, 0600, &error));
  EXPECT_FALSE(space_map::WriteSpaceMap(dir / "no-such-dir/map", Sample(), 0600, &error));
  EXPECT_NE(std::string::npos, error.find("no-such-dir")) << error;
  EXPECT_EQ(before, ReadFile(dir / "map")) << "a refused map leaves the old one whole";

  Content other = Sample();
  other.generation = 43;
  other.filesComplete = false;
  const auto map = Written(dir, other);
  ASSERT_TRUE(map);
  EXPECT_EQ(43u, map->Generation());
  EXPECT_FALSE(map->FilesComplete());
  EXPECT_FALSE(FreedBy(*map, {260}).filesComplete);
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.Path())) names.push_back(entry.path().filename());
  EXPECT_EQ(std::vector<std::string>{"map"}, names) << "no temporary file is left";
}

}  // namespace
}  // namespace vela::test
