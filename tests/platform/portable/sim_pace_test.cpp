// The rate limit of simulated transfers, measured on a clock the test
// drives, and the progress those transfers report from inside each block.
#include "platform/portable/sim_ini.h"
#include "platform/portable/sim_session.h"
#include "sim_fixture.h"

namespace qbtest {
namespace {

namespace sim = qp::sim;

// Time moves only when the limiter waits.
class DrivenClock : public sim::PaceClock {
 public:
  int64_t NowNs() override { return now_; }
  void SleepNs(int64_t ns) override {
    now_ += ns;
    ++waits_;
  }
  int64_t now_ = 1'000'000'000;
  int waits_ = 0;
};

class SimPaceTest : public SimDeviceTest {
 protected:
  void SetUp() override {
    SimDeviceTest::SetUp();
    sim::SetPaceClock(&clock_);
  }
  void TearDown() override { sim::SetPaceClock(nullptr); }

  void SetRate(uint64_t rate) {
    sim::Faults f;
    f.rate = rate;
    ASSERT_TRUE(sim::WriteFaults(folder_, f, nullptr));
  }

  DrivenClock clock_;
  int progress_ = 0;
  qp::ScopedProgressReporter reporter_{[this] { ++progress_; }};
};

TEST_F(SimPaceTest, DownloadsKeepToTheRateAndReportProgressWithinABlock) {
  const size_t size = 1'000'000;
  WriteFile("a-internal/big.bin", std::string(size, 'r'));
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  const std::string id = ChildNamed(*content, "s10001", "big.bin");
  SetRate(100'000);
  std::shared_ptr<qp::IPortableDeviceResources> res;
  content->Transfer(&res);
  std::unique_ptr<qp::IStream> stream;
  uint32_t block = 0;
  ASSERT_EQ(res->GetStream(id, WPD_RESOURCE_DEFAULT, qp::STGM_READ, &block, &stream), S_OK);
  const int64_t start = clock_.now_;
  std::vector<char> buf(block);
  uint32_t got = 0;
  ASSERT_EQ(stream->Read(buf.data(), block, &got), S_OK);
  ASSERT_EQ(got, block);
  // One block of 256 KiB at 100,000 bytes/s is reported in eighths of a second.
  EXPECT_GE(progress_, static_cast<int>(block / 12'500));
  size_t total = got;
  while (SUCCEEDED(stream->Read(buf.data(), block, &got)) && got > 0) total += got;
  EXPECT_EQ(total, size);
  // 1,000,000 bytes at 100,000 bytes/s: ten seconds on the driven clock.
  EXPECT_NEAR(static_cast<double>(clock_.now_ - start) / 1e9, 10.0, 0.01);
  EXPECT_GE(clock_.waits_, 70);
}

TEST_F(SimPaceTest, UploadsKeepToTheRate) {
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  SetRate(50'000);
  qp::PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, "s10001");
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, "up.bin");
  std::unique_ptr<qp::IPortableDeviceDataStream> stream;
  ASSERT_EQ(content->CreateObjectWithPropertiesAndData(v, &stream, nullptr), S_OK);
  const std::string data(200'000, 'u');
  const int64_t start = clock_.now_;
  uint32_t written = 0;
  ASSERT_EQ(stream->Write(data.data(), static_cast<uint32_t>(data.size()), &written), S_OK);
  EXPECT_EQ(written, data.size());
  EXPECT_GE(progress_, 32);  // 200,000 bytes in parts of 6,250
  ASSERT_EQ(stream->Commit(qp::STGC_DEFAULT), S_OK);
  EXPECT_NEAR(static_cast<double>(clock_.now_ - start) / 1e9, 4.0, 0.01);
  EXPECT_EQ(std::filesystem::file_size(folder_ / "a-internal/up.bin"), data.size());
}

TEST_F(SimPaceTest, WithoutARateNothingWaits) {
  WriteFile("a-internal/f.bin", std::string(700'000, 'f'));
  auto device = Open();
  std::shared_ptr<qp::IPortableDeviceContent> content;
  device->Content(&content);
  const std::string id = ChildNamed(*content, "s10001", "f.bin");
  std::shared_ptr<qp::IPortableDeviceResources> res;
  content->Transfer(&res);
  std::unique_ptr<qp::IStream> stream;
  uint32_t block = 0;
  ASSERT_EQ(res->GetStream(id, WPD_RESOURCE_DEFAULT, qp::STGM_READ, &block, &stream), S_OK);
  std::vector<char> buf(block);
  uint32_t got = 0;
  size_t total = 0;
  while (SUCCEEDED(stream->Read(buf.data(), block, &got)) && got > 0) total += got;
  EXPECT_EQ(total, 700'000u);
  EXPECT_EQ(clock_.waits_, 0);
  EXPECT_GE(progress_, 3);  // still one report per block
}

}  // namespace
}  // namespace qbtest
