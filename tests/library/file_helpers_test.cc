// File helpers over real directories, FIFOs and vanished paths.
#include "velabtrfssnapusage/file_helpers.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "support/scratch_dir.h"

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
  PVLIBSZLIST list = VLIBCSzListAlloc(1);
  ASSERT_TRUE(SearchTaskFile("task1", dir.Path(), &list));
  EXPECT_EQ((std::vector<std::string>{dir / "task1.result", dir / "task1.subvol_id"}), Items(list));
  ASSERT_TRUE(SearchTaskFile("task1", dir / "missing", &list));
  EXPECT_EQ(2, list->nItem);
  VLIBCSzListRemoveAll(list);
  ASSERT_TRUE(SearchTaskFile("", dir.Path(), &list));
  EXPECT_EQ(3, list->nItem) << "an empty prefix lists every regular file";

  // Deleting twice: the second time every path is already gone.
  EXPECT_TRUE(DeleteCandidateFile(&list));
  EXPECT_TRUE(DeleteCandidateFile(&list));
  EXPECT_NE(0, access((dir / "task2.result").c_str(), F_OK));
  VLIBCSzListFree(list);
}

TEST(FileOrDirOpen, OpensDirectoriesAndFilesAndRefusesAnythingElse) {
  ScratchDir dir;
  DIR* stream = nullptr;
  int fd = FileOrDirOpen(dir.Path().c_str(), &stream);
  ASSERT_GE(fd, 0);
  ASSERT_NE(nullptr, stream);
  FileOrDirClose(fd, stream);

  WriteFile(dir / "file", "x");
  stream = nullptr;
  fd = FileOrDirOpen((dir / "file").c_str(), &stream);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(nullptr, stream);
  FileOrDirClose(fd, stream);

  ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
  errno = 0;
  EXPECT_EQ(-1, FileOrDirOpen((dir / "fifo").c_str(), &stream));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, FileOrDirOpen((dir / "missing").c_str(), &stream));
  EXPECT_EQ(-1, FileOrDirOpen(nullptr, &stream));
  EXPECT_EQ(-1, FileOrDirOpen(dir.Path().c_str(), nullptr));
}

TEST(HashToJson, CopiesEveryKeyAsAString) {
  PVLIBSZHASH hash = VLIBCSzHashAlloc(2);
  VLIBCSzHashSetValue(&hash, "share", "share1");
  VLIBCSzHashSetValue(&hash, "volume", "1");
  Json::Value out;
  EXPECT_TRUE(HashToJson(hash, out));
  EXPECT_EQ("share1", out["share"].asString());
  EXPECT_EQ("1", out["volume"].asString());
  VLIBCSzHashFree(hash);
}

}  // namespace
}  // namespace VelaBtrfsUsage::Utils
