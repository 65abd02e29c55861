#pragma once
// The program's own English texts, by id, and the composite templates that
// build longer texts from them. These are the texts shown whenever no
// language file is loaded, or when a loaded text is missing or unusable.
//
// Plain texts have ids 1..243; composite templates have ids -1..-46 and quote
// plain texts as "[nnn]" (three digits). Id 0 and the ids without an entry
// have no text.

namespace qb::i18n {

constexpr int kFirstPlainId = 0;
constexpr int kLastPlainId = 243;       // plain ids lie in [0, 243]
constexpr int kFirstCompositeId = -46;  // composite ids lie in [-46, -1]
constexpr int kLastCompositeId = -1;

// The product name that titles and the language file's product check use.
constexpr const char* kProductName = "Quillbox";

// The built-in English text of a plain id, or null when the id has none.
const char* BuiltInText(int id);

// The template of a composite id, or null when the id has none.
const char* CompositeTemplate(int id);

// Every id with a built-in text, ascending (for tools and tests that walk
// all texts).
const int* BuiltInIds(int* count);
const int* CompositeIds(int* count);

}  // namespace qb::i18n
