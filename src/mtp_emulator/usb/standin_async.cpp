// Asynchronous transfers: each submitted transfer runs on a thread of its
// own through the same pipes as the synchronous calls; completions wait in
// the context until the caller handles events, and their callbacks run on
// the caller's thread, as with libusb.
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

#include "mtp_emulator/usb/standin.h"

namespace qb::mtpemu::usb {
namespace {

struct TransferPriv {
  libusb_context* ctx = nullptr;
  std::shared_ptr<Pipe> pipe;
  std::atomic<bool> inFlight{false};
  std::atomic<bool> cancelled{false};
};

constexpr size_t kPrivSize = (sizeof(TransferPriv) + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) *
                             alignof(std::max_align_t);

TransferPriv* PrivOf(libusb_transfer* t) {
  return reinterpret_cast<TransferPriv*>(reinterpret_cast<char*>(t) - kPrivSize);
}

libusb_transfer_status StatusOf(int r) {
  switch (r) {
    case LIBUSB_SUCCESS: return LIBUSB_TRANSFER_COMPLETED;
    case LIBUSB_ERROR_TIMEOUT: return LIBUSB_TRANSFER_TIMED_OUT;
    case LIBUSB_ERROR_PIPE: return LIBUSB_TRANSFER_STALL;
    case LIBUSB_ERROR_NO_DEVICE: return LIBUSB_TRANSFER_NO_DEVICE;
    case LIBUSB_ERROR_OVERFLOW: return LIBUSB_TRANSFER_OVERFLOW;
    case LIBUSB_ERROR_INTERRUPTED: return LIBUSB_TRANSFER_CANCELLED;
    default: return LIBUSB_TRANSFER_ERROR;
  }
}

void Run(libusb_transfer* t) {
  TransferPriv* priv = PrivOf(t);
  int r;
  int actual = 0;
  if (priv->cancelled) {
    r = LIBUSB_ERROR_INTERRUPTED;
  } else if (t->type == LIBUSB_TRANSFER_TYPE_CONTROL) {
    auto* setup = reinterpret_cast<libusb_control_setup*>(t->buffer);
    r = DoControl(*priv->pipe, t->buffer, t->buffer + LIBUSB_CONTROL_SETUP_SIZE, libusb_le16_to_cpu(setup->wLength),
                  t->timeout);
    if (r >= 0) {
      actual = r;
      r = LIBUSB_SUCCESS;
    }
  } else {
    r = DoTransfer(*priv->pipe, t->endpoint, t->buffer, t->length, &actual, t->timeout);
  }
  if (priv->cancelled && r != LIBUSB_SUCCESS) r = LIBUSB_ERROR_INTERRUPTED;
  t->actual_length = actual;
  t->status = StatusOf(r);
  if (t->status == LIBUSB_TRANSFER_COMPLETED && (t->flags & LIBUSB_TRANSFER_SHORT_NOT_OK) &&
      (t->endpoint & LIBUSB_ENDPOINT_IN) && t->type != LIBUSB_TRANSFER_TYPE_CONTROL && actual < t->length)
    t->status = LIBUSB_TRANSFER_ERROR;
  libusb_context* ctx = priv->ctx;
  std::lock_guard<std::mutex> lock(ctx->m);
  ctx->completed.push_back(t);
  ctx->completedCv.notify_all();
  // Nothing touches the transfer past this point: a closing handle waits
  // for it to get here.
}

// Runs the callbacks of finished transfers; waits until one finished,
// `completed` became set or `limit` passed.
int HandleEvents(libusb_context* ctx, std::chrono::milliseconds limit, int* completed) {
  ctx = ContextOf(ctx);
  std::deque<libusb_transfer*> done;
  {
    std::unique_lock<std::mutex> lock(ctx->m);
    ctx->completedCv.wait_for(lock, limit, [&] { return !ctx->completed.empty() || (completed && *completed); });
    done.swap(ctx->completed);
    for (libusb_transfer* t : done) ctx->submitted.erase(t);
  }
  for (libusb_transfer* t : done) {
    uint8_t flags = t->flags;
    PrivOf(t)->inFlight = false;
    PrivOf(t)->pipe.reset();
    if (t->callback) t->callback(t);
    if (flags & LIBUSB_TRANSFER_FREE_TRANSFER) libusb_free_transfer(t);
  }
  return LIBUSB_SUCCESS;
}

std::chrono::milliseconds LimitOf(const timeval* tv) {
  if (!tv) return std::chrono::milliseconds(60000);
  return std::chrono::milliseconds(static_cast<int64_t>(tv->tv_sec) * 1000 + tv->tv_usec / 1000);
}

}  // namespace

void ForgetTransfersOf(libusb_device_handle* handle) {
  libusb_context* ctx = ContextOf(handle->dev->ctx);
  const auto running = [&] {
    for (libusb_transfer* t : ctx->submitted)
      if (t->dev_handle == handle && std::find(ctx->completed.begin(), ctx->completed.end(), t) == ctx->completed.end())
        return true;
    return false;
  };
  std::unique_lock<std::mutex> lock(ctx->m);
  // The handle's pipes are aborted, so its transfers end at once.
  if (!ctx->completedCv.wait_for(lock, std::chrono::seconds(5), [&] { return !running(); }))
    std::fprintf(stderr, "libusb (Quillbox MTP emulator): a transfer did not end when its handle was closed\n");
  for (auto it = ctx->submitted.begin(); it != ctx->submitted.end();) {
    libusb_transfer* t = *it;
    if (t->dev_handle != handle) {
      ++it;
      continue;
    }
    ctx->completed.erase(std::remove(ctx->completed.begin(), ctx->completed.end(), t), ctx->completed.end());
    PrivOf(t)->inFlight = false;
    PrivOf(t)->pipe.reset();
    t->dev_handle = nullptr;  // freeing the transfer is the caller's, as with libusb
    it = ctx->submitted.erase(it);
  }
}

}  // namespace qb::mtpemu::usb

using namespace qb::mtpemu;
using namespace qb::mtpemu::usb;

extern "C" {

struct libusb_transfer* LIBUSB_CALL libusb_alloc_transfer(int iso_packets) {
  if (iso_packets < 0) return nullptr;
  size_t size = kPrivSize + sizeof(libusb_transfer) + sizeof(libusb_iso_packet_descriptor) * iso_packets;
  char* block = static_cast<char*>(calloc(1, size));
  if (!block) return nullptr;
  new (block) TransferPriv;
  auto* t = reinterpret_cast<libusb_transfer*>(block + kPrivSize);
  t->num_iso_packets = iso_packets;
  return t;
}

void LIBUSB_CALL libusb_free_transfer(struct libusb_transfer* transfer) {
  if (!transfer) return;
  if ((transfer->flags & LIBUSB_TRANSFER_FREE_BUFFER) && transfer->buffer) free(transfer->buffer);
  TransferPriv* priv = PrivOf(transfer);
  priv->~TransferPriv();
  free(priv);
}

int LIBUSB_CALL libusb_submit_transfer(struct libusb_transfer* transfer) {
  TransferPriv* priv = PrivOf(transfer);
  if (priv->inFlight) return LIBUSB_ERROR_BUSY;
  libusb_device_handle* h = transfer->dev_handle;
  if (!h) return LIBUSB_ERROR_INVALID_PARAM;
  switch (transfer->type) {
    case LIBUSB_TRANSFER_TYPE_CONTROL:
      if (transfer->length < static_cast<int>(LIBUSB_CONTROL_SETUP_SIZE)) return LIBUSB_ERROR_INVALID_PARAM;
      priv->pipe = h->control;
      break;
    case LIBUSB_TRANSFER_TYPE_BULK:
    case LIBUSB_TRANSFER_TYPE_INTERRUPT: {
      int r = ResolvePipe(h, transfer->endpoint, &priv->pipe);
      if (r != LIBUSB_SUCCESS) return r;
      break;
    }
    default:
      return Unsupported("libusb_submit_transfer of isochronous or bulk-stream transfers");
  }
  priv->ctx = ContextOf(h->dev->ctx);
  priv->cancelled = false;
  priv->inFlight = true;
  {
    std::lock_guard<std::mutex> lock(priv->ctx->m);
    priv->ctx->submitted.insert(transfer);
  }
  std::thread(Run, transfer).detach();
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_cancel_transfer(struct libusb_transfer* transfer) {
  TransferPriv* priv = PrivOf(transfer);
  if (!priv->inFlight || priv->cancelled.exchange(true)) return LIBUSB_ERROR_NOT_FOUND;
  if (auto pipe = priv->pipe) pipe->Interrupt();
  return LIBUSB_SUCCESS;
}

int LIBUSB_CALL libusb_handle_events_timeout_completed(libusb_context* ctx, struct timeval* tv, int* completed) {
  return HandleEvents(ctx, LimitOf(tv), completed);
}

int LIBUSB_CALL libusb_handle_events_timeout(libusb_context* ctx, struct timeval* tv) {
  return HandleEvents(ctx, LimitOf(tv), nullptr);
}

int LIBUSB_CALL libusb_handle_events(libusb_context* ctx) { return HandleEvents(ctx, LimitOf(nullptr), nullptr); }

int LIBUSB_CALL libusb_handle_events_completed(libusb_context* ctx, int* completed) {
  return HandleEvents(ctx, LimitOf(nullptr), completed);
}

}  // extern "C"
