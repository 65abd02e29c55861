// File content under what programs do to it: partial writes, appends,
// truncation, random operation mixes (fsx style), several writers at once,
// and open files whose names another process replaces or removes.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "conformance/file_io.h"
#include "conformance/target.h"

namespace fs = std::filesystem;
using namespace qbconf;

namespace {

// Runs `work` in a child process and returns its exit status (0 when it
// returned true). A child that does not end within the limit is killed.
template <typename Work>
int InChild(Work work, int limitSeconds = 120) {
  pid_t pid = ::fork();
  if (pid == 0) {
    alarm(static_cast<unsigned>(limitSeconds));
    bool ok = false;
    try {
      ok = work();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "child: %s\n", e.what());
    }
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

ssize_t PreadAll(int fd, char* buffer, size_t size, off_t offset) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::pread(fd, buffer + done, size - done, offset + static_cast<off_t>(done));
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

TEST(Data, PartialWritesAppendsAndTruncation) {
  fs::path f = FreshFolder("data_basic") / "f.bin";
  std::string model = Pattern(100000, 7);
  WriteAll(f, model);

  int fd = ::open(f.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  std::string middle = Pattern(5000, 8);
  ASSERT_EQ(5000, ::pwrite(fd, middle.data(), middle.size(), 40000));
  model.replace(40000, 5000, middle);
  // Writing past the end leaves a hole that reads as zeros.
  ASSERT_EQ(3, ::pwrite(fd, "end", 3, 120000));
  model.resize(120000, '\0');
  model += "end";
  ASSERT_EQ(0, ::ftruncate(fd, 110000));
  model.resize(110000);
  ASSERT_EQ(0, ::close(fd));
  EXPECT_TRUE(SameBytes(model, ReadAll(f)));

  fd = ::open(f.c_str(), O_WRONLY | O_APPEND);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(4, ::write(fd, "tail", 4));
  ASSERT_EQ(0, ::close(fd));
  model += "tail";
  EXPECT_TRUE(SameBytes(model, ReadAll(f)));

  ASSERT_EQ(0, ::truncate(f.c_str(), 0));
  EXPECT_EQ("", ReadAll(f));
}

// fsx style: a random mix of writes, reads, truncates and renames on several
// files, each checked against a model of what the content must be.
TEST(Data, RandomOperationMixKeepsEveryByte) {
  fs::path d = FreshFolder("data_fsx");
  constexpr int kFiles = 4;
  constexpr int kOperations = 10000;
  constexpr size_t kMaxSize = 512 * 1024;
  std::vector<std::string> names, models(kFiles);
  std::vector<int> fds(kFiles);
  for (int i = 0; i < kFiles; ++i) {
    names.push_back("fsx" + std::to_string(i));
    fds[i] = ::open((d / names[i]).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fds[i], 0);
  }
  std::mt19937 random(20261123);
  std::vector<char> buffer(kMaxSize);
  for (int op = 0; op < kOperations; ++op) {
    int i = static_cast<int>(random() % kFiles);
    std::string& model = models[i];
    switch (random() % 10) {
      case 0: case 1: case 2: case 3: {  // write
        size_t offset = random() % kMaxSize, length = 1 + random() % 65536;
        length = std::min(length, kMaxSize - offset);
        std::string data = Pattern(length, static_cast<uint32_t>(op));
        ASSERT_EQ(static_cast<ssize_t>(length), ::pwrite(fds[i], data.data(), length, static_cast<off_t>(offset)))
            << "op " << op;
        if (model.size() < offset + length) model.resize(offset + length, '\0');
        model.replace(offset, length, data);
        break;
      }
      case 4: case 5: case 6: {  // read and compare
        size_t offset = model.empty() ? 0 : random() % model.size();
        size_t length = 1 + random() % 65536;
        ssize_t n = PreadAll(fds[i], buffer.data(), length, static_cast<off_t>(offset));
        size_t expected = offset < model.size() ? std::min(length, model.size() - offset) : 0;
        ASSERT_EQ(static_cast<ssize_t>(expected), n) << "op " << op;
        ASSERT_EQ(0, std::memcmp(buffer.data(), model.data() + offset, expected)) << "op " << op;
        break;
      }
      case 7: {  // truncate
        size_t size = random() % kMaxSize;
        ASSERT_EQ(0, ::ftruncate(fds[i], static_cast<off_t>(size))) << "op " << op;
        model.resize(size, '\0');
        break;
      }
      case 8: {  // size check
        struct stat st {};
        ASSERT_EQ(0, ::fstat(fds[i], &st));
        ASSERT_EQ(static_cast<off_t>(model.size()), st.st_size) << "op " << op;
        break;
      }
      case 9: {  // close, rename and reopen
        ASSERT_EQ(0, ::close(fds[i])) << "op " << op;
        std::string renamed = "fsx" + std::to_string(i) + "_" + std::to_string(op);
        ASSERT_EQ(0, ::rename((d / names[i]).c_str(), (d / renamed).c_str())) << "op " << op;
        names[i] = renamed;
        fds[i] = ::open((d / names[i]).c_str(), O_RDWR);
        ASSERT_GE(fds[i], 0) << "op " << op << ": " << std::strerror(errno);
        break;
      }
    }
  }
  for (int i = 0; i < kFiles; ++i) {
    ASSERT_EQ(0, ::close(fds[i]));
    EXPECT_TRUE(SameBytes(models[i], ReadAll(d / names[i]))) << names[i];
  }
}

TEST(Data, SeveralProcessesWriteDifferentFiles) {
  fs::path d = FreshFolder("data_parallel");
  constexpr int kWriters = 4, kFilesEach = 15;
  std::vector<pid_t> children;
  for (int w = 0; w < kWriters; ++w) {
    pid_t pid = ::fork();
    if (pid == 0) {
      alarm(120);
      try {
        for (int f = 0; f < kFilesEach; ++f) {
          WriteAll(d / ("w" + std::to_string(w) + "_" + std::to_string(f)),
                   Pattern(20000 + 3000 * static_cast<size_t>(f), static_cast<uint32_t>(w * 100 + f)));
        }
      } catch (...) {
        _exit(1);
      }
      _exit(0);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  for (int w = 0; w < kWriters; ++w) {
    for (int f = 0; f < kFilesEach; ++f) {
      EXPECT_TRUE(SameBytes(Pattern(20000 + 3000 * static_cast<size_t>(f), static_cast<uint32_t>(w * 100 + f)),
                            ReadAll(d / ("w" + std::to_string(w) + "_" + std::to_string(f)))));
    }
  }
}

// A reader keeps its file while an editor saves by temporary file and
// rename, and while another program deletes the name: the reader's object
// keeps its size and every byte until it closes it.
TEST(Data, OpenFileOutlivesItsName) {
  fs::path d = FreshFolder("data_open");
  const std::string original = Pattern(10000, 3);
  WriteAll(d / "doc.txt", original);
  int fd = ::open((d / "doc.txt").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  char head[10];
  ASSERT_EQ(10, ::read(fd, head, sizeof head));

  ASSERT_EQ(0, InChild([&] {
    WriteAll(d / "doc.txt.tmp", "the new version");
    return ::rename((d / "doc.txt.tmp").c_str(), (d / "doc.txt").c_str()) == 0;
  }));
  struct stat st {};
  ASSERT_EQ(0, ::fstat(fd, &st));
  EXPECT_EQ(10000, st.st_size);
  std::string rest(9990, '\0');
  EXPECT_EQ(9990, PreadAll(fd, rest.data(), rest.size(), 10));
  EXPECT_TRUE(SameBytes(original.substr(10), rest));
  ::close(fd);
  EXPECT_EQ("the new version", ReadAll(d / "doc.txt"));

  // Deleted while open for writing: still readable and writable.
  fd = ::open((d / "doc.txt").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, InChild([&] { return ::unlink((d / "doc.txt").c_str()) == 0; }));
  ASSERT_EQ(0, ::fstat(fd, &st));
  EXPECT_EQ(15, st.st_size);
  ASSERT_EQ(4, ::pwrite(fd, "NEW!", 4, 0));
  char back[15];
  ASSERT_EQ(15, PreadAll(fd, back, sizeof back, 0));
  EXPECT_EQ("NEW!new version", std::string(back, 15));
  ::close(fd);
  EXPECT_FALSE(fs::exists(d / "doc.txt"));
}

// A file written by one program is read by another right after close:
// on the drive this is while its upload to the device runs.
TEST(Data, ReadRightAfterAnotherProcessClosed) {
  fs::path f = FreshFolder("data_after_close") / "big.bin";
  for (uint32_t round = 0; round < 3; ++round) {
    const size_t size = (4u << 20) + round * 4099;
    ASSERT_EQ(0, InChild([&] {
      WriteAll(f, Pattern(size, 100 + round));
      return true;
    }));
    EXPECT_TRUE(SameBytes(Pattern(size, 100 + round), ReadAll(f))) << "round " << round;
  }
}
