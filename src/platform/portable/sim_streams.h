#pragma once
// Data streams of simulated objects: reading an object's data, and the
// upload stream that becomes a new object on Commit. Both keep to the
// device's injected transfer faults (fail after N bytes, rate limit).
#include <memory>
#include <string>

#include "platform/portable/sim_session.h"

namespace qb::portable::sim {

struct NewObjectTimes {
  uint64_t modified = 0;  // FILETIME, 0 none
  uint64_t created = 0;
};

HRESULT MakeSimUploadStream(std::shared_ptr<SimSession> session, const std::string& rel, const NewObjectTimes& times,
                            std::unique_ptr<IPortableDeviceDataStream>* stream);
HRESULT MakeSimReadStream(std::shared_ptr<SimSession> session, const std::string& rel,
                          std::unique_ptr<IStream>* stream);

}  // namespace qb::portable::sim
