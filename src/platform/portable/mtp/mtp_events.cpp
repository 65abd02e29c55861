// The event thread of an opened MTP device.
#include "platform/portable/mtp/mtp_events.h"

#ifdef QUILLBOX_HAVE_LIBMTP
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <variant>

#include "diag/trace.h"
#include "platform/portable/mtp/mtp_session.h"

namespace qb::portable::mtp {

// What the libusb callback leaves for the pump thread. The callback may run
// on any thread that pumps libusb (also inside another call's transfer), so
// it touches nothing but this inbox.
struct MtpEventInbox {
  struct DeviceEvent {
    int status;
    LIBMTP_event_t event;
    uint32_t parameter;
  };
  std::mutex m;  // leaf lock
  std::deque<std::variant<DeviceEvent, PortableDeviceValues>> items;
  bool readPending = false;
};

namespace {

// Inboxes by token. A pending read that outlives its pump finds no inbox
// here and is dropped: the callback never sees freed memory.
std::mutex g_inboxesMutex;
std::map<uint64_t, std::weak_ptr<MtpEventInbox>> g_inboxes;
uint64_t g_nextToken = 1;

constexpr auto kSlice = std::chrono::milliseconds(200);
constexpr auto kPresenceEvery = std::chrono::seconds(1);
constexpr auto kRetryReadAfter = std::chrono::seconds(5);
// Without a listener the first read waits this long.
constexpr auto kQuietStart = std::chrono::seconds(1);

void OnUsbEvent(int status, LIBMTP_event_t event, uint32_t parameter, void* token) {
  std::shared_ptr<MtpEventInbox> inbox;
  {
    std::lock_guard<std::mutex> l(g_inboxesMutex);
    auto it = g_inboxes.find(reinterpret_cast<uintptr_t>(token));
    if (it != g_inboxes.end()) inbox = it->second.lock();
  }
  if (!inbox) return;
  std::lock_guard<std::mutex> l(inbox->m);
  inbox->readPending = false;
  inbox->items.emplace_back(MtpEventInbox::DeviceEvent{status, event, parameter});
}

bool IsUnnamed(const std::variant<MtpEventInbox::DeviceEvent, PortableDeviceValues>& item) {
  const auto* e = std::get_if<MtpEventInbox::DeviceEvent>(&item);
  return e && e->status == LIBMTP_HANDLER_RETURN_OK && e->event == LIBMTP_EVENT_NONE;
}

}  // namespace

MtpEventPump::MtpEventPump(MtpSession* session)
    : session_(session),
      inbox_(std::make_shared<MtpEventInbox>()),
      listenFrom_(std::chrono::steady_clock::now() + kQuietStart) {
  std::lock_guard<std::mutex> l(g_inboxesMutex);
  token_ = g_nextToken++;
  g_inboxes[token_] = inbox_;
}

MtpEventPump::~MtpEventPump() {
  Stop();
  std::lock_guard<std::mutex> l(g_inboxesMutex);
  g_inboxes.erase(token_);
}

void MtpEventPump::Start() { thread_ = std::thread([this] { Run(); }); }

void MtpEventPump::Stop() {
  {
    std::lock_guard<std::mutex> l(stopMutex_);
    stop_ = true;
  }
  stopCv_.notify_all();
  // The loop checks the flag at least every slice and every libmtp call it
  // makes is bounded by its USB timeout.
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
  if (thread_.joinable()) thread_.detach();
}

void MtpEventPump::Listen() {
  {
    std::lock_guard<std::mutex> l(stopMutex_);
    listenFrom_ = std::chrono::steady_clock::now();
  }
  stopCv_.notify_all();
}

bool MtpEventPump::WaitWhileQuiet() {
  std::unique_lock<std::mutex> l(stopMutex_);
  const auto now = std::chrono::steady_clock::now();
  if (stop_ || now >= listenFrom_) return false;
  stopCv_.wait_until(l, std::min(listenFrom_, now + kSlice),
                     [&] { return stop_ || std::chrono::steady_clock::now() >= listenFrom_; });
  return true;
}

void MtpEventPump::Post(PortableDeviceValues parameters) {
  std::lock_guard<std::mutex> l(inbox_->m);
  inbox_->items.emplace_back(std::move(parameters));
}

void MtpEventPump::Run() {
  while (WaitWhileQuiet()) DrainInbox();
  auto lastPresence = std::chrono::steady_clock::now();
  auto nextRead = lastPresence;
  for (;;) {
    {
      std::unique_lock<std::mutex> l(stopMutex_);
      if (stop_) break;
    }
    auto now = std::chrono::steady_clock::now();
    bool pending;
    {
      std::lock_guard<std::mutex> l(inbox_->m);
      pending = inbox_->readPending;
    }
    // No read while events wait: one of them may open the device again,
    // which a pending read of the old handle must not see.
    if (!pending && deferred_.empty() && !session_->Offline() && now >= nextRead) {
      SubmitRead();
      std::lock_guard<std::mutex> l(inbox_->m);
      if (!inbox_->readPending) nextRead = now + kRetryReadAfter;
    }
    struct timeval tv = {0, static_cast<long>(std::chrono::microseconds(kSlice).count())};
    int completed = 0;
    if ((pending || !session_->Offline()) && holdWanted_) {
      // Someone releases the handle: stay out of libusb until it is done.
      std::unique_lock<std::mutex> l(stopMutex_);
      stopCv_.wait_for(l, kSlice, [&] { return stop_ || !holdWanted_; });
    } else if (pending || !session_->Offline()) {
      std::lock_guard<std::timed_mutex> pumping(pumping_);
      LIBMTP_Handle_Events_Timeout_Completed(&tv, &completed);
    }
    RetryDeferred();
    DrainInbox();
    if (now - lastPresence >= kPresenceEvery) {
      lastPresence = now;
      if (!session_->Offline() && !session_->StillPlugged()) session_->MarkOffline();
      DrainInbox();
    }
    if (session_->Offline()) {
      // Nothing more will come; wait for Stop, bounded per slice.
      std::unique_lock<std::mutex> l(stopMutex_);
      stopCv_.wait_for(l, kSlice, [&] { return stop_; });
    }
  }
}

void MtpEventPump::SubmitRead() {
  std::unique_lock<std::timed_mutex> lock;
  LIBMTP_mtpdevice_t* device = nullptr;
  if (FAILED(session_->AcquireForFacts(&lock, &device, kSlice))) return;
  {
    std::lock_guard<std::mutex> l(inbox_->m);
    inbox_->readPending = true;
  }
  everRead_ = true;
  int rc = LIBMTP_Read_Event_Async(device, OnUsbEvent, reinterpret_cast<void*>(static_cast<uintptr_t>(token_)));
  if (rc != 0) {
    LIBMTP_Clear_Errorstack(device);
    std::lock_guard<std::mutex> l(inbox_->m);
    inbox_->readPending = false;
    Trace("MT20@MtpEventPump::SubmitRead: ", "LIBMTP_Read_Event_Async failed (%d)", rc);
  }
}

bool MtpEventPump::HoldOutside() {
  holdWanted_ = true;
  // The pump leaves libusb's event handling after one slice at most and
  // does not go in again while the hold is wanted.
  if (!pumping_.try_lock_for(kSlice * 5)) {
    EndHoldWanted();
    return false;
  }
  bool pending;
  {
    std::lock_guard<std::mutex> i(inbox_->m);
    pending = inbox_->readPending;
  }
  if (pending) {
    // An event that came already is not lost with the handle.
    struct timeval now = {0, 0};
    int completed = 0;
    LIBMTP_Handle_Events_Timeout_Completed(&now, &completed);
  }
  return true;
}

void MtpEventPump::EndHold() {
  pumping_.unlock();
  EndHoldWanted();
}

void MtpEventPump::EndHoldWanted() {
  {
    std::lock_guard<std::mutex> l(stopMutex_);
    holdWanted_ = false;
  }
  stopCv_.notify_all();
}

void MtpEventPump::ReadLost() {
  std::lock_guard<std::mutex> l(inbox_->m);
  inbox_->readPending = false;
}

void MtpEventPump::DrainInbox() {
  for (;;) {
    std::variant<MtpEventInbox::DeviceEvent, PortableDeviceValues> item;
    {
      std::lock_guard<std::mutex> l(inbox_->m);
      if (inbox_->items.empty()) return;
      item = std::move(inbox_->items.front());
      inbox_->items.pop_front();
      // Unnamed changes in a row are looked into once: the last one covers
      // the others (each costs a fresh look at every listed folder).
      if (IsUnnamed(item) && !inbox_->items.empty() && IsUnnamed(inbox_->items.front())) continue;
    }
    if (auto* e = std::get_if<MtpEventInbox::DeviceEvent>(&item))
      HandleDeviceEvent(e->status, e->event, e->parameter);
    else
      session_->Deliver(std::get<PortableDeviceValues>(item));
  }
}

void MtpEventPump::HandleDeviceEvent(int status, LIBMTP_event_t event, uint32_t parameter) {
  Trace("MT21@MtpEventPump::HandleDeviceEvent: ", "status=%d event=%d param=0x%08X", status, static_cast<int>(event),
        parameter);
  if (status != LIBMTP_HANDLER_RETURN_OK) {
    // The interrupt read failed: the device left, or the read was dropped.
    if (!session_->StillPlugged()) session_->MarkOffline();
    return;
  }
  session_->NoteChange();
  // Later events wait behind earlier ones, so that they keep their order.
  if (!deferred_.empty() || !Dispatch(event, parameter)) {
    deferred_.push_back({event, parameter});
    Trace("MT22@MtpEventPump::HandleDeviceEvent: ", "device busy: event %d (0x%08X) kept until it is free (%zu waiting)",
          static_cast<int>(event), parameter, deferred_.size());
  }
}

bool MtpEventPump::Dispatch(LIBMTP_event_t event, uint32_t parameter) {
  switch (event) {
    case LIBMTP_EVENT_OBJECT_ADDED:
      return HandleObjectAdded(parameter);
    case LIBMTP_EVENT_OBJECT_REMOVED:
      HandleObjectRemoved(parameter);
      return true;
    case LIBMTP_EVENT_STORE_ADDED:
    case LIBMTP_EVENT_STORE_REMOVED:
      return HandleStorageChange(true);
    case LIBMTP_EVENT_NONE:  // libmtp's name for the rest: object and storage info changes among them
      return HandleUnnamedChange();
    default:
      return true;
  }
}

void MtpEventPump::RetryDeferred() {
  while (!deferred_.empty() && !session_->Offline()) {
    Deferred d = deferred_.front();
    if (!Dispatch(d.event, d.parameter)) return;
    deferred_.pop_front();
    Trace("MT23@MtpEventPump::RetryDeferred: ", "event %d (0x%08X) delivered late", static_cast<int>(d.event),
          d.parameter);
  }
  deferred_.clear();  // the device went: nothing to tell about its objects
}

bool MtpEventPump::HandleObjectAdded(uint32_t handle) {
  if (session_->IsEchoOfAnnounced(WPD_EVENT_OBJECT_ADDED, handle)) return true;
  MtpObjectFacts object;
  {
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    // Waits one slice only: the pump must go on pumping while a long call
    // holds the device.
    HRESULT hr = session_->AcquireToRead(&lock, &device, kSlice);
    if (hr == E_ERROR_BUSY) return false;
    if (FAILED(hr)) return true;
    // A handle we know already (our own upload whose echo came before we
    // noted it, or an object listed before its event came) is told as we
    // know it: libmtp's copy may be older than what we wrote since.
    if (!session_->CachedObject(handle, &object) && FAILED(session_->ObjectLocked(device, handle, &object)))
      return true;
    session_->LoadExtrasLocked(device, &object);
  }
  session_->Deliver(session_->EventParametersFor(WPD_EVENT_OBJECT_ADDED, object));
  return true;
}

void MtpEventPump::HandleObjectRemoved(uint32_t handle) {
  if (session_->IsEchoOfAnnounced(WPD_EVENT_OBJECT_REMOVED, handle)) return;
  MtpObjectFacts object;
  if (session_->CachedObject(handle, &object)) {
    session_->ForgetObject(handle);
    session_->Deliver(session_->EventParametersFor(WPD_EVENT_OBJECT_REMOVED, object));
    return;
  }
  // Unknown to us: all we can name is the object.
  PortableDeviceValues v;
  v.SetStringValue(WPD_OBJECT_ID, ContentObjectId(handle));
  session_->Deliver(ObjectEventParameters(WPD_EVENT_OBJECT_REMOVED, session_->PnpId(), v));
}

bool MtpEventPump::HandleUnnamedChange() {
  std::vector<MtpObjectFacts> changed;
  {
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = session_->AcquireToRead(&lock, &device, kSlice);
    if (hr == E_ERROR_BUSY) return false;
    if (FAILED(hr)) return true;
    // Opening the device again drops libmtp's stale copies; it must not
    // happen under a pending event read, whose transfer belongs to the old
    // handle. Then only the folders' handle lists are fresh.
    bool readPending;
    {
      std::lock_guard<std::mutex> l(inbox_->m);
      readPending = inbox_->readPending;
    }
    session_->ChangedObjectsLocked(&device, !readPending, &changed);
  }
  for (const auto& object : changed) {
    if (session_->IsEchoOfAnnounced(WPD_EVENT_OBJECT_UPDATED, object.handle)) continue;
    Trace("MT24@MtpEventPump::HandleUnnamedChange: ", "changed on the device: 0x%08X %s", object.handle,
          object.fileName.c_str());
    session_->Deliver(session_->EventParametersFor(WPD_EVENT_OBJECT_UPDATED, object));
  }
  return HandleStorageChange(changed.empty());
}

bool MtpEventPump::HandleStorageChange(bool raiseUpdated) {
  std::vector<MtpStorageFacts> before = session_->CachedStorages(), after;
  {
    std::unique_lock<std::timed_mutex> lock;
    LIBMTP_mtpdevice_t* device = nullptr;
    HRESULT hr = session_->AcquireForFacts(&lock, &device, kSlice);
    if (hr == E_ERROR_BUSY) return false;
    if (FAILED(hr) || FAILED(session_->StoragesLocked(device, &after))) return true;
  }
  if (after.size() != before.size()) session_->RememberForTable();
  for (const auto& old : before) {
    bool kept = false;
    for (const auto& s : after) kept = kept || s.id == old.id;
    if (kept) continue;
    PortableDeviceValues values;
    BuildStorageValues(old, session_->Facts().serialNumber, &values);
    session_->Deliver(ObjectEventParameters(WPD_EVENT_OBJECT_REMOVED, session_->PnpId(), values));
  }
  for (const auto& s : after) {
    bool known = false;
    for (const auto& old : before) known = known || s.id == old.id;
    if (known && !raiseUpdated) continue;
    PortableDeviceValues values;
    BuildStorageValues(s, session_->Facts().serialNumber, &values);
    session_->Deliver(
        ObjectEventParameters(known ? WPD_EVENT_OBJECT_UPDATED : WPD_EVENT_OBJECT_ADDED, session_->PnpId(), values));
  }
  return true;
}

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
