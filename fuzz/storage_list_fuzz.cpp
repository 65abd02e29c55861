// The encoded storage list of /n, /c and /r as another instance (or a user)
// passes it. A list that decodes must encode to a value that decodes to the
// same list.
#include <cstdlib>
#include <string>

#include "app/storage_list_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string value(reinterpret_cast<const char*>(data), size);
  const auto items = qb::app::DecodeStorageList(value);
  if (!items) return 0;
  const auto again = qb::app::DecodeStorageList(qb::app::EncodeStorageList(*items));
  if (!again || *again != *items) std::abort();
  return 0;
}
