// Operations of the responder that move object data: reading (whole and
// partial), uploading (SendObjectInfo + SendObject), copying; and the
// translation of the model's events.
#include <algorithm>

#include "mtp_emulator/mtp_responder.h"
#include "mtp_emulator/ptp_codes.h"
#include "mtp_emulator/ptp_data.h"

namespace qb::mtpemu {

using qb::portable::PortableDeviceValues;
using ptp::DataReader;
using ptp::DataWriter;

namespace {

constexpr uint64_t kMostPartialBytes = 64ull << 20;
constexpr uint32_t kChunk = 1u << 20;

// Reads exactly `count` bytes (fewer only at a failure, given in *hr).
HRESULT ReadBytes(qb::portable::IStream* stream, uint64_t count, std::vector<uint8_t>* out) {
  while (count > 0) {
    size_t at = out->size();
    uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(count, kChunk));
    out->resize(at + want);
    uint32_t got = 0;
    HRESULT hr = stream->Read(out->data() + at, want, &got);
    out->resize(at + (SUCCEEDED(hr) ? got : 0));
    if (FAILED(hr)) return hr;
    if (got == 0) return E_FAIL;  // shorter than its size said
    count -= got;
  }
  return S_OK;
}

HRESULT Skip(qb::portable::IStream* stream, uint64_t count) {
  std::vector<uint8_t> scratch;
  while (count > 0) {
    scratch.clear();
    uint64_t step = std::min<uint64_t>(count, kChunk);
    HRESULT hr = ReadBytes(stream, step, &scratch);
    if (FAILED(hr)) return hr;
    count -= step;
  }
  return S_OK;
}

}  // namespace

void MtpResponder::GetObject(uint32_t handle, uint64_t offset, uint64_t maxBytes, bool partial, bool param64) {
  (void)param64;
  std::string id = handles_.IdOf(handle);
  ObjectFacts f;
  HRESULT hr = id.empty() ? E_ERROR_NOT_FOUND : ReadObjectFacts(props_.get(), &handles_, id, &f);
  if (FAILED(hr)) return Respond(CodeOf(hr));
  if (f.folder) return Respond(ptp::kInvalidObjectHandle);
  bool reuse = partial && readStream_ && readHandle_ == handle && readOffset_ == offset && readOutcome_ &&
               SUCCEEDED(*readOutcome_);
  std::shared_ptr<qb::portable::IStream> stream;
  if (reuse) {
    stream = readStream_;
  } else {
    std::unique_ptr<qb::portable::IStream> opened;
    uint32_t optimal = 0;
    hr = resources_->GetStream(id, WPD_RESOURCE_DEFAULT, qb::portable::STGM_READ, &optimal, &opened);
    if (FAILED(hr)) return Respond(CodeOf(hr));
    stream = std::move(opened);
  }
  readStream_.reset();
  if (partial && !reuse && offset > 0 && offset < f.size) {
    hr = Skip(stream.get(), offset);
    if (FAILED(hr)) return Respond(CodeOf(hr));
  }
  const uint64_t count =
      !partial ? f.size : offset >= f.size ? 0 : std::min({maxBytes, f.size - offset, kMostPartialBytes});
  // The data goes out as the host takes it, read from the object as it goes,
  // as a device streams from its flash: the bus model then sees the device
  // busy only while bytes move, for a whole read and a partial one alike.
  auto outcome = std::make_shared<HRESULT>(S_OK);
  const uint64_t length = ptp::kHeaderSize + count;
  std::vector<uint8_t> head = ptp::Container(ptp::kDataBlock, current_.code, current_.transaction, {});
  const uint32_t field = length > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<uint32_t>(length);
  for (int i = 0; i < 4; ++i) head[i] = static_cast<uint8_t>(field >> (8 * i));
  in_->PushStream(std::move(head), length, [stream, outcome](size_t want, std::vector<uint8_t>* out) {
    *outcome = ReadBytes(stream.get(), want, out);
    return SUCCEEDED(*outcome);
  });
  if (partial) {
    // The next partial read from where this one ends goes on in the same
    // stream, unless this one broke off.
    readStream_ = stream;
    readHandle_ = handle;
    readOffset_ = offset + count;
    readOutcome_ = outcome;
  }
  const uint32_t transaction = current_.transaction;
  in_->PushLater([this, outcome, transaction, partial, count] {
    const uint16_t code =
        SUCCEEDED(*outcome) ? ptp::kOK : *outcome == E_FAIL ? ptp::kIncompleteTransfer : CodeOf(*outcome);
    std::vector<uint32_t> params;
    if (partial && code == ptp::kOK) params.push_back(static_cast<uint32_t>(count));
    return ptp::ParamContainer(ptp::kResponseBlock, code, transaction, params);
  });
}

bool MtpResponder::TakesWrites() const {
  std::shared_ptr<qb::portable::IPortableDeviceCapabilities> caps;
  qb::portable::KeyCollection commands;
  if (FAILED(device_->Capabilities(&caps)) || !caps || FAILED(caps->GetSupportedCommands(&commands))) return true;
  return std::find(commands.begin(), commands.end(), WPD_COMMAND_OBJECT_MANAGEMENT_CREATE_OBJECT_WITH_PROPERTIES_AND_DATA) !=
         commands.end();
}

void MtpResponder::SendObjectInfo(uint32_t storage, uint32_t parent, const std::vector<uint8_t>& data) {
  upload_.reset();
  if (storage != 0 && storage != 0xFFFFFFFFu && StorageIdOf(storage).empty()) return Respond(ptp::kInvalidStorageID);
  std::string parentId = ParentIdOf(storage, parent);
  if (parentId.empty()) return Respond(ptp::kInvalidParentObject);
  DataReader r(data);
  r.U32();
  uint16_t format = r.U16();
  r.U16();
  uint32_t size = r.U32();
  r.U16();
  for (int i = 0; i < 6; ++i) r.U32();
  r.U32();
  r.U16();
  r.U32();
  r.U32();
  std::string name = r.String();
  r.String();
  std::string modified = r.String();
  if (r.Failed() || name.empty() || name.find('/') != std::string::npos) return Respond(ptp::kInvalidParameter);
  ObjectFacts parentFacts;
  uint32_t storageNumber = StorageNumber(parentId);
  if (!storageNumber) {
    HRESULT hr = ReadObjectFacts(props_.get(), &handles_, parentId, &parentFacts);
    if (FAILED(hr) || !parentFacts.folder) return Respond(ptp::kInvalidParentObject);
    storageNumber = parentFacts.storage;
  }
  uint32_t parentHandle = parent == 0xFFFFFFFFu ? 0 : parent;
  PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, parentId);
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, name);
  v.SetStringValue(WPD_OBJECT_NAME, name);
  if (format == ptp::kFormatAssociation) {
    // MTP has no way to say that a device lacks the write command but for
    // refusing what it would store: a folder too.
    if (!TakesWrites()) return Respond(ptp::kStoreReadOnly);
    v.SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
    std::string newId;
    HRESULT hr = content_->CreateObjectWithPropertiesOnly(v, &newId);
    if (FAILED(hr)) return Respond(CodeOf(hr));
    return Respond(ptp::kOK, {storageNumber, parentHandle, handles_.HandleOf(newId)});
  }
  auto upload = std::make_unique<Upload>();
  upload->size = size;
  upload->sizeKnown = size != 0xFFFFFFFFu;
  if (upload->sizeKnown) v.SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, size);
  v.SetGuidValue(WPD_OBJECT_FORMAT, FormatGuid(format ? format : FormatOfName(name)));
  double date = 0;
  if (ParseMtpDate(modified, &date)) v.SetValue(WPD_OBJECT_DATE_MODIFIED, PROPVARIANT::Date(date));
  uint32_t optimal = 0;
  HRESULT hr = content_->CreateObjectWithPropertiesAndData(v, &upload->stream, &optimal);
  if (FAILED(hr)) return Respond(hr == E_ERROR_NOT_SUPPORTED ? ptp::kStoreReadOnly : CodeOf(hr));
  upload->handle = handles_.Reserve();
  uint32_t handle = upload->handle;
  upload_ = std::move(upload);
  Respond(ptp::kOK, {storageNumber, parentHandle, handle});
}

void MtpResponder::OnDataBegin(uint16_t /*code*/, uint32_t /*transaction*/, uint64_t /*payloadLength*/) {
  std::lock_guard<std::recursive_mutex> lock(m_);
  data_.clear();
  uploadStreaming_ = expectData_ && current_.code == ptp::kSendObject && sessionOpen_ && upload_;
  uploadResult_ = S_OK;
}

void MtpResponder::OnDataChunk(const uint8_t* data, size_t size) {
  std::lock_guard<std::recursive_mutex> lock(m_);
  if (!expectData_) return;
  if (!uploadStreaming_) {
    // Datasets are small; a host that sends more is cut off here.
    if (data_.size() + size <= (16u << 20)) data_.insert(data_.end(), data, data + size);
    return;
  }
  if (FAILED(uploadResult_)) return;  // the rest of a failed upload is taken and dropped
  while (size > 0) {
    uint32_t step = static_cast<uint32_t>(std::min<size_t>(size, kChunk));
    uint32_t written = 0;
    uploadResult_ = upload_->stream->Write(data, step, &written);
    if (FAILED(uploadResult_)) return;
    upload_->written += written;
    data += step;
    size -= step;
  }
}

void MtpResponder::OnDataEnd() {
  std::lock_guard<std::recursive_mutex> lock(m_);
  if (!expectData_) return;
  expectData_ = false;
  if (current_.code != ptp::kSendObject) return RunWithData(current_, data_);
  if (!sessionOpen_) return Respond(ptp::kSessionNotOpen);
  if (!upload_) return Respond(ptp::kNoValidObjectInfo);
  std::unique_ptr<Upload> upload = std::move(upload_);
  if (SUCCEEDED(uploadResult_) && upload->sizeKnown && upload->written != upload->size) uploadResult_ = E_FAIL;
  if (SUCCEEDED(uploadResult_)) uploadResult_ = upload->stream->Commit(qb::portable::STGC_DEFAULT);
  std::string id;
  if (SUCCEEDED(uploadResult_)) uploadResult_ = upload->stream->GetObjectID(&id);
  if (FAILED(uploadResult_)) {
    upload->stream->Cancel();
    return Respond(uploadResult_ == E_FAIL ? ptp::kIncompleteTransfer : CodeOf(uploadResult_));
  }
  handles_.Bind(upload->handle, id);
  Respond(ptp::kOK);
}

HRESULT MtpResponder::CopyTree(const std::string& id, const std::string& parentId, std::string* newId) {
  ObjectFacts f;
  HRESULT hr = ReadObjectFacts(props_.get(), &handles_, id, &f);
  if (FAILED(hr)) return hr;
  PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_PARENT_ID, parentId);
  v.SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, f.name);
  v.SetStringValue(WPD_OBJECT_NAME, f.name);
  if (f.folder) {
    v.SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FOLDER);
    hr = content_->CreateObjectWithPropertiesOnly(v, newId);
    std::vector<std::string> children;
    if (SUCCEEDED(hr)) hr = Children(id, &children);
    for (size_t i = 0; SUCCEEDED(hr) && i < children.size(); ++i) {
      std::string ignored;
      hr = CopyTree(children[i], *newId, &ignored);
    }
    return hr;
  }
  std::unique_ptr<qb::portable::IStream> source;
  uint32_t optimal = 0;
  hr = resources_->GetStream(id, WPD_RESOURCE_DEFAULT, qb::portable::STGM_READ, &optimal, &source);
  if (FAILED(hr)) return hr;
  v.SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, f.size);
  v.SetGuidValue(WPD_OBJECT_FORMAT, FormatGuid(f.format));
  std::unique_ptr<qb::portable::IPortableDeviceDataStream> target;
  hr = content_->CreateObjectWithPropertiesAndData(v, &target, &optimal);
  for (uint64_t left = f.size; SUCCEEDED(hr) && left > 0;) {
    std::vector<uint8_t> chunk;
    uint64_t step = std::min<uint64_t>(left, kChunk);
    hr = ReadBytes(source.get(), step, &chunk);
    uint32_t written = 0;
    if (SUCCEEDED(hr)) hr = target->Write(chunk.data(), static_cast<uint32_t>(chunk.size()), &written);
    left -= step;
  }
  if (SUCCEEDED(hr)) hr = target->Commit(qb::portable::STGC_DEFAULT);
  if (SUCCEEDED(hr)) hr = target->GetObjectID(newId);
  return hr;
}

void MtpResponder::CopyObject(uint32_t handle, uint32_t storage, uint32_t parent) {
  std::string id = handles_.IdOf(handle);
  if (id.empty()) return Respond(ptp::kInvalidObjectHandle);
  std::string destination = ParentIdOf(storage, parent);
  if (destination.empty()) return Respond(ptp::kInvalidParentObject);
  std::string newId;
  HRESULT hr = CopyTree(id, destination, &newId);
  if (FAILED(hr)) return Respond(CodeOf(hr));
  Respond(ptp::kOK, {handles_.HandleOf(newId)});
}

std::optional<std::vector<uint8_t>> MtpResponder::TranslateEvent(const PortableDeviceValues& event) {
  GUID kind;
  std::string id;
  if (FAILED(event.GetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, &kind)) ||
      FAILED(event.GetStringValue(WPD_OBJECT_ID, &id)) || id.empty())
    return std::nullopt;
  std::lock_guard<std::recursive_mutex> lock(m_);
  if (!sessionOpen_) return std::nullopt;
  uint16_t code = 0;
  uint32_t param = 0;
  bool storage = StorageNumber(id) != 0;
  if (kind == WPD_EVENT_OBJECT_ADDED) {
    code = storage ? ptp::kEventStoreAdded : ptp::kEventObjectAdded;
    param = storage ? StorageNumber(id) : handles_.HandleOf(id);
  } else if (kind == WPD_EVENT_OBJECT_REMOVED) {
    code = storage ? ptp::kEventStoreRemoved : ptp::kEventObjectRemoved;
    param = storage ? StorageNumber(id) : handles_.Known(id);
    if (!storage) handles_.Forget(id);
  } else if (kind == WPD_EVENT_OBJECT_UPDATED && !storage) {
    code = ptp::kEventObjectInfoChanged;
    param = handles_.HandleOf(id);
  }
  if (code == 0 || param == 0) return std::nullopt;
  return ptp::ParamContainer(ptp::kEventBlock, code, 0, {param});
}

}  // namespace qb::mtpemu
