#pragma once
// The device-access object as the drive sees it: every call goes to the
// process's object, and the first answer that says the device went offline
// (WIA_ERROR_OFFLINE) ends the mapping: the drive is unmounted from a thread
// of its own, so that no request waits for its own unmount.
#include <atomic>
#include <functional>

#include "device/wpd_helper_base.h"

namespace qb::app {

class COfflineWatch : public CWPDHelperBase {
 public:
  // `onOffline` runs once, on a thread of its own.
  COfflineWatch(CWPDHelperBase* device, std::function<void()> onOffline)
      : m_pDevice(device), m_fnOnOffline(std::move(onOffline)) {}

  HRESULT Init() override { return Watch(m_pDevice->Init()); }
  HRESULT InitResult() override { return m_pDevice->InitResult(); }
  HRESULT DeInit(uint32_t ms) override { return m_pDevice->DeInit(ms); }
  HRESULT GetFile(const char* id, const char* path, GetFileDataCallbackFn fn, void* ctx) override {
    return Watch(m_pDevice->GetFile(id, path, fn, ctx));
  }
  HRESULT GetDirlist(CDirectory* tree, int32_t storage, const char* path, const char* id, uint32_t structure,
                     uint32_t shallow, uint32_t* budget) override {
    return Watch(m_pDevice->GetDirlist(tree, storage, path, id, structure, shallow, budget));
  }
  HRESULT GetDirlistAsync(CDirectory* tree, int32_t storage, const char* path, const char* id, uint32_t structure,
                          uint32_t shallow, uint32_t* budget, std::atomic<uint32_t>* finished, uint32_t refreshSec,
                          char letter, std::shared_ptr<CThreadHandle>* thread) override {
    return Watch(m_pDevice->GetDirlistAsync(tree, storage, path, id, structure, shallow, budget, finished, refreshSec,
                                            letter, thread));
  }
  HRESULT DeleteFile(const char* id) override { return Watch(m_pDevice->DeleteFile(id)); }
  HRESULT CreateDirectory(const char* name, const char* parent) override {
    return Watch(m_pDevice->CreateDirectory(name, parent));
  }
  HRESULT SetFileTime(const char* id, const FILETIME* created, const FILETIME* modified) override {
    return Watch(m_pDevice->SetFileTime(id, created, modified));
  }
  HRESULT SetFileAttributes(const char* id, uint32_t ro, uint32_t hidden, uint32_t system) override {
    return Watch(m_pDevice->SetFileAttributes(id, ro, hidden, system));
  }
  HRESULT PutFile(const char* name, const char* ext, const char* path, const char* parent, uint64_t size,
                  const FILETIME* modified, PutFileDataCallbackFn fn, void* ctx) override {
    return Watch(m_pDevice->PutFile(name, ext, path, parent, size, modified, fn, ctx));
  }
  HRESULT MoveFile(const char* id, const char* target, uint32_t rename) override {
    return Watch(m_pDevice->MoveFile(id, target, rename));
  }
  HRESULT IsWriteSupported() override { return Watch(m_pDevice->IsWriteSupported()); }
  HRESULT IsMoveSupported() override { return Watch(m_pDevice->IsMoveSupported()); }
  HRESULT GetDeviceProps(PtrList<std::string>* names, PtrList<std::string>* values, uint32_t deviceOnly,
                         uint32_t withStorages, int32_t storage, const PtrList<std::string>* ignored) override {
    return Watch(m_pDevice->GetDeviceProps(names, values, deviceOnly, withStorages, storage, ignored));
  }
  HRESULT GetDevices(PtrList<std::string>* ids, PtrList<std::string>* names, PtrList<std::string>* serials,
                     PtrList<std::string>* pnps) override {
    return m_pDevice->GetDevices(ids, names, serials, pnps);
  }
  HRESULT RegisterEventHandler(const char* id, WpdEventCallbackFn fn) override {
    return Watch(m_pDevice->RegisterEventHandler(id, fn));
  }
  HRESULT DeRegisterEventHandler() override { return m_pDevice->DeRegisterEventHandler(); }

  bool WentOffline() const { return m_bOffline; }

 private:
  HRESULT Watch(HRESULT hr);

  CWPDHelperBase* const m_pDevice;  // not owned
  const std::function<void()> m_fnOnOffline;
  std::atomic<bool> m_bOffline{false};
};

}  // namespace qb::app
