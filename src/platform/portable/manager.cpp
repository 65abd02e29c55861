// The device manager and device factory over every back end.
#include <mutex>

#include "platform/portable/mtp/mtp_backend.h"
#include "platform/portable/portable.h"
#include "platform/portable/sim_device.h"

namespace qb::portable {
namespace {

// The list is read when it is first asked for, not when the manager is
// made: a process makes one as it starts and a new one each time it reads
// the device list, and each reading searches USB. Lock: m_ guards ids_,
// mtp_ and listed_ only.
class PortableDeviceManager : public IPortableDeviceManager {
 public:
  HRESULT GetDevices(std::vector<std::string>* pnpDeviceIds) override {
    if (!pnpDeviceIds) return E_POINTER;
    EnsureListed();
    std::lock_guard<std::mutex> lock(m_);
    *pnpDeviceIds = ids_;
    return S_OK;
  }

  // Simulated devices first, then the MTP devices on USB.
  HRESULT RefreshDeviceList() override {
    std::vector<std::string> ids = sim::ConnectedPnpIds();
    std::vector<mtp::MtpDeviceEntry> usb;
    if (mtp::MtpBackendAvailable() && FAILED(mtp::ListMtpDevices(&usb))) usb.clear();
    for (const auto& d : usb) ids.push_back(d.pnpId);
    std::lock_guard<std::mutex> lock(m_);
    ids_ = std::move(ids);
    mtp_ = std::move(usb);
    listed_ = true;
    return S_OK;
  }

  HRESULT GetDeviceFriendlyName(const std::string& pnpDeviceId, std::string* name) override {
    return Text(pnpDeviceId, sim::kTextFriendlyName, name);
  }
  HRESULT GetDeviceDescription(const std::string& pnpDeviceId, std::string* description) override {
    return Text(pnpDeviceId, sim::kTextDescription, description);
  }
  HRESULT GetDeviceManufacturer(const std::string& pnpDeviceId, std::string* manufacturer) override {
    return Text(pnpDeviceId, sim::kTextManufacturer, manufacturer);
  }
  // A simulated device opens in no time, and its faults show at the open.
  HRESULT GetDeviceTableFacts(const std::string& pnpDeviceId, DeviceTableFacts* facts) override {
    if (pnpDeviceId.empty() || !facts) return E_INVALIDARG;
    EnsureListed();
    std::lock_guard<std::mutex> lock(m_);
    for (const auto& d : mtp_) {
      if (d.pnpId != pnpDeviceId || !d.tableFactsKnown) continue;
      facts->hasStorage = d.hasStorage;
      facts->protocol = d.protocol;
      facts->serialNumber = d.serialNumber;
      return S_OK;
    }
    return S_FALSE;
  }

 private:
  HRESULT Text(const std::string& pnpDeviceId, int which, std::string* out) {
    if (pnpDeviceId.empty() || !out) return E_INVALIDARG;
    if (sim::IsSimPnpId(pnpDeviceId)) return sim::SimDeviceText(pnpDeviceId, which, out);
    EnsureListed();
    std::lock_guard<std::mutex> lock(m_);
    for (const auto& d : mtp_) {
      if (d.pnpId != pnpDeviceId) continue;
      *out = which == sim::kTextFriendlyName ? d.friendlyName
             : which == sim::kTextManufacturer ? d.manufacturer
                                               : d.description;
      return S_OK;
    }
    return E_ERROR_NOT_FOUND;
  }

  void EnsureListed() {
    {
      std::lock_guard<std::mutex> lock(m_);
      if (listed_) return;
    }
    RefreshDeviceList();
  }

  std::mutex m_;
  std::vector<std::string> ids_;
  std::vector<mtp::MtpDeviceEntry> mtp_;
  bool listed_ = false;
};

// Picks the back end when the device is opened.
class PortableDevice : public IPortableDevice {
 public:
  HRESULT Open(const std::string& pnpDeviceId, const PortableDeviceValues& clientInformation) override {
    std::lock_guard<std::mutex> lock(m_);
    if (impl_) return E_WPD_DEVICE_ALREADY_OPENED;
    std::unique_ptr<IPortableDevice> impl;
    if (sim::IsSimPnpId(pnpDeviceId))
      impl = sim::CreateSimPortableDevice();
    else if (mtp::IsMtpPnpId(pnpDeviceId))
      impl = mtp::CreateMtpPortableDevice();
    else
      return E_ERROR_NOT_FOUND;
    HRESULT hr = impl->Open(pnpDeviceId, clientInformation);
    if (SUCCEEDED(hr)) impl_ = std::move(impl);
    return hr;
  }
  HRESULT Close() override {
    std::unique_ptr<IPortableDevice> impl;
    {
      std::lock_guard<std::mutex> lock(m_);
      impl.swap(impl_);
    }
    return impl ? impl->Close() : S_OK;
  }
  HRESULT Content(std::shared_ptr<IPortableDeviceContent>* content) override {
    auto* d = Impl();
    return d ? d->Content(content) : E_WPD_DEVICE_NOT_OPEN;
  }
  HRESULT Capabilities(std::shared_ptr<IPortableDeviceCapabilities>* capabilities) override {
    auto* d = Impl();
    return d ? d->Capabilities(capabilities) : E_WPD_DEVICE_NOT_OPEN;
  }
  HRESULT Advise(uint32_t flags, std::shared_ptr<IPortableDeviceEventCallback> callback,
                 const PortableDeviceValues* parameters, std::string* cookie) override {
    auto* d = Impl();
    return d ? d->Advise(flags, std::move(callback), parameters, cookie) : E_WPD_DEVICE_NOT_OPEN;
  }
  HRESULT Unadvise(const std::string& cookie) override {
    auto* d = Impl();
    return d ? d->Unadvise(cookie) : E_WPD_DEVICE_NOT_OPEN;
  }
  HRESULT GetPnPDeviceID(std::string* pnpDeviceId) override {
    auto* d = Impl();
    return d ? d->GetPnPDeviceID(pnpDeviceId) : E_WPD_DEVICE_NOT_OPEN;
  }

 private:
  // The back end lives until Close or destruction; callers of Impl() run
  // while the owner keeps this object, so the pointer stays valid.
  IPortableDevice* Impl() {
    std::lock_guard<std::mutex> lock(m_);
    return impl_.get();
  }

  std::mutex m_;
  std::unique_ptr<IPortableDevice> impl_;
};

}  // namespace

std::unique_ptr<IPortableDeviceManager> CreatePortableDeviceManager() {
  return std::make_unique<PortableDeviceManager>();
}

std::unique_ptr<IPortableDevice> CreatePortableDevice() { return std::make_unique<PortableDevice>(); }

// Simulated devices are shared between processes and hold nothing.
void ReleaseIdleDevices() { mtp::ReleaseIdleMtpDevices(); }

void LookUpDevicesForOthers() { mtp::AskNamesOnly(true); }

void OpenDeviceAhead(const std::string& pnpId) { mtp::OpenMtpDeviceAhead(pnpId); }

}  // namespace qb::portable
