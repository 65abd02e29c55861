// What listing a large folder and reading a large file cost the device, in
// operations counted by the emulator: a few per folder, a few per file,
// not one per object or per block.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "emulated_fixture.h"

namespace qbtest {
namespace {

namespace fs = std::filesystem;
namespace qp = qb::portable;

constexpr uint16_t kGetPartialObject64 = 0x95C1;

// Opening the device and listing a 500-file folder with every child's
// properties (what the drive does) costs a handful of operations, and the
// facts are those of the files: sizes (also one over 4 GiB, which a
// whole-device list gives only in part), names, modification dates.
TEST_F(EmulatedMtpDevice, OpeningAndListingALargeFolderCostsAFewRequestsNotOnePerObject) {
  constexpr int kFiles = 500;
  fs::create_directories(Storage("Many"));
  for (int i = 0; i < kFiles; ++i) std::ofstream(Storage("Many/f" + std::to_string(i) + ".txt")) << std::string(i, 'x');
  constexpr uint64_t kHuge = (5ull << 30) + 7;  // sparse: no disk space taken
  { std::ofstream(Storage("Many/huge.bin")); }
  fs::resize_file(Storage("Many/huge.bin"), kHuge);
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  std::string many = ChildId(content_.get(), storages_[0], "Many");
  ASSERT_FALSE(many.empty());
  std::vector<std::string> ids;
  auto names = ChildNames(content_.get(), many, &ids);
  ASSERT_EQ(names.size(), static_cast<size_t>(kFiles + 1));
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content_->Properties(&props);
  for (size_t i = 0; i < ids.size(); ++i) {
    qp::PortableDeviceValues v;
    ASSERT_EQ(props->GetValues(ids[i], nullptr, &v), S_OK);
    uint64_t size = 0;
    ASSERT_EQ(v.GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &size), S_OK) << names[i];
    EXPECT_EQ(size, fs::file_size(Storage("Many/" + names[i]))) << names[i];
    PROPVARIANT modified;
    EXPECT_EQ(v.GetValue(WPD_OBJECT_DATE_MODIFIED, &modified), S_OK) << names[i] << " has no modification date";
  }
  auto counts = OperationCounts();
  uint64_t spent = OperationsBetween({}, counts);
  std::string table;
  for (const auto& [code, count] : counts) table += " " + std::to_string(code) + ":" + std::to_string(count);
  // About 60 open the device and read its storages and property
  // descriptions, whatever it holds; the top level, read object by object
  // on the way, costs two per object (7 here), and the first listing below
  // it opens the device again (about 30) before one GetObjPropList brings
  // every object; one GetObjectPropValue the huge file's size: about 100.
  // Asking per object (GetObjectInfo and GetObjPropList each) would be
  // 1,000 and more.
  EXPECT_LE(spent, 130u) << spent << " requests to open the device and list " << kFiles + 1 << " objects;" << table;
}

// A device with one file of patterned bytes at its top level, opened.
class EmulatedMtpRead : public EmulatedMtpDevice {
 protected:
  void PutAndOpen(const std::string& name, size_t size, int pattern) {
    data_.assign(size, '\0');
    for (size_t i = 0; i < size; ++i) data_[i] = static_cast<char>((i * pattern) >> 7);
    std::ofstream(Storage(name), std::ios::binary) << data_;
    ASSERT_NO_FATAL_FAILURE(StartAndOpen());
    id_ = ChildId(content_.get(), storages_[0], name);
    ASSERT_FALSE(id_.empty());
    content_->Transfer(&resources_);
  }
  // A new read stream of the file, from its start.
  std::unique_ptr<qp::IStream> Stream() {
    std::unique_ptr<qp::IStream> stream;
    uint32_t optimal = 0;
    EXPECT_EQ(resources_->GetStream(id_, WPD_RESOURCE_DEFAULT, qp::STGM_READ, &optimal, &stream), S_OK);
    return stream;
  }
  uint64_t PartialReadsSince(const std::map<uint16_t, uint64_t>& before) {
    return CountOf(OperationCounts(), kGetPartialObject64) - CountOf(before, kGetPartialObject64);
  }

  std::string data_, id_;
  std::shared_ptr<qp::IPortableDeviceResources> resources_;
};

// A whole read in small blocks asks the device in growing pieces: 32 MiB
// in 64 KiB blocks is 512 blocks but about a dozen requests; the first
// block costs one request of its own size, so the first bytes stay quick.
TEST_F(EmulatedMtpRead, ReadingALargeFileAsksInGrowingPiecesAfterAQuickFirstOne) {
  ASSERT_NO_FATAL_FAILURE(PutAndOpen("large.bin", 32u << 20, 131));
  const std::string& data = data_;
  std::unique_ptr<qp::IStream> stream = Stream();
  ASSERT_TRUE(stream);
  auto before = OperationCounts();
  char first[4096];
  uint32_t got = 0;
  ASSERT_EQ(stream->Read(first, sizeof first, &got), S_OK);
  ASSERT_EQ(got, sizeof first);
  EXPECT_EQ(std::string(first, got), data.substr(0, got));
  EXPECT_EQ(PartialReadsSince(before), 1u);
  std::string all(first, got);
  std::vector<char> block(65536);
  for (;;) {
    ASSERT_EQ(stream->Read(block.data(), static_cast<uint32_t>(block.size()), &got), S_OK);
    if (got == 0) break;
    all.append(block.data(), got);
  }
  EXPECT_TRUE(all == data) << "read " << all.size() << " bytes, not the file's " << data.size();
  uint64_t pieces = PartialReadsSince(before);
  // 4 KiB, 8 KiB, ... doubling to 8 MiB, then 8 MiB pieces: about 16.
  EXPECT_LE(pieces, 20u) << pieces << " requests for 512 blocks";
}

// From the second piece on, the next piece is on its way while the reader
// takes the current one; a reader may stop anywhere, and the device goes on
// answering the next reader.
TEST_F(EmulatedMtpRead, ASequentialReadHasTheNextPieceOnItsWayAndMayStopAnywhere) {
  ASSERT_NO_FATAL_FAILURE(PutAndOpen("ahead.bin", 4u << 20, 29));
  const std::string& data = data_;
  std::unique_ptr<qp::IStream> stream = Stream();
  ASSERT_TRUE(stream);
  auto asked = [before = OperationCounts(), this] { return PartialReadsSince(before); };
  char block[4096];
  uint32_t got = 0;
  std::string read;
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(stream->Read(block, sizeof block, &got), S_OK);
    read.append(block, got);
  }
  EXPECT_EQ(read, data.substr(0, read.size()));
  // Two pieces read, and the third asked for without another Read.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (asked() < 3 && std::chrono::steady_clock::now() < limit)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(asked(), 3u);
  stream.reset();  // with the read ahead on its way or done
  stream = Stream();
  ASSERT_TRUE(stream);
  ASSERT_EQ(stream->Read(block, sizeof block, &got), S_OK);
  EXPECT_EQ(std::string(block, got), data.substr(0, sizeof block));
}

}  // namespace
}  // namespace qbtest
