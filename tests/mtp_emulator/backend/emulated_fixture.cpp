#include "emulated_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/portable/mtp/mtp_usb.h"
#include "platform/portable/sim_devices.h"

namespace qbtest {

namespace qp = qb::portable;

void EmulatedMtpDevice::SetUp() {
  home_ = std::make_unique<ScopedHome>();
  setenv("QUILLBOX_MTP_EMULATOR_DIR", (home_->Path() / "sockets").c_str(), 1);
  setenv("QUILLBOX_MTP_EMULATOR_STATS", (home_->Path() / "emulator-stats").c_str(), 1);
  qb::portable::mtp::SetUsbDevicesRoot((home_->Path() / "sockets" / "usb-devices").string());
  std::string error;
  ASSERT_TRUE(qp::sim::CreateDemoDevice(&device_, &error)) << error;
}

void EmulatedMtpDevice::TearDown() {
  content_.reset();
  if (mtp_) mtp_->Close();
  mtp_.reset();
  StopEmulator();
  qb::portable::mtp::SetUsbDevicesRoot("");
  home_.reset();
}

bool EmulatedMtpDevice::StartEmulator(const std::vector<std::string>& options) {
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return false;
  std::string program = (BinDir() / "quillbox-mtp-emulator").string();
  std::vector<std::string> args = {program, "serve", "demo", "--die-with-parent"};
  args.insert(args.end(), options.begin(), options.end());
  emulator_ = fork();
  if (emulator_ == 0) {
    dup2(out[1], 1);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  close(out[1]);
  // Ready once it says it serves (bounded wait on its output).
  std::string said;
  char buf[256];
  for (;;) {
    pollfd pfd{out[0], POLLIN, 0};
    if (poll(&pfd, 1, 20000) <= 0) break;
    ssize_t n = read(out[0], buf, sizeof buf);
    if (n <= 0) break;
    said.append(buf, static_cast<size_t>(n));
    if (said.find('\n') != std::string::npos) break;
  }
  close(out[0]);
  bool ok = said.rfind("serving demo", 0) == 0;
  EXPECT_TRUE(ok) << "the emulator did not start: " << said;
  return ok;
}

void EmulatedMtpDevice::StopEmulator() {
  // A session kept after a close belongs to this emulator; the next test's
  // emulator may show the same device at the same place.
  qp::ReleaseIdleDevices();
  if (emulator_ <= 0) return;
  kill(emulator_, SIGTERM);
  int status = 0;
  waitpid(emulator_, &status, 0);
  emulator_ = -1;
}

void EmulatedMtpDevice::StartAndOpen(const std::vector<std::string>& options) {
  ASSERT_TRUE(StartEmulator(options));
  mtp_ = OpenDevice(&pnpId_);
  ASSERT_TRUE(mtp_);
  ASSERT_EQ(mtp_->Content(&content_), S_OK);
  ChildNames(content_.get(), WPD_DEVICE_OBJECT_ID, &storages_);
  ASSERT_FALSE(storages_.empty());
}

std::map<uint16_t, uint64_t> EmulatedMtpDevice::OperationCounts() const {
  std::map<uint16_t, uint64_t> counts;
  std::ifstream in(home_->Path() / "emulator-stats");
  std::string code;
  uint64_t count = 0;
  while (in >> code >> count) counts[static_cast<uint16_t>(std::stoul(code, nullptr, 16))] = count;
  return counts;
}

uint64_t CountOf(const std::map<uint16_t, uint64_t>& counts, uint16_t code) {
  auto it = counts.find(code);
  return it == counts.end() ? 0 : it->second;
}

uint64_t OperationsBetween(const std::map<uint16_t, uint64_t>& before, const std::map<uint16_t, uint64_t>& after) {
  uint64_t total = 0;
  for (const auto& [code, count] : after) {
    auto it = before.find(code);
    total += count - (it == before.end() ? 0 : it->second);
  }
  return total;
}

std::string EmulatedMtpDevice::FindMtpDevice() {
  auto manager = qp::CreatePortableDeviceManager();
  manager->RefreshDeviceList();
  std::vector<std::string> ids;
  manager->GetDevices(&ids);
  for (const auto& id : ids)
    if (id.find("usb#vid_1209&pid_0001#") != std::string::npos) return id;
  return "";
}

std::unique_ptr<qp::IPortableDevice> EmulatedMtpDevice::OpenDevice(std::string* pnpId) {
  std::string id = FindMtpDevice();
  if (id.empty()) {
    std::error_code ec;
    std::string seen;
    for (const auto& e : std::filesystem::directory_iterator(home_->Path() / "sockets", ec))
      seen += e.path().filename().string() + " ";
    ADD_FAILURE() << "the emulated device is not listed; in the socket folder: " << seen;
    return nullptr;
  }
  auto device = qp::CreatePortableDevice();
  qp::PortableDeviceValues client;
  client.SetStringValue(WPD_CLIENT_NAME, "test");
  HRESULT hr = device->Open(id, client);
  if (FAILED(hr)) {
    ADD_FAILURE() << "Open failed: " << std::hex << hr;
    return nullptr;
  }
  if (pnpId) *pnpId = id;
  return device;
}

std::vector<std::string> ChildNames(qp::IPortableDeviceContent* content, const std::string& parentId,
                                    std::vector<std::string>* idsOut) {
  std::unique_ptr<qp::IEnumPortableDeviceObjectIDs> e;
  std::vector<std::string> names, ids, batch;
  if (FAILED(content->EnumObjects(0, parentId, nullptr, &e))) return names;
  HRESULT hr;
  do {
    hr = e->Next(100, &batch);
    ids.insert(ids.end(), batch.begin(), batch.end());
  } while (hr == S_OK && !batch.empty());
  std::shared_ptr<qp::IPortableDeviceProperties> props;
  content->Properties(&props);
  for (const auto& id : ids) {
    qp::PortableDeviceValues v;
    std::string name;
    props->GetValues(id, nullptr, &v);
    if (FAILED(v.GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &name))) v.GetStringValue(WPD_OBJECT_NAME, &name);
    names.push_back(name);
  }
  if (idsOut) *idsOut = ids;
  return names;
}

std::string ChildId(qp::IPortableDeviceContent* content, const std::string& parentId, const std::string& name) {
  std::vector<std::string> ids;
  auto names = ChildNames(content, parentId, &ids);
  for (size_t i = 0; i < names.size(); ++i)
    if (names[i] == name) return ids[i];
  return "";
}

std::string ReadAll(qp::IPortableDeviceContent* content, const std::string& id, HRESULT* result) {
  std::shared_ptr<qp::IPortableDeviceResources> resources;
  content->Transfer(&resources);
  std::unique_ptr<qp::IStream> stream;
  uint32_t optimal = 0;
  HRESULT hr = resources->GetStream(id, WPD_RESOURCE_DEFAULT, qp::STGM_READ, &optimal, &stream);
  std::string data;
  while (SUCCEEDED(hr)) {
    char buf[65536];
    uint32_t got = 0;
    hr = stream->Read(buf, sizeof buf, &got);
    if (FAILED(hr) || got == 0) break;
    data.append(buf, got);
  }
  if (result) *result = hr;
  return data;
}

HRESULT Upload(qp::IPortableDeviceContent* content, const std::string& parentId, const std::string& name,
               const std::string& data, std::string* newId) {
  qp::PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, parentId);
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, name);
  v.SetStringValue(WPD_OBJECT_NAME, name);
  v.SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, data.size());
  std::unique_ptr<qp::IPortableDeviceDataStream> stream;
  uint32_t optimal = 0;
  HRESULT hr = content->CreateObjectWithPropertiesAndData(v, &stream, &optimal);
  if (FAILED(hr)) return hr;
  uint32_t written = 0;
  hr = stream->Write(data.data(), static_cast<uint32_t>(data.size()), &written);
  if (SUCCEEDED(hr)) hr = stream->Commit(qp::STGC_DEFAULT);
  if (SUCCEEDED(hr)) hr = stream->GetObjectID(newId);
  return hr;
}

std::string FileBytes(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace qbtest
