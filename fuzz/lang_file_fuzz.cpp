// Language files as a translator (or anyone) may have written them: the
// input is the whole file.
#include <cstdlib>

#include "fuzz_support.h"
#include "i18n/lang_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::filesystem::path file = qbfuzz::Home() / "fuzz.lng";
  if (!qbfuzz::WriteFile(file, std::string_view(reinterpret_cast<const char*>(data), size))) std::abort();
  std::vector<int32_t> ids;
  std::vector<std::string> texts;
  std::string id, native, english;
  const bool accepted = I18N_LoadFile(file, &ids, &texts, qb::i18n::kLanguageFileVersion, &id, 10, &native, 64,
                                      &english, 64);
  if (ids.size() != texts.size()) std::abort();
  if (!accepted && (!ids.empty() || I18N_LoadFileError().empty())) std::abort();
  return 0;
}
