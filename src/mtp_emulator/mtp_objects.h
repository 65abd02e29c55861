#pragma once
// The emulated device's objects as MTP shows them: handles for the model's
// object ids, and an object's MTP facts read from the model's properties.
//
// Handles: an object keeps its handle for the responder's life. A content
// id "o<hex>" gets the handle <hex> when that is free; a file being
// uploaded gets a handle before the model has an id for it (MTP answers
// SendObjectInfo with the handle), and the id is bound to it at commit.
// Lock: HandleTable::m_ is a leaf lock.
#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "platform/portable/portable.h"

namespace qb::mtpemu {

class HandleTable {
 public:
  // The handle of `id`, given one when new.
  uint32_t HandleOf(const std::string& id);
  // The handle of `id` when it has one, else 0.
  uint32_t Known(const std::string& id);
  // The id of `handle`; empty when unknown.
  std::string IdOf(uint32_t handle);
  // A handle for an object the model has not named yet.
  uint32_t Reserve();
  void Bind(uint32_t handle, const std::string& id);
  void Forget(const std::string& id);

 private:
  std::mutex m_;
  std::map<std::string, uint32_t> byId_;
  std::map<uint32_t, std::string> byHandle_;
  uint32_t next_ = 0x40000000;
};

// A storage id "s<hex>" as its MTP storage id; 0 when it has another form.
uint32_t StorageNumber(const std::string& storageId);

struct ObjectFacts {
  std::string id;
  uint32_t storage = 0;
  uint32_t parent = 0;           // 0: the storage's root
  std::string parentId;
  uint16_t format = 0x3000;
  uint16_t protection = 0;       // 1: read-only
  uint64_t size = 0;
  std::string name;
  std::string created, modified; // MTP date text, empty when unknown
  bool hidden = false;
  bool folder = false;
  std::array<uint8_t, 16> puid{};
};

// Reads an object's facts; the model's error when it cannot.
HRESULT ReadObjectFacts(qb::portable::IPortableDeviceProperties* props, HandleTable* handles, const std::string& id,
                        ObjectFacts* facts);

// VT_DATE (UTC calendar fields) <-> MTP date text in local time
// ("YYYYMMDDThhmmss"), the way MTP hosts read it.
std::string MtpDateText(double variantDate);
bool ParseMtpDate(const std::string& text, double* variantDate);

// The object formats this device reports, and one by file name extension.
const std::vector<uint16_t>& PlaybackFormats();
uint16_t FormatOfName(const std::string& name);
GUID FormatGuid(uint16_t format);

}  // namespace qb::mtpemu
