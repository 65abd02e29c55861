#pragma once
// The loaded texts of this process: one block built from the language file
// when the process starts and freed when it ends. Layout of the block:
//   uint32 count n
//   n pairs of uint32 (text id, byte offset of the text from the block start)
//   the texts, null-terminated, in file order (UTF-8, the program's text form)
// The block is written once by I18N_Init and only read afterwards, so
// lookups take no lock. I18N_Init and I18N_DeInit belong to process start
// and end; a text pointer stays valid until I18N_DeInit.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace qb::i18n {

class LoadedTable {
 public:
  LoadedTable(const std::vector<int32_t>& ids, const std::vector<std::string>& texts);

  // Text of the first pair with `id`, or null.
  const char* Find(int32_t id) const;
  uint32_t Count() const;
  const std::vector<unsigned char>& Block() const { return block_; }

 private:
  uint32_t ReadU32(size_t offset) const;

  std::vector<unsigned char> block_;
  // Offset + 1 of the first text of each plain id (0: none), for quick lookups.
  std::vector<uint32_t> plainIndex_;
};

}  // namespace qb::i18n

// Loads the language file named by the "LngFile" setting, once per process.
// True when a loaded table is in use afterwards.
bool I18N_Init();
// The same for a given file (an empty path loads nothing): the program's
// start-up passes the setting's path; tools and tests pass their own.
bool I18N_InitFromFile(const std::filesystem::path& file);
// Frees the loaded table; lookups answer with the built-in texts again.
void I18N_DeInit();

bool I18N_IsLoaded();
// Number of loaded texts (0 when none is loaded).
int I18N_LoadedCount();
// LangID, LangNative and LangEnglish of the loaded file; false when none.
bool I18N_LoadedLanguage(std::string* sLangID, std::string* sLangNative,
                         std::string* sLangEnglish);

// The loaded text of an id (first matching pair), or null.
const char* _GetI18NString(int nID);
