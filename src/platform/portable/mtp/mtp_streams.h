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

// For a new object of no declared size: writes go to an unlinked temporary
// file; Commit sends it (LIBMTP_Send_File_From_Handler) and the object
// exists from then on. Destroyed without Commit: the file goes and the
// device never saw it.
HRESULT MakeMtpDataStream(std::shared_ptr<MtpSession> session, const MtpNewObject& object,
                          std::unique_ptr<IPortableDeviceDataStream>* stream);
// For a new object of `size` bytes: the data goes to the device as it is
// written (mtp_upload.cpp); Commit of fewer bytes fails, and a stream given
// up before its Commit deletes the object again.
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
