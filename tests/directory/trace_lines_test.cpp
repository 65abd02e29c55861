// The tree's own log lines: the dump, and the findings other parts of the
// program and the support staff read in the log.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "diag/trace.h"
#include "directory/directory.h"
#include "support/test_home.h"
#include "test_support.h"

namespace {

using dirtest::At;

// Runs `body` with tracing into a file of a fresh home and answers the log.
template <class Body>
std::string Traced(const qbtest::ScopedHome& home, Body body) {
  const std::string path = (home / "trace.log").string();
  const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
  EXPECT_GE(fd, 0);
  TraceStartOptions options;
  options.logFd = fd;
  EXPECT_TRUE(TraceStart(options));
  body();
  TraceStop();
  close(fd);
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class TraceLinesTest : public ::testing::Test {
 protected:
  qbtest::ScopedHome home_;
  dirtest::ScopedTimeZone zone_{"UTC0"};
};

TEST_F(TraceLinesTest, DumpWritesOneLinePerItem) {
  CDirectory tree;
  const FILETIME t = At(2013, 1, 1, 10);
  ASSERT_EQ(tree.AddDirectory(1, "\\", "s1", "DEV", "s1", 1, 1, 1, &t), 1);
  ASSERT_EQ(tree.AddDirectory(0, "\\DCIM\\", "d1", "s1", "d1", 0, 0, 1, &t), 1);
  ASSERT_EQ(tree.AddFile("IMG_1", "o1", "d1", "JPG", 5, &t, "o1", "o1", "\\DCIM\\", 0, 1), 1);
  ASSERT_EQ(tree.AddFile("IMG_2", "o2", "d1", "JPG", 5, &t, "o2", "o2", "\\DCIM\\", 0, 1), 1);
  tree.m_pFiles->Get(1)->bPendingDelete = 1;
  tree.m_pPersistFolders->Get(0)->ullPopulatedTimestamp = 1;  // listed long ago
  const int32_t age = 1000;
  const std::string log = Traced(home_, [&] {
    tree.Dump(CDirectory::kDumpFiles | CDirectory::kDumpPersistFolders | CDirectory::kDumpStorageRoots,
              "X ", nullptr, &age);
  });
  for (const char* line : {
           "D22@CDirectory::Dump: X m_pFiles=2 files",
           "D22@CDirectory::Dump: X m_pFiles[0] = '\\DCIM\\IMG_1.JPG'\r\n",
           "D22@CDirectory::Dump: X m_pFiles[1] = '\\DCIM\\IMG_2.JPG' *SKIPPED*",
           "D22@CDirectory::Dump: X m_pPersistFolders=2 directories",
           "D22@CDirectory::Dump: X m_pPersistFolders[0] = '\\' [] *STALE",
           "D22@CDirectory::Dump: X m_pPersistFolders[1] = '\\DCIM\\' [\\] *UNPOPULATED",
           "D22@CDirectory::Dump: X m_pStorageRoots=1 directories",
           "D22@CDirectory::Dump: X m_pStorageRoots[0] = '\\' []",
       })
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n--- log:\n" << log;
}

TEST_F(TraceLinesTest, DetailedDumpWritesEveryFieldOfTheChosenItem) {
  CDirectory tree;
  const FILETIME t = At(2013, 1, 2, 3, 4, 5);
  ASSERT_EQ(tree.AddFile("IMG_1", "o1", "d1", "JPG", 5, &t, "o1", "o1", "\\DCIM\\", 0, 1), 1);
  ASSERT_EQ(tree.AddFile("IMG_2", "o2", "d1", "JPG", 7, &t, "o2", "o2", "\\DCIM\\", 0, 1), 1);
  const DirectoryItem* second = tree.m_pFiles->Get(1);
  const std::string log = Traced(home_, [&] {
    tree.Dump(CDirectory::kDumpFiles | CDirectory::kDumpDetailed, "", second, nullptr);
  });
  EXPECT_NE(log.find("D22@CDirectory::Dump: m_pFiles[0] = '\\DCIM\\IMG_1.JPG'"), std::string::npos) << log;
  const char* fields[] = {
      "m_pFiles[1][bPendingDelete] = FALSE",
      "m_pFiles[1][sFullName] = 'o2'",
      "m_pFiles[1][sItemID] = 'o2'",
      "m_pFiles[1][sUniqueName] = 'IMG_2-201301020304\\DCIM\\'",
      "m_pFiles[1][nStorageIdx] = 1",
      "m_pFiles[1][rFindData.cFileName] = 'IMG_2.JPG'",
      "m_pFiles[1][rFindData.ftCreationTime] = 0x01CDE895:0xD2EB0080  2013-01-02 03:04:05",
      "m_pFiles[1][rFindData.ftLastAccessTime] = 0x00000000:0x00000000  1601-01-01 00:00:00",
      "m_pFiles[1][rFindData.llFileSize] = 7",
      "m_pFiles[1][ullAlreadyDownloaded] = 0",
  };
  for (const char* field : fields)
    EXPECT_NE(log.find(std::string("D27@CDirectory::DumpItem: ") + field), std::string::npos)
        << field << "\n--- log:\n" << log;
}

TEST_F(TraceLinesTest, FindingsOfAddsAndNaming) {
  CDirectory tree;
  const std::string log = Traced(home_, [&] {
    tree.AddSize(40);
    tree.AddSize(-100);
    tree.AddPersistentDirectoryRecursive(0, 0, "\\DCIM", 0, nullptr, nullptr, nullptr, nullptr, 1, 0, 0, nullptr);
    tree.SetRootDir("\\");
    tree.SetNamingPattern("<Y4><M2><D2>_<C3><Fo>");
    const FILETIME a = At(2013, 1, 1, 10, 0, 55);
    const FILETIME b = At(2013, 1, 1, 10, 0, 56);
    tree.AddFile("IMG_0001", "o1", "p", "JPG", 1, &a, "o1", "o1", "\\", 0, 1);
    tree.AddFile("IMG_0001", "o2", "p", "CR2", 1, &b, "o2", "o2", "\\", 0, 1);
    tree.Sort(0);
  });
  for (const char* line : {
           "D14@CDirectory::AddSize: Negative total size",
           "D9@CDirectory::AddPersistentDirectoryRecursive: Expected backslash",
           "D11@CDirectory::_AddItem: ENTER",
           "D11@CDirectory::_AddItem: LN = o1",
           "D11@CDirectory::_AddItem: CT = 2013-01-01 10:00:55",
           "D10@CDirectory::Sort: Adjusting filename from \"IMG_0001-201301011001\\\" to "
           "\"IMG_0001-201301011000\\\"",
       })
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n--- log:\n" << log;
}

TEST_F(TraceLinesTest, RefusedPatternIsLoggedWithItsReason) {
  CDirectory tree;
  const std::string log = Traced(home_, [&] {
    tree.SetRootDir("\\");
    const FILETIME a = At(2013, 1, 1, 10);
    tree.AddFile("IMG_0001", "o1", "p", "JPG", 1, &a, "o1", "o1", "\\", 0, 1);
    tree.SetNamingPattern("<Y4><M2");
    tree.Sort(0);
    tree.SetNamingPattern("<Y4><C3");
    tree.Sort(0);
  });
  for (const char* line : {
           "D10@CDirectory::Sort: Naming pattern '<Y4><M2' refused: a date or time token without '>'",
           "D10@CDirectory::Sort: Naming pattern '<Y4><C3' refused: a counter token without '>'",
       })
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n--- log:\n" << log;
}

}  // namespace
