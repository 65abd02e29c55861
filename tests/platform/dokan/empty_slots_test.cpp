// A file system that fills only a few slots: the library answers the rest.
#include <gtest/gtest.h>

#include <cstring>

#include "drive_harness.h"
#include "platform/dokan/dokan.h"
#include "platform/dokan/dokan_linux.h"
#include "support/test_home.h"

namespace qbtest {
namespace {

// One folder with one file of 5 bytes; nothing can be read or changed.
NTSTATUS Info(LPCWSTR name, LPBY_HANDLE_FILE_INFORMATION out, PDOKAN_FILE_INFO) {
  *out = BY_HANDLE_FILE_INFORMATION{};
  if (strcmp(name, "\\") == 0) {
    out->dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
    return STATUS_SUCCESS;
  }
  if (strcmp(name, "\\only.txt") != 0) return STATUS_OBJECT_NAME_NOT_FOUND;
  out->dwFileAttributes = FILE_ATTRIBUTE_ARCHIVE;
  out->nFileSizeLow = 5;
  return STATUS_SUCCESS;
}

NTSTATUS FindWithPattern(LPCWSTR, LPCWSTR pattern, PFillFindData fill, PDOKAN_FILE_INFO info) {
  if (strcmp(pattern, "*") != 0) return STATUS_INVALID_PARAMETER;
  WIN32_FIND_DATAW d;
  d.cFileName = "only.txt";
  d.SetFileSize(5);
  fill(&d, info);
  return STATUS_SUCCESS;
}

NTSTATUS Mounted(LPCWSTR, PDOKAN_FILE_INFO) { return STATUS_SUCCESS; }

TEST(DokanEmptySlots, AreAnsweredByTheLibrary) {
  ScopedHome home;
  DOKAN_OPERATIONS ops{};
  ops.GetFileInformation = Info;
  ops.FindFilesWithPattern = FindWithPattern;
  ops.Mounted = Mounted;
  DOKAN_OPTIONS options{};
  options.Version = DOKAN_VERSION;
  options.MountPoint = "E:\\";
  std::promise<int> promise;
  std::future<int> result = promise.get_future();
  std::thread server([&] { promise.set_value(DokanMain(&options, &ops)); });
  const std::string root = MountPath('E');
  const bool mounted = WaitUntil([&] { return IsMounted('E'); }, kMountLimitMs);
  if (mounted) {
    std::string out;
    EXPECT_EQ(0, RunShell("ls -l " + Quote(root), &out));
    EXPECT_NE(std::string::npos, out.find(" 5 ")) << out;
    EXPECT_NE(std::string::npos, out.find("only.txt")) << out;
    EXPECT_EQ(0, RunShell("grep -F " + Quote(" " + root + " ") + " /proc/self/mounts", &out));
    EXPECT_NE(std::string::npos, out.find("DOKAN " + root + " fuse.dokan ")) << out;
    EXPECT_EQ(0, RunShell("df " + Quote(root)));
    EXPECT_NE(0, RunShell("cat " + Quote(root + "/only.txt"), &out));  // no ReadFile
    EXPECT_NE(std::string::npos, out.find("not supported")) << out;
    EXPECT_NE(0, RunShell("touch " + Quote(root + "/only.txt")));  // no SetFileTime
    EXPECT_NE(0, RunShell("rm " + Quote(root + "/only.txt")));     // no DeleteFile
    EXPECT_TRUE(DokanRemoveMountPoint("E:"));
  }
  EXPECT_TRUE(mounted);
  if (result.wait_for(std::chrono::milliseconds(kMountLimitMs)) != std::future_status::ready)
    qb::dokan::ForceRemoveMountPoint('E');
  if (result.wait_for(std::chrono::milliseconds(kMountLimitMs)) != std::future_status::ready) {
    server.detach();  // never hang the suite
    FAIL() << "DokanMain did not return";
  }
  server.join();
  EXPECT_EQ(DOKAN_SUCCESS, result.get());
}

}  // namespace
}  // namespace qbtest
