// Downloads and uploads: the object's data moves block by block, at the
// device's optimal transfer size, through the caller's data callback. The
// library owns no file.
#include <vector>

#include "common/strings.h"
#include "device/wpd_lib_internal.h"
#include "platform/portable/portable.h"

namespace {

constexpr const char* kTagGet = "<WPDLIB>WA46@WpdLib_GetFile: ";
constexpr const char* kTagPut = "<WPDLIB>WA88@WpdLib_PutFile: ";
constexpr const char* kTagSupports = "<WPDLIB>WA91@SupportsCommand: ";
constexpr const char* kTagWrite = "<WPDLIB>WA92@WpdLib_IsWriteSupported: ";
constexpr const char* kTagMove = "<WPDLIB>WA93@WpdLib_IsMoveSupported: ";
constexpr const char* kTagFrom = "<WPDLIB>WA71@TransferContentFromDevice: ";
constexpr const char* kTagCopyOut = "<WPDLIB>WA87@CopyStreamToFile: ";
constexpr const char* kTagTo = "<WPDLIB>WA81@TransferContentToDevice: ";
constexpr const char* kTagCopyIn = "<WPDLIB>WA70@CopyFileToStream: ";
constexpr const char* kTagReqType = "<WPDLIB>WA86@GetRequiredPropertiesForContentType: ";
constexpr const char* kTagReqAll = "<WPDLIB>WA82@GetRequiredPropertiesForAllContentTypes: ";
constexpr const char* kTagReqUnspec = "<WPDLIB>WA94@GetRequiredPropertiesFoUnspecificTypes: ";
constexpr size_t kNameChars = 260;

bool AllocateBuffer(WpdLibContext* c, uint32_t size, std::vector<uint8_t>* buffer) {
  try {
    buffer->resize(size ? size : 1);
    return true;
  } catch (...) {
    WpdLib_MessageF(c, "Failed to allocate %d bytes for the temporary transfer buffer.\n",
                    static_cast<int>(size));
    return false;
  }
}

// The object's size as the device reports it; false when it does not.
bool ObjectSize(WpdLibContext* c, qbp::IPortableDeviceContent& content, const char* sObjectID,
                uint64_t* pullSize) {
  std::shared_ptr<qbp::IPortableDeviceProperties> props;
  if (FAILED(content.Properties(&props)) || !props) return false;
  const qbp::KeyCollection keys = {WPD_OBJECT_SIZE};
  qbp::PortableDeviceValues values;
  const HRESULT hr = WpdLib_RetryWhileBusy(c, kTagFrom, [&] {
    values.Clear();
    return props->GetValues(sObjectID, &keys, &values);
  });
  return SUCCEEDED(hr) && SUCCEEDED(values.GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, pullSize));
}

// A read that brings no bytes ends the data; before the size the device
// reported, the data was cut short (the object shrank or the device lost
// it), and a short copy must not pass for the whole object.
HRESULT CopyStreamToFile(WpdLibContext* c, qbp::IStream& stream, uint32_t blockSize,
                         const char* sLocalPath, GetFileDataCallbackFn pfn, void* pCtx,
                         uint64_t ullExpected, uint64_t* pullTotal) {
  TraceEnter(kTagCopyOut);
  std::vector<uint8_t> buffer;
  if (!AllocateBuffer(c, blockSize, &buffer)) return TraceReturn(kTagCopyOut, E_OUTOFMEMORY, 1);
  uint64_t offset = 0, received = 0;
  HRESULT hr = S_OK;
  for (;;) {
    uint32_t read = 0;
    hr = stream.Read(buffer.data(), static_cast<uint32_t>(buffer.size()), &read);
    if (SUCCEEDED(hr) && read == 0 && received < ullExpected) {
      Trace(kTagCopyOut, "Short:%llu of %llu", static_cast<unsigned long long>(received),
            static_cast<unsigned long long>(ullExpected));
      hr = kWpdTruncatedData;
    }
    if (FAILED(hr) || read == 0) break;
    received += read;
    uint32_t written = 0;
    const HRESULT hrCb = pfn ? pfn(pCtx, buffer.data(), read, offset, sLocalPath, &written) : S_OK;
    WpdLib_NoteActivity(c);
    if (FAILED(hrCb)) {
      hr = hrCb;
      break;
    }
    offset += pfn ? written : read;
  }
  *pullTotal = offset;
  return TraceReturn(kTagCopyOut, hr, 2);
}

HRESULT TransferContentFromDevice(WpdLibContext* c, const char* sObjectID, const char* sLocalPath,
                                  GetFileDataCallbackFn pfn, void* pCtx) {
  TraceEnter(kTagFrom);
  std::shared_ptr<qbp::IPortableDeviceContent> content;
  HRESULT hr = WpdLib_Content(c, &content);
  if (FAILED(hr)) return TraceReturn(kTagFrom, hr, 1);
  uint64_t expected = 0;  // unknown size: any amount is whole
  if (!ObjectSize(c, *content, sObjectID, &expected)) Trace(kTagFrom, "Size unknown");
  std::shared_ptr<qbp::IPortableDeviceResources> resources;
  hr = WpdLib_RetryWhileBusy(c, kTagFrom, [&] { return content->Transfer(&resources); });
  if (FAILED(hr) || !resources) {
    WpdLib_Message(c, "Failed to get IPortableDeviceResources from IPortableDeviceContent", hr);
    return TraceReturn(kTagFrom, E_FAIL, 2);
  }
  uint32_t blockSize = 0;
  std::unique_ptr<qbp::IStream> stream;
  hr = WpdLib_RetryWhileBusy(c, kTagFrom, [&] {
    return resources->GetStream(sObjectID, WPD_RESOURCE_DEFAULT, qbp::STGM_READ, &blockSize,
                                &stream);
  });
  if (FAILED(hr) || !stream) {
    WpdLib_Message(c,
                   "Failed to get IStream (representing object data on the device) from "
                   "IPortableDeviceResources",
                   hr);
    return TraceReturn(kTagFrom, E_FAIL, 3);
  }
  uint64_t total = 0;
  hr = CopyStreamToFile(c, *stream, blockSize, sLocalPath, pfn, pCtx, expected, &total);
  if (SUCCEEDED(hr) && pfn) {
    const HRESULT hrDone = pfn(pCtx, nullptr, 0, total, nullptr, nullptr);
    Trace(kTagFrom, "Done:0x%08X", static_cast<unsigned>(hrDone));
  }
  if (FAILED(hr)) WpdLib_Message(c, "Failed to transfer object from device", hr);
  return TraceReturn(kTagFrom, hr, 4);
}

HRESULT CopyFileToStream(WpdLibContext* c, qbp::IPortableDeviceDataStream& stream,
                         uint32_t blockSize, const char* sLocalPath, PutFileDataCallbackFn pfn,
                         void* pCtx) {
  TraceEnter(kTagCopyIn);
  std::vector<uint8_t> buffer;
  if (!AllocateBuffer(c, blockSize, &buffer)) return TraceReturn(kTagCopyIn, E_OUTOFMEMORY, 1);
  const uint32_t size = static_cast<uint32_t>(buffer.size());
  uint64_t offset = 0;
  for (;;) {
    uint32_t supplied = 0;
    HRESULT hr = pfn ? pfn(pCtx, buffer.data(), size, offset, sLocalPath, &supplied) : S_OK;
    WpdLib_NoteActivity(c);
    if (FAILED(hr)) {
      Trace(kTagCopyIn, "A:%d, 0x%lx", static_cast<int>(size),
            static_cast<unsigned long>(static_cast<uint32_t>(hr)));
      return TraceReturn(kTagCopyIn, hr, 2);
    }
    if (supplied == 0) break;
    if (supplied > size) supplied = size;
    offset += supplied;
    uint32_t written = 0;
    hr = stream.Write(buffer.data(), supplied, &written);
    if (FAILED(hr)) {
      Trace(kTagCopyIn, "B:%d, 0x%lx, %d", static_cast<int>(size),
            static_cast<unsigned long>(static_cast<uint32_t>(hr)), errno);
      return TraceReturn(kTagCopyIn, hr, 3);
    }
  }
  return TraceReturn(kTagCopyIn, S_OK, 4);
}

HRESULT GetRequiredPropertiesFoUnspecificTypes(qbp::PortableDeviceValues* v) {
  TraceEnter(kTagReqUnspec);
  v->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_UNSPECIFIED);
  v->SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_UNSPECIFIED);
  return TraceReturn(kTagReqUnspec, S_OK);
}

HRESULT GetRequiredPropertiesForAllContentTypes(const char* sName, const char* sExtension,
                                                const char* sParentID, uint64_t ullSize,
                                                const FILETIME* pftModified,
                                                qbp::PortableDeviceValues* v) {
  TraceEnter(kTagReqAll);
  v->SetStringValue(WPD_OBJECT_PARENT_ID, sParentID);
  v->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, ullSize);
  std::string original = sName;
  if (sExtension) original += std::string(".") + sExtension;
  v->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, std::string(qb::CutToUtf16(original, kNameChars - 1)));
  v->SetStringValue(WPD_OBJECT_NAME, sName);
  double date = 0;
  if (pftModified && qbp::FileTimeToVariantTime(*pftModified, &date))
    v->SetValue(WPD_OBJECT_DATE_MODIFIED, PROPVARIANT::Date(date));
  return TraceReturn(kTagReqAll, S_OK);
}

HRESULT GetRequiredPropertiesForContentType(const char* sName, const char* sExtension,
                                            const char* sParentID, uint64_t ullSize,
                                            const FILETIME* pftModified,
                                            qbp::PortableDeviceValues* v) {
  TraceEnter(kTagReqType);
  HRESULT hr = GetRequiredPropertiesForAllContentTypes(sName, sExtension, sParentID, ullSize,
                                                       pftModified, v);
  if (SUCCEEDED(hr)) hr = GetRequiredPropertiesFoUnspecificTypes(v);
  return TraceReturn(kTagReqType, hr);
}

HRESULT TransferContentToDevice(WpdLibContext* c, const char* sName, const char* sExtension,
                                const char* sLocalPath, const char* sParentID, uint64_t ullSize,
                                const FILETIME* pftModified, PutFileDataCallbackFn pfn,
                                void* pCtx) {
  TraceEnter(kTagTo);
  std::shared_ptr<qbp::IPortableDevice> device = WpdLib_OpenedDevice(c);
  HRESULT hr = WpdLib_SupportsCommand(c, device, WPD_COMMAND_OBJECT_MANAGEMENT_WRITE_OBJECT_DATA);
  if (FAILED(hr)) return TraceReturn(kTagTo, hr, 1);
  std::shared_ptr<qbp::IPortableDeviceContent> content;
  hr = WpdLib_Content(c, &content);
  if (FAILED(hr)) return TraceReturn(kTagTo, hr, 2);
  qbp::PortableDeviceValues props;
  hr = GetRequiredPropertiesForContentType(sName, sExtension, sParentID, ullSize, pftModified,
                                           &props);
  if (FAILED(hr)) {
    WpdLib_Message(c, "Failed to get required properties needed to transfer a file to the device", hr);
    return TraceReturn(kTagTo, hr, 3);
  }
  std::unique_ptr<qbp::IPortableDeviceDataStream> stream;
  uint32_t blockSize = 0;
  hr = WpdLib_RetryWhileBusy(c, kTagTo, [&] {
    return content->CreateObjectWithPropertiesAndData(props, &stream, &blockSize);
  });
  if (FAILED(hr) || !stream) {
    WpdLib_Message(c,
                   "Failed to get IStream (representing destination object data on the device) "
                   "from IPortableDeviceContent",
                   hr);
    return TraceReturn(kTagTo, FAILED(hr) ? hr : E_FAIL, 4);
  }
  hr = CopyFileToStream(c, *stream, blockSize, sLocalPath, pfn, pCtx);
  if (FAILED(hr)) {
    stream.reset();  // never committed: the device discards the object
    WpdLib_Message(c, "Failed to transfer object to device", hr);
    return TraceReturn(kTagTo, hr, 5);
  }
  hr = stream->Commit(qbp::STGC_DEFAULT);
  if (FAILED(hr)) {
    WpdLib_Message(c, "Failed to commit object to device", hr);
    Trace(kTagTo, "C:0x%08X,%d", static_cast<unsigned>(hr), errno);
    return TraceReturn(kTagTo, hr, 6);
  }
  std::string newId;
  hr = stream->GetObjectID(&newId);
  if (FAILED(hr))
    WpdLib_Message(c, "Failed to get the newly transferred object's identifier from the device", hr);
  return TraceReturn(kTagTo, hr, 7);
}

}  // namespace

HRESULT WpdLib_SupportsCommand(WpdLibContext* c, const std::shared_ptr<qbp::IPortableDevice>& device,
                               const PROPERTYKEY& command) {
  TraceEnter(kTagSupports);
  if (!device) return TraceReturn(kTagSupports, E_INVALIDARG, 1);
  std::shared_ptr<qbp::IPortableDeviceCapabilities> caps;
  HRESULT hr = device->Capabilities(&caps);
  if (FAILED(hr) || !caps) {
    WpdLib_Message(c, "Failed to get IPortableDeviceCapabilities from IPortableDevice", hr);
    return TraceReturn(kTagSupports, FAILED(hr) ? hr : E_FAIL, 2);
  }
  qbp::KeyCollection commands;
  hr = WpdLib_RetryWhileBusy(c, kTagSupports, [&] { return caps->GetSupportedCommands(&commands); });
  if (FAILED(hr)) {
    WpdLib_Message(c, "Failed to get supported commands from the device", hr);
    return TraceReturn(kTagSupports, hr, 3);
  }
  for (const PROPERTYKEY& k : commands)
    if (k.fmtid == command.fmtid && k.pid == command.pid) return TraceReturn(kTagSupports, S_OK, 4);
  return TraceReturn(kTagSupports, E_ERROR_NOT_SUPPORTED, 5);
}

HRESULT WpdLib_GetFile(WpdLibContext* c, const char* sObjectID, const char* sLocalPath,
                       GetFileDataCallbackFn pfnCallback, void* pCallbackContext) {
  TraceEnter(kTagGet);
  if (!WpdLib_IsValid(c) || !sObjectID || !sLocalPath) return TraceReturn(kTagGet, E_INVALIDARG, 1);
  Trace(kTagGet, "@%s", sObjectID);
  if (!WpdLib_OpenedDevice(c)) return TraceReturn(kTagGet, E_INVALIDARG, 2);
  return TraceReturn(kTagGet, TransferContentFromDevice(c, sObjectID, sLocalPath, pfnCallback,
                                                        pCallbackContext), 3);
}

HRESULT WpdLib_PutFile(WpdLibContext* c, const char* sName, const char* sExtension,
                       const char* sLocalPath, const char* sParentID, uint64_t ullSize,
                       const FILETIME* pftModified, PutFileDataCallbackFn pfnCallback,
                       void* pCallbackContext) {
  TraceEnter(kTagPut);
  if (!WpdLib_IsValid(c) || !sName || !sLocalPath || !sParentID)
    return TraceReturn(kTagPut, E_INVALIDARG, 1);
  Trace(kTagPut, "@%s", sName);
  if (!WpdLib_OpenedDevice(c)) return TraceReturn(kTagPut, E_INVALIDARG, 2);
  return TraceReturn(kTagPut,
                     TransferContentToDevice(c, sName, sExtension, sLocalPath, sParentID, ullSize,
                                             pftModified, pfnCallback, pCallbackContext),
                     3);
}

HRESULT WpdLib_IsWriteSupported(WpdLibContext* c) {
  TraceEnter(kTagWrite);
  if (!WpdLib_IsValid(c)) return TraceReturn(kTagWrite, E_INVALIDARG, 1);
  std::shared_ptr<qbp::IPortableDevice> device = WpdLib_OpenedDevice(c);
  if (!device) return TraceReturn(kTagWrite, E_INVALIDARG, 2);
  return TraceReturn(
      kTagWrite, WpdLib_SupportsCommand(c, device, WPD_COMMAND_OBJECT_MANAGEMENT_WRITE_OBJECT_DATA), 3);
}

HRESULT WpdLib_IsMoveSupported(WpdLibContext* c) {
  TraceEnter(kTagMove);
  if (!WpdLib_IsValid(c)) return TraceReturn(kTagMove, E_INVALIDARG, 1);
  std::shared_ptr<qbp::IPortableDevice> device = WpdLib_OpenedDevice(c);
  if (!device) return TraceReturn(kTagMove, E_INVALIDARG, 2);
  return TraceReturn(
      kTagMove, WpdLib_SupportsCommand(c, device, WPD_COMMAND_OBJECT_MANAGEMENT_MOVE_OBJECTS), 3);
}
