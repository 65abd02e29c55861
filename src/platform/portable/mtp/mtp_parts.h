#pragma once
// The interfaces of an opened MTP device, each over the shared session.
#ifdef QUILLBOX_HAVE_LIBMTP
#include <memory>

#include "platform/portable/mtp/mtp_session.h"

namespace qb::portable::mtp {

std::shared_ptr<IPortableDeviceContent> MakeMtpContent(std::shared_ptr<MtpSession> session);
std::shared_ptr<IPortableDeviceProperties> MakeMtpProperties(std::shared_ptr<MtpSession> session);
std::shared_ptr<IPortableDeviceResources> MakeMtpResources(std::shared_ptr<MtpSession> session);
std::shared_ptr<IPortableDeviceCapabilities> MakeMtpCapabilities(std::shared_ptr<MtpSession> session);

// All properties of one object (device, storage or content object), read
// under the device lock. E_ERROR_NOT_FOUND for an unknown id.
HRESULT ReadObjectValues(MtpSession& session, const std::string& objectId, PortableDeviceValues* values);

}  // namespace qb::portable::mtp
#endif  // QUILLBOX_HAVE_LIBMTP
