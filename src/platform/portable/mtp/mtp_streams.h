#pragma once
// Streams of MTP objects: reading an object's data, and the data stream of
// a new object that exists on the device only after Commit.
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

// Writes go to an unlinked temporary file; Commit sends it
// (LIBMTP_Send_File_From_Handler) and the object exists from then on.
// Destroyed without Commit: the file goes and the device never saw it.
HRESULT MakeMtpDataStream(std::shared_ptr<MtpSession> session, const MtpNewObject& object,
                          std::unique_ptr<IPortableDeviceDataStream>* stream);

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
