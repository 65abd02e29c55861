// The rest of libusb's interface. What maps onto this library is carried
// out (event-handling locks, waiting for events); what has no meaning for
// an emulated MTP device (hotplug callbacks, poll descriptors, streams,
// BOS descriptors, wrapped system devices) fails loudly: a message on
// standard error and LIBUSB_ERROR_NOT_SUPPORTED (or NULL).
#include <sys/time.h>

#include <chrono>

#include "mtp_emulator/usb/standin.h"

using namespace qb::mtpemu::usb;

namespace {
std::mutex g_eventLock;
std::mutex g_waiterLock;
}  // namespace

extern "C" {

int LIBUSB_CALL libusb_try_lock_events(libusb_context*) { return g_eventLock.try_lock() ? 0 : 1; }
void LIBUSB_CALL libusb_lock_events(libusb_context*) { g_eventLock.lock(); }
void LIBUSB_CALL libusb_unlock_events(libusb_context*) { g_eventLock.unlock(); }
int LIBUSB_CALL libusb_event_handling_ok(libusb_context*) { return 1; }
int LIBUSB_CALL libusb_event_handler_active(libusb_context*) { return 0; }
void LIBUSB_CALL libusb_interrupt_event_handler(libusb_context* ctx) {
  libusb_context* c = ContextOf(ctx);
  std::lock_guard<std::mutex> lock(c->m);
  c->completedCv.notify_all();
}
void LIBUSB_CALL libusb_lock_event_waiters(libusb_context*) { g_waiterLock.lock(); }
void LIBUSB_CALL libusb_unlock_event_waiters(libusb_context*) { g_waiterLock.unlock(); }

int LIBUSB_CALL libusb_wait_for_event(libusb_context* ctx, struct timeval* tv) {
  libusb_context* c = ContextOf(ctx);
  std::unique_lock<std::mutex> lock(c->m);
  if (!tv) {
    c->completedCv.wait(lock);
    return 0;
  }
  auto limit = std::chrono::milliseconds(static_cast<int64_t>(tv->tv_sec) * 1000 + tv->tv_usec / 1000);
  return c->completedCv.wait_for(lock, limit) == std::cv_status::timeout ? 1 : 0;
}

int LIBUSB_CALL libusb_handle_events_locked(libusb_context* ctx, struct timeval* tv) {
  return libusb_handle_events_timeout(ctx, tv);
}

// Transfers keep their own time limits here: there is never a timeout for
// the caller to handle.
int LIBUSB_CALL libusb_get_next_timeout(libusb_context*, struct timeval*) { return 0; }
int LIBUSB_CALL libusb_pollfds_handle_timeouts(libusb_context*) { return 1; }

void LIBUSB_CALL libusb_set_log_cb(libusb_context*, libusb_log_cb, int) {
  Complain("libusb_set_log_cb: this library writes no log; the callback is not called");
}

const struct libusb_pollfd** LIBUSB_CALL libusb_get_pollfds(libusb_context*) {
  Unsupported("libusb_get_pollfds");
  return nullptr;
}
void LIBUSB_CALL libusb_free_pollfds(const struct libusb_pollfd** pollfds) { free(pollfds); }
void LIBUSB_CALL libusb_set_pollfd_notifiers(libusb_context*, libusb_pollfd_added_cb, libusb_pollfd_removed_cb,
                                             void*) {
  Unsupported("libusb_set_pollfd_notifiers");
}

int LIBUSB_CALL libusb_hotplug_register_callback(libusb_context*, int, int, int, int, int,
                                                 libusb_hotplug_callback_fn, void*,
                                                 libusb_hotplug_callback_handle*) {
  return Unsupported("libusb_hotplug_register_callback");
}
void LIBUSB_CALL libusb_hotplug_deregister_callback(libusb_context*, libusb_hotplug_callback_handle) {
  Unsupported("libusb_hotplug_deregister_callback");
}
void* LIBUSB_CALL libusb_hotplug_get_user_data(libusb_context*, libusb_hotplug_callback_handle) {
  Unsupported("libusb_hotplug_get_user_data");
  return nullptr;
}

int LIBUSB_CALL libusb_get_port_path(libusb_context*, libusb_device* dev, uint8_t* path, uint8_t path_length) {
  return libusb_get_port_numbers(dev, path, path_length);
}

int LIBUSB_CALL libusb_wrap_sys_device(libusb_context*, intptr_t, libusb_device_handle**) {
  return Unsupported("libusb_wrap_sys_device");
}

int LIBUSB_CALL libusb_alloc_streams(libusb_device_handle*, uint32_t, unsigned char*, int) {
  return Unsupported("libusb_alloc_streams");
}
int LIBUSB_CALL libusb_free_streams(libusb_device_handle*, unsigned char*, int) {
  return Unsupported("libusb_free_streams");
}
void LIBUSB_CALL libusb_transfer_set_stream_id(struct libusb_transfer*, uint32_t) {
  Unsupported("libusb_transfer_set_stream_id");
}
uint32_t LIBUSB_CALL libusb_transfer_get_stream_id(struct libusb_transfer*) {
  Unsupported("libusb_transfer_get_stream_id");
  return 0;
}

unsigned char* LIBUSB_CALL libusb_dev_mem_alloc(libusb_device_handle*, size_t) {
  // libusb gives NULL where the system has no such memory; callers fall back.
  return nullptr;
}
int LIBUSB_CALL libusb_dev_mem_free(libusb_device_handle*, unsigned char*, size_t) {
  return Unsupported("libusb_dev_mem_free");
}

int LIBUSB_CALL libusb_get_bos_descriptor(libusb_device_handle*, struct libusb_bos_descriptor**) {
  // A USB 2.0 device without a BOS descriptor answers the request with a stall.
  return LIBUSB_ERROR_PIPE;
}
void LIBUSB_CALL libusb_free_bos_descriptor(struct libusb_bos_descriptor*) {}
int LIBUSB_CALL libusb_get_usb_2_0_extension_descriptor(libusb_context*, struct libusb_bos_dev_capability_descriptor*,
                                                        struct libusb_usb_2_0_extension_descriptor**) {
  return Unsupported("libusb_get_usb_2_0_extension_descriptor");
}
void LIBUSB_CALL libusb_free_usb_2_0_extension_descriptor(struct libusb_usb_2_0_extension_descriptor*) {}
int LIBUSB_CALL libusb_get_ss_usb_device_capability_descriptor(
    libusb_context*, struct libusb_bos_dev_capability_descriptor*,
    struct libusb_ss_usb_device_capability_descriptor**) {
  return Unsupported("libusb_get_ss_usb_device_capability_descriptor");
}
void LIBUSB_CALL libusb_free_ss_usb_device_capability_descriptor(struct libusb_ss_usb_device_capability_descriptor*) {}
int LIBUSB_CALL libusb_get_container_id_descriptor(libusb_context*, struct libusb_bos_dev_capability_descriptor*,
                                                   struct libusb_container_id_descriptor**) {
  return Unsupported("libusb_get_container_id_descriptor");
}
void LIBUSB_CALL libusb_free_container_id_descriptor(struct libusb_container_id_descriptor*) {}
int LIBUSB_CALL libusb_get_ss_endpoint_companion_descriptor(libusb_context*,
                                                           const struct libusb_endpoint_descriptor*,
                                                           struct libusb_ss_endpoint_companion_descriptor**) {
  // Not a SuperSpeed device: no companion descriptors.
  return LIBUSB_ERROR_NOT_FOUND;
}
void LIBUSB_CALL libusb_free_ss_endpoint_companion_descriptor(struct libusb_ss_endpoint_companion_descriptor*) {}

}  // extern "C"
