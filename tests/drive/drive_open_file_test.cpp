// An open file outlives its name: another program saves over it, deletes
// it or renames it while this process holds it open, and the open keeps its
// own object until it is closed.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "drive_fixture.h"
#include "support/files.h"

namespace qbtest {
namespace {

namespace fs = std::filesystem;


std::string Content(size_t size, char seed) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i * 7 + static_cast<size_t>(seed)) % 26);
  return text;
}

// Closes the descriptor also when a test fails.
struct Fd {
  int fd = -1;
  ~Fd() { if (fd >= 0) ::close(fd); }
  int Release() { int f = fd; fd = -1; return f; }
};

class DriveOpenFileTest : public DriveTest {
 protected:
  std::string PreadAll(int fd, size_t size, off_t offset) {
    std::string out(size, '\0');
    size_t done = 0;
    while (done < size) {
      const ssize_t n = ::pread(fd, out.data() + done, size - done, offset + static_cast<off_t>(done));
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    out.resize(done);
    return out;
  }
  off_t SizeOf(int fd) {
    struct stat st {};
    return ::fstat(fd, &st) == 0 ? st.st_size : -1;
  }
  // Where the drive keeps the copies of files removed while open.
  fs::path KeptCopies() const { return home_ / "local" / "Quillbox" / "Open" / std::string(1, kLetter); }
  size_t Closes(const std::string& path) {
    const std::string text = TraceText(), line = "CLOSE_FILE : \"" + path + "\"";
    size_t count = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++count;
    return count;
  }
  // Closes the descriptor and waits until the drive has ended its open.
  bool CloseAndWait(Fd& f, const std::string& path) {
    const size_t before = Closes(path);
    ::close(f.Release());
    return WaitUntil([&] { return Closes(path) > before; }, kDeviceLimitMs);
  }
  bool NoKeptCopies() {
    return WaitUntil([&] { std::error_code ec; return !fs::exists(KeptCopies(), ec) || fs::is_empty(KeptCopies(), ec); },
                     kDeviceLimitMs);
  }
};

TEST_F(DriveOpenFileTest, ReaderKeepsItsFileWhileAnEditorSavesOverIt) {
  const std::string old = Content(300000, 1);
  WriteDeviceFile("doc/doc.txt", old);
  ASSERT_TRUE(Mount());
  Fd f{::open((Drive() + "/doc/doc.txt").c_str(), O_RDONLY)};
  ASSERT_GE(f.fd, 0);
  EXPECT_EQ(PreadAll(f.fd, 10, 0), old.substr(0, 10));

  std::string out;
  ASSERT_EQ(Sh("printf 'the new version' > \"$D/doc/doc.txt.tmp\" && mv \"$D/doc/doc.txt.tmp\" \"$D/doc/doc.txt\"",
               &out), 0) << out;
  // The reader still sees its own object: size and every byte.
  EXPECT_EQ(SizeOf(f.fd), static_cast<off_t>(old.size()));
  EXPECT_TRUE(PreadAll(f.fd, old.size(), 0) == old);
  // Everybody else sees the saved version.
  ASSERT_EQ(Sh("cat \"$D/doc/doc.txt\"", &out), 0);
  EXPECT_EQ(out, "the new version");
  EXPECT_TRUE(DeviceHolds("doc/doc.txt", "the new version"));
  ::close(f.Release());
  EXPECT_TRUE(NoKeptCopies());
  ASSERT_EQ(Sh("cat \"$D/doc/doc.txt\"", &out), 0);
  EXPECT_EQ(out, "the new version");
}

TEST_F(DriveOpenFileTest, DeletedOpenFileStaysReadableAndWritableAndIsNotUploaded) {
  WriteDeviceFile("doc/gone.txt", "the old version");
  ASSERT_TRUE(Mount());
  // Opened for writing, never read before the delete.
  Fd f{::open((Drive() + "/doc/gone.txt").c_str(), O_RDWR)};
  ASSERT_GE(f.fd, 0);
  std::string out;
  ASSERT_EQ(Sh("rm \"$D/doc/gone.txt\" && ls \"$D/doc\"", &out), 0) << out;
  EXPECT_EQ(out, "");
  EXPECT_FALSE(fs::exists(Storage() / "doc" / "gone.txt"));

  EXPECT_EQ(SizeOf(f.fd), 15);
  ASSERT_EQ(::pwrite(f.fd, "NEW!", 4, 0), 4);
  ASSERT_EQ(::pwrite(f.fd, " and more", 9, 15), 9);
  EXPECT_EQ(SizeOf(f.fd), 24);
  EXPECT_EQ(PreadAll(f.fd, 100, 0), "NEW!old version and more");
  ASSERT_TRUE(CloseAndWait(f, "\\doc\\gone.txt"));
  // The last close drops the content; nothing reached the device, and
  // nothing was taken for content that failed to get there.
  EXPECT_TRUE(NoKeptCopies());
  EXPECT_FALSE(fs::exists(Storage() / "doc" / "gone.txt"));
  EXPECT_FALSE(fs::exists(home_ / "local" / "Quillbox" / "Rescued"));
  ASSERT_EQ(Sh("ls \"$D/doc\"", &out), 0);
  EXPECT_EQ(out, "");
}

TEST_F(DriveOpenFileTest, RenamedOpenFileKeepsWorkingAndReachesTheDeviceUnderItsNewName) {
  WriteDeviceFile("doc/a.txt", "0123456789");
  WriteDeviceFile("doc/0.txt", "x");
  ASSERT_TRUE(Mount());
  // A free record in the tree, which the device's new objects may take.
  std::string out;
  ASSERT_EQ(Sh("rm \"$D/doc/0.txt\"", &out), 0) << out;
  Fd f{::open((Drive() + "/doc/a.txt").c_str(), O_RDWR)};
  ASSERT_GE(f.fd, 0);
  ASSERT_EQ(::pwrite(f.fd, "AB", 2, 0), 2);
  ASSERT_EQ(Sh("mv \"$D/doc/a.txt\" \"$D/doc/b.txt\" && ls \"$D/doc\"", &out), 0) << out;
  EXPECT_EQ(out, "b.txt\n");
  // Written before the rename: on the device under the new name already.
  EXPECT_TRUE(DeviceHolds("doc/b.txt", "AB23456789"));
  ASSERT_EQ(::pwrite(f.fd, "XYZ", 3, 8), 3);
  EXPECT_EQ(SizeOf(f.fd), 11);
  EXPECT_EQ(PreadAll(f.fd, 100, 0), "AB234567XYZ");
  ::close(f.Release());
  EXPECT_TRUE(DeviceHolds("doc/b.txt", "AB234567XYZ"));
  EXPECT_FALSE(fs::exists(Storage() / "doc" / "a.txt"));
  ASSERT_EQ(Sh("cat \"$D/doc/b.txt\"; ls \"$D/doc\"", &out), 0);
  EXPECT_EQ(out, "AB234567XYZb.txt\n");
}

}  // namespace
}  // namespace qbtest
