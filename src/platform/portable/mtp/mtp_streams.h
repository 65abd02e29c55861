#pragma once
// Streams of MTP objects: reading an object's data, and the data stream of
// a new object.
#ifdef QUILLBOX_HAVE_LIBMTP
#include <memory>
#include <string>

#include "platform/portable/mtp/mtp_session.h"

namespace qb::portable::mtp {

// Reads through GetPartialObject when the device has it (one request per
// Read, the device lock held only for that request); otherwise the first
// Read fetches the whole object into an unlinked temporary file
// (LIBMTP_Get_File_To_Handler) and later reads come from there.
std::unique_ptr<IStream> MakeMtpReadStream(std::shared_ptr<MtpSession> session, const MtpObjectFacts& object);

struct MtpNewObject {
  uint32_t storageId = 0;
  uint32_t parentHandle = 0;
  std::string fileName;
  uint16_t formatCode = 0x3000;
  bool hasModified = false;
  int64_t modified = 0;
};

// What the data streams of a new object share: they cannot be read, and
// tell the new object's id once committed.
class MtpNewObjectStream : public IPortableDeviceDataStream {
 public:
  HRESULT Read(void*, uint32_t, uint32_t*) override { return E_ACCESSDENIED; }
  HRESULT GetObjectID(std::string* objectId) override {
    if (!objectId) return E_POINTER;
    if (!committed_) return E_WPD_OBJECT_NOT_COMMITED;
    *objectId = objectId_;
    return S_OK;
  }

 protected:
  void NoteCommitted(uint32_t handle) {
    committed_ = true;
    objectId_ = ContentObjectId(handle);
  }
  bool committed_ = false;

 private:
  std::string objectId_;
};

// The size from which a new object's data goes to the device as it is
// written: below it, the data is at hand in a write or two, and a copy of
// it costs less than handing it to a transfer thread (about 1 ms a file:
// copying 1,000 small files in took 7.3-7.9 s streamed, 6.3-6.8 s sent at
// Commit).
inline constexpr uint64_t kStreamedUploadFrom = 1u << 20;

// For a new object of no declared size, or a small one: writes go to an
// unlinked temporary file; Commit sends it (LIBMTP_Send_File_From_Handler)
// and the object exists from then on. Destroyed without Commit: the file
// goes and the device never saw it.
HRESULT MakeMtpDataStream(std::shared_ptr<MtpSession> session, const MtpNewObject& object,
                          std::unique_ptr<IPortableDeviceDataStream>* stream);
// For a new object of `size` bytes (kStreamedUploadFrom or more, as used):
// the data goes to the device as it is written (mtp_upload.cpp); Commit of
// fewer bytes fails, and a stream given up before its Commit deletes the
// object again.
HRESULT MakeMtpUploadStream(std::shared_ptr<MtpSession> session, const MtpNewObject& object, uint64_t size,
                            std::unique_ptr<IPortableDeviceDataStream>* stream);

// Shared by both: libmtp's progress callback (data moved, so the calling
// worker is not stuck; never cancels), the libmtp description of the new
// object, and the facts of the object once sent.
int ReportTransferProgress(uint64_t sent, uint64_t total, void const* data);
LIBMTP_file_t* NewFileFor(const MtpNewObject& object, uint64_t size);
MtpObjectFacts SentFacts(const LIBMTP_file_t& file, const MtpNewObject& object, uint64_t size);

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
