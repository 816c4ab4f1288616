// Trimming strings, listing directories, copying files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/scratch_dir.h"
#include "vela/vlib_error.h"
#include "vela/vlib_file.h"
#include "vela/vlib_string.h"

namespace vela::test {
namespace {

std::vector<std::string> Items(const VLIBSZLIST* list) {
  std::vector<std::string> items;
  for (int i = 0; i < list->nItem; ++i) items.emplace_back(list->pszItem[i]);
  return items;
}

TEST(FileEnumDir, PushesEntryNamesInByteOrderUpToTheLimit) {
  ScratchDir dir;
  for (const char* name : {"b", "a", "C", ".hidden", "\xc3\xa9"}) WriteFile(dir / name, "");
  ASSERT_EQ(0, mkdir((dir / "d").c_str(), 0755));

  PVLIBSZLIST list = VLIBCSzListAlloc(1);
  ASSERT_EQ(0, VLIBCSzListPush(&list, "kept"));
  EXPECT_EQ(6, VLIBCFileEnumDir(dir.Path().c_str(), 0, &list, 0));
  EXPECT_EQ((std::vector<std::string>{"kept", ".hidden", "C", "a", "b", "d", "\xc3\xa9"}), Items(list));

  VLIBCSzListRemoveAll(list);
  EXPECT_EQ(2, VLIBCFileEnumDir(dir.Path().c_str(), 0, &list, 2));
  EXPECT_EQ((std::vector<std::string>{".hidden", "C"}), Items(list));

  EXPECT_EQ(-1, VLIBCFileEnumDir((dir / "missing").c_str(), 0, &list, 0));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());
  VLIBCSzListFree(list);
}

TEST(FileCopy, ReplacesTheDestinationWholeWithTheSourceModeAndLeavesNoTemporaryFile) {
  ScratchDir dir;
  const std::string content(200 * 1024, 'x');  // more than one read's worth
  WriteFile(dir / "src", content + "end");
  ASSERT_EQ(0, chmod((dir / "src").c_str(), 0640));
  WriteFile(dir / "dst", "old");
  // A reader that opened the old file keeps reading the old file: the new
  // one is put in place by rename, never written over it.
  const int reader = open((dir / "dst").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(reader, 0);

  ASSERT_EQ(0, VELAFileCopy((dir / "src").c_str(), (dir / "dst").c_str(), 0));
  EXPECT_EQ(content + "end", ReadFile(dir / "dst"));
  struct stat st;
  ASSERT_EQ(0, stat((dir / "dst").c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
  char old[8] = {};
  EXPECT_EQ(3, read(reader, old, sizeof(old)));
  EXPECT_STREQ("old", old);
  close(reader);

  EXPECT_EQ(-1, VELAFileCopy((dir / "missing").c_str(), (dir / "dst").c_str(), 0));
  EXPECT_EQ(VLIB_ERR_NOT_FOUND, VLIBCErrGet());
  EXPECT_EQ(-1, VELAFileCopy(dir.Path().c_str(), (dir / "dst").c_str(), 0));
  EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet());
  EXPECT_EQ(-1, VELAFileCopy((dir / "src").c_str(), (dir / "no-dir/dst").c_str(), 0));
  EXPECT_EQ(VLIB_ERR_SYSTEM, VLIBCErrGet());
  // The destination a copy fails to write is a directory: its temporary
  // file must not stay behind.
  ASSERT_EQ(0, mkdir((dir / "taken").c_str(), 0755));
  EXPECT_EQ(-1, VELAFileCopy((dir / "src").c_str(), (dir / "taken").c_str(), 0));

  PVLIBSZLIST list = VLIBCSzListAlloc(4);
  EXPECT_EQ(3, VLIBCFileEnumDir(dir.Path().c_str(), 0, &list, 0));
  EXPECT_EQ((std::vector<std::string>{"dst", "src", "taken"}), Items(list));
  VLIBCSzListFree(list);
}

}  // namespace
}  // namespace vela::test
