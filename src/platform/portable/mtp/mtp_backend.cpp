// The libmtp back end's entry points for the device manager.
#include "platform/portable/mtp/mtp_backend.h"

#include "platform/portable/mtp/mtp_ids.h"

#ifdef QUILLBOX_HAVE_LIBMTP
#include <libmtp.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include "diag/trace.h"
#include "platform/system/paths.h"
#include "platform/portable/mtp/mtp_init.h"
#include "platform/portable/mtp/mtp_keeper.h"
#include "platform/portable/mtp/mtp_probe.h"
#include "platform/portable/mtp/mtp_session.h"
#include "platform/portable/mtp/mtp_usb.h"
#include "platform/portable/sim_ini.h"
#endif

namespace qb::portable::mtp {

bool IsMtpPnpId(const std::string& pnpId) { return ParseMtpPnpId(pnpId, nullptr, nullptr, nullptr); }

#ifdef QUILLBOX_HAVE_LIBMTP

namespace {

// What opening a device taught us: its names, so that a device another
// program holds later still lists under its own name; and the device
// table's facts, which hold while the device stays at the USB place (bus
// and address) where it was opened: plugged in again, it gets a new
// address and is opened again for them. Guarded by g_learnedMutex (a leaf).
struct Learned {
  MtpDeviceEntry names;  // pnpId and the three names
  uint32_t bus = 0;      // 0: no table facts (USB numbers buses and addresses from 1)
  uint32_t address = 0;
  size_t storages = 0;
  std::string protocol;
  std::string serial;
};
std::mutex g_learnedMutex;
std::map<std::string, Learned> g_learned;

// Kept on disk too: a device that one instance holds cannot be opened by
// another (USB lets one program claim it), which must still list it under
// its own name to find it mapped; and the command that maps a device need
// not open it only to find it in the table.
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

// Replaces the file with `text` at once (another process reads it whole
// or not at all), making its folder first.
void ReplaceFile(const std::filesystem::path& file, const std::string& text) {
  std::error_code ec;
  std::filesystem::create_directories(file.parent_path(), ec);
  sim::WriteFileAtomic(file, text, nullptr);
}

void Store(const Learned& d) {
  std::ostringstream out;
  out << OneLine(d.names.friendlyName) << "\n" << OneLine(d.names.manufacturer) << "\n"
      << OneLine(d.names.description) << "\n";
  if (d.bus != 0)
    out << "usb=" << d.bus << ":" << d.address << "\nstorages=" << d.storages << "\nprotocol="
        << OneLine(d.protocol) << "\nserial=" << OneLine(d.serial) << "\n";
  ReplaceFile(NamesFile(d.names.pnpId), out.str());
}

// The table's facts after the names: all four lines, or none of them.
void LoadTableFacts(std::istream& in, Learned* d) {
  std::string usb, storages, protocol, serial;
  if (!std::getline(in, usb) || !std::getline(in, storages) || !std::getline(in, protocol) ||
      !std::getline(in, serial) || usb.rfind("usb=", 0) != 0 || storages.rfind("storages=", 0) != 0 ||
      protocol.rfind("protocol=", 0) != 0 || serial.rfind("serial=", 0) != 0)
    return;
  unsigned bus = 0, address = 0;
  char colon = 0;
  std::istringstream place(usb.substr(4));
  size_t count = 0;
  std::istringstream number(storages.substr(9));
  if (!(place >> bus >> colon >> address) || colon != ':' || !(number >> count)) return;
  d->bus = bus;
  d->address = address;
  d->storages = count;
  d->protocol = protocol.substr(9);
  d->serial = serial.substr(7);
}

bool Load(const std::string& pnpId, Learned* d) {
  std::ifstream in(NamesFile(pnpId));
  Learned stored;
  stored.names.pnpId = pnpId;
  if (!std::getline(in, stored.names.friendlyName) || !std::getline(in, stored.names.manufacturer) ||
      !std::getline(in, stored.names.description) || stored.names.friendlyName.empty())
    return false;
  LoadTableFacts(in, &stored);
  *d = std::move(stored);
  return true;
}

void Remember(const Learned& d) {
  Store(d);
  std::lock_guard<std::mutex> l(g_learnedMutex);
  g_learned[d.names.pnpId] = d;
}

// What one of our processes learned of the device, in memory or on disk.
bool Recall(const std::string& pnpId, Learned* d) {
  {
    std::lock_guard<std::mutex> l(g_learnedMutex);
    auto it = g_learned.find(pnpId);
    if (it != g_learned.end()) {
      *d = it->second;
      return true;
    }
  }
  if (!Load(pnpId, d)) return false;
  std::lock_guard<std::mutex> l(g_learnedMutex);
  g_learned.emplace(pnpId, *d);
  return true;
}

// Opens the device for what it tells of itself; the session learns it all
// (names and the table's facts, see MtpSession::RememberForTable) and is
// kept after the close, so the table and the next open in this process
// need no USB session of their own. False when it cannot be opened
// (another program holds it).
bool LearnByOpening(const std::string& pnpId, Learned* learned) {
  std::shared_ptr<MtpSession> session;
  if (FAILED(MtpSession::Open(pnpId, true, &session)) || !session) return false;
  session->Close();
  return Recall(pnpId, learned);
}

std::atomic<bool> g_askNamesOnly{false};

// Asks the device for its names and the table's facts in a few requests of
// a session of its own, which ends at once. False when it does not answer
// so (another program holds it, or it speaks PTP in a way we do not follow).
bool LearnByAsking(const std::string& pnpId, const UsbPortInfo& usb, Learned* learned) {
  ProbedDevice probed;
  if (!ProbeDevice(usb.busNumber, usb.deviceAddress, &probed)) return false;
  MtpDeviceFacts facts;
  facts.friendlyName = DeviceName(probed.friendlyName, probed.model, usb.product);
  facts.manufacturer = probed.manufacturer;
  facts.model = probed.model;
  facts.serialNumber = probed.serialNumber;
  facts.firmwareVersion = probed.firmwareVersion;
  facts.protocol = ProtocolText(probed.speaksMtp);
  RememberDevice(pnpId, facts, usb.busNumber, usb.deviceAddress, probed.storages);
  return Recall(pnpId, learned);
}

bool Learn(const std::string& pnpId, const UsbPortInfo& usb, Learned* learned) {
  if (g_askNamesOnly && LearnByAsking(pnpId, usb, learned)) return true;
  return LearnByOpening(pnpId, learned);
}

MtpDeviceEntry EntryFor(LIBMTP_raw_device_t* raw, const UsbPortInfo& usb) {
  MtpDeviceEntry e;
  e.pnpId = MakeMtpPnpId(usb.vendorId, usb.productId, PnpSerialPart(usb.serial, usb.busNumber, usb.deviceAddress));
  // What USB itself tells, then libmtp's device table, then the device.
  e.friendlyName = !usb.product.empty() ? usb.product : (raw->device_entry.product ? raw->device_entry.product : "");
  e.manufacturer = !usb.manufacturer.empty() ? usb.manufacturer : (raw->device_entry.vendor ? raw->device_entry.vendor : "");
  e.description = e.friendlyName;
  // The names one of us learned stand, as the system keeps a device's name
  // once it knows it: opening the device only for them costs a session
  // (every session that opens the device stores its names afresh).
  Learned learned;
  if (!Recall(e.pnpId, &learned) && !Learn(e.pnpId, usb, &learned)) return e;
  e = learned.names;
  // A device that showed no storage (a locked phone) may show one now.
  if (learned.bus == usb.busNumber && learned.address == usb.deviceAddress && learned.bus != 0 &&
      learned.storages > 0) {
    e.tableFactsKnown = true;
    e.hasStorage = true;
    e.protocol = learned.protocol;
    e.serialNumber = learned.serial;
  }
  return e;
}

// The record of the process of ours that holds the device while it serves
// a drive: its pid, beside the device's names.
std::filesystem::path HolderFile(const std::string& pnpId) { return NamesFile(pnpId).string() + ".holder"; }

// "firmware=<version>", then a line "<property> <format> <0|1>" per answer.
std::filesystem::path PropertiesFile(const std::string& pnpId) { return NamesFile(pnpId).string() + ".properties"; }

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

LIBMTP_error_number_t DetectMtpDevices(LIBMTP_raw_device_t** devices, int* count) {
  static std::mutex one;
  std::lock_guard<std::mutex> l(one);
  return LIBMTP_Detect_Raw_Devices(devices, count);
}

void RememberDevice(const std::string& pnpId, const MtpDeviceFacts& facts, uint32_t bus, uint32_t address,
                    size_t storageCount) {
  Learned d;
  d.names.pnpId = pnpId;
  d.names.friendlyName = facts.friendlyName;
  d.names.manufacturer = facts.manufacturer;
  d.names.description = facts.model.empty() ? facts.friendlyName : facts.model;
  d.bus = bus;
  d.address = address;
  d.storages = storageCount;
  d.protocol = facts.protocol;
  d.serial = facts.serialNumber;
  Remember(d);
}

bool RememberedAsMtp(const std::string& pnpId) {
  Learned d;
  return Recall(pnpId, &d) && d.protocol == ProtocolText(true);
}

void RecordDeviceHolder(const std::string& pnpId) { ReplaceFile(HolderFile(pnpId), std::to_string(getpid()) + "\n"); }

PropertySupport RecallPropertySupport(const std::string& pnpId, const std::string& firmware) {
  std::ifstream in(PropertiesFile(pnpId));
  std::string line;
  if (!in || !std::getline(in, line)) return {};
  if (line != "firmware=" + OneLine(firmware)) return {};  // another firmware may support others
  PropertySupport support;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    int property = 0;
    unsigned format = 0, supported = 2;
    std::string rest;
    if (!(fields >> property >> format >> supported) || supported > 1 || format > 0xFFFF || (fields >> rest)) {
      Trace("MB3@RecallPropertySupport: ", "ignored: \"%s\" of %s does not read as written", line.c_str(),
            PropertiesFile(pnpId).c_str());
      return {};
    }
    support[{property, static_cast<uint16_t>(format)}] = supported == 1;
  }
  return support;
}

void RememberPropertySupport(const std::string& pnpId, const std::string& firmware, const PropertySupport& support) {
  std::ostringstream out;
  out << "firmware=" << OneLine(firmware) << "\n";
  for (const auto& [key, supported] : support) out << key.first << " " << key.second << " " << (supported ? 1 : 0) << "\n";
  ReplaceFile(PropertiesFile(pnpId), out.str());
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

void AskNamesOnly(bool namesOnly) { g_askNamesOnly = namesOnly; }

void OpenMtpDeviceAhead(const std::string& pnpId) {
  if (!IsMtpPnpId(pnpId)) return;
  OpenAhead(pnpId, [pnpId] { MtpSession::OpenToKeep(pnpId); });
}

HRESULT ListMtpDevices(std::vector<MtpDeviceEntry>* devices) {
  if (!devices) return E_POINTER;
  devices->clear();
  EnsureLibmtp();
  LIBMTP_raw_device_t* raw = nullptr;
  int count = 0;
  LIBMTP_error_number_t err = DetectMtpDevices(&raw, &count);
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

void AskNamesOnly(bool) {}

void OpenMtpDeviceAhead(const std::string&) {}

HRESULT ListMtpDevices(std::vector<MtpDeviceEntry>* devices) {
  if (!devices) return E_POINTER;
  devices->clear();
  return S_OK;
}

std::unique_ptr<IPortableDevice> CreateMtpPortableDevice() { return std::make_unique<NoMtpDevice>(); }

#endif  // QUILLBOX_HAVE_LIBMTP

}  // namespace qb::portable::mtp
