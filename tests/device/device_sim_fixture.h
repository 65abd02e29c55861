#pragma once
// A simulated device in a fresh home, opened through CWPDHelperLocal as the
// program opens it (event registration opens the device).
#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "device/wpd_helper_local.h"
#include "platform/portable/sim_devices.h"
#include "support/test_home.h"

namespace qbtest {

namespace sim = qb::portable::sim;

struct SeenDeviceEvent {
  std::string device, item, name, parent, container;
  uint32_t code = 0, folder = 0;
  bool hasAttributes = false, hasSize = false, hasCreated = false, hasModified = false;
  uint32_t attributes = 0;
  uint64_t size = 0;
};

// Collects the events that reach the eleven-argument callback.
class EventLog {
 public:
  static EventLog& Instance() {
    static EventLog log;
    return log;
  }
  static HRESULT Callback(const char* device, const char* item, uint32_t code, const char* name,
                          uint32_t folder, const char* parent, const char* container,
                          const uint32_t* attributes, const uint64_t* size, const FILETIME* created,
                          const FILETIME* modified) {
    SeenDeviceEvent e{device, item, name, parent, container, code, folder, attributes != nullptr,
                      size != nullptr, created != nullptr, modified != nullptr,
                      attributes ? *attributes : 0, size ? *size : 0};
    EventLog& log = Instance();
    std::lock_guard hold(log.m_);
    log.events_.push_back(e);
    log.cv_.notify_all();
    return S_OK;
  }
  void Clear() {
    std::lock_guard hold(m_);
    events_.clear();
  }
  // Waits up to 20 s for an event with this code and name ("" any name).
  bool WaitFor(uint32_t code, const std::string& name, SeenDeviceEvent* found = nullptr) {
    std::unique_lock hold(m_);
    return cv_.wait_for(hold, std::chrono::seconds(20), [&] {
      for (const auto& e : events_)
        if (e.code == code && (name.empty() || e.name == name)) {
          if (found) *found = e;
          return true;
        }
      return false;
    });
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  std::vector<SeenDeviceEvent> events_;
};

class DeviceSimTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sim::DeviceSpec spec;
    spec.folder = "phone";
    spec.friendlyName = "Test Phone";
    spec.serialNumber = "SN123";
    sim::StorageSpec a, b;
    a.folder = "a-internal";
    a.name = "Internal storage";
    a.capacity = 1ull << 32;
    b.folder = "b-card";
    b.name = "SD card";
    b.capacity = 1ull << 30;
    b.freeSpace = 12345;
    spec.storages = {a, b};
    std::string error;
    ASSERT_TRUE(sim::WriteDevice(spec, &error)) << error;
    folder_ = sim::DeviceFolder("phone");
    sim::DeviceSpec read;
    ASSERT_TRUE(sim::ReadDevice(folder_, &read, &error)) << error;
    pnpId_ = sim::SimPnpId(read);
    helper_.SetLibraryMessages(0, "");
    helper_.SetBusyRetryDelayMs(0);
    ASSERT_EQ(helper_.Init(), S_OK);
    EventLog::Instance().Clear();
  }
  void TearDown() override {
    helper_.DeRegisterEventHandler();
    helper_.DeInit(5000);
  }

  HRESULT Open() { return helper_.RegisterEventHandler(pnpId_.c_str(), &EventLog::Callback); }

  void WriteFile(const std::string& rel, const std::string& data) {
    std::filesystem::create_directories((folder_ / rel).parent_path());
    FILE* f = fopen((folder_ / rel).c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fwrite(data.data(), 1, data.size(), f);
    fclose(f);
  }
  void SetFaults(const sim::Faults& faults) {
    std::string error;
    ASSERT_TRUE(sim::WriteFaults(folder_, faults, &error)) << error;
  }

  ScopedHome home_;
  std::filesystem::path folder_;
  std::string pnpId_;
  CWPDHelperLocal helper_;
};

}  // namespace qbtest
