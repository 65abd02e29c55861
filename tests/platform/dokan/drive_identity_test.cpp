// What an open object and a name stand for: an open file keeps its own
// size, times and data until its last close, whatever happens to its name;
// names that differ only in case lead to one object; the figures that the
// drive reports about names are the ones it enforces.
#include <gtest/gtest.h>

#include "mounted_drive_test.h"

namespace qbtest {
namespace {

class DriveIdentity : public MountedDriveTest {
 protected:
  // Runs a Perl program with the drive's root as its working folder.
  int Perl(const std::string& program, std::string* out) {
    return Sh("cd " + At("") + " && perl -e " + Quote(program), out);
  }
};

TEST_F(DriveIdentity, AReaderKeepsTheOldFileWhenAnEditorSavesOverIt) {
  ASSERT_EQ(0, Sh("head -c 10000 /dev/urandom > " + At("doc.txt") + " && cp " + At("doc.txt") +
                  " " + Quote((home_ / "doc.orig").string())));
  // The reader reads 10 bytes; the editor writes a temporary file and
  // renames it over the name; the reader then asks for its size and reads
  // on.
  const std::string reader = R"(
    open(my $r, "<", "doc.txt") or die "open: $!";
    sysread($r, my $head, 10) == 10 or die "head: $!";
    open(my $w, ">", "doc.txt.tmp") or die "tmp: $!";
    print $w "saved\n"; close($w) or die "close: $!";
    rename("doc.txt.tmp", "doc.txt") or die "rename: $!";
    my @st = stat($r) or die "fstat: $!";
    my ($rest, $n) = ("", 0);
    while (($n = sysread($r, my $chunk, 4096)) > 0) { $rest .= $chunk; }
    defined $n or die "read: $!";
    open(my $o, ">", $ARGV[0]) or die; print $o $head . $rest; close($o);
    print "$st[7] ", length($rest), "\n";)";
  std::string out;
  ASSERT_EQ(0, Sh("cd " + At("") + " && perl -e " + Quote(reader) + " " +
                  Quote((home_ / "doc.read").string()), &out)) << out;
  EXPECT_EQ("10000 9990\n", out);
  EXPECT_EQ(0, Sh("cmp " + Quote((home_ / "doc.orig").string()) + " " +
                  Quote((home_ / "doc.read").string())));
  ASSERT_EQ(0, Sh("cat " + At("doc.txt") + " && stat -c %s " + At("doc.txt"), &out));
  EXPECT_EQ("saved\n6\n", out);  // the name leads to the new file
  std::string content;
  ASSERT_TRUE(Fs().Read("\\doc.txt", &content));
  EXPECT_EQ("saved\n", content);
}

TEST_F(DriveIdentity, AnUnlinkedOpenFileStaysReadableAndWritableUntilItsLastClose) {
  const std::string program = R"(
    open(my $f, "+>", "scratch.txt") or die "open: $!";
    syswrite($f, "hello") == 5 or die "write: $!";
    unlink("scratch.txt") or die "unlink: $!";
    print -e "scratch.txt" ? "name stays\n" : "name gone\n";
    syswrite($f, " world") == 6 or die "write after unlink: $!";
    my @st = stat($f) or die "fstat: $!";
    print "$st[7] $st[3]\n";
    sysseek($f, 0, 0) or die "seek: $!";
    sysread($f, my $back, 100);
    print "$back\n";
    open(my $g, ">", "scratch.txt") or die "again: $!";
    print $g "new"; close($g);
    chmod(0444, $f) or die "fchmod: $!";
    @st = stat($f) or die "fstat: $!";
    printf("%d %o\n", $st[7], $st[2] & 0777);)";
  std::string out;
  ASSERT_EQ(0, Perl(program, &out)) << out;
  EXPECT_EQ("name gone\n11 0\nhello world\n11 444\n", out);
  std::string content;
  ASSERT_TRUE(Fs().Read("\\scratch.txt", &content));
  EXPECT_EQ("new", content);  // a new file under the old name, untouched
  EXPECT_EQ(0u, Fs().Attributes("\\scratch.txt") & FILE_ATTRIBUTE_READONLY);
  ASSERT_TRUE(WaitForCalls("\\scratch.txt", {"WriteFile", "Cleanup", "CloseFile"}));
}

TEST_F(DriveIdentity, NamesThatDifferOnlyInCaseAreOneObject) {
  ASSERT_EQ(0, Sh("echo one > " + At("Foo") + " && mkdir " + At("Dir") + " && echo a > " +
                  At("dir/A.txt")));
  std::string out;
  ASSERT_EQ(0, Sh("stat -c %i " + At("Foo") + " " + At("foo") + " " + At("FOO") + " | uniq | wc -l",
                  &out));
  EXPECT_EQ("1\n", out);
  ASSERT_EQ(0, Sh("stat -c %i " + At("Dir") + " " + At("DIR") + " | uniq | wc -l", &out));
  EXPECT_EQ("1\n", out);
  ASSERT_EQ(0, Sh("echo two >> " + At("foo") + " && cat " + At("FOO"), &out));
  EXPECT_EQ("one\ntwo\n", out);
  ASSERT_EQ(0, Sh("ls " + At("") + " " + At("DIR"), &out));
  EXPECT_NE(std::string::npos, out.find("Dir\nFoo\n")) << out;  // as the file system keeps them
  EXPECT_NE(std::string::npos, out.find("A.txt\n")) << out;
  EXPECT_EQ(std::string::npos, out.find("foo")) << out;
  // A removal through one spelling removes the object for every spelling.
  ASSERT_EQ(0, Sh("rm " + At("FOO")));
  EXPECT_NE(0, Sh("test -e " + At("Foo")));
  EXPECT_NE(0, Sh("test -e " + At("foo")));
  EXPECT_FALSE(Fs().Exists("\\Foo"));
}

TEST_F(DriveIdentity, TheRootListsItsParentEntry) {
  std::string out;
  ASSERT_EQ(0, Sh("ls -a " + At(""), &out));
  EXPECT_EQ(".\n..\n", out);
  ASSERT_EQ(0, Sh("mkdir " + At("sub") + " && ls -a " + At("sub"), &out));
  EXPECT_EQ(".\n..\n", out);
}

TEST_F(DriveIdentity, TheNameLimitOfAFolderIsTheLongestNameThatFitsInIt) {
  std::string out;
  ASSERT_EQ(0, Sh("stat -f -c %l " + At(""), &out));
  EXPECT_EQ("255\n", out);  // the file system's own limit
  // \aaa...(100)\bbb...(100) is 202 characters; a path stays below 260.
  const std::string deep = std::string(100, 'a') + "/" + std::string(100, 'b');
  ASSERT_EQ(0, Sh("mkdir -p " + At(deep) + " && stat -f -c %l " + At(deep), &out));
  EXPECT_EQ("56\n", out);
  EXPECT_EQ(0, Sh("touch " + At(deep + "/" + std::string(56, 'n'))));
  EXPECT_NE(0, Sh("touch " + At(deep + "/" + std::string(57, 'n')), &out));
  EXPECT_NE(std::string::npos, out.find("too long")) << out;
}

}  // namespace
}  // namespace qbtest
