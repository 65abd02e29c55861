// Names, folders and their errors: what a program sees when it creates,
// renames and removes things, checked the same way on every target.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include <gtest/gtest.h>

#include "conformance/file_io.h"
#include "conformance/target.h"

namespace fs = std::filesystem;
using namespace qbconf;

namespace {

std::set<std::string> List(const fs::path& folder) {
  std::set<std::string> names;
  DIR* dir = ::opendir(folder.c_str());
  if (!dir) return names;
  while (dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    EXPECT_TRUE(names.insert(name).second) << "listed twice: " << name;
  }
  ::closedir(dir);
  return names;
}

}  // namespace

TEST(Namespace, CreateAndRemoveErrors) {
  fs::path d = FreshFolder("ns_errors");
  WriteAll(d / "file", "x");
  ASSERT_EQ(0, ErrnoOf([&] { return ::mkdir((d / "sub").c_str(), 0755); }));
  WriteAll(d / "sub" / "inner", "y");

  EXPECT_EQ(EEXIST, ErrnoOf([&] { return ::mkdir((d / "sub").c_str(), 0755); }));
  EXPECT_EQ(EEXIST, ErrnoOf([&] { return ::open((d / "file").c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644); }));
  EXPECT_EQ(ENOENT, ErrnoOf([&] { return ::open((d / "missing").c_str(), O_RDONLY); }));
  EXPECT_EQ(ENOENT, ErrnoOf([&] { return ::open((d / "nofolder" / "x").c_str(), O_CREAT | O_WRONLY, 0644); }));
  EXPECT_EQ(ENOTDIR, ErrnoOf([&] { return ::open((d / "file" / "x").c_str(), O_RDONLY); }));
  EXPECT_EQ(ENOTEMPTY, ErrnoOf([&] { return ::rmdir((d / "sub").c_str()); }));
  EXPECT_EQ(ENOTDIR, ErrnoOf([&] { return ::rmdir((d / "file").c_str()); }));
  EXPECT_EQ(EISDIR, ErrnoOf([&] { return ::unlink((d / "sub").c_str()); }));
  EXPECT_EQ(ENOENT, ErrnoOf([&] { return ::unlink((d / "missing").c_str()); }));

  EXPECT_EQ(0, ErrnoOf([&] { return ::unlink((d / "sub" / "inner").c_str()); }));
  EXPECT_EQ(0, ErrnoOf([&] { return ::rmdir((d / "sub").c_str()); }));
  EXPECT_EQ((std::set<std::string>{".", "..", "file"}), List(d));
}

TEST(Namespace, RenameRules) {
  fs::path d = FreshFolder("ns_rename");
  ASSERT_EQ(0, ::mkdir((d / "a").c_str(), 0755));
  ASSERT_EQ(0, ::mkdir((d / "a" / "child").c_str(), 0755));
  ASSERT_EQ(0, ::mkdir((d / "b").c_str(), 0755));
  WriteAll(d / "one", "first");
  WriteAll(d / "two", "second");
  WriteAll(d / "b" / "kept", "k");

  // Rename over an existing file replaces it in one step.
  ASSERT_EQ(0, ::rename((d / "one").c_str(), (d / "two").c_str()));
  EXPECT_EQ("first", ReadAll(d / "two"));
  EXPECT_FALSE(fs::exists(d / "one"));

  EXPECT_EQ(EINVAL, ErrnoOf([&] { return ::rename((d / "a").c_str(), (d / "a" / "child" / "x").c_str()); }));
  EXPECT_EQ(EISDIR, ErrnoOf([&] { return ::rename((d / "two").c_str(), (d / "a").c_str()); }));
  EXPECT_EQ(ENOTDIR, ErrnoOf([&] { return ::rename((d / "a").c_str(), (d / "two").c_str()); }));
  int overFull = ErrnoOf([&] { return ::rename((d / "a").c_str(), (d / "b").c_str()); });
  EXPECT_TRUE(overFull == ENOTEMPTY || overFull == EEXIST) << overFull;

  // A folder moves with its content to another folder.
  ASSERT_EQ(0, ::rename((d / "a").c_str(), (d / "b" / "moved").c_str()));
  EXPECT_TRUE(fs::is_directory(d / "b" / "moved" / "child"));
  EXPECT_FALSE(fs::exists(d / "a"));
  EXPECT_EQ((std::set<std::string>{".", "..", "kept", "moved"}), List(d / "b"));
}

TEST(Namespace, LargeFolderListsEveryNameOnce) {
  fs::path d = FreshFolder("ns_large");
  std::set<std::string> expected{".", ".."};
  for (int i = 0; i < 600; ++i) {
    std::string name = "entry_" + std::to_string(i) + ".dat";
    WriteAll(d / name, std::to_string(i));
    expected.insert(name);
  }
  EXPECT_EQ(expected, List(d));
  for (int i = 0; i < 600; i += 2) ASSERT_EQ(0, ::unlink((d / ("entry_" + std::to_string(i) + ".dat")).c_str()));
  for (int i = 0; i < 600; i += 2) expected.erase("entry_" + std::to_string(i) + ".dat");
  EXPECT_EQ(expected, List(d));
}

TEST(Namespace, SizesAndTimes) {
  fs::path d = FreshFolder("ns_attr");
  fs::path f = d / "t.bin";
  WriteAll(f, Pattern(10000, 1));
  struct stat st {};
  ASSERT_EQ(0, ::stat(f.c_str(), &st));
  EXPECT_EQ(10000, st.st_size);
  EXPECT_TRUE(S_ISREG(st.st_mode));

  // A time set by a program (touch -d) reads back to the second.
  timespec times[2] = {{1500000000, 0}, {1600000000, 0}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, f.c_str(), times, 0));
  ASSERT_EQ(0, ::stat(f.c_str(), &st));
  EXPECT_EQ(1600000000, st.st_mtim.tv_sec);

  ASSERT_EQ(0, ::stat(d.c_str(), &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
}
