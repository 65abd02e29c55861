// Content of a simulated device: listing, creating, deleting, moving.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "platform/portable/object_batch.h"
#include "platform/portable/sim_session.h"
#include "platform/portable/sim_streams.h"

namespace fs = std::filesystem;

namespace qb::portable::sim {
namespace {

class SimEnum : public IEnumPortableDeviceObjectIDs {
 public:
  explicit SimEnum(std::vector<std::string> ids) : ids_(std::move(ids)) {}
  HRESULT Next(uint32_t count, std::vector<std::string>* ids) override {
    ids->clear();
    while (ids->size() < count && pos_ < ids_.size()) ids->push_back(ids_[pos_++]);
    return ids->size() == count ? S_OK : S_FALSE;
  }
  HRESULT Skip(uint32_t count) override {
    size_t left = ids_.size() - pos_;
    pos_ += std::min<size_t>(count, left);
    return count <= left ? S_OK : S_FALSE;
  }
  HRESULT Reset() override {
    pos_ = 0;
    return S_OK;
  }

 private:
  std::vector<std::string> ids_;
  size_t pos_ = 0;
};

bool IsFolderRef(SimSession& s, const ObjRef& ref) {
  if (ref.kind == ObjKind::kStorage) return true;
  if (ref.kind != ObjKind::kContent) return false;
  struct stat st;
  return lstat(s.state->PathOf(ref.rel).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool IsUnderRel(const std::string& rel, const std::string& dir) {
  return rel.size() > dir.size() && rel.compare(0, dir.size(), dir) == 0 && rel[dir.size()] == '/';
}

class SimContent : public IPortableDeviceContent {
 public:
  explicit SimContent(std::shared_ptr<SimSession> s) : s_(std::move(s)) {}

  HRESULT EnumObjects(uint32_t, const std::string& parentId, const PortableDeviceValues*,
                      std::unique_ptr<IEnumPortableDeviceObjectIDs>* objects) override {
    HRESULT hr = s_->Ready(false);
    if (FAILED(hr)) return hr;
    ObjRef ref;
    hr = s_->state->Resolve(parentId, &ref);
    if (FAILED(hr)) return hr;
    std::vector<std::string> ids;
    if (ref.kind == ObjKind::kDevice) {
      size_t n = s_->state->Spec().storages.size();
      for (size_t i = 0; i < n; ++i) ids.push_back(s_->state->StorageId(i));
    } else if (IsFolderRef(*s_, ref)) {
      ids = ListChildren(ref);
    }
    *objects = std::make_unique<SimEnum>(std::move(ids));
    return S_OK;
  }

  HRESULT Properties(std::shared_ptr<IPortableDeviceProperties>* properties) override {
    if (!s_->open) return E_WPD_DEVICE_NOT_OPEN;
    *properties = MakeSimProperties(s_);
    return S_OK;
  }

  HRESULT Transfer(std::shared_ptr<IPortableDeviceResources>* resources) override {
    if (!s_->open) return E_WPD_DEVICE_NOT_OPEN;
    *resources = MakeSimResources(s_);
    return S_OK;
  }

  HRESULT CreateObjectWithPropertiesOnly(const PortableDeviceValues& values, std::string* objectId) override {
    std::string rel;
    HRESULT hr = NewObjectPath(values, &rel);
    if (FAILED(hr)) return hr;
    GUID type = WPD_CONTENT_TYPE_FOLDER;
    values.GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &type);
    if (type != WPD_CONTENT_TYPE_FOLDER) return E_ERROR_NOT_SUPPORTED;
    if (mkdir(s_->state->PathOf(rel).c_str(), 0755) != 0) return errno == EEXIST ? E_ALREADY_EXISTS : E_ACCESSDENIED;
    std::string id = s_->state->IdForPath(rel);
    s_->state->SaveIndex();
    if (objectId) *objectId = id;
    return S_OK;
  }

  HRESULT CreateObjectWithPropertiesAndData(const PortableDeviceValues& values,
                                            std::unique_ptr<IPortableDeviceDataStream>* stream,
                                            uint32_t* optimalBufferSize) override {
    HRESULT hr = s_->ReadyToWrite();
    if (FAILED(hr)) return hr;
    if (!s_->SupportsWrite()) return E_ERROR_NOT_SUPPORTED;
    std::string rel;
    hr = NewObjectPath(values, &rel);
    if (FAILED(hr)) return hr;
    NewObjectTimes times;
    FILETIME ft;
    PROPVARIANT v;
    if (SUCCEEDED(values.GetValue(WPD_OBJECT_DATE_MODIFIED, &v)) && v.vt == VT_DATE &&
        VariantTimeToFileTime(std::get<double>(v.value), &ft))
      times.modified = ft.Value();
    if (SUCCEEDED(values.GetValue(WPD_OBJECT_DATE_CREATED, &v)) && v.vt == VT_DATE &&
        VariantTimeToFileTime(std::get<double>(v.value), &ft))
      times.created = ft.Value();
    std::unique_ptr<IPortableDeviceDataStream> out;
    hr = MakeSimUploadStream(s_, rel, times, &out);
    if (FAILED(hr)) return hr;
    *stream = std::move(out);
    if (optimalBufferSize) *optimalBufferSize = kOptimalTransferSize;
    return S_OK;
  }

  HRESULT Delete(uint32_t options, const std::vector<std::string>& objectIds,
                 std::vector<PROPVARIANT>* results) override {
    HRESULT hr = s_->ReadyToWrite();
    if (FAILED(hr)) return hr;
    return ForEach(objectIds, results, [&](const std::string& id) { return DeleteOne(id, options); });
  }

  HRESULT Move(const std::vector<std::string>& objectIds, const std::string& destinationFolderId,
               std::vector<PROPVARIANT>* results) override {
    HRESULT hr = s_->ReadyToWrite();
    if (FAILED(hr)) return hr;
    if (!s_->SupportsMove()) return E_ERROR_NOT_SUPPORTED;
    ObjRef dest;
    hr = s_->state->Resolve(destinationFolderId, &dest);
    if (FAILED(hr)) return hr;
    if (!IsFolderRef(*s_, dest)) return E_INVALIDARG;
    return ForEach(objectIds, results, [&](const std::string& id) { return MoveOne(id, dest); });
  }

 private:
  std::vector<std::string> ListChildren(const ObjRef& ref) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(s_->state->PathOf(ref.rel), ec)) {
      std::string name = entry.path().filename().string();
      if (ref.kind == ObjKind::kStorage && name.rfind(kStorageFile, 0) == 0) continue;
      names.push_back(name);
      if (names.size() % 1024 == 0) NoteProgress();  // a huge folder takes a while
    }
    std::sort(names.begin(), names.end());
    std::vector<std::string> rels;
    for (const auto& name : names) rels.push_back(ref.rel + "/" + name);
    std::vector<std::string> ids = s_->state->IdsForPaths(rels);
    s_->state->SaveIndex();
    return ids;
  }

  // Where a new object goes: its parent and name from the properties.
  HRESULT NewObjectPath(const PortableDeviceValues& values, std::string* rel) {
    HRESULT hr = s_->ReadyToWrite();
    if (FAILED(hr)) return hr;
    std::string parentId, name;
    if (FAILED(values.GetStringValue(WPD_OBJECT_PARENT_ID, &parentId))) return E_INVALIDARG;
    if (FAILED(values.GetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, &name)) || name.empty())
      values.GetStringValue(WPD_OBJECT_NAME, &name);
    ObjRef parent;
    hr = s_->state->Resolve(parentId, &parent);
    if (FAILED(hr)) return hr;
    if (parent.kind == ObjKind::kDevice) return E_ACCESSDENIED;
    if (!IsFolderRef(*s_, parent) || !IsValidObjectName(name, parent.rel)) return E_INVALIDARG;
    *rel = parent.rel + "/" + name;
    struct stat st;
    if (lstat(s_->state->PathOf(*rel).c_str(), &st) == 0) return E_ALREADY_EXISTS;
    return S_OK;
  }

  // Each object in turn, then the index once for the whole batch.
  template <class Fn>
  HRESULT ForEach(const std::vector<std::string>& ids, std::vector<PROPVARIANT>* results, Fn fn) {
    const HRESULT hr = ForEachObject(ids, results, fn);
    s_->state->SaveIndex();
    return hr;
  }

  HRESULT DeleteOne(const std::string& id, uint32_t options) {
    ObjRef ref;
    HRESULT hr = s_->state->Resolve(id, &ref);
    if (FAILED(hr)) return hr;
    if (ref.kind != ObjKind::kContent) return E_ACCESSDENIED;
    fs::path path = s_->state->PathOf(ref.rel);
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return E_ERROR_NOT_FOUND;
    if (!(st.st_mode & S_IWUSR) && !S_ISLNK(st.st_mode)) return E_ACCESSDENIED;  // WPD_OBJECT_CAN_DELETE false
    if (S_ISDIR(st.st_mode)) {
      std::error_code ec;
      bool empty = fs::is_empty(path, ec);
      if (!empty && options != PORTABLE_DEVICE_DELETE_WITH_RECURSION) return HRESULT_FROM_WIN32(ERROR_DIR_NOT_EMPTY);
      s_->state->ForgetPath(ref.rel, true);
      fs::remove_all(path, ec);
      return ec ? E_ACCESSDENIED : S_OK;
    }
    s_->state->ForgetPath(ref.rel, true);
    return unlink(path.c_str()) == 0 ? S_OK : E_ACCESSDENIED;
  }

  HRESULT MoveOne(const std::string& id, const ObjRef& dest) {
    ObjRef ref;
    HRESULT hr = s_->state->Resolve(id, &ref);
    if (FAILED(hr)) return hr;
    if (ref.kind != ObjKind::kContent) return E_ACCESSDENIED;
    std::string name = ref.rel.substr(ref.rel.rfind('/') + 1);
    std::string to = dest.rel + "/" + name;
    if (to == ref.rel) return S_OK;
    if (IsUnderRel(dest.rel, ref.rel) || dest.rel == ref.rel) return E_INVALIDARG;
    struct stat st;
    if (lstat(s_->state->PathOf(to).c_str(), &st) == 0) return E_ALREADY_EXISTS;
    if (rename(s_->state->PathOf(ref.rel).c_str(), s_->state->PathOf(to).c_str()) != 0) return E_ACCESSDENIED;
    s_->state->RenamePath(ref.rel, to);
    return S_OK;
  }

  std::shared_ptr<SimSession> s_;
};

}  // namespace

std::shared_ptr<IPortableDeviceContent> MakeSimContent(std::shared_ptr<SimSession> session) {
  return std::make_shared<SimContent>(std::move(session));
}

}  // namespace qb::portable::sim
