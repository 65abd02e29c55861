// libmtp sessions kept for a moment after a close, for the next Open.
#include "platform/portable/mtp/mtp_keeper.h"

#ifdef QUILLBOX_HAVE_LIBMTP
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "diag/trace.h"
#include "platform/portable/mtp/mtp_usb.h"

namespace qb::portable::mtp {
namespace {

// One thread releases what nobody took in time; it sleeps while nothing is
// kept. The process's end releases the rest (the USB claim is the device
// for every other program). Lock: m is a leaf; libmtp is called outside it.
class Keeper {
 public:
  ~Keeper() {
    // Every thread must have ended before the keeper goes; libusb's own
    // time-outs end an opening of a silent device.
    AwaitOpenings(std::chrono::hours::max());
    ReleaseAll(false);  // the trace may be gone by now
    std::thread t;
    {
      std::lock_guard<std::mutex> l(m_);
      stop_ = true;
      t.swap(thread_);
    }
    cv_.notify_all();
    if (t.joinable()) t.join();
  }

  void Keep(KeptDevice device) {
    std::vector<KeptDevice> replaced;
    {
      std::lock_guard<std::mutex> l(m_);
      auto it = kept_.find(device.pnpId);
      if (it != kept_.end()) replaced.push_back(std::move(it->second.device));
      const std::string id = device.pnpId;
      kept_[id] = Entry{std::move(device), std::chrono::steady_clock::now() + kKeepFor};
      if (!thread_.joinable() && !stop_) thread_ = std::thread([this] { Run(); });
    }
    cv_.notify_all();
    Release(replaced, "replaced");
  }

  // Opens the device on a thread of its own with `open` (which keeps the
  // session it opened), unless it is kept or being opened already.
  void Open(const std::string& pnpId, std::function<void()> open) {
    std::lock_guard<std::mutex> l(m_);
    if (stop_ || kept_.count(pnpId) || opening_.count(pnpId)) return;
    Opening& o = opening_[pnpId];
    o.thread = std::thread([this, pnpId, open = std::move(open)] {
      open();
      {
        std::lock_guard<std::mutex> done(m_);
        opening_[pnpId].done = true;
      }
      cv_.notify_all();
    });
  }

  bool Take(const std::string& pnpId, KeptDevice* device) {
    AwaitOpening(pnpId, kAwaitOpening);
    std::vector<KeptDevice> gone;
    {
      std::lock_guard<std::mutex> l(m_);
      auto it = kept_.find(pnpId);
      if (it == kept_.end()) return false;
      KeptDevice& d = it->second.device;
      const bool present = UsbPortPresent(UsbDevicesRoot(), d.busNumber, d.deviceAddress, d.vendorId, d.productId);
      if (present) *device = std::move(d);
      else gone.push_back(std::move(d));
      kept_.erase(it);
    }
    if (!gone.empty()) {
      Release(gone, "device gone");
      return false;
    }
    Trace("MT12@TakeKeptDevice: ", "session taken over: %s", pnpId.c_str());
    return true;
  }

  void ReleaseAll(bool trace) {
    AwaitOpenings(kAwaitOpening);
    std::vector<KeptDevice> all;
    {
      std::lock_guard<std::mutex> l(m_);
      for (auto& [id, e] : kept_) all.push_back(std::move(e.device));
      kept_.clear();
    }
    Release(all, trace ? "released on request" : nullptr);
  }

 private:
  struct Entry {
    KeptDevice device;
    std::chrono::steady_clock::time_point until;
  };
  struct Opening {
    std::thread thread;
    bool done = false;
  };

  // Waits for an opening of the device under way to end, at most `limit`
  // (kAwaitOpening: libusb's own time-outs end a silent device sooner). One
  // that does not end is left to run: its session is then kept, or let go
  // at the end of the process.
  template <typename Duration>
  void AwaitOpening(const std::string& pnpId, Duration limit) {
    std::thread ended;
    {
      std::unique_lock<std::mutex> l(m_);
      if (!opening_.count(pnpId)) return;
      const auto done = [&] { return opening_[pnpId].done; };
      if (limit == Duration::max()) {
        cv_.wait(l, done);
      } else if (!cv_.wait_for(l, limit, done)) {
        Trace("MT12@TakeKeptDevice: ", "the opening of %s did not end in time", pnpId.c_str());
        return;
      }
      ended.swap(opening_[pnpId].thread);
      opening_.erase(pnpId);
    }
    ended.join();
  }

  template <typename Duration>
  void AwaitOpenings(Duration limit) {
    std::vector<std::string> ids;
    {
      std::lock_guard<std::mutex> l(m_);
      for (const auto& [id, o] : opening_) ids.push_back(id);
    }
    for (const auto& id : ids) AwaitOpening(id, limit);
  }

  void Run() {
    std::unique_lock<std::mutex> l(m_);
    while (!stop_) {
      // With nothing kept the thread sleeps until Keep or the end wakes it.
      if (kept_.empty()) {
        cv_.wait(l, [this] { return stop_ || !kept_.empty(); });
        continue;
      }
      auto next = kept_.begin()->second.until;
      for (const auto& [id, e] : kept_) next = std::min(next, e.until);
      cv_.wait_until(l, next);
      std::vector<KeptDevice> due;
      const auto now = std::chrono::steady_clock::now();
      for (auto it = kept_.begin(); it != kept_.end();) {
        if (it->second.until > now) {
          ++it;
          continue;
        }
        due.push_back(std::move(it->second.device));
        it = kept_.erase(it);
      }
      l.unlock();
      Release(due, "kept long enough");
      l.lock();
    }
  }

  static void Release(std::vector<KeptDevice>& devices, const char* why) {
    for (KeptDevice& d : devices) {
      if (why) Trace("MT13@ReleaseKeptDevices: ", "%s: %s", why, d.pnpId.c_str());
      LIBMTP_Release_Device(d.handle);
      d.handle = nullptr;
    }
  }

  std::mutex m_;
  std::condition_variable cv_;
  std::map<std::string, Entry> kept_;
  std::map<std::string, Opening> opening_;
  std::thread thread_;
  bool stop_ = false;
};

Keeper& TheKeeper() {
  static Keeper keeper;
  return keeper;
}

}  // namespace

void KeepDevice(KeptDevice device) { TheKeeper().Keep(std::move(device)); }

bool TakeKeptDevice(const std::string& pnpId, KeptDevice* device) { return TheKeeper().Take(pnpId, device); }

void OpenAhead(const std::string& pnpId, std::function<void()> open) { TheKeeper().Open(pnpId, std::move(open)); }

void ReleaseKeptDevices() { TheKeeper().ReleaseAll(true); }

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
