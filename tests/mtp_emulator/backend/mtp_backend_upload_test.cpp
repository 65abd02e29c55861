// A new file of a declared size goes to the device while it is written, and
// one given up before its Commit does not stay on the device.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "emulated_fixture.h"

namespace qbtest {
namespace {

namespace fs = std::filesystem;
namespace qp = qb::portable;

constexpr uint16_t kSendObjectInfo = 0x100C;
constexpr uint32_t kBlock = 256 * 1024;

std::string Pattern(size_t size) {
  std::string data(size, '\0');
  for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 7919) >> 9);
  return data;
}

class EmulatedMtpUpload : public EmulatedMtpDevice {
 protected:
  // A data stream for `name` at the top level, of `size` declared bytes.
  std::unique_ptr<qp::IPortableDeviceDataStream> NewFile(const std::string& name, uint64_t size) {
    qp::PortableDeviceValues v;
    v.SetStringValue(WPD_OBJECT_PARENT_ID, storages_[0]);
    v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, name);
    v.SetStringValue(WPD_OBJECT_NAME, name);
    v.SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, size);
    std::unique_ptr<qp::IPortableDeviceDataStream> stream;
    uint32_t optimal = 0;
    EXPECT_EQ(content_->CreateObjectWithPropertiesAndData(v, &stream, &optimal), S_OK);
    return stream;
  }
  // Writes data[from, to) in blocks as the drive does.
  static void WriteRange(qp::IPortableDeviceDataStream* stream, const std::string& data, size_t from, size_t to) {
    for (size_t at = from; at < to; at += kBlock) {
      const uint32_t n = static_cast<uint32_t>(std::min<size_t>(kBlock, to - at));
      uint32_t written = 0;
      ASSERT_EQ(stream->Write(data.data() + at, n, &written), S_OK) << "at " << at;
      ASSERT_EQ(written, n);
    }
  }
  // The session still serves: a small file goes up and reads back.
  void ExpectAnotherUploadWorks() {
    std::string id;
    ASSERT_EQ(Upload(content_.get(), storages_[0], "after.txt", "after", &id), S_OK);
    EXPECT_EQ(FileBytes(Storage("after.txt")), "after");
  }
};

// 24 MiB written in 256 KiB blocks: the transfer has begun before the last
// block is written (the device has taken more than the 8 MiB that may wait
// for it), and the file on the device is the data written.
TEST_F(EmulatedMtpUpload, AFileOfADeclaredSizeGoesToTheDeviceAsItIsWritten) {
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  const std::string data = Pattern(24u << 20);
  auto stream = NewFile("movie.bin", data.size());
  ASSERT_TRUE(stream);
  const uint64_t before = CountOf(OperationCounts(), kSendObjectInfo);
  ASSERT_NO_FATAL_FAILURE(WriteRange(stream.get(), data, 0, 16u << 20));
  EXPECT_EQ(CountOf(OperationCounts(), kSendObjectInfo) - before, 1u) << "nothing went to the device before Commit";
  ASSERT_NO_FATAL_FAILURE(WriteRange(stream.get(), data, 16u << 20, data.size()));
  ASSERT_EQ(stream->Commit(qp::STGC_DEFAULT), S_OK);
  std::string id;
  ASSERT_EQ(stream->GetObjectID(&id), S_OK);
  EXPECT_EQ(ChildId(content_.get(), storages_[0], "movie.bin"), id);
  EXPECT_TRUE(FileBytes(Storage("movie.bin")) == data) << "the file on the device differs from the data written";
  uint32_t written = 0;
  EXPECT_EQ(stream->Write("x", 1, &written), E_UNEXPECTED) << "a write after Commit";
}

// Given up after part of its data went to the device, by its end or by a
// Commit short of the declared size: the device keeps no such file, and
// the session goes on serving.
TEST_F(EmulatedMtpUpload, AFileGivenUpBeforeItsCommitDoesNotStayOnTheDevice) {
  ASSERT_NO_FATAL_FAILURE(StartAndOpen());
  const std::string data = Pattern(12u << 20);
  {
    auto stream = NewFile("dropped.bin", data.size());
    ASSERT_TRUE(stream);
    ASSERT_NO_FATAL_FAILURE(WriteRange(stream.get(), data, 0, 10u << 20));
  }
  EXPECT_FALSE(fs::exists(Storage("dropped.bin"))) << "a stream destroyed before its Commit left its file";
  {
    auto stream = NewFile("short.bin", data.size());
    ASSERT_TRUE(stream);
    ASSERT_NO_FATAL_FAILURE(WriteRange(stream.get(), data, 0, 3u << 20));
    EXPECT_EQ(stream->Commit(qp::STGC_DEFAULT), E_UNEXPECTED);
    std::string id;
    EXPECT_EQ(stream->GetObjectID(&id), E_WPD_OBJECT_NOT_COMMITED);
    uint32_t written = 0;
    EXPECT_EQ(stream->Write(data.data(), 1, &written), E_UNEXPECTED);
  }
  EXPECT_FALSE(fs::exists(Storage("short.bin"))) << "a Commit short of the declared size left its file";
  {
    auto stream = NewFile("toolong.bin", data.size());
    ASSERT_TRUE(stream);
    const std::string more = data + "x";
    uint32_t written = 0;
    EXPECT_EQ(stream->Write(more.data(), static_cast<uint32_t>(more.size()), &written), E_INVALIDARG)
        << "more than the declared size was taken";
  }
  ASSERT_NO_FATAL_FAILURE(ExpectAnotherUploadWorks());
}

}  // namespace
}  // namespace qbtest
