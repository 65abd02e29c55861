#pragma once
// The event thread of one opened MTP device. It keeps one asynchronous
// event read pending on the device's interrupt endpoint, pumps libusb in
// slices of 200 ms, turns device events into model events (object added or
// removed, storage changes), delivers the changes made through us, and
// notices when the device goes (sysfs, checked every second).
//
// The first read waits until someone listens (Listen) or a second has
// passed: a device opened only to read its properties (the device list
// opens each device twice) is closed again at once, and a pending read
// would hold that close for up to a slice (libusb's wait cannot be cut
// short from outside).
#ifdef QUILLBOX_HAVE_LIBMTP
#include <libmtp.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/portable/portable.h"

namespace qb::portable::mtp {

class MtpSession;
struct MtpEventInbox;

class MtpEventPump {
 public:
  // `session` outlives the pump (the session stops it before it goes).
  explicit MtpEventPump(MtpSession* session);
  ~MtpEventPump();
  void Start();
  // Ends the thread; it notices within one slice (bounded join).
  void Stop();
  // Queues prepared event parameters for delivery on the pump thread.
  void Post(PortableDeviceValues parameters);
  // Somebody wants the device's events: the reads start now.
  void Listen();
  // True once an event read was started on the device.
  bool EverRead() const { return everRead_.load(); }
  // Before the libmtp handle is released while the pump goes on (a new
  // libmtp session of the same device): waits, bounded, until the pump is
  // outside libusb's event handling and keeps it out until EndHold, then
  // hands what completed to the inbox. False when the pump did not come
  // out in time.
  bool HoldOutside();
  void EndHold();
  // The handle was replaced: a read pending on the old one is gone with it,
  // the next read goes to the new one.
  void ReadLost();

 private:
  void Run();
  // Waits (one slice at most) while nobody listens yet; false once the
  // reads are to start.
  bool WaitWhileQuiet();
  void SubmitRead();
  void HandleDeviceEvent(int status, LIBMTP_event_t event, uint32_t parameter);
  // False while another call holds the device: the event waits in deferred_.
  bool Dispatch(LIBMTP_event_t event, uint32_t parameter);
  bool HandleObjectAdded(uint32_t handle);
  void HandleObjectRemoved(uint32_t handle);
  // An event libmtp does not name (object info or storage info changed):
  // the objects that changed are told as updated; the storages only when no
  // object changed.
  bool HandleUnnamedChange();
  bool HandleStorageChange(bool raiseUpdated);
  void DrainInbox();
  void RetryDeferred();
  void EndHoldWanted();

  struct Deferred {
    LIBMTP_event_t event;
    uint32_t parameter;
  };

  MtpSession* session_;  // set once
  std::shared_ptr<MtpEventInbox> inbox_;
  uint64_t token_ = 0;  // names the inbox to libusb callbacks
  std::thread thread_;
  std::mutex stopMutex_;
  std::condition_variable stopCv_;
  bool stop_ = false;  // under stopMutex_
  std::timed_mutex pumping_;  // held by the pump thread while it handles libusb events
  std::atomic<bool> everRead_{false};
  std::atomic<bool> holdWanted_{false};  // HoldOutside waits: the pump does not go in again
  std::chrono::steady_clock::time_point listenFrom_;  // under stopMutex_: first read not before
  // Pump thread only: device events that found the device lock taken, in
  // their order; tried again every slice, never dropped.
  std::deque<Deferred> deferred_;
};

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
