// Packet rules of the emulated bulk pipes: what a host read gets, where
// zero-length packets fall, and how the OUT stream is cut into containers.
#include <gtest/gtest.h>
#include <libusb-1.0/libusb.h>

#include "mtp_emulator/ptp_codes.h"
#include "mtp_emulator/ptp_data.h"
#include "mtp_emulator/usb_bulk.h"

namespace qb::mtpemu {
namespace {

const auto kNoWait = std::chrono::milliseconds(50);
bool Never() { return false; }

std::vector<uint8_t> Bytes(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 7);
  return v;
}

TEST(InQueueTest, ReadsStopAtTheContainerEndAndWholePacketsGetAZeroLengthPacket) {
  InQueue q;
  q.Push(Bytes(1024));  // two whole packets: a zero-length packet follows
  q.Push(Bytes(700));
  std::vector<uint8_t> got;
  ASSERT_EQ(q.Read(512, kNoWait, Never, &got), LIBUSB_SUCCESS);
  EXPECT_EQ(got.size(), 512u);
  ASSERT_EQ(q.Read(512, kNoWait, Never, &got), LIBUSB_SUCCESS);
  EXPECT_EQ(got.size(), 512u);
  ASSERT_EQ(q.Read(512, kNoWait, Never, &got), LIBUSB_SUCCESS);
  EXPECT_EQ(got.size(), 0u) << "the zero-length packet ends the first container";
  ASSERT_EQ(q.Read(64 * 1024, kNoWait, Never, &got), LIBUSB_SUCCESS);
  EXPECT_EQ(got, Bytes(700)) << "a read never runs into the next container";
  EXPECT_EQ(q.Read(512, kNoWait, Never, &got), LIBUSB_ERROR_TIMEOUT);
}

TEST(InQueueTest, ALargeReadTakesTheZeroLengthPacketWithIt) {
  InQueue q;
  q.Push(Bytes(1024));
  q.Push(Bytes(12));
  std::vector<uint8_t> got;
  ASSERT_EQ(q.Read(4096, kNoWait, Never, &got), LIBUSB_SUCCESS);
  EXPECT_EQ(got.size(), 1024u);
  ASSERT_EQ(q.Read(512, kNoWait, Never, &got), LIBUSB_SUCCESS);
  EXPECT_EQ(got.size(), 12u);
}

TEST(InQueueTest, AReadSmallerThanAPacketOverflowsAndOddSizesTakeWholePackets) {
  InQueue q;
  q.Push(Bytes(2000));
  std::vector<uint8_t> got;
  EXPECT_EQ(q.Read(100, kNoWait, Never, &got), LIBUSB_ERROR_OVERFLOW);
  ASSERT_EQ(q.Read(1300, kNoWait, Never, &got), LIBUSB_SUCCESS);
  EXPECT_EQ(got.size(), 1024u);
  ASSERT_EQ(q.Read(4096, kNoWait, Never, &got), LIBUSB_SUCCESS);
  EXPECT_EQ(got.size(), 2000u - 1024u);
}

TEST(InQueueTest, AFailingProducerEndsTheDataShortAndTheLaterResponseSeesIt) {
  InQueue q;
  bool failed = false;
  size_t produced = 0;
  q.PushStream(Bytes(12), 12 + 5000, [&](size_t want, std::vector<uint8_t>* out) {
    // Like a file that ends early: what there is, then the failure.
    size_t n = std::min<size_t>(want, 1500 - produced);
    out->insert(out->end(), n, 0xAB);
    produced += n;
    failed = n < want;
    return !failed;
  });
  q.PushLater([&] { return std::vector<uint8_t>{failed ? uint8_t{1} : uint8_t{0}}; });
  std::vector<uint8_t> got, all;
  do {
    ASSERT_EQ(q.Read(1024, kNoWait, Never, &got), LIBUSB_SUCCESS);
    all.insert(all.end(), got.begin(), got.end());
  } while (got.size() == 1024);
  EXPECT_EQ(all.size(), 1512u);
  ASSERT_EQ(q.Read(512, kNoWait, Never, &got), LIBUSB_SUCCESS);
  EXPECT_EQ(got, std::vector<uint8_t>{1});
}

TEST(InQueueTest, AWaitingReadEndsWhenTheHostGoes) {
  InQueue q;
  std::vector<uint8_t> got;
  EXPECT_EQ(q.Read(512, std::chrono::milliseconds(0), [] { return true; }, &got), LIBUSB_ERROR_TIMEOUT);
}

class RecordingSink : public OutSink {
 public:
  void OnCommand(const std::vector<uint8_t>& c) override { commands.push_back(c); }
  void OnDataBegin(uint16_t code, uint32_t, uint64_t length) override {
    dataCode = code;
    announced = length;
  }
  void OnDataChunk(const uint8_t* data, size_t size) override { data_.insert(data_.end(), data, data + size); }
  void OnDataEnd() override { ++ends; }
  std::vector<std::vector<uint8_t>> commands;
  std::vector<uint8_t> data_;
  uint16_t dataCode = 0;
  uint64_t announced = 0;
  int ends = 0;
};

TEST(OutAssemblerTest, CutsCommandsAndDataFromWritesOfAnySize) {
  RecordingSink sink;
  OutAssembler a(&sink);
  std::vector<uint8_t> stream = ptp::ParamContainer(ptp::kCommandBlock, ptp::kSendObject, 7, {});
  auto cmd2 = ptp::ParamContainer(ptp::kCommandBlock, ptp::kGetObjectInfo, 8, {0x1234, 5});
  auto data = ptp::Container(ptp::kDataBlock, ptp::kSendObject, 7, Bytes(3000));
  stream.insert(stream.end(), data.begin(), data.end());
  stream.insert(stream.end(), cmd2.begin(), cmd2.end());
  // Uneven writes, one byte at a time at the start.
  size_t pos = 0;
  for (size_t step : {1, 1, 3, 9, 500, 1000}) {
    a.Write(stream.data() + pos, step);
    pos += step;
  }
  a.Write(stream.data() + pos, stream.size() - pos);
  ASSERT_EQ(sink.commands.size(), 2u);
  EXPECT_EQ(sink.commands[1], cmd2);
  EXPECT_EQ(sink.dataCode, ptp::kSendObject);
  EXPECT_EQ(sink.announced, 3000u);
  EXPECT_EQ(sink.data_, Bytes(3000));
  EXPECT_EQ(sink.ends, 1);
}

TEST(OutAssemblerTest, AShortPacketEndsADataContainerShortOfItsLength) {
  RecordingSink sink;
  OutAssembler a(&sink);
  auto data = ptp::Container(ptp::kDataBlock, ptp::kSendObject, 7, Bytes(2000));
  // Whole packets leave the container open.
  a.Write(data.data(), 1024);
  a.EndOfTransfer(1024);
  EXPECT_EQ(sink.ends, 0);
  // A header alone as a short packet, then a zero-length packet: the data
  // phase ends with what came; the next command is read as a command.
  a.Write(data.data() + 1024, 100);
  a.EndOfTransfer(100);
  EXPECT_EQ(sink.ends, 1);
  EXPECT_EQ(sink.data_.size(), 1024u + 100u - ptp::kHeaderSize);
  a.EndOfTransfer(0);
  auto cmd = ptp::ParamContainer(ptp::kCommandBlock, ptp::kGetObjectInfo, 8, {0x1234});
  a.Write(cmd.data(), cmd.size());
  a.EndOfTransfer(cmd.size());
  ASSERT_EQ(sink.commands.size(), 1u);
  EXPECT_EQ(sink.commands[0], cmd);
  EXPECT_EQ(sink.ends, 1);
}

TEST(PtpDataTest, StringsRoundTripIncludingNonAscii) {
  ptp::DataWriter w;
  w.String("Fotos ä 日本 😀");
  w.String("");
  ptp::DataReader r(w.Bytes());
  EXPECT_EQ(r.String(), "Fotos ä 日本 😀");
  EXPECT_EQ(r.String(), "");
  EXPECT_FALSE(r.Failed());
  r.U8();
  EXPECT_TRUE(r.Failed());
}

}  // namespace
}  // namespace qb::mtpemu
