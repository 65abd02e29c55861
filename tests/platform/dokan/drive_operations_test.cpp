// Ordinary file operations made by other processes on a mounted test drive,
// and the calls that each of them makes reach the operation table with.
#include <gtest/gtest.h>

#include "mounted_drive_test.h"
#include "platform/dokan/dokan_linux.h"

namespace qbtest {
namespace {

class DriveOperations : public MountedDriveTest {
 protected:
  // One shell writes a.txt, then b.txt, then copies a.txt to seen.txt,
  // while what was held of a.txt waits; it is let go once b.txt's `op`
  // reached the table. The calls, after every end has run.
  void WriteTwoWhileTheFirstIsHeld(const std::string& op, std::vector<FsCall>* calls) {
    ClearCalls();
    qb::sys::ChildProcess writer;
    ASSERT_TRUE(qb::sys::SpawnProcess({"/bin/sh", "-c",
                                       "echo a > " + At("a.txt") + " && echo b > " + At("b.txt") + " && cat " +
                                           At("a.txt") + " > " + At("seen.txt")},
                                      {}, &writer));
    ASSERT_TRUE(WaitForCalls("\\b.txt", {op}));
    Fs().ReleaseEnds();
    int code = -1;
    ASSERT_TRUE(writer.Wait(15000, &code));
    EXPECT_EQ(0, code);
    Sh("stat -f " + root_ + " >/dev/null");  // every end has run
    std::string seen;
    ASSERT_TRUE(Fs().Read("\\seen.txt", &seen));
    EXPECT_EQ("a\n", seen);
    *calls = Fs().Calls();
  }
};

// Position of the first call `op` of `path` (calls.size() when missing).
size_t PositionOf(const std::vector<FsCall>& calls, const std::string& op, const std::string& path) {
  for (size_t i = 0; i < calls.size(); ++i)
    if (calls[i].op == op && calls[i].path == path) return i;
  return calls.size();
}

// Position of the last open of `path` (calls.size() when none).
size_t LastOpenOf(const std::vector<FsCall>& calls, const std::string& path) {
  size_t last = calls.size();
  for (size_t i = 0; i < calls.size(); ++i)
    if (calls[i].op == "ZwCreateFile" && calls[i].path == path) last = i;
  return last;
}

TEST_F(DriveOperations, CopyInAndOutKeepsTheBytesAndOpensAsWindowsWould) {
  const std::string local = (home_ / "src.bin").string();
  ASSERT_EQ(0, Sh("head -c 300000 /dev/urandom > " + Quote(local)));
  ClearCalls();
  ASSERT_EQ(0, Sh("cp " + Quote(local) + " " + At("a.bin")));
  ASSERT_TRUE(WaitForCalls("\\a.bin", {"ZwCreateFile", "WriteFile", "Cleanup", "CloseFile"}))
      << OpNames(CallsFor(Fs().Calls(), "\\a.bin"));
  const auto calls = CallsFor(Fs().Calls(), "\\a.bin");
  const FsCall* create = nullptr;
  for (const FsCall& c : calls)
    if (c.op == "ZwCreateFile" && DetailValue(c, "disp") == std::to_string(FILE_CREATE)) create = &c;
  ASSERT_NE(nullptr, create) << OpNames(calls);
  EXPECT_EQ(std::to_string(CREATE_NEW), DetailValue(*create, "win32disp"));
  EXPECT_NE("0", DetailValue(*create, "pid"));

  ASSERT_EQ(0, Sh("cmp " + Quote(local) + " " + At("a.bin")));
  ASSERT_EQ(0, Sh("cp " + At("a.bin") + " " + Quote((home_ / "back.bin").string()) + " && cmp " +
                  Quote(local) + " " + Quote((home_ / "back.bin").string())));
}


TEST_F(DriveOperations, MkdirPTouchAndUnicodeNamesBecomeCreates) {
  ClearCalls();
  ASSERT_EQ(0, Sh("mkdir -p " + At("d1/d2/d3")));
  EXPECT_TRUE(Fs().Exists("\\d1\\d2\\d3"));
  const auto calls = CallsFor(Fs().Calls(), "\\d1\\d2");
  ASSERT_TRUE(HasInOrder(calls, {"ZwCreateFile", "GetFileInformation", "Cleanup", "CloseFile"}))
      << OpNames(calls);
  bool created = false;
  for (const FsCall& c : calls)
    if (c.op == "ZwCreateFile" && DetailValue(c, "disp") == std::to_string(FILE_CREATE)) {
      created = true;
      EXPECT_NE(0u, std::stoul(DetailValue(c, "opts"), nullptr, 16) & FILE_DIRECTORY_FILE)
          << c.detail;
      EXPECT_EQ("1", DetailValue(c, "dir"));
    }
  EXPECT_TRUE(created);
  ASSERT_EQ(0, Sh("mkdir -p " + At("d1/d2")));  // exists: no error

  const std::string name = "Gr\xC3\xBC\xC3\x9F" "e.txt";
  ASSERT_EQ(0, Sh("touch -d '2001-02-03 04:05:06 UTC' " + At("d1/" + name)));
  std::string out;
  ASSERT_EQ(0, Sh("stat -c %Y " + At("d1/" + name), &out));
  EXPECT_EQ("981173106\n", out);
  const auto touched = CallsFor(Fs().Calls(), "\\d1\\" + name);
  ASSERT_TRUE(HasInOrder(touched, {"ZwCreateFile", "SetFileTime"})) << OpNames(touched);
  for (const FsCall& c : touched)
    if (c.op == "SetFileTime") {
      EXPECT_EQ("-", DetailValue(c, "c"));
      EXPECT_EQ(std::to_string((981173106ull + 11644473600ull) * 10000000ull), DetailValue(c, "w"));
    }
  ASSERT_EQ(0, Sh("ls " + At("d1"), &out));
  EXPECT_NE(std::string::npos, out.find(name));
}

TEST_F(DriveOperations, ListingALargeFolderCostsOneFindFilesNotOneRequestPerFile) {
  ASSERT_EQ(0, Sh("mkdir " + At("big")));
  for (int i = 0; i < 300; ++i)
    ASSERT_TRUE(Fs().PutFile("\\big\\f" + std::to_string(i) + ".txt", std::string(i, 'x')));
  ClearCalls();
  std::string out;
  ASSERT_EQ(0, Sh("ls -l " + At("big"), &out));
  EXPECT_NE(std::string::npos, out.find(" 299 ")) << out;  // f299.txt with its size
  const auto calls = Fs().Calls();
  int finds = 0, perFile = 0;
  for (const FsCall& c : calls) {
    if (c.op == "FindFiles") ++finds;
    if (c.path.rfind("\\big\\", 0) == 0) ++perFile;
  }
  EXPECT_GE(finds, 1);
  EXPECT_LT(perFile, 10) << "requests per file: " << perFile;

  ASSERT_EQ(0, Sh("find " + At("big") + " -type f | wc -l", &out));
  EXPECT_EQ("300\n", out);
}

TEST_F(DriveOperations, DfShowsTheVolumeAndTheMountTableItsNames) {
  ClearCalls();
  std::string out;
  ASSERT_EQ(0, Sh("df -P -k " + At(""), &out));
  EXPECT_NE(std::string::npos, out.find("1048576")) << out;  // 1 GiB in 1K blocks
  EXPECT_TRUE(HasInOrder(Fs().Calls(), {"GetDiskFreeSpace", "GetVolumeInformation"}));
  ASSERT_EQ(0, Sh("grep -F " + Quote(" " + root_ + " ") + " /proc/self/mounts", &out));
  EXPECT_NE(std::string::npos, out.find("Test\\040Volume " + root_ + " fuse.memfs ")) << out;
  EXPECT_EQ(qb::dokan::DRIVE_REMOVABLE, qb::dokan::GetDriveType('Q'));
  EXPECT_FALSE(qb::dokan::IsDriveLetterFree('Q'));
}

TEST_F(DriveOperations, MoveRenamesWithReplaceAndCarriesFolders) {
  ASSERT_EQ(0, Sh("mkdir -p " + At("m/sub") + " && echo one > " + At("m/sub/a.txt") +
                  " && echo two > " + At("b.txt") + " && echo three > " + At("c.txt")));
  ClearCalls();
  ASSERT_EQ(0, Sh("mv " + At("b.txt") + " " + At("c.txt")));
  const auto calls = CallsFor(Fs().Calls(), "\\b.txt");
  ASSERT_TRUE(HasInOrder(calls, {"ZwCreateFile", "MoveFile", "Cleanup", "CloseFile"}))
      << OpNames(calls);
  for (const FsCall& c : calls)
    if (c.op == "MoveFile") {
      EXPECT_EQ("\\c.txt replace=1", c.detail);
    }
  std::string content;
  ASSERT_TRUE(Fs().Read("\\c.txt", &content));
  EXPECT_EQ("two\n", content);
  EXPECT_FALSE(Fs().Exists("\\b.txt"));

  ASSERT_EQ(0, Sh("mv " + At("m") + " " + At("n")));
  std::string out;
  ASSERT_EQ(0, Sh("cat " + At("n/sub/a.txt"), &out));
  EXPECT_EQ("one\n", out);
  EXPECT_NE(0, Sh("test -e " + At("m")));

  ClearCalls();
  ASSERT_EQ(0, Sh("mv " + At("n/sub/a.txt") + " " + At("moved.txt")));
  for (const FsCall& c : Fs().Calls())
    if (c.op == "MoveFile") {
      EXPECT_EQ("\\n\\sub\\a.txt", c.path);
      // mv asks for no replacing (RENAME_NOREPLACE) when it saw no target.
      EXPECT_EQ(0u, c.detail.rfind("\\moved.txt replace=", 0)) << c.detail;
    }
  ASSERT_TRUE(Fs().Read("\\MOVED.TXT", &content));  // names ignore case
  EXPECT_EQ("one\n", content);
}

TEST_F(DriveOperations, RecursiveCopyKeepsTreeContentAndTimes) {
  const std::string local = (home_ / "tree").string();
  ASSERT_EQ(0, Sh("mkdir -p " + Quote(local + "/a/b") + " && echo 1 > " + Quote(local + "/a/one") +
                  " && head -c 70000 /dev/urandom > " + Quote(local + "/a/b/two") +
                  " && touch -d '2010-05-06 07:08:09 UTC' " + Quote(local + "/a/b/two")));
  ASSERT_EQ(0, Sh("cp -rp " + Quote(local) + " " + At("")));
  std::string out;
  EXPECT_EQ(0, Sh("diff -r " + Quote(local) + " " + At("tree"), &out)) << out;
  ASSERT_EQ(0, Sh("stat -c %Y " + At("tree/a/b/two"), &out));
  EXPECT_EQ("1273129689\n", out);
  ASSERT_EQ(0, Sh("cp -r " + At("tree") + " " + Quote((home_ / "back").string()) + " && diff -r " +
                  Quote(local) + " " + Quote((home_ / "back").string()), &out)) << out;
}

TEST_F(DriveOperations, RemoveRecursiveDeletesOnCloseAfterAsking) {
  ASSERT_EQ(0, Sh("mkdir -p " + At("r/s") + " && echo x > " + At("r/s/f.txt") + " && echo y > " +
                  At("r/g.txt")));
  ClearCalls();
  ASSERT_EQ(0, Sh("rm -r " + At("r")));
  EXPECT_FALSE(Fs().Exists("\\r"));
  const auto file = CallsFor(Fs().Calls(), "\\r\\s\\f.txt");
  EXPECT_EQ("ZwCreateFile DeleteFile Cleanup CloseFile", OpNames(file));
  ASSERT_FALSE(file.empty());
  EXPECT_NE(0u, std::stoul(DetailValue(file[0], "opts"), nullptr, 16) & FILE_DELETE_ON_CLOSE);
  EXPECT_EQ(1, file[0].deleteOnClose);
  EXPECT_EQ(1, file[2].deleteOnClose);
  const auto dir = CallsFor(Fs().Calls(), "\\r\\s");
  EXPECT_TRUE(HasInOrder(dir, {"ZwCreateFile", "DeleteDirectory", "Cleanup", "CloseFile"}))
      << OpNames(dir);
}

TEST_F(DriveOperations, ChmodWriteBitsIsTheReadOnlyAttributeAndProtectsTheFile) {
  ASSERT_EQ(0, Sh("echo keep > " + At("ro.txt")));
  ClearCalls();
  ASSERT_EQ(0, Sh("chmod a-w " + At("ro.txt")));
  EXPECT_TRUE(Fs().Attributes("\\ro.txt") & FILE_ATTRIBUTE_READONLY);
  EXPECT_TRUE(HasInOrder(CallsFor(Fs().Calls(), "\\ro.txt"),
                         {"ZwCreateFile", "GetFileInformation", "SetFileAttributes", "Cleanup",
                          "CloseFile"}));
  std::string out;
  ASSERT_EQ(0, Sh("stat -c %a " + At("ro.txt"), &out));
  EXPECT_EQ("444\n", out);

  ClearCalls();
  EXPECT_NE(0, Sh("rm -f " + At("ro.txt")));  // refused: the file stays
  EXPECT_TRUE(Fs().Exists("\\ro.txt"));
  EXPECT_EQ("ZwCreateFile DeleteFile CloseFile", OpNames(CallsFor(Fs().Calls(), "\\ro.txt")));
  EXPECT_NE(0, Sh("echo more >> " + At("ro.txt")));
  std::string content;
  ASSERT_TRUE(Fs().Read("\\ro.txt", &content));
  EXPECT_EQ("keep\n", content);

  ASSERT_EQ(0, Sh("chmod u+w " + At("ro.txt") + " && rm " + At("ro.txt")));
  EXPECT_FALSE(Fs().Exists("\\ro.txt"));
}

TEST_F(DriveOperations, TruncateSetsEndOfFileAndCutsTheAllocation) {
  ASSERT_EQ(0, Sh("head -c 100 /dev/zero > " + At("t.bin")));
  ClearCalls();
  ASSERT_EQ(0, Sh("truncate -s 10 " + At("t.bin")));
  auto calls = CallsFor(Fs().Calls(), "\\t.bin");
  EXPECT_TRUE(HasInOrder(calls, {"SetEndOfFile", "SetAllocationSize"})) << OpNames(calls);
  std::string content;
  ASSERT_TRUE(Fs().Read("\\t.bin", &content));
  EXPECT_EQ(10u, content.size());

  ClearCalls();
  ASSERT_EQ(0, Sh("truncate -s 50 " + At("t.bin")));
  calls = CallsFor(Fs().Calls(), "\\t.bin");
  EXPECT_TRUE(HasInOrder(calls, {"SetEndOfFile"}));
  EXPECT_FALSE(HasInOrder(calls, {"SetAllocationSize"}));  // growing needs no allocation call
  std::string out;
  ASSERT_EQ(0, Sh("stat -c %s " + At("t.bin"), &out));
  EXPECT_EQ("50\n", out);
}

TEST_F(DriveOperations, AppendsWriteToTheEndOfFile) {
  ASSERT_EQ(0, Sh("echo a > " + At("log.txt")));
  ClearCalls();
  ASSERT_EQ(0, Sh("echo b >> " + At("log.txt") + " && echo c >> " + At("log.txt")));
  std::string content;
  ASSERT_TRUE(Fs().Read("\\log.txt", &content));
  EXPECT_EQ("a\nb\nc\n", content);
  int appendingWrites = 0;
  for (const FsCall& c : CallsFor(Fs().Calls(), "\\log.txt")) {
    if (c.op == "ZwCreateFile") {
      EXPECT_EQ("1", DetailValue(c, "append"));
      const unsigned access = std::stoul(DetailValue(c, "win32access"), nullptr, 16);
      EXPECT_TRUE(access & FILE_APPEND_DATA);
      EXPECT_FALSE(access & FILE_WRITE_DATA);
    }
    if (c.op == "WriteFile" && DetailValue(c, "eof") == "1") ++appendingWrites;
  }
  EXPECT_EQ(2, appendingWrites);

  ClearCalls();
  ASSERT_EQ(0, Sh("dd if=/dev/zero of=" + At("log.txt") + " bs=1k count=1 conv=fsync"));
  EXPECT_TRUE(HasInOrder(CallsFor(Fs().Calls(), "\\log.txt"),
                         {"ZwCreateFile", "WriteFile", "FlushFileBuffers"}));
}

// Lengths of the WriteFile calls of `path` since the last ClearCalls.
std::vector<std::string> WriteLengths(MemFs& fs, const std::string& path) {
  std::vector<std::string> lengths;
  for (const FsCall& c : CallsFor(fs.Calls(), path))
    if (c.op == "WriteFile") lengths.push_back(DetailValue(c, "len"));
  return lengths;
}

// A write-only open that is the file's only one bypasses the kernel's page
// cache: a 1 MiB write(2) from a page-aligned buffer at an offset inside a
// page reaches WriteFile whole (through the page cache it would span 257
// pages and come in two parts). With a reader holding the file open the
// writes go through the cache, and the reader, a new open and the device
// side all see every byte.
TEST_F(DriveOperations, AWriteOnlyOpenAloneWritesPastThePageCacheAndReadersSeeEveryWrite) {
  const std::string src = Quote((home_ / "src.bin").string()), src2 = Quote((home_ / "src2.bin").string());
  const std::string want = Quote((home_ / "want.bin").string()), want2 = Quote((home_ / "want2.bin").string());
  ASSERT_EQ(0, Sh("head -c 2097152 /dev/urandom > " + src + " && head -c 2097152 /dev/urandom > " + src2));
  ASSERT_TRUE(Fs().PutFile("\\w.bin", std::string(100, 'a')));
  ASSERT_EQ(0, Sh("{ printf %0100d 0 | tr 0 a; cat " + src + "; } > " + want + " && { printf %0100d 0 | tr 0 a; cat " +
                  src2 + "; } > " + want2));
  const std::string dd = " of=" + At("w.bin") + " bs=1M count=2 oflag=seek_bytes seek=100 conv=notrunc status=none";
  ClearCalls();
  ASSERT_EQ(0, Sh("dd if=" + src + dd + " && cmp " + want + " " + At("w.bin")));
  EXPECT_EQ((std::vector<std::string>{"1048576", "1048576"}), WriteLengths(Fs(), "\\w.bin"));

  ClearCalls();
  // Both readers open before the write; the first fills the page cache.
  ASSERT_EQ(0, Sh("exec 3< " + At("w.bin") + " 4< " + At("w.bin") + " && cmp " + want + " - <&3 && dd if=" + src2 + dd +
                  " && cmp " + want2 + " - <&4 && cmp " + want2 + " " + At("w.bin")));
  const auto lengths = WriteLengths(Fs(), "\\w.bin");
  EXPECT_GT(lengths.size(), 2u) << "the reader's open must keep the writes in the page cache";
  std::string content;
  ASSERT_TRUE(Fs().Read("\\w.bin", &content));
  std::string expected;
  ASSERT_EQ(0, Sh("cat " + want2, &expected));
  EXPECT_TRUE(content == expected);
}

TEST_F(DriveOperations, ChangesBehindTheKernelsBackShowAtOnceAfterInvalidation) {
  ASSERT_TRUE(Fs().PutFile("\\news.txt", "old\n"));
  std::string out;
  ASSERT_EQ(0, Sh("stat -c %s " + At("news.txt") + " && cat " + At("news.txt"), &out));
  EXPECT_EQ("4\nold\n", out);  // the kernel now caches the name and its size
  ASSERT_TRUE(Fs().PutFile("\\news.txt", "brand new content\n"));
  ASSERT_TRUE(qb::dokan::InvalidatePath('Q', "\\news.txt", 5000));
  ASSERT_EQ(0, Sh("stat -c %s " + At("news.txt") + " && cat " + At("news.txt"), &out));
  EXPECT_EQ("18\nbrand new content\n", out);

  ASSERT_TRUE(Fs().Remove("\\news.txt"));
  ASSERT_TRUE(qb::dokan::InvalidatePath('q', "\\news.txt", 5000));
  EXPECT_NE(0, Sh("test -e " + At("news.txt")));
  EXPECT_FALSE(qb::dokan::InvalidatePath('R', "\\news.txt", 100));  // not served here
}

TEST_F(DriveOperations, RequestsRunOnSeveralThreadsWithoutSingleThread) {
  ASSERT_TRUE(Fs().PutFile("\\slow.txt", "slow\n"));
  ASSERT_TRUE(Fs().PutFile("\\quick.txt", "quick\n"));
  Fs().BlockReadsOf("\\slow.txt");
  qb::sys::ChildProcess slow;
  ASSERT_TRUE(qb::sys::SpawnProcess(
      {"/bin/sh", "-c", "exec >/dev/null; cat " + At("slow.txt")}, {}, &slow));
  ASSERT_TRUE(WaitForCalls("\\slow.txt", {"ReadFile"}));
  // The slow read holds one request thread; another request still runs and
  // reaches the file system before the slow one is let go.
  std::string out;
  EXPECT_EQ(0, Sh("cat " + At("quick.txt"), &out));
  EXPECT_EQ("quick\n", out);
  const auto calls = Fs().Calls();
  size_t quickRead = calls.size(), released = calls.size();
  for (size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].op == "ReadFile" && calls[i].path == "\\quick.txt") quickRead = std::min(quickRead, i);
    if (calls[i].op == "ReadReleased") released = std::min(released, i);
  }
  EXPECT_LT(quickRead, released);
  Fs().ReleaseReads();
  int code = -1;
  EXPECT_TRUE(slow.Wait(15000, &code));
  EXPECT_EQ(0, code);
}

// A Cleanup may leave the rest of its end (an upload's confirmation) for
// later: the next file's Cleanup runs meanwhile, the rests and CloseFile
// come in release order, and a program that opens the file again waits
// for its rest.
TEST_F(DriveOperations, EndsWhoseRestWaitsLetTheNextCleanupRunAndKeepTheirOrder) {
  Fs().HoldEndsOf("\\a.txt");
  std::vector<FsCall> calls;
  ASSERT_NO_FATAL_FAILURE(WriteTwoWhileTheFirstIsHeld("Cleanup", &calls));
  auto at = [&](const std::string& op, const std::string& path) { return PositionOf(calls, op, path); };
  const size_t rest = at("Rest", "\\a.txt");
  ASSERT_LT(rest, calls.size()) << OpNames(calls);
  EXPECT_LT(at("Cleanup", "\\b.txt"), rest) << OpNames(calls);
  EXPECT_LT(rest, at("CloseFile", "\\a.txt")) << OpNames(calls);
  EXPECT_LT(at("CloseFile", "\\a.txt"), at("CloseFile", "\\b.txt")) << OpNames(calls);
  // cat's open of a.txt (its last open) came after the rest of the end before.
  const size_t lastOpen = LastOpenOf(calls, "\\a.txt");
  EXPECT_LT(rest, lastOpen) << OpNames(calls);
  EXPECT_LT(lastOpen, calls.size()) << OpNames(calls);
}

// close(2) of a descriptor that wrote hands the data to the file system
// (FlushFileBuffers) and returns what it says; a descriptor that only read,
// or closed before writing, costs no flush.
TEST_F(DriveOperations, CloseOfADescriptorThatWroteFlushesItAndReportsTheFlushesFailure) {
  ClearCalls();
  const auto writesAndFlushes = [](const std::vector<FsCall>& calls) {
    std::vector<std::string> ops;
    for (const FsCall& c : calls)
      if (c.op == "WriteFile" || c.op == "FlushFileBuffers") ops.push_back(c.op);
    return ops;
  };
  ASSERT_EQ(0, Sh("echo a > " + At("x.txt") + " && cat " + At("x.txt") + " >/dev/null"));
  const auto calls = CallsFor(Fs().Calls(), "\\x.txt");
  // The shell's close of its first descriptor came before the write, and
  // cat only read.
  EXPECT_EQ((std::vector<std::string>{"WriteFile", "FlushFileBuffers"}), writesAndFlushes(calls)) << OpNames(calls);
  // The flush is the close's own; the end of the open (a release, which
  // the kernel sends after close(2) returned) comes after it.
  for (const FsCall& c : calls) {
    if (c.op == "FlushFileBuffers") break;
    EXPECT_NE(c.op, "Cleanup") << OpNames(calls);
  }
  // A child that inherited the descriptor ends while the opener still
  // writes: only the opener's close flushes, once the content is whole.
  ClearCalls();
  ASSERT_EQ(0, Sh("{ sh -c 'echo one'; echo two; } > " + At("y.txt")));
  EXPECT_EQ((std::vector<std::string>{"WriteFile", "WriteFile", "FlushFileBuffers"}),
            writesAndFlushes(CallsFor(Fs().Calls(), "\\y.txt")))
      << OpNames(Fs().Calls());

  Fs().FailFlushesOf("\\full.txt");
  std::string out;
  EXPECT_NE(0, Sh("echo data > " + At("src.txt") + " && cp " + At("src.txt") + " " + At("full.txt") + " 2>&1", &out));
  EXPECT_NE(std::string::npos, out.find("failed to close")) << out;
  EXPECT_NE(std::string::npos, out.find("No space left on device")) << out;
}

// What the flush of a close leaves for later runs while the program goes
// on; the file's next open and its end wait for it.
TEST_F(DriveOperations, RestOfACloseRunsWhileTheProgramGoesOn) {
  Fs().HoldFlushesOf("\\a.txt");
  std::vector<FsCall> calls;
  ASSERT_NO_FATAL_FAILURE(WriteTwoWhileTheFirstIsHeld("FlushFileBuffers", &calls));
  auto at = [&](const std::string& op, const std::string& path) { return PositionOf(calls, op, path); };
  const size_t rest = at("Rest", "\\a.txt");
  ASSERT_LT(rest, calls.size()) << OpNames(calls);
  EXPECT_LT(at("FlushFileBuffers", "\\b.txt"), rest) << OpNames(calls);
  EXPECT_LT(rest, at("Cleanup", "\\a.txt")) << OpNames(calls);
  const size_t lastOpen = LastOpenOf(calls, "\\a.txt");
  EXPECT_LT(rest, lastOpen) << OpNames(calls);
  EXPECT_LT(lastOpen, calls.size()) << OpNames(calls);
}

TEST_F(DriveOperations, CreateThatFindsTheFileIsSuccessForAlwaysDispositions) {
  ASSERT_TRUE(Fs().PutFile("\\x.txt", "first\n"));
  Fs().HideFromOpens("\\x.txt");  // the lookup misses it; the create finds it
  ClearCalls();
  ASSERT_EQ(0, Sh("echo second > " + At("x.txt")));
  std::string content;
  ASSERT_TRUE(Fs().Read("\\x.txt", &content));
  EXPECT_EQ("second\n", content);
  bool overwriteIf = false;
  for (const FsCall& c : CallsFor(Fs().Calls(), "\\x.txt"))
    if (c.op == "ZwCreateFile" && DetailValue(c, "disp") == std::to_string(FILE_OVERWRITE_IF)) {
      overwriteIf = true;
      EXPECT_EQ(std::to_string(CREATE_ALWAYS), DetailValue(c, "win32disp"));
    }
  EXPECT_TRUE(overwriteIf) << OpNames(Fs().Calls());

  ASSERT_TRUE(Fs().PutFile("\\y.txt", "one\n"));
  Fs().HideFromOpens("\\y.txt");
  ASSERT_EQ(0, Sh("echo two >> " + At("y.txt")));  // OPEN_ALWAYS, appending
  ASSERT_TRUE(Fs().Read("\\y.txt", &content));
  EXPECT_EQ("one\ntwo\n", content);
  // CREATE_NEW of an existing name stays a collision.
  Fs().HideFromOpens("\\y.txt");
  std::string out;
  EXPECT_NE(0, Sh("set -C; echo three > " + At("y.txt"), &out));
  EXPECT_NE(std::string::npos, out.find("exists")) << out;
}

}  // namespace
}  // namespace qbtest
