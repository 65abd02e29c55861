#pragma once
// The demo device through the simulated back end, with the same members as
// the emulated MTP device (tests/mtp_emulator/backend/emulated_fixture.h),
// so that one suite runs against both back ends.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "mtp_emulator/backend/emulated_fixture.h"
#include "platform/portable/portable.h"
#include "platform/portable/sim_devices.h"
#include "support/test_home.h"

namespace qbtest {

class SimulatedDemoDevice : public ::testing::Test {
 public:
  static constexpr bool kMtp = false;

 protected:
  void SetUp() override {
    home_ = std::make_unique<ScopedHome>();
    std::string error;
    ASSERT_TRUE(qb::portable::sim::CreateDemoDevice(&device_, &error)) << error;
  }
  void TearDown() override {
    content_.reset();
    if (mtp_) mtp_->Close();
    mtp_.reset();
    home_.reset();
  }
  void StartAndOpen() {
    qb::portable::sim::DeviceSpec spec;
    std::string error;
    ASSERT_TRUE(qb::portable::sim::ReadDevice(device_, &spec, &error)) << error;
    pnpId_ = qb::portable::sim::SimPnpId(spec);
    mtp_ = qb::portable::CreatePortableDevice();
    qb::portable::PortableDeviceValues client;
    client.SetStringValue(WPD_CLIENT_NAME, "test");
    ASSERT_EQ(mtp_->Open(pnpId_, client), S_OK);
    ASSERT_EQ(mtp_->Content(&content_), S_OK);
    ChildNames(content_.get(), WPD_DEVICE_OBJECT_ID, &storages_);
    ASSERT_FALSE(storages_.empty());
  }
  std::filesystem::path Storage(const std::string& rel) const { return device_ / "internal" / rel; }

  std::unique_ptr<ScopedHome> home_;
  std::filesystem::path device_;
  std::unique_ptr<qb::portable::IPortableDevice> mtp_;  // the opened device (named as in the MTP fixture)
  std::string pnpId_;
  std::shared_ptr<qb::portable::IPortableDeviceContent> content_;
  std::vector<std::string> storages_;
};

}  // namespace qbtest
