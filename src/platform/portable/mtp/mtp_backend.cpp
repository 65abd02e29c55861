// The libmtp back end's entry points for the device manager.
#include "platform/portable/mtp/mtp_backend.h"

#include "platform/portable/mtp/mtp_ids.h"

#ifdef QUILLBOX_HAVE_LIBMTP
#include <libmtp.h>

#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>

#include "diag/trace.h"
#include "platform/system/paths.h"
#include "platform/portable/mtp/mtp_init.h"
#include "platform/portable/mtp/mtp_keeper.h"
#include "platform/portable/mtp/mtp_usb.h"
#endif

namespace qb::portable::mtp {

bool IsMtpPnpId(const std::string& pnpId) { return ParseMtpPnpId(pnpId, nullptr, nullptr, nullptr); }

#ifdef QUILLBOX_HAVE_LIBMTP

namespace {

// Names learned by opening a device, so that a device another program holds
// later still lists under its own name. Guarded by g_namesMutex (a leaf).
std::mutex g_namesMutex;
std::map<std::string, MtpDeviceEntry> g_names;

// Names learned by any of our processes, kept on disk: a device that one
// instance holds cannot be opened by another (USB lets one program claim
// it), which must still list it under its own name to find it mapped.
std::filesystem::path NamesFile(const std::string& pnpId) {
  std::string name;
  for (char c : pnpId) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return qb::sys::LocalAppDataDir() / "Quillbox" / "MtpNames" / name;
}

std::string OneLine(std::string s) {
  for (char& c : s)
    if (c == '\n' || c == '\r') c = ' ';
  return s;
}

void StoreNames(const MtpDeviceEntry& e) {
  const std::filesystem::path file = NamesFile(e.pnpId);
  std::error_code ec;
  std::filesystem::create_directories(file.parent_path(), ec);
  const std::filesystem::path temporary = file.string() + "." + std::to_string(getpid());
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << OneLine(e.friendlyName) << "\n" << OneLine(e.manufacturer) << "\n" << OneLine(e.description) << "\n";
    if (!out) return;
  }
  std::filesystem::rename(temporary, file, ec);
  if (ec) std::filesystem::remove(temporary, ec);
}

bool LoadNames(MtpDeviceEntry* e) {
  std::ifstream in(NamesFile(e->pnpId));
  MtpDeviceEntry stored = *e;
  if (!std::getline(in, stored.friendlyName) || !std::getline(in, stored.manufacturer) ||
      !std::getline(in, stored.description) || stored.friendlyName.empty())
    return false;
  *e = stored;
  return true;
}

std::string TakeString(char* s) {
  std::string out = s ? s : "";
  std::free(s);
  return out;
}

// Opens the device briefly for its own names; false when it cannot be
// opened (another program holds it).
bool ReadNames(LIBMTP_raw_device_t* raw, MtpDeviceEntry* entry) {
  LIBMTP_mtpdevice_t* device = LIBMTP_Open_Raw_Device_Uncached(raw);
  if (!device) return false;
  std::string friendly = TakeString(LIBMTP_Get_Friendlyname(device));
  std::string manufacturer = TakeString(LIBMTP_Get_Manufacturername(device));
  std::string model = TakeString(LIBMTP_Get_Modelname(device));
  LIBMTP_Release_Device(device);
  if (!friendly.empty()) entry->friendlyName = friendly;
  else if (!model.empty()) entry->friendlyName = model;
  if (!manufacturer.empty()) entry->manufacturer = manufacturer;
  if (!model.empty()) entry->description = model;
  return true;
}

MtpDeviceEntry EntryFor(LIBMTP_raw_device_t* raw, const UsbPortInfo& usb) {
  MtpDeviceEntry e;
  e.pnpId = MakeMtpPnpId(usb.vendorId, usb.productId, PnpSerialPart(usb.serial, usb.busNumber, usb.deviceAddress));
  // What USB itself tells, then libmtp's device table, then the device.
  e.friendlyName = !usb.product.empty() ? usb.product : (raw->device_entry.product ? raw->device_entry.product : "");
  e.manufacturer = !usb.manufacturer.empty() ? usb.manufacturer : (raw->device_entry.vendor ? raw->device_entry.vendor : "");
  e.description = e.friendlyName;
  {
    std::lock_guard<std::mutex> l(g_namesMutex);
    auto it = g_names.find(e.pnpId);
    if (it != g_names.end()) return it->second;
  }
  // The names one of us learned stand, as the system keeps a device's name
  // once it knows it: opening the device only for them costs a session
  // (every session that opens the device stores its names afresh).
  const bool stored = LoadNames(&e);
  if (!stored && !ReadNames(raw, &e)) return e;
  if (!stored) StoreNames(e);
  std::lock_guard<std::mutex> l(g_namesMutex);
  g_names[e.pnpId] = e;
  return e;
}

// The record of the process of ours that holds the device while it serves
// a drive: its pid, beside the device's names.
std::filesystem::path HolderFile(const std::string& pnpId) { return NamesFile(pnpId).string() + ".holder"; }

long HolderPid(const std::string& pnpId) {
  std::ifstream in(HolderFile(pnpId));
  long pid = 0;
  return in >> pid ? pid : 0;
}

}  // namespace

void EnsureLibmtp() {
  static std::once_flag once;
  std::call_once(once, [] { LIBMTP_Init(); });
}

void RememberDeviceNames(const std::string& pnpId, const std::string& friendlyName, const std::string& manufacturer,
                         const std::string& model) {
  MtpDeviceEntry e;
  e.pnpId = pnpId;
  e.friendlyName = friendlyName;
  e.manufacturer = manufacturer;
  e.description = model.empty() ? friendlyName : model;
  StoreNames(e);
  std::lock_guard<std::mutex> l(g_namesMutex);
  g_names[pnpId] = e;
}

void RecordDeviceHolder(const std::string& pnpId) {
  const std::filesystem::path file = HolderFile(pnpId);
  std::error_code ec;
  std::filesystem::create_directories(file.parent_path(), ec);
  const std::filesystem::path temporary = file.string() + "." + std::to_string(getpid());
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << getpid() << "\n";
    if (!out) return;
  }
  std::filesystem::rename(temporary, file, ec);
  if (ec) std::filesystem::remove(temporary, ec);
}

void ForgetDeviceHolder(const std::string& pnpId) {
  if (HolderPid(pnpId) != getpid()) return;  // another process's record since
  std::error_code ec;
  std::filesystem::remove(HolderFile(pnpId), ec);
}

bool HeldByAnotherProcess(const std::string& pnpId) {
  const long pid = HolderPid(pnpId);
  if (pid <= 0 || pid == getpid()) return false;
  return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

bool MtpBackendAvailable() { return true; }

void ReleaseIdleMtpDevices() { ReleaseKeptDevices(); }

HRESULT ListMtpDevices(std::vector<MtpDeviceEntry>* devices) {
  if (!devices) return E_POINTER;
  devices->clear();
  EnsureLibmtp();
  LIBMTP_raw_device_t* raw = nullptr;
  int count = 0;
  LIBMTP_error_number_t err = LIBMTP_Detect_Raw_Devices(&raw, &count);
  if (err == LIBMTP_ERROR_NO_DEVICE_ATTACHED) {
    std::free(raw);
    return S_OK;
  }
  if (err != LIBMTP_ERROR_NONE) {
    std::free(raw);
    Trace("MT60@ListMtpDevices: ", "LIBMTP_Detect_Raw_Devices failed (%d)", static_cast<int>(err));
    return S_OK;  // nothing usable on USB: an empty list, as with no device
  }
  for (int i = 0; i < count; ++i) {
    UsbPortInfo usb;
    if (!FindUsbPort(UsbDevicesRoot(), raw[i].bus_location, raw[i].devnum, &usb)) continue;
    devices->push_back(EntryFor(&raw[i], usb));
  }
  std::free(raw);
  return S_OK;
}

#else  // !QUILLBOX_HAVE_LIBMTP

namespace {

// Without libmtp no MTP device opens.
class NoMtpDevice : public IPortableDevice {
 public:
  HRESULT Open(const std::string&, const PortableDeviceValues&) override { return E_ERROR_NOT_FOUND; }
  HRESULT Close() override { return S_OK; }
  HRESULT Content(std::shared_ptr<IPortableDeviceContent>*) override { return E_WPD_DEVICE_NOT_OPEN; }
  HRESULT Capabilities(std::shared_ptr<IPortableDeviceCapabilities>*) override { return E_WPD_DEVICE_NOT_OPEN; }
  HRESULT Advise(uint32_t, std::shared_ptr<IPortableDeviceEventCallback>, const PortableDeviceValues*,
                 std::string*) override {
    return E_WPD_DEVICE_NOT_OPEN;
  }
  HRESULT Unadvise(const std::string&) override { return E_WPD_DEVICE_NOT_OPEN; }
  HRESULT GetPnPDeviceID(std::string*) override { return E_WPD_DEVICE_NOT_OPEN; }
};

}  // namespace

bool MtpBackendAvailable() { return false; }

void ReleaseIdleMtpDevices() {}

HRESULT ListMtpDevices(std::vector<MtpDeviceEntry>* devices) {
  if (!devices) return E_POINTER;
  devices->clear();
  return S_OK;
}

std::unique_ptr<IPortableDevice> CreateMtpPortableDevice() { return std::make_unique<NoMtpDevice>(); }

#endif  // QUILLBOX_HAVE_LIBMTP

}  // namespace qb::portable::mtp
