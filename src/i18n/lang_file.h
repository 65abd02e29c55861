#pragma once
// Reading a language file: UTF-16LE text with a byte-order mark, one
// "key=value" per line. Numeric keys are text ids, the other keys are the
// five keywords that identify the file (LangID, LangNative, LangEnglish,
// LangVer, LangProduct). Every "%" of a text is doubled on reading so that
// the texts can serve as printf formats; "#1"/"#2" mark placeholders.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace qb::i18n {

// The file format version this program reads ("LangVer").
constexpr int kLanguageFileVersion = 2;
// Lines are read in pieces of at most this many UTF-16 units; the rest of a
// longer line is read as a line of its own.
constexpr size_t kMaxLinePiece = 1023;
// Larger files are refused outright (a complete translation is ~40 KB).
constexpr uintmax_t kMaxLanguageFileBytes = 4u * 1024 * 1024;

}  // namespace qb::i18n

// Reads the language file at `path`. True when it is accepted: it begins with
// the byte-order mark, names the right version and product, uses no unknown
// keyword, and has each of the five keywords exactly once. The two lists, when
// both are given, are filled afresh with the ids and texts in file order; the three
// descriptive keywords are copied, cut to their capacities, into the outputs
// that are given. A refused file leaves both lists empty.
bool I18N_LoadFile(const std::filesystem::path& path, std::vector<int32_t>* pIds,
                   std::vector<std::string>* pTexts, int nExpectedVersion, std::string* sLangID,
                   size_t nLangIDCapacity, std::string* sLangNative, size_t nLangNativeCapacity,
                   std::string* sLangEnglish, size_t nLangEnglishCapacity);

// Why the last I18N_LoadFile on this thread refused its file (the same text
// as the trace line); empty after an accepted file.
const std::string& I18N_LoadFileError();
