// Hive files as a user may have edited them. A hive that is read must be
// written back in a form that reads to the same hive again.
#include <cstdlib>
#include <string_view>

#include "platform/registry/hive_format.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  qb::reg::HiveKey root;
  qb::reg::ParseError error;
  if (!qb::reg::ParseHive(text, "HKEY_CURRENT_USER", &root, &error)) return 0;
  const std::string written = qb::reg::SerializeHive(root, "HKEY_CURRENT_USER");
  qb::reg::HiveKey again;
  if (!qb::reg::ParseHive(written, "HKEY_CURRENT_USER", &again, &error)) std::abort();
  if (qb::reg::SerializeHive(again, "HKEY_CURRENT_USER") != written) std::abort();
  return 0;
}
