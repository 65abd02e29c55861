#pragma once
// A device library whose calls the test drives: it records every call, can
// hold a call until the test releases it, and answers what the test says.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "device/wpd_lib_api.h"
#include "platform/portable/portable.h"

namespace qbtest {

// A latch the test opens; waits are bounded so that a broken test fails
// instead of hanging.
class Latch {
 public:
  void Open() {
    std::lock_guard hold(m_);
    open_ = true;
    cv_.notify_all();
  }
  bool Wait(std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    std::unique_lock hold(m_);
    return cv_.wait_for(hold, limit, [this] { return open_; });
  }
  bool IsOpen() {
    std::lock_guard hold(m_);
    return open_;
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  bool open_ = false;
};

// Polls a condition every millisecond until it holds or 30 s passed.
template <class Pred>
bool Eventually(Pred pred) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < end) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return pred();
}

class FakeWpdLib : public WpdLibApi {
 public:
  HRESULT createResult = S_OK;
  std::atomic<int> contextsCreated{0};
  std::atomic<int> contextsDestroyed{0};

  // GetFile: when blockGetFile is set, the call tells `entered` and waits
  // for `release`, then reports one block to the callback. With
  // progressWhileBlocked it reports progress every few milliseconds while
  // it waits, until `stopProgress` opens. progressSteps makes it a slow
  // call that reports progress that many times, a few milliseconds apart.
  bool blockGetFile = false;
  bool progressWhileBlocked = false;
  int progressSteps = 0;
  Latch entered, release, stopProgress;
  std::atomic<int> callbackResult{0};
  std::atomic<bool> callbackReturned{false};

  // GetDirlist of the asynchronous listing: waits for dirlistRelease.
  bool blockDirlist = false;
  Latch dirlistEntered, dirlistRelease;

  HRESULT devicesResult = S_OK;
  FILETIME lastCreated{}, lastModified{};
  bool lastCreatedNull = true, lastModifiedNull = true;

  std::vector<std::string> Calls() {
    std::lock_guard hold(m_);
    return calls_;
  }

  HRESULT CreateContext(WpdLibContext** pp, uint32_t, uint32_t, const char*) override {
    if (FAILED(createResult)) return createResult;
    auto* c = new WpdLibContext();
    c->dwMagic = kWpdLibMagic;
    *pp = c;
    ++contextsCreated;
    return S_OK;
  }
  HRESULT DestroyContext(WpdLibContext** pp) override {
    delete *pp;
    *pp = nullptr;
    ++contextsDestroyed;
    return S_OK;
  }
  HRESULT DeRegisterEventHandler(WpdLibContext*) override { return Record("DeRegister", S_FALSE); }
  HRESULT DeleteFile(WpdLibContext*, const char* id) override {
    return Record(std::string("Delete ") + id, S_OK);
  }
  HRESULT GetFile(WpdLibContext* c, const char* id, const char* path, GetFileDataCallbackFn pfn,
                  void* ctx) override {
    Record(std::string("GetFile ") + id, S_OK);
    Latch pace;  // never opened: a bounded wait between two reports
    for (int i = 0; i < progressSteps; ++i) {
      qb::portable::NoteProgress();
      pace.Wait(std::chrono::milliseconds(5));
    }
    if (blockGetFile) {
      entered.Open();
      while (progressWhileBlocked && !release.IsOpen() &&
             !stopProgress.Wait(std::chrono::milliseconds(5)))
        qb::portable::NoteProgress();
      release.Wait();
    }
    uint8_t block[4] = {1, 2, 3, 4};
    uint32_t written = 0;
    callbackResult = pfn ? pfn(ctx, block, 4, 0, path, &written) : S_OK;
    callbackReturned = true;
    (void)c;
    return callbackResult.load();
  }
  HRESULT GetDirlist(WpdLibContext*, CDirectory*, int32_t, const char* path, const char*,
                     uint32_t, uint32_t, uint32_t* budget, uint32_t interval, char letter) override {
    Record(std::string("GetDirlist ") + (path ? path : "") + " " + std::to_string(interval) + " " +
               std::string(1, letter ? letter : '-'),
           S_OK);
    if (blockDirlist) {
      dirlistEntered.Open();
      dirlistRelease.Wait();
    }
    if (budget) *budget = 7;
    return S_OK;
  }
  HRESULT GetDevices(WpdLibContext*, PtrList<std::string>* ids, PtrList<std::string>* names,
                     PtrList<std::string>* serials, PtrList<std::string>* pnp, uint32_t) override {
    Record("GetDevices", S_OK);
    if (ids) ids->Emplace("id1");
    if (names) names->Emplace("Phone");
    if (serials) serials->Emplace("SN1");
    if (pnp) pnp->Emplace("\\\\?\\pnp1");
    return devicesResult;
  }
  HRESULT GetDeviceProps(WpdLibContext*, PtrList<std::string>* names, PtrList<std::string>* values,
                         uint32_t, uint32_t, int32_t) override {
    Record("GetDeviceProps", S_OK);
    const char* pairs[][2] = {{"WPD_DEVICE_FRIENDLY_NAME", "Phone"},
                              {"WPD_STORAGE_INDEX", "1"},   {"WPD_OBJECT_ID", "s1"},
                              {"WPD_OBJECT_NAME", "Phone"}, {"WPD_STORAGE_CAPACITY", "100"},
                              {"WPD_STORAGE_INDEX", "2"},   {"WPD_OBJECT_ID", "s2"},
                              {"WPD_OBJECT_NAME", "Card"},  {"WPD_STORAGE_CAPACITY", "200"}};
    for (auto& p : pairs) {
      names->Emplace(p[0]);
      values->Emplace(p[1]);
    }
    return S_OK;
  }
  HRESULT SetFileTime(WpdLibContext*, const char* id, const FILETIME* c,
                      const FILETIME* m) override {
    lastCreatedNull = c == nullptr;
    lastModifiedNull = m == nullptr;
    if (c) lastCreated = *c;
    if (m) lastModified = *m;
    return Record(std::string("SetFileTime ") + id, S_OK);
  }
  HRESULT IsWriteSupported(WpdLibContext*) override { return Record("IsWriteSupported", S_OK); }

 private:
  HRESULT Record(const std::string& call, HRESULT hr) {
    std::lock_guard hold(m_);
    calls_.push_back(call);
    return hr;
  }
  std::mutex m_;
  std::vector<std::string> calls_;
};

}  // namespace qbtest
