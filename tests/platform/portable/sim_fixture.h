#pragma once
// Helpers of the portable-device tests: a simulated device in a fresh home,
// opened through the object model, and an event sink whose events a test
// waits for with a deadline.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/portable/portable.h"
#include "platform/portable/sim_devices.h"
#include "support/test_home.h"

namespace qbtest {

namespace qp = qb::portable;

struct SeenEvent {
  GUID id;
  std::string objectId, name, parentId, container, pnpId, puid;
  GUID contentType;
};

class RecordingSink : public qp::IPortableDeviceEventCallback {
 public:
  HRESULT OnEvent(const qp::PortableDeviceValues& p) override {
    SeenEvent e{};
    p.GetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, &e.id);
    p.GetStringValue(WPD_OBJECT_ID, &e.objectId);
    p.GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &e.name);
    p.GetStringValue(WPD_OBJECT_PARENT_ID, &e.parentId);
    p.GetStringValue(WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID, &e.container);
    p.GetStringValue(WPD_EVENT_PARAMETER_PNP_DEVICE_ID, &e.pnpId);
    p.GetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, &e.puid);
    p.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &e.contentType);
    std::lock_guard<std::mutex> lock(m_);
    events_.push_back(e);
    cv_.notify_all();
    return S_OK;
  }

  // Waits up to 10 s for an event that `match` accepts, among those from
  // the `from`th on; returns it.
  bool WaitFor(const std::function<bool(const SeenEvent&)>& match, SeenEvent* found = nullptr, size_t from = 0) {
    std::unique_lock<std::mutex> lock(m_);
    bool ok = cv_.wait_for(lock, std::chrono::seconds(10), [&] {
      for (size_t i = from; i < events_.size(); ++i)
        if (match(events_[i])) {
          if (found) *found = events_[i];
          return true;
        }
      return false;
    });
    return ok;
  }
  bool WaitFor(const GUID& id, const std::string& name, SeenEvent* found = nullptr) {
    return WaitFor([&](const SeenEvent& e) { return e.id == id && (name.empty() || e.name == name); }, found);
  }
  std::vector<SeenEvent> Events() {
    std::lock_guard<std::mutex> lock(m_);
    return events_;
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  std::vector<SeenEvent> events_;
};

// A device "phone" with storages "a-internal" (s10001) and "b-card" (s20001) in a fresh home.
class SimDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qp::sim::DeviceSpec spec;
    spec.folder = "phone";
    spec.friendlyName = "Test Phone";
    spec.serialNumber = "SN123";
    qp::sim::StorageSpec a, b;
    a.folder = "a-internal";
    a.name = "Internal storage";
    a.capacity = 1 << 20;
    b.folder = "b-card";
    b.name = "SD card";
    b.capacity = 1 << 30;
    b.freeSpace = 12345;
    spec.storages = {a, b};
    std::string error;
    ASSERT_TRUE(qp::sim::WriteDevice(spec, &error)) << error;
    folder_ = qp::sim::DeviceFolder("phone");
    qp::sim::DeviceSpec read;
    ASSERT_TRUE(qp::sim::ReadDevice(folder_, &read, &error)) << error;
    pnpId_ = qp::sim::SimPnpId(read);
  }

  std::unique_ptr<qp::IPortableDevice> Open(uint32_t access = GENERIC_READ | GENERIC_WRITE, HRESULT* result = nullptr) {
    auto device = qp::CreatePortableDevice();
    qp::PortableDeviceValues client;
    client.SetStringValue(WPD_CLIENT_NAME, "Quillbox");
    client.SetUnsignedIntegerValue(WPD_CLIENT_DESIRED_ACCESS, access);
    HRESULT hr = device->Open(pnpId_, client);
    if (result) *result = hr;
    if (FAILED(hr)) return nullptr;
    return device;
  }

  void WriteFile(const std::string& rel, const std::string& data) {
    std::filesystem::create_directories((folder_ / rel).parent_path());
    FILE* f = fopen((folder_ / rel).c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fwrite(data.data(), 1, data.size(), f);
    fclose(f);
  }

  ScopedHome home_;
  std::filesystem::path folder_;
  std::string pnpId_;
};

// Children of `parent` through the model, fetched in batches of 3.
inline std::vector<std::string> Children(qp::IPortableDeviceContent& content, const std::string& parent) {
  std::unique_ptr<qp::IEnumPortableDeviceObjectIDs> e;
  std::vector<std::string> all;
  if (FAILED(content.EnumObjects(0, parent, nullptr, &e))) return all;
  std::vector<std::string> batch;
  while (SUCCEEDED(e->Next(3, &batch)) && !batch.empty()) all.insert(all.end(), batch.begin(), batch.end());
  return all;
}

// The child of `parent` whose original file name is `name`, or "".
inline std::string ChildNamed(qp::IPortableDeviceContent& content, const std::string& parent,
                              const std::string& name) {
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content.Properties(&props);
  for (const auto& id : Children(content, parent)) {
    qp::PortableDeviceValues v;
    std::string n;
    if (SUCCEEDED(props->GetValues(id, nullptr, &v)) && SUCCEEDED(v.GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &n)) &&
        n == name)
      return id;
  }
  return {};
}

}  // namespace qbtest
