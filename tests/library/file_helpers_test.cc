// File helpers over real directories, FIFOs and vanished paths.
#include "velabtrfssnapusage/file_helpers.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "support/scratch_dir.h"
#include "vela/sz_list.h"

namespace VelaBtrfsUsage::Utils {
namespace {

using vela::test::ScratchDir;
using vela::test::WriteFile;

std::vector<std::string> Items(PVLIBSZLIST list) {
  std::vector<std::string> items;
  for (int i = 0; i < list->nItem; ++i) items.push_back(VLIBCSzListGet(list, i));
  std::sort(items.begin(), items.end());
  return items;
}

TEST(SearchTaskFile, ListsRegularFilesWithThePrefixAndToleratesAMissingDirectory) {
  ScratchDir dir;
  WriteFile(dir / "task1.result", "");
  WriteFile(dir / "task1.subvol_id", "");
  WriteFile(dir / "task2.result", "");
  ASSERT_EQ(0, mkdir((dir / "task1.dir").c_str(), 0755));
  ASSERT_EQ(0, symlink("task1.result", (dir / "task1.link").c_str()));
  vela::platform::SzList list;
  ASSERT_TRUE(SearchTaskFile("task1", dir.Path(), list.Address()));
  EXPECT_EQ((std::vector<std::string>{dir / "task1.result", dir / "task1.subvol_id"}), Items(list.Get()));
  ASSERT_TRUE(SearchTaskFile("task1", dir / "missing", list.Address()));
  EXPECT_EQ(2, list.Count());
  VLIBCSzListRemoveAll(list.Get());
  ASSERT_TRUE(SearchTaskFile("", dir.Path(), list.Address()));
  EXPECT_EQ(3, list.Count()) << "an empty prefix lists every regular file";

  // Deleting twice: the second time every path is already gone.
  EXPECT_TRUE(DeleteCandidateFile(list.Address()));
  EXPECT_TRUE(DeleteCandidateFile(list.Address()));
  EXPECT_NE(0, access((dir / "task2.result").c_str(), F_OK));
}

}  // namespace
}  // namespace VelaBtrfsUsage::Utils
