#pragma once
// Internal to the simulated back end: one opened device (its state and the
// access it was granted), shared by the content, properties, resources and
// capabilities objects handed out for it.
#include <atomic>
#include <memory>
#include <string>

#include "platform/portable/portable.h"
#include "platform/portable/sim_state.h"

namespace qb::portable::sim {

inline constexpr uint32_t kOptimalTransferSize = 256 * 1024;

struct SimSession {
  std::shared_ptr<SimDeviceState> state;
  bool canWrite = false;        // opened with GENERIC_WRITE
  std::atomic<bool> open{true};

  // S_OK when the device may be asked; `busyApplies` for requests that a
  // busy device refuses.
  HRESULT Ready(bool busyApplies) const {
    if (!open) return E_WPD_DEVICE_NOT_OPEN;
    return state->Check(busyApplies);
  }
  HRESULT ReadyToWrite() const {
    HRESULT hr = Ready(true);
    if (FAILED(hr)) return hr;
    return canWrite ? S_OK : E_ACCESSDENIED;
  }
  bool SupportsWrite() const;
  bool SupportsMove() const;
};

// All properties of one object.
HRESULT BuildObjectValues(SimSession& session, const ObjRef& ref, PortableDeviceValues* values);
// True for keys that SetValues changes on content objects.
bool IsWritableKey(const PROPERTYKEY& key);
// A name the simulated file system accepts for a new object under `parentRel`.
bool IsValidObjectName(const std::string& name, const std::string& parentRel);
// The clock the rate limit keeps to. Tests put in one they drive, so that
// the bytes moved per second are measured on it, not on the wall.
class PaceClock {
 public:
  virtual ~PaceClock() = default;
  virtual int64_t NowNs() = 0;
  virtual void SleepNs(int64_t ns) = 0;
};
// Null puts back the steady clock. Set while no transfer runs.
void SetPaceClock(PaceClock* clock);
// Sleeps as needed so that `bytes` moved since `startNs` keep to `rate`.
void Throttle(uint64_t rate, uint64_t bytes, int64_t startNs);
int64_t NowNs();
// The largest part of a transfer moved between two pacing waits: a rate
// limit moves data in parts of an eighth of a second, so that even a slow
// transfer reports progress several times a second.
uint32_t PacedPart(uint64_t rate, uint32_t count);

std::shared_ptr<IPortableDeviceContent> MakeSimContent(std::shared_ptr<SimSession> session);
std::shared_ptr<IPortableDeviceProperties> MakeSimProperties(std::shared_ptr<SimSession> session);
std::shared_ptr<IPortableDeviceResources> MakeSimResources(std::shared_ptr<SimSession> session);
std::shared_ptr<IPortableDeviceCapabilities> MakeSimCapabilities(std::shared_ptr<SimSession> session);

}  // namespace qb::portable::sim
