// The library's helpers: wildcard rules, create-flag mapping, the status
// table, mount-point letters and the node table.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/dokan/dokan.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/dokan/node_table.h"
#include "platform/dokan/status_errno.h"

namespace {

TEST(DokanNameExpression, FollowsTheWindowsWildcardRules) {
  struct Case {
    const char* expr;
    const char* name;
    bool match;
  } cases[] = {
      {"*", "", true},          {"*", "a.jpg", true},        {"*.jpg", "A.JPG", true},
      {"*.jpg", "a.jpeg", false}, {"?.txt", "a.txt", true},  {"?.txt", "ab.txt", false},
      {"a*b*c", "aXbYbZc", true}, {"a*b*c", "aXbYbZ", false}, {"*pg", "ppg", true},
      {"\\DCIM\\*", "\\dcim\\a.jpg", true},
      // DOS forms: < stops before the last dot, > is one character or none
      // at a dot, " is a dot or the end.
      {"<.txt", "a.b.txt", true}, {"<", "a.b", false},       {"<.*", "a.b", true},
      {"a>>.txt", "a.txt", true}, {"a>>.txt", "abc.txt", true}, {"a>.txt", "abc.txt", false},
      {"abc\"", "abc", true},    {"abc\"", "abc.", true},     {"abc\"", "abcd", false},
      {"\xC3\x84*", "\xC3\xA4pfel", true},  // Ä matches ä when case is ignored
  };
  for (const Case& c : cases)
    EXPECT_EQ(c.match ? TRUE : FALSE, DokanIsNameInExpression(c.expr, c.name, TRUE))
        << c.expr << " / " << c.name;
  EXPECT_FALSE(DokanIsNameInExpression("*.JPG", "a.jpg", FALSE));
  EXPECT_FALSE(DokanIsNameInExpression(nullptr, "a", TRUE));
}

TEST(DokanCreateFlags, MapBackToWhatCreateFileWasAskedFor) {
  ACCESS_MASK access = 0;
  DWORD flags = 0, disposition = 0;
  const struct {
    ULONG kernel;
    DWORD win32;
  } dispositions[] = {{FILE_CREATE, CREATE_NEW},        {FILE_OPEN, OPEN_EXISTING},
                      {FILE_OPEN_IF, OPEN_ALWAYS},      {FILE_OVERWRITE, TRUNCATE_EXISTING},
                      {FILE_OVERWRITE_IF, CREATE_ALWAYS}, {FILE_SUPERSEDE, CREATE_ALWAYS}};
  for (const auto& d : dispositions) {
    DokanMapKernelToUserCreateFileFlags(0, 0, 0, d.kernel, nullptr, nullptr, &disposition);
    EXPECT_EQ(d.win32, disposition) << d.kernel;
  }
  DokanMapKernelToUserCreateFileFlags(FILE_GENERIC_READ | FILE_GENERIC_WRITE,
                                      FILE_ATTRIBUTE_READONLY,
                                      FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT |
                                          FILE_OPEN_FOR_BACKUP_INTENT,
                                      FILE_OPEN, &access, &flags, &disposition);
  EXPECT_EQ(GENERIC_READ | GENERIC_WRITE, access);
  EXPECT_EQ(FILE_ATTRIBUTE_READONLY | FILE_FLAG_DELETE_ON_CLOSE | FILE_FLAG_BACKUP_SEMANTICS, flags);
  // Specific rights that make up no generic right stay as they are.
  DokanMapKernelToUserCreateFileFlags(FILE_GENERIC_WRITE & ~FILE_WRITE_DATA, 0, 0, FILE_OPEN,
                                      &access, &flags, nullptr);
  EXPECT_EQ(FILE_GENERIC_WRITE & ~FILE_WRITE_DATA, access);
  EXPECT_EQ(FILE_FLAG_OVERLAPPED, flags);  // no synchronous I/O asked for
  DokanMapKernelToUserCreateFileFlags(FILE_ALL_ACCESS, 0, 0, FILE_OPEN, &access, nullptr, nullptr);
  EXPECT_EQ(GENERIC_ALL | GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE,
            access & (GENERIC_ALL | GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE));
}

// What programs rely on, whatever the rows of the table: a failure never
// reads as success, never as ENOSYS (the kernel would stop asking for that
// operation for the rest of the mount), and an unknown one is a plain EIO.
TEST(DokanStatusTable, FailuresStayFailuresAndNeverDisableAnOperation) {
  using qb::dokan::ErrnoOfStatus;
  for (uint32_t base : {0x80000000u, 0xC0000000u, 0xC0010000u, 0xC00D0000u}) {
    for (uint32_t code = 0; code < 0x1000; ++code) {
      const int e = ErrnoOfStatus(static_cast<NTSTATUS>(base | code));
      ASSERT_NE(0, e) << std::hex << (base | code);
      ASSERT_NE(ENOSYS, e) << std::hex << (base | code);
    }
  }
  EXPECT_EQ(0, ErrnoOfStatus(STATUS_SUCCESS));
  EXPECT_EQ(0, ErrnoOfStatus(0x00000103));  // informational statuses are successes
  EXPECT_EQ(EOPNOTSUPP, ErrnoOfStatus(STATUS_NOT_IMPLEMENTED));
  EXPECT_EQ(EIO, ErrnoOfStatus(static_cast<NTSTATUS>(0xC0001234u)));
}

TEST(DokanMountPoint, OnlyALetterNamesADrive) {
  using qb::dokan::LetterOfMountPoint;
  EXPECT_EQ('X', LetterOfMountPoint("X:\\"));
  EXPECT_EQ('X', LetterOfMountPoint("x:"));
  EXPECT_EQ('X', LetterOfMountPoint("x"));
  EXPECT_EQ(0, LetterOfMountPoint(""));
  EXPECT_EQ(0, LetterOfMountPoint("1:\\"));
  EXPECT_EQ(0, LetterOfMountPoint("XY"));
  EXPECT_EQ(0, LetterOfMountPoint("X:\\dir"));
  EXPECT_EQ(0, LetterOfMountPoint("\\\\server\\share"));
}

TEST(DokanNodeTable, PathsFollowRenamesAndNodesGoWhenForgotten) {
  qb::dokan::NodeTable t;
  const uint64_t a = t.Obtain(qb::dokan::NodeTable::kRoot, "A", true);
  const uint64_t b = t.Obtain(a, "b.txt", true);
  EXPECT_EQ("\\A\\b.txt", t.PathOf(b).value_or(""));
  EXPECT_EQ(b, t.Obtain(a, "b.txt", true));  // same name, same node
  const uint64_t c = t.Obtain(qb::dokan::NodeTable::kRoot, "C", true);
  t.Renamed(qb::dokan::NodeTable::kRoot, "A", c, "D");
  EXPECT_EQ("\\C\\D\\b.txt", t.PathOf(b).value_or(""));
  t.Forget(a, 1);  // its child still holds it
  EXPECT_TRUE(t.PathOf(b).has_value());
  t.Forget(b, 2);
  EXPECT_FALSE(t.PathOf(b).has_value());
  EXPECT_FALSE(t.PathOf(a).has_value());  // went with its last child
  EXPECT_EQ(0u, t.Find(c, "D"));
  EXPECT_EQ(0u, t.Obtain(12345, "x", true));  // unknown parent
  t.Unlinked(qb::dokan::NodeTable::kRoot, "C");
  EXPECT_EQ("\\C", t.PathOf(c).value_or(""));  // an open file keeps its last path
  EXPECT_EQ(0u, t.Find(qb::dokan::NodeTable::kRoot, "C"));
}

TEST(DokanNodeTable, OneNodePerObjectWhateverTheCaseAndNoPathForAGoneName) {
  using qb::dokan::NodeTable;
  NodeTable t;
  const uint64_t foo = t.Obtain(NodeTable::kRoot, "Foo", true);
  EXPECT_EQ(foo, t.Obtain(NodeTable::kRoot, "FOO", true));
  EXPECT_EQ(foo, t.Find(NodeTable::kRoot, "foo"));
  EXPECT_EQ("\\Foo", t.PathOf(foo).value_or(""));  // the first spelling stays
  t.Obtain(NodeTable::kRoot, "fOO", false, true);     // the file system's own
  EXPECT_EQ("\\fOO", t.PathOf(foo).value_or(""));
  t.Renamed(NodeTable::kRoot, "foo", NodeTable::kRoot, "FOO");  // a change of case
  bool linked = false;
  EXPECT_EQ("\\FOO", t.PathOf(foo, &linked).value_or(""));
  EXPECT_TRUE(linked);

  const uint64_t dir = t.Obtain(NodeTable::kRoot, "Dir", true);
  const uint64_t inner = t.Obtain(dir, "a.txt", true);
  const uint64_t other = t.Obtain(NodeTable::kRoot, "other", true);
  t.Renamed(NodeTable::kRoot, "other", NodeTable::kRoot, "dir");  // replaces Dir
  EXPECT_EQ("\\Dir\\a.txt", t.PathOf(inner, &linked).value_or(""));
  EXPECT_FALSE(linked);  // its folder's name leads to another object now
  EXPECT_EQ(other, t.Find(NodeTable::kRoot, "DIR"));
  EXPECT_TRUE(t.PathOf(other, &linked).has_value());
  EXPECT_TRUE(linked);
}

TEST(DokanNodeTable, ContentStampsAndNamesStayWithTheirOwnNodes) {
  using qb::dokan::ContentStamp;
  using qb::dokan::NodeTable;
  NodeTable t;
  const ContentStamp s1{10, 1, 2}, s2{11, 1, 3};
  const uint64_t a = t.Obtain(NodeTable::kRoot, "a.txt", true);
  EXPECT_FALSE(t.SameContent(a, s1));  // first open: nothing to keep
  EXPECT_TRUE(t.SameContent(a, s1));
  EXPECT_FALSE(t.SameContent(a, s2));
  t.ForgetContent(a);
  EXPECT_FALSE(t.SameContent(a, s2));
  EXPECT_TRUE(t.SameContent(a, s2));

  // The old node goes after a new object took its name: the name stays
  // with the new node, and the new node starts without a stamp.
  t.Unlinked(NodeTable::kRoot, "a.txt");
  const uint64_t b = t.Obtain(NodeTable::kRoot, "A.TXT", true);
  EXPECT_NE(a, b);
  t.Forget(a, 1);
  EXPECT_FALSE(t.PathOf(a).has_value());
  EXPECT_FALSE(t.SameContent(a, s2));  // unknown node
  EXPECT_EQ(b, t.Find(NodeTable::kRoot, "a.TXT"));
  EXPECT_FALSE(t.SameContent(b, s2));

  // Many long names moved to another folder in another spelling.
  const uint64_t from = t.Obtain(NodeTable::kRoot, "from", true);
  const uint64_t to = t.Obtain(NodeTable::kRoot, "to", true);
  std::vector<uint64_t> ids;
  for (int i = 0; i < 2000; ++i)
    ids.push_back(t.Obtain(from, "a rather long file name " + std::to_string(i) + ".jpg", true));
  for (int i = 0; i < 2000; ++i)
    t.Renamed(from, "A RATHER LONG FILE NAME " + std::to_string(i) + ".JPG", to,
              "moved file name number " + std::to_string(i));
  for (int i = 0; i < 2000; i += 7) {
    EXPECT_EQ(ids[i], t.Find(to, "MOVED file name NUMBER " + std::to_string(i)));
    EXPECT_EQ(0u, t.Find(from, "a rather long file name " + std::to_string(i) + ".jpg"));
    EXPECT_EQ("\\to\\moved file name number " + std::to_string(i), t.PathOf(ids[i]).value_or(""));
  }
  EXPECT_EQ(2004u, t.Size());  // root, b, from, to and the files
  t.Forget(from, 1);
  EXPECT_FALSE(t.PathOf(from).has_value());  // its children moved away
}

}  // namespace
