// quillbox-probe and quillbox-simdev run as programs against the demo device.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>

#include "support/files.h"
#include "support/test_home.h"

namespace {

namespace fs = std::filesystem;

struct Result {
  int rc = -1;
  std::string out, err;
};

std::string Quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

class ProbeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fs::exists(qbtest::BinDir() / "quillbox-probe"));
    ASSERT_TRUE(fs::exists(qbtest::BinDir() / "quillbox-simdev"));
    ASSERT_EQ(Run("quillbox-simdev", {"demo"}).rc, 0);
    device_ = home_.Path() / "devices" / "demo";
  }

  // Runs a program with a time limit; its output lands in files of the home.
  Result Run(const std::string& program, const std::vector<std::string>& args) {
    std::string cmd = "timeout 300 " + Quote((qbtest::BinDir() / program).string());
    for (const auto& a : args) cmd += " " + Quote(a);
    const fs::path out = home_ / "out.txt", err = home_ / "err.txt";
    cmd += " >" + Quote(out.string()) + " 2>" + Quote(err.string());
    Result r;
    const int status = std::system(cmd.c_str());
    r.rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = qbtest::ReadText(out);
    r.err = qbtest::ReadText(err);
    return r;
  }
  Result Probe(const std::vector<std::string>& args) { return Run("quillbox-probe", args); }

  // The object id printed by `ls` for a path ("[o123]" at the end of its line).
  std::string IdOf(const std::string& listing, const std::string& path) {
    std::istringstream in(listing);
    std::string line;
    while (std::getline(in, line)) {
      const size_t at = line.find("  " + path + "  [");
      if (at == std::string::npos) continue;
      const size_t open = line.find('[', at);
      return line.substr(open + 1, line.find(']', open) - open - 1);
    }
    return "";
  }

  qbtest::ScopedHome home_;
  fs::path device_;
};

TEST_F(ProbeTest, DevicesPropsAndListingShowTheDemoDevice) {
  Result r = Probe({"devices"});
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_NE(r.out.find("Name:   Quillbox Demo Phone"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Serial: QBDEMO0001"), std::string::npos);
  EXPECT_NE(r.out.find("PnP id: \\\\?\\simdev#demo#"), std::string::npos);

  r = Probe({"props", "quillbox demo*", "--storages"});
  ASSERT_EQ(r.rc, 0) << r.err;
  const size_t s1 = r.out.find("WPD_STORAGE_INDEX = 1");
  const size_t s2 = r.out.find("WPD_STORAGE_INDEX = 2");
  ASSERT_NE(s1, std::string::npos) << r.out;
  ASSERT_NE(s2, std::string::npos);
  EXPECT_LT(s1, s2);
  EXPECT_LT(r.out.find("WPD_OBJECT_NAME = Internal storage"), s2);
  EXPECT_GT(r.out.find("WPD_OBJECT_NAME = SD card"), s2);
  EXPECT_NE(r.out.find("WPD_STORAGE_CAPACITY = "), std::string::npos);
  EXPECT_NE(r.out.find("WPD_STORAGE_FREE_SPACE_IN_BYTES = "), std::string::npos);

  r = Probe({"ls", "*"});
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_LT(r.out.find("Storage 1: Internal storage"), r.out.find("Storage 2: SD card"));
  EXPECT_NE(r.out.find("capacity "), std::string::npos);
  const std::string readme = "\\Download\\readme.txt";
  ASSERT_FALSE(IdOf(r.out, readme).empty()) << r.out;
  const uintmax_t size = fs::file_size(device_ / "internal" / "Download" / "readme.txt");
  EXPECT_NE(r.out.find(std::to_string(size) + "  2025-02-01 12:00:00  " + readme), std::string::npos)
      << r.out;
  EXPECT_FALSE(IdOf(r.out, "\\DCIM\\100MEDIA").empty());
}

TEST_F(ProbeTest, BadDeviceAndObjectGiveClearErrors) {
  Result r = Probe({"props", "no such device"});
  EXPECT_NE(r.rc, 0);
  EXPECT_NE(r.err.find("no device matches"), std::string::npos);
  r = Probe({"get", "*", "o-nothing", (home_ / "x").string()});
  EXPECT_NE(r.rc, 0);
  EXPECT_NE(r.err.find("HRESULT 0x"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(home_ / "x"));
  r = Probe({"frobnicate"});
  EXPECT_EQ(r.rc, 2);
}

TEST_F(ProbeTest, GetAndPutMoveFilesBitExactly) {
  Result ls = Probe({"ls", "*", "--storage", "1"});
  const std::string download = IdOf(ls.out, "\\Download");
  ASSERT_FALSE(download.empty()) << ls.out;
  std::mt19937 gen(5);
  for (size_t size : {size_t{0}, size_t{1}, size_t{256 * 1024}, size_t{3 * 256 * 1024 + 5}}) {
    SCOPED_TRACE(size);
    std::string data(size, '\0');
    for (auto& c : data) c = static_cast<char>(gen());
    const fs::path local = home_ / ("up" + std::to_string(size) + ".bin");
    std::ofstream(local, std::ios::binary).write(data.data(), static_cast<std::streamsize>(size));
    Result r = Probe({"put", "*", download, local.string()});
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(qbtest::ReadText(device_ / "internal" / "Download" / local.filename()), data);
    ls = Probe({"ls", "*", "--storage", "1"});
    const std::string id = IdOf(ls.out, "\\Download\\" + local.filename().string());
    ASSERT_FALSE(id.empty()) << ls.out;
    const fs::path back = home_ / "back.bin";
    r = Probe({"get", "*", id, back.string()});
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(qbtest::ReadText(back), data);
  }
}

// Several files go up in one run; one unreadable argument uploads none.
TEST_F(ProbeTest, PutOfSeveralFilesUploadsAllOrNoneOnBadArguments) {
  const std::string download = IdOf(Probe({"ls", "*", "--storage", "1"}).out, "\\Download");
  ASSERT_FALSE(download.empty());
  std::vector<std::string> args{"put", "*", download};
  for (const char* name : {"one.txt", "two.txt", "three.bin"}) {
    std::ofstream(home_ / name) << name;
    args.push_back((home_ / name).string());
  }
  std::vector<std::string> bad = args;
  bad.push_back((home_ / "missing.txt").string());
  Result r = Probe(bad);
  EXPECT_NE(r.rc, 0);
  EXPECT_NE(r.err.find("missing.txt' is not a readable file"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(device_ / "internal" / "Download" / "one.txt"));
  r = Probe({"put", "*", download, args[3], args[4], "--name", "x.txt"});
  EXPECT_EQ(r.rc, 2) << r.err;
  r = Probe(args);
  ASSERT_EQ(r.rc, 0) << r.err;
  for (const char* name : {"one.txt", "two.txt", "three.bin"})
    EXPECT_EQ(qbtest::ReadText(device_ / "internal" / "Download" / name), name);
}

TEST_F(ProbeTest, FolderCommandsAndFaults) {
  Result ls = Probe({"ls", "*", "--storage", "1"});
  const std::string dcim = IdOf(ls.out, "\\DCIM");
  const std::string docs = IdOf(ls.out, "\\Documents");
  const std::string list = IdOf(ls.out, "\\Documents\\Shopping list.txt");
  ASSERT_FALSE(dcim.empty());
  Result r = Probe({"rm", "*", dcim});
  EXPECT_NE(r.rc, 0);
  EXPECT_TRUE(fs::is_directory(device_ / "internal" / "DCIM"));
  ASSERT_EQ(Probe({"mkdir", "*", docs, "Made"}).rc, 0);
  EXPECT_TRUE(fs::is_directory(device_ / "internal" / "Documents" / "Made"));
  ASSERT_EQ(Probe({"rename", "*", list, "List.txt"}).rc, 0);
  EXPECT_TRUE(fs::exists(device_ / "internal" / "Documents" / "List.txt"));
  ASSERT_EQ(Probe({"mv", "*", list, dcim}).rc, 0);
  EXPECT_TRUE(fs::exists(device_ / "internal" / "DCIM" / "List.txt"));
  ASSERT_EQ(Probe({"rm", "*", list}).rc, 0);
  EXPECT_FALSE(fs::exists(device_ / "internal" / "DCIM" / "List.txt"));

  ASSERT_EQ(Run("quillbox-simdev", {"fault", "demo", "no-write"}).rc, 0);
  const fs::path local = home_ / "a.txt";
  std::ofstream(local) << "a";
  r = Probe({"put", "*", docs, local.string()});
  EXPECT_NE(r.rc, 0);
  EXPECT_NE(r.err.find("0x80070032"), std::string::npos) << r.err;
  ASSERT_EQ(Run("quillbox-simdev", {"fault", "demo", "clear"}).rc, 0);
  ASSERT_EQ(Run("quillbox-simdev", {"fault", "demo", "offline"}).rc, 0);
  r = Probe({"ls", "*"});
  EXPECT_NE(r.rc, 0);
}

TEST_F(ProbeTest, EventsShowChangesWithTheirArguments) {
  const std::string cmd = "timeout 120 " + Quote((qbtest::BinDir() / "quillbox-probe").string()) +
                          " events '*' --seconds 60 2>&1";
  FILE* events = popen(cmd.c_str(), "r");
  ASSERT_NE(events, nullptr);
  char line[4096];
  ASSERT_NE(fgets(line, sizeof line, events), nullptr);
  ASSERT_NE(std::string(line).find("Listening for events"), std::string::npos) << line;

  std::vector<std::string> lines;
  // Reads event lines until one holds both texts; bounded by the listener's
  // own time limit (it ends, and fgets sees the end of its output).
  auto waitFor = [&](const std::string& a, const std::string& b) {
    for (const auto& l : lines)
      if (l.find(a) != std::string::npos && l.find(b) != std::string::npos) return true;
    while (fgets(line, sizeof line, events)) {
      lines.push_back(line);
      if (lines.back().find(a) != std::string::npos && lines.back().find(b) != std::string::npos)
        return true;
    }
    return false;
  };
  const fs::path dl = device_ / "internal" / "Download";
  std::ofstream(home_ / "src.txt") << "12345";
  fs::copy_file(home_ / "src.txt", dl / "copied.txt");
  EXPECT_TRUE(waitFor("OBJECT_ADDED", "name=\"copied.txt\""));
  Result ls = Probe({"ls", "*", "--storage", "1"});
  const std::string download = IdOf(ls.out, "\\Download");
  const fs::path local = home_ / "put.txt";
  std::ofstream(local) << "put";
  const Result putRun = Probe({"put", "*", download, local.string()});
  ASSERT_EQ(putRun.rc, 0) << putRun.err;
  EXPECT_TRUE(waitFor("OBJECT_ADDED", "name=\"put.txt\""));
  fs::rename(dl / "copied.txt", dl / "moved.txt");
  EXPECT_TRUE(waitFor("OBJECT_UPDATED", "name=\"moved.txt\""));
  fs::remove(dl / "moved.txt");
  EXPECT_TRUE(waitFor("OBJECT_REMOVED", ""));
  // Unplugging the device ends the listener.
  const Result unplug = Run("quillbox-simdev", {"disconnect", "demo"});
  ASSERT_EQ(unplug.rc, 0) << unplug.err;
  EXPECT_TRUE(waitFor("DEVICE_REMOVED", ""));
  while (fgets(line, sizeof line, events)) lines.push_back(line);
  pclose(events);

  auto find = [&](const std::string& a, const std::string& b) -> std::string {
    for (const auto& l : lines)
      if (l.find(a) != std::string::npos && l.find(b) != std::string::npos) return l;
    return "";
  };
  std::string all;
  for (const auto& l : lines) all += l;
  const std::string added = find("OBJECT_ADDED", "name=\"copied.txt\"");
  ASSERT_FALSE(added.empty()) << all;
  EXPECT_NE(added.find("folder=0"), std::string::npos);
  const std::string put = find("OBJECT_ADDED", "name=\"put.txt\"");
  ASSERT_FALSE(put.empty()) << all;
  // An added object's attributes, size and times come from a read of the
  // object when the event arrives, under the id the index gave it.
  EXPECT_NE(put.find("size=3 "), std::string::npos) << all;
  EXPECT_NE(added.find("size=5 "), std::string::npos) << all;
  for (const std::string& l : {put, added}) EXPECT_EQ(l.find("=null"), std::string::npos) << l;
  const std::string renamed = find("OBJECT_UPDATED", "name=\"moved.txt\"");
  EXPECT_FALSE(renamed.empty()) << all;
  const std::string removed = find("OBJECT_REMOVED", "");
  ASSERT_FALSE(removed.empty()) << all;
  EXPECT_NE(removed.find("attributes=null size=null created=null modified=null"), std::string::npos);
  EXPECT_FALSE(find("DEVICE_REMOVED", "").empty()) << all;
}

}  // namespace
