// The shared index of simulated devices: new ids cost what they add (the
// file is appended to, not rewritten), the journal's last word on each
// object wins, a rewrite keeps every id, and what a process keeps of the
// index between two openings agrees with what a fresh reading would find.
#include <sys/stat.h>

#include "platform/portable/sim_index_file.h"
#include "platform/portable/sim_ini.h"
#include "sim_fixture.h"

namespace qbtest {
namespace {

namespace sim = qp::sim;

struct FileShape {
  ino_t inode = 0;
  off_t size = 0;
};

FileShape ShapeOf(const std::filesystem::path& file) {
  struct stat st {};
  if (stat(file.c_str(), &st) != 0) return {};
  return {st.st_ino, st.st_size};
}

size_t LineCount(const std::filesystem::path& file) {
  std::string text;
  if (!sim::ReadFileText(file, &text)) return 0;
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST(IndexJournalLines, TheLastWordOnEachObjectWins) {
  const std::string text =
      "next=120\n"
      "o100\t{P0}\t0\t0\ta/x.jpg\n"
      "o101\t{P1}\t0\t0\ta/y.jpg\n"
      "o100\t{P0}\t2\t7\ta/moved/x.jpg\n"  // moved and hidden later
      "-o101\n"                           // gone
      "o1F0\t{P2}\t0\t0\ta/z.jpg\n"
      "garbage line\n"
      "o102\t{P3}\t0\t0\ta/half";          // a line still being written
  const std::string whole = text.substr(0, text.rfind('\n') + 1);
  sim::IndexChunk chunk = sim::ParseIndexLines(whole);
  ASSERT_EQ(chunk.live.size(), 2u);
  EXPECT_EQ(chunk.live[0].id, "o100");
  EXPECT_EQ(chunk.live[0].rel, "a/moved/x.jpg");
  EXPECT_EQ(chunk.live[0].flags, 2u);
  EXPECT_EQ(chunk.live[0].created, 7u);
  EXPECT_EQ(chunk.live[1].id, "o1F0");
  EXPECT_EQ(chunk.next, 0x1F1u);  // past the highest id, beyond "next="
  EXPECT_EQ(chunk.lines, 7u);
  // Lines written by the helpers read back as written.
  sim::IndexRecord r{"o2A", "{G}", 3, 42, "b-card/a b\tc.txt"};
  const std::string written = sim::IndexLine(r) + sim::IndexNextLine(0x300);
  sim::IndexChunk back = sim::ParseIndexLines(written);
  ASSERT_EQ(back.live.size(), 1u);
  EXPECT_EQ(back.live[0].rel, r.rel);
  EXPECT_EQ(back.live[0].puid, "{G}");
  EXPECT_EQ(back.next, 0x300u);
  EXPECT_TRUE(sim::ParseIndexLines(sim::IndexLine(r) + sim::IndexGoneLine("o2A")).live.empty());
}

TEST(IndexJournalFile, ReadsOnlyWhatWasAddedAndStartsOverOnARewrite) {
  ScopedHome home;
  const auto file = home / "index.ini";
  sim::IndexJournal reader(file), writer(file);
  std::string text;
  bool fromStart = false;
  ASSERT_TRUE(reader.ReadNew(&text, &fromStart));  // no file yet: nothing
  EXPECT_TRUE(text.empty());
  ASSERT_TRUE(writer.Append("a\nb\n"));
  ASSERT_TRUE(reader.ReadNew(&text, &fromStart));
  EXPECT_EQ(text, "a\nb\n");
  EXPECT_TRUE(fromStart);
  ASSERT_TRUE(writer.Append("c\npart"));
  ASSERT_TRUE(reader.ReadNew(&text, &fromStart));
  EXPECT_EQ(text, "c\n");  // the unfinished line waits
  EXPECT_FALSE(fromStart);
  ASSERT_TRUE(writer.Append("ly\n"));
  ASSERT_TRUE(reader.ReadNew(&text, &fromStart));
  EXPECT_EQ(text, "partly\n");
  ASSERT_TRUE(writer.Rewrite("all\n"));
  ASSERT_TRUE(reader.ReadNew(&text, &fromStart));
  EXPECT_EQ(text, "all\n");
  EXPECT_TRUE(fromStart);
}

TEST_F(SimDeviceTest, NewObjectsAreAppendedToTheIndexNotRewritten) {
  for (int i = 0; i < 50; ++i) WriteFile("a-internal/f" + std::to_string(i) + ".txt", "x");
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  ASSERT_EQ(Children(*content, "s10001").size(), 50u);
  const auto file = folder_ / sim::kIndexFile;
  const FileShape before = ShapeOf(file);
  const size_t linesBefore = LineCount(file);
  ASSERT_GE(linesBefore, 50u);

  WriteFile("a-internal/new.txt", "n");
  const std::string fresh = ChildNamed(*content, "s10001", "new.txt");
  ASSERT_FALSE(fresh.empty());
  const FileShape after = ShapeOf(file);
  EXPECT_EQ(after.inode, before.inode);  // the same file, appended to
  EXPECT_EQ(LineCount(file), linesBefore + 1);
  std::string text;
  ASSERT_TRUE(sim::ReadFileText(file, &text));
  EXPECT_EQ(text.substr(static_cast<size_t>(before.size)).rfind(fresh + "\t", 0), 0u);
}

TEST_F(SimDeviceTest, ALongJournalIsRewrittenAndKeepsEveryId) {
  for (int i = 0; i < 1000; ++i) WriteFile("a-internal/album/p" + std::to_string(i) + ".jpg", "x");
  std::string album, first, last;
  const auto file = folder_ / sim::kIndexFile;
  {
    auto device = Open();
    std::shared_ptr<qp::IPortableDeviceContent> content;
    device->Content(&content);
    album = ChildNamed(*content, "s10001", "album");
    ASSERT_FALSE(album.empty());
    ASSERT_EQ(Children(*content, album).size(), 1000u);
    first = ChildNamed(*content, album, "p0.jpg");
    const FileShape start = ShapeOf(file);
    // Every rename of the album writes a line for each object inside it.
    std::shared_ptr<qp::IPortableDeviceProperties> props;
    content->Properties(&props);
    bool rewritten = false;
    for (int round = 0; round < 8 && !rewritten; ++round) {
      qp::PortableDeviceValues v, results;
      v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "album" + std::to_string(round));
      ASSERT_EQ(props->SetValues(album, v, &results), S_OK);
      rewritten = ShapeOf(file).inode != start.inode;
    }
    EXPECT_TRUE(rewritten);
    EXPECT_LE(LineCount(file), 2u * 1001 + 4096);
    last = ChildNamed(*content, album, "p999.jpg");
  }
  // A fresh reader of the rewritten file finds every object under its id.
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  std::vector<std::string> top = Children(*content, "s10001");
  ASSERT_EQ(top.size(), 1u);
  EXPECT_EQ(top[0], album);
  EXPECT_EQ(ChildNamed(*content, album, "p0.jpg"), first);
  EXPECT_EQ(ChildNamed(*content, album, "p999.jpg"), last);
}

TEST_F(SimDeviceTest, ARewriteByAnotherProcessIsReadWholeAndItsIdsAreKept) {
  WriteFile("a-internal/a.txt", "a");
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  const std::string a = ChildNamed(*content, "s10001", "a.txt");
  ASSERT_FALSE(a.empty());
  WriteFile("a-internal/b.txt", "b");  // this process has read the file by now
  ASSERT_FALSE(ChildNamed(*content, "s10001", "b.txt").empty());
  // Another process rewrote the index while it entered an object of its own.
  const auto file = folder_ / sim::kIndexFile;
  std::string text;
  ASSERT_TRUE(sim::ReadFileText(file, &text));
  WriteFile("b-card/x.txt", "x");
  {
    sim::ScopedFileLock lock(folder_ / "index.lock");
    ASSERT_TRUE(lock.Held());
    sim::IndexJournal other(file);
    // Its object first: a reader that went on from where it was would miss it.
    ASSERT_TRUE(other.Rewrite(sim::IndexNextLine(0x5000) +
                              sim::IndexLine({"o5000", "{OTHER}", 0, 0, "b-card/x.txt"}) + text));
  }
  EXPECT_EQ(ChildNamed(*content, "s20001", "x.txt"), "o5000");
  WriteFile("a-internal/new.txt", "n");
  const std::string fresh = ChildNamed(*content, "s10001", "new.txt");
  ASSERT_GT(fresh.size(), 1u);
  EXPECT_GT(std::strtoull(fresh.c_str() + 1, nullptr, 16), 0x5000u);
  EXPECT_EQ(ChildNamed(*content, "s10001", "a.txt"), a);
}

// Files removed from the device folder while no process had the device open
// are gone at the next open: a new file made later at such a path is a new
// object,
// whether the index is small (each object looked up) or large (folders read).
TEST_F(SimDeviceTest, ObjectsRemovedWhileTheDeviceWasClosedAreForgotten) {
  for (int count : {10, 600}) {
    const std::string dir = "a-internal/set" + std::to_string(count);
    for (int i = 0; i < count; ++i) WriteFile(dir + "/f" + std::to_string(i) + ".txt", "x");
    std::string folder, kept, removed;
    {
      auto device = Open();
      std::shared_ptr<qp::IPortableDeviceContent> content;
      device->Content(&content);
      folder = ChildNamed(*content, "s10001", "set" + std::to_string(count));
      ASSERT_EQ(Children(*content, folder).size(), static_cast<size_t>(count));
      kept = ChildNamed(*content, folder, "f1.txt");
      removed = ChildNamed(*content, folder, "f0.txt");
    }
    std::filesystem::remove(folder_ / dir / "f0.txt");
    auto device = Open();
    std::shared_ptr<qp::IPortableDeviceContent> content;
    device->Content(&content);
    EXPECT_EQ(ChildNamed(*content, folder, "f1.txt"), kept) << count;
    WriteFile(dir + "/f0.txt", "a new file under the old name");
    const std::string fresh = ChildNamed(*content, folder, "f0.txt");
    EXPECT_FALSE(fresh.empty()) << count;
    EXPECT_NE(fresh, removed) << count;
  }
}

TEST(IndexJournalLines, LinesWithIdsTheDeviceNeverGivesAreSkipped) {
  const std::string text =
      "o100\t{P0}\t0\t0\ta/x.jpg\n"
      "o0101\t{P1}\t0\t0\ta/zero.jpg\n"  // a leading zero
      "o1a2\t{P2}\t0\t0\ta/lower.jpg\n"  // lower-case hex
      "s10001\t{P3}\t0\t0\ta\n"          // a storage, never in the index
      "o103\t{P4}\t0\ta/short.jpg\n"     // a field missing
      "-oxyz\n"
      "-o100x\n"
      "o104\t{P5}\t0\t0\ta/y.jpg\n";
  const sim::IndexChunk chunk = sim::ParseIndexLines(text);
  ASSERT_EQ(chunk.live.size(), 2u);
  EXPECT_EQ(chunk.live[0].rel, "a/x.jpg");
  EXPECT_EQ(chunk.live[1].id, "o104");
  EXPECT_EQ(chunk.live[1].handle, 0x104u);
  EXPECT_EQ(chunk.next, 0x105u);
  EXPECT_EQ(chunk.lines, 8u);
}

std::string PuidOf(qp::IPortableDeviceContent& content, const std::string& id) {
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content.Properties(&props);
  qp::PortableDeviceValues v;
  std::string puid;
  if (SUCCEEDED(props->GetValues(id, nullptr, &v))) v.GetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, &puid);
  return puid;
}

// The process keeps what it read of the index when its last device object
// goes; the next opening takes in what another process wrote meanwhile.
TEST_F(SimDeviceTest, AReopenedDeviceTakesInWhatAnotherProcessWroteMeanwhile) {
  WriteFile("a-internal/a.txt", "a");
  std::string a;
  {
    auto device = Open();
    std::shared_ptr<qp::IPortableDeviceContent> content;
    device->Content(&content);
    a = ChildNamed(*content, "s10001", "a.txt");
    ASSERT_FALSE(a.empty());
  }
  WriteFile("a-internal/new.txt", "n");
  {
    sim::ScopedFileLock lock(folder_ / "index.lock");
    ASSERT_TRUE(lock.Held());
    sim::IndexJournal other(folder_ / sim::kIndexFile);
    std::string seen;
    bool fromStart = false;
    ASSERT_TRUE(other.ReadNew(&seen, &fromStart));
    ASSERT_TRUE(other.Append(sim::IndexLine({"o7000", "{OTHER}", 0, 0, "a-internal/new.txt"})));
  }
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  // Known by its id at once, before any listing.
  EXPECT_EQ(PuidOf(*content, "o7000"), "{OTHER}");
  EXPECT_EQ(ChildNamed(*content, "s10001", "new.txt"), "o7000");
  EXPECT_EQ(ChildNamed(*content, "s10001", "a.txt"), a);
}

// A device removed and made again under the same folder is another device:
// nothing this process knew of the old one is taken for it.
TEST_F(SimDeviceTest, ADeviceMadeAnewInTheSameFolderGetsNewPersistentIds) {
  WriteFile("a-internal/a.txt", "a");
  std::string before;
  {
    auto device = Open();
    std::shared_ptr<qp::IPortableDeviceContent> content;
    device->Content(&content);
    before = PuidOf(*content, ChildNamed(*content, "s10001", "a.txt"));
    ASSERT_FALSE(before.empty());
  }
  sim::DeviceSpec spec;
  std::string error;
  ASSERT_TRUE(sim::ReadDevice(folder_, &spec, &error)) << error;
  ASSERT_TRUE(sim::RemoveDevice(folder_, &error)) << error;
  ASSERT_TRUE(sim::WriteDevice(spec, &error)) << error;
  WriteFile("a-internal/a.txt", "a");
  auto device = Open();
  ASSERT_NE(device, nullptr);
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  const std::string after = PuidOf(*content, ChildNamed(*content, "s10001", "a.txt"));
  EXPECT_FALSE(after.empty());
  EXPECT_NE(after, before);
}

// A folder moved away while no device object was open takes its objects
// with it: a new file at an old path is a new object.
TEST_F(SimDeviceTest, AFolderMovedWhileTheDeviceWasClosedLeavesNoIdsBehind) {
  WriteFile("a-internal/old/f.txt", "f");
  std::string first;
  {
    auto device = Open();
    std::shared_ptr<qp::IPortableDeviceContent> content;
    device->Content(&content);
    const std::string old = ChildNamed(*content, "s10001", "old");
    first = ChildNamed(*content, old, "f.txt");
    ASSERT_FALSE(first.empty());
  }
  std::filesystem::rename(folder_ / "a-internal/old", folder_ / "b-card/moved");
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  WriteFile("a-internal/old/f.txt", "a new file");
  const std::string old = ChildNamed(*content, "s10001", "old");
  const std::string fresh = ChildNamed(*content, old, "f.txt");
  EXPECT_FALSE(fresh.empty());
  EXPECT_NE(fresh, first);
}

}  // namespace
}  // namespace qbtest
