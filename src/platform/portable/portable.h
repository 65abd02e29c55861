#pragma once
// The portable-device object model: the same concepts as Windows Portable
// Devices (a device manager, devices opened with client information, content
// addressed by object ids, properties by WPD keys with typed PROPVARIANT
// values, resources read and written through streams, capabilities and an
// event sink), with two back ends behind it: simulated devices (always there)
// and real MTP devices over USB (when built with libmtp).
//
// Errors are the HRESULTs WPD gives: E_ERROR_BUSY (0x800700AA) while the
// device is busy, E_ERROR_NOT_FOUND (0x80070490) for an unknown object or a
// property the object does not report, E_ERROR_NOT_SUPPORTED (0x80070032) for
// a command the device lacks, E_ACCESSDENIED for a write on a device opened
// read-only or a property that cannot be written, WIA_ERROR_OFFLINE
// (0x80210005) when the device does not answer or is gone,
// E_WPD_DEVICE_NOT_OPEN before Open. Nothing here throws.
//
// Text is UTF-8. Every interface is safe to call from several threads; event
// callbacks arrive on a thread of the back end and must return quickly (they
// may call back into the device, e.g. to read an object's properties).
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/system/codes.h"
#include "platform/system/wintypes.h"
#include "platform/system/wpd_keys.h"

namespace qb::portable {

// The value of a property read that found no such property.
inline constexpr HRESULT kPropertyNotFound = E_ERROR_NOT_FOUND;
// A typed read of a value that holds another type.
inline constexpr HRESULT kTypeMismatch = static_cast<HRESULT>(0x80020005u);  // DISP_E_TYPEMISMATCH
// Stream access modes of IPortableDeviceResources::GetStream.
inline constexpr uint32_t STGM_READ = 0x00000000u;
inline constexpr uint32_t STGM_WRITE = 0x00000001u;
inline constexpr uint32_t STGM_READWRITE = 0x00000002u;
inline constexpr uint32_t STGC_DEFAULT = 0u;

// IPortableDeviceValues: an ordered collection of key/value pairs. Setting a
// key that is present replaces its value in place.
class PortableDeviceValues {
 public:
  size_t Count() const { return items_.size(); }
  // The pair at `index`; false when out of range.
  bool GetAt(size_t index, PROPERTYKEY* key, PROPVARIANT* value) const;
  const std::vector<std::pair<PROPERTYKEY, PROPVARIANT>>& Items() const { return items_; }

  void SetValue(const PROPERTYKEY& key, PROPVARIANT value);
  void SetStringValue(const PROPERTYKEY& key, const std::string& v) { SetValue(key, PROPVARIANT::Text(v)); }
  void SetUnsignedIntegerValue(const PROPERTYKEY& key, uint32_t v) { SetValue(key, PROPVARIANT::UI4(v)); }
  void SetUnsignedLargeIntegerValue(const PROPERTYKEY& key, uint64_t v) { SetValue(key, PROPVARIANT::UI8(v)); }
  void SetSignedIntegerValue(const PROPERTYKEY& key, int32_t v) { SetValue(key, PROPVARIANT::I4(v)); }
  void SetBoolValue(const PROPERTYKEY& key, bool v) { SetValue(key, PROPVARIANT::Bool(v)); }
  void SetGuidValue(const PROPERTYKEY& key, const GUID& v) { SetValue(key, PROPVARIANT::Guid(v)); }
  void SetErrorValue(const PROPERTYKEY& key, HRESULT v) { SetValue(key, PROPVARIANT::Error(v)); }
  bool Remove(const PROPERTYKEY& key);
  void Clear() { items_.clear(); }

  // Null when the key is absent.
  const PROPVARIANT* Find(const PROPERTYKEY& key) const;
  // S_OK, kPropertyNotFound, or kTypeMismatch.
  HRESULT GetValue(const PROPERTYKEY& key, PROPVARIANT* out) const;
  HRESULT GetStringValue(const PROPERTYKEY& key, std::string* out) const;          // VT_LPWSTR/VT_BSTR/VT_LPSTR
  HRESULT GetUnsignedIntegerValue(const PROPERTYKEY& key, uint32_t* out) const;    // VT_UI4 (also UI1/UI2)
  HRESULT GetUnsignedLargeIntegerValue(const PROPERTYKEY& key, uint64_t* out) const;  // VT_UI8 (also UI4)
  HRESULT GetSignedIntegerValue(const PROPERTYKEY& key, int32_t* out) const;       // VT_I4
  HRESULT GetBoolValue(const PROPERTYKEY& key, bool* out) const;                   // VT_BOOL
  HRESULT GetGuidValue(const PROPERTYKEY& key, GUID* out) const;                   // VT_CLSID
  HRESULT GetErrorValue(const PROPERTYKEY& key, HRESULT* out) const;               // VT_ERROR

 private:
  std::vector<std::pair<PROPERTYKEY, PROPVARIANT>> items_;
};

// IPortableDeviceKeyCollection.
using KeyCollection = std::vector<PROPERTYKEY>;

// IStream as the model uses it: a device object's data.
class IStream {
 public:
  virtual ~IStream() = default;
  // Reads up to `count` bytes; `*read` 0 at the end. S_OK, or an error.
  virtual HRESULT Read(void* buffer, uint32_t count, uint32_t* read) = 0;
  // Writes `count` bytes (streams opened for writing only).
  virtual HRESULT Write(const void* buffer, uint32_t count, uint32_t* written) = 0;
  // Makes written data final (STGC_DEFAULT); for a new object, creates it.
  virtual HRESULT Commit(uint32_t flags) = 0;
  // Throws written data away.
  virtual HRESULT Revert() = 0;
};

// IPortableDeviceDataStream: the stream of a new object. Destroying it
// without a successful Commit discards the object: nothing is left behind.
class IPortableDeviceDataStream : public IStream {
 public:
  // The new object's id; E_WPD_OBJECT_NOT_COMMITED before Commit.
  virtual HRESULT GetObjectID(std::string* objectId) = 0;
  virtual HRESULT Cancel() = 0;
};

// IEnumPortableDeviceObjectIDs.
class IEnumPortableDeviceObjectIDs {
 public:
  virtual ~IEnumPortableDeviceObjectIDs() = default;
  // Appends up to `count` ids to `ids` (cleared first). S_OK when `count`
  // came, S_FALSE when fewer (also 0: the end), else an error.
  virtual HRESULT Next(uint32_t count, std::vector<std::string>* ids) = 0;
  virtual HRESULT Skip(uint32_t count) = 0;
  virtual HRESULT Reset() = 0;
};

// IPortableDeviceProperties.
class IPortableDeviceProperties {
 public:
  virtual ~IPortableDeviceProperties() = default;
  virtual HRESULT GetSupportedProperties(const std::string& objectId, KeyCollection* keys) = 0;
  // WPD_PROPERTY_ATTRIBUTE_CAN_READ / CAN_WRITE / CAN_DELETE / FAST_PROPERTY.
  virtual HRESULT GetPropertyAttributes(const std::string& objectId, const PROPERTYKEY& key,
                                        PortableDeviceValues* attributes) = 0;
  // All properties when `keys` is null, else those of `keys` the object
  // reports. S_OK when every asked key came, S_FALSE when some did not.
  virtual HRESULT GetValues(const std::string& objectId, const KeyCollection* keys,
                            PortableDeviceValues* values) = 0;
  // Writes each value; `results` (may be null) gets one VT_ERROR per key.
  // S_OK when all were written, S_FALSE when some failed; a single failing
  // value gives its own error.
  virtual HRESULT SetValues(const std::string& objectId, const PortableDeviceValues& values,
                            PortableDeviceValues* results) = 0;
};

// IPortableDeviceResources.
class IPortableDeviceResources {
 public:
  virtual ~IPortableDeviceResources() = default;
  virtual HRESULT GetSupportedResources(const std::string& objectId, KeyCollection* keys) = 0;
  // Opens a resource (WPD_RESOURCE_DEFAULT: the object's data) with
  // STGM_READ; `optimalBufferSize` receives the device's transfer size.
  virtual HRESULT GetStream(const std::string& objectId, const PROPERTYKEY& resource, uint32_t mode,
                            uint32_t* optimalBufferSize, std::unique_ptr<IStream>* stream) = 0;
};

// IPortableDeviceContent.
class IPortableDeviceContent {
 public:
  virtual ~IPortableDeviceContent() = default;
  // Children of `parentId` ("DEVICE" for the storages), in the device's order.
  virtual HRESULT EnumObjects(uint32_t flags, const std::string& parentId, const PortableDeviceValues* filter,
                              std::unique_ptr<IEnumPortableDeviceObjectIDs>* objects) = 0;
  virtual HRESULT Properties(std::shared_ptr<IPortableDeviceProperties>* properties) = 0;
  virtual HRESULT Transfer(std::shared_ptr<IPortableDeviceResources>* resources) = 0;
  // A folder (WPD_CONTENT_TYPE_FOLDER) from WPD_OBJECT_PARENT_ID and
  // WPD_OBJECT_ORIGINAL_FILE_NAME (or WPD_OBJECT_NAME). `objectId` may be null.
  virtual HRESULT CreateObjectWithPropertiesOnly(const PortableDeviceValues& values, std::string* objectId) = 0;
  // A file from the same properties (WPD_OBJECT_SIZE, WPD_OBJECT_DATE_MODIFIED
  // optional); its data goes through `stream`, which creates the object on
  // Commit. E_ERROR_NOT_SUPPORTED when the device lacks the write command.
  virtual HRESULT CreateObjectWithPropertiesAndData(const PortableDeviceValues& values,
                                                    std::unique_ptr<IPortableDeviceDataStream>* stream,
                                                    uint32_t* optimalBufferSize) = 0;
  // PORTABLE_DEVICE_DELETE_NO_RECURSION: a folder that holds objects is kept
  // and fails with HRESULT_FROM_WIN32(ERROR_DIR_NOT_EMPTY). `results` (may be
  // null) gets one VT_ERROR per id. One id: its result; several: S_OK when
  // all went, S_FALSE when some failed.
  virtual HRESULT Delete(uint32_t options, const std::vector<std::string>& objectIds,
                         std::vector<PROPVARIANT>* results) = 0;
  // Moves objects into the folder or storage `destinationFolderId`.
  // E_ERROR_NOT_SUPPORTED when the device lacks the move command.
  virtual HRESULT Move(const std::vector<std::string>& objectIds, const std::string& destinationFolderId,
                       std::vector<PROPVARIANT>* results) = 0;
};

// IPortableDeviceCapabilities.
class IPortableDeviceCapabilities {
 public:
  virtual ~IPortableDeviceCapabilities() = default;
  virtual HRESULT GetSupportedCommands(KeyCollection* commands) = 0;
  virtual HRESULT GetFunctionalCategories(std::vector<GUID>* categories) = 0;
  virtual HRESULT GetFunctionalObjects(const GUID& category, std::vector<std::string>* objectIds) = 0;
  virtual HRESULT GetSupportedContentTypes(const GUID& category, std::vector<GUID>* contentTypes) = 0;
  virtual HRESULT GetSupportedEvents(std::vector<GUID>* events) = 0;
};

// IPortableDeviceEventCallback. Parameters of an object event:
// WPD_EVENT_PARAMETER_EVENT_ID (GUID), WPD_EVENT_PARAMETER_PNP_DEVICE_ID,
// WPD_OBJECT_ID, WPD_OBJECT_PERSISTENT_UNIQUE_ID, WPD_OBJECT_NAME,
// WPD_OBJECT_ORIGINAL_FILE_NAME, WPD_OBJECT_PARENT_ID,
// WPD_OBJECT_CONTAINER_FUNCTIONAL_OBJECT_ID and WPD_OBJECT_CONTENT_TYPE (GUID);
// WPD_EVENT_DEVICE_REMOVED carries only the first two.
class IPortableDeviceEventCallback {
 public:
  virtual ~IPortableDeviceEventCallback() = default;
  virtual HRESULT OnEvent(const PortableDeviceValues& eventParameters) = 0;
};

// IPortableDevice.
class IPortableDevice {
 public:
  virtual ~IPortableDevice() = default;
  // Opens the device by its PnP id. The client information carries
  // WPD_CLIENT_NAME, versions and WPD_CLIENT_DESIRED_ACCESS (default
  // GENERIC_READ | GENERIC_WRITE; E_ACCESSDENIED when the device refuses
  // write access: open again with GENERIC_READ). E_WPD_DEVICE_ALREADY_OPENED
  // when open.
  virtual HRESULT Open(const std::string& pnpDeviceId, const PortableDeviceValues& clientInformation) = 0;
  virtual HRESULT Close() = 0;
  virtual HRESULT Content(std::shared_ptr<IPortableDeviceContent>* content) = 0;
  virtual HRESULT Capabilities(std::shared_ptr<IPortableDeviceCapabilities>* capabilities) = 0;
  // Registers a sink for the device's events; `cookie` names the
  // registration. Events arrive on a thread of the back end.
  virtual HRESULT Advise(uint32_t flags, std::shared_ptr<IPortableDeviceEventCallback> callback,
                         const PortableDeviceValues* parameters, std::string* cookie) = 0;
  // Ends a registration; once it returns, that sink gets no more calls
  // (unless it is called from inside the sink itself).
  virtual HRESULT Unadvise(const std::string& cookie) = 0;
  virtual HRESULT GetPnPDeviceID(std::string* pnpDeviceId) = 0;
};

// What the device table needs of a device: whether it has a storage to
// show, its protocol ("MTP: 1.00", "MSC: ...") and serial number.
struct DeviceTableFacts {
  bool hasStorage = false;
  std::string protocol;
  std::string serialNumber;
};

// IPortableDeviceManager.
class IPortableDeviceManager {
 public:
  virtual ~IPortableDeviceManager() = default;
  // PnP ids of the devices present (as of the last refresh; the first
  // question to a new manager reads the list).
  virtual HRESULT GetDevices(std::vector<std::string>* pnpDeviceIds) = 0;
  virtual HRESULT RefreshDeviceList() = 0;
  virtual HRESULT GetDeviceFriendlyName(const std::string& pnpDeviceId, std::string* name) = 0;
  virtual HRESULT GetDeviceDescription(const std::string& pnpDeviceId, std::string* description) = 0;
  virtual HRESULT GetDeviceManufacturer(const std::string& pnpDeviceId, std::string* manufacturer) = 0;
  // The table's facts as the system learned them since the device was
  // plugged in, without opening it (over USB an open costs a session that
  // keeps every other program out meanwhile). S_FALSE when it knows
  // nothing: open the device to learn them.
  virtual HRESULT GetDeviceTableFacts(const std::string& pnpDeviceId, DeviceTableFacts* facts) = 0;
};

// The manager over every back end (simulated devices, then libmtp ones).
std::unique_ptr<IPortableDeviceManager> CreatePortableDeviceManager();
// A device object not yet opened; Open picks the back end from the PnP id.
std::unique_ptr<IPortableDevice> CreatePortableDevice();
// A device closed a moment ago may still be held for this process (its
// next Open is then quick; released after a second or two). Releases such
// devices now: call it before starting another process that will open a
// device (over USB one program at a time can hold it).
void ReleaseIdleDevices();
// This process looks devices up for the instances it starts, which open
// them; it serves none itself. A device whose names are not known yet is
// then asked for them in a few requests, instead of being opened for a
// session that would only be let go before the instance starts.
void LookUpDevicesForOthers();
// This process is about to open the device to serve it: a device that
// takes long to open (over USB, some twenty requests) starts opening now,
// while the process prepares, and the Open that follows takes that
// session over.
void OpenDeviceAhead(const std::string& pnpId);

// A PnP id in the system's form:
// \\?\<bus>#<product>#<serial>#{6ac27878-a6fa-4155-ba85-f98f491d4f33}.
std::string MakePnpDeviceId(const std::string& bus, const std::string& product, const std::string& serial);
// The three middle parts of such an id; false when it has another form.
bool SplitPnpDeviceId(const std::string& pnpId, std::string* bus, std::string* product, std::string* serial);

// OLE automation dates (VT_DATE: days since 1899-12-30), as
// SystemTimeToVariantTime / VariantTimeToSystemTime do it (whole seconds;
// false for a date out of range).
bool SystemTimeToVariantTime(const SYSTEMTIME& st, double* date);
bool VariantTimeToSystemTime(double date, SYSTEMTIME* st);
bool FileTimeToVariantTime(const FILETIME& ft, double* date);
bool VariantTimeToFileTime(double date, FILETIME* ft);

// Progress from inside a long device call. Whoever watches calls for being
// stuck (the request worker) installs a reporter on its thread for the
// length of the call; a back end calls NoteProgress() on that thread each
// time data moved or the device answered within one call (a stream block
// in parts, a slow read, a long listing). A back end that works on a thread
// of its own takes CurrentProgressReporter() along and calls it there.
// Reporters are cheap and may be called often; without one nothing happens.
using ProgressReporter = std::function<void()>;
void NoteProgress();
ProgressReporter CurrentProgressReporter();
class ScopedProgressReporter {
 public:
  explicit ScopedProgressReporter(ProgressReporter reporter);
  ~ScopedProgressReporter();  // puts back the reporter that was there before
  ScopedProgressReporter(const ScopedProgressReporter&) = delete;
  ScopedProgressReporter& operator=(const ScopedProgressReporter&) = delete;

 private:
  ProgressReporter previous_;
};

}  // namespace qb::portable
