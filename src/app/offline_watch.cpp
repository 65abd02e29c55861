#include "app/offline_watch.h"

#include <thread>

#include "diag/trace.h"

namespace qb::app {
namespace {
constexpr HRESULT kWiaErrorOffline = static_cast<HRESULT>(0x80210005u);
}

HRESULT COfflineWatch::Watch(HRESULT hr) {
  if (hr != kWiaErrorOffline || m_bOffline.exchange(true)) return hr;
  Trace("M71@COfflineWatch: ", "The device went offline; the drive is unmounted");
  try {
    std::thread(m_fnOnOffline).detach();
  } catch (...) {
    Trace("M71@COfflineWatch: ", "No thread for the unmount");
  }
  return hr;
}

}  // namespace qb::app
