#pragma once
// Texts used as formats. Built-in texts carry printf specifiers ("%s", "%c",
// "%d"); a language file writes its placeholders as "#1" and "#2" and has
// every "%" doubled on reading. A loaded text is turned into a format by
// _TransformFormat; when its placeholders do not fit the arguments, the
// built-in text is used instead. Nothing is ever passed to printf whose
// specifiers do not match the arguments.
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

// Kind of one placeholder: the printf letter it becomes.
enum I18nKind : char {
  I18N_KIND_NONE = 0,
  I18N_KIND_STRING = 's',
  I18N_KIND_CHAR = 'c',
  I18N_KIND_NUMBER = 'd',
};

// One argument of a formatted text: a string, a character or a number. The
// argument refers to the caller's string; use it within the call only.
class I18nArg {
 public:
  I18nArg(const char* s) : kind_(I18N_KIND_STRING), str_(s ? s : "") {}
  I18nArg(const std::string& s) : kind_(I18N_KIND_STRING), str_(s.c_str()) {}
  I18nArg(char c) : kind_(I18N_KIND_CHAR), num_(static_cast<unsigned char>(c)) {}
  I18nArg(int32_t n) : kind_(I18N_KIND_NUMBER), num_(n) {}
  I18nArg(uint32_t n) : kind_(I18N_KIND_NUMBER), num_(static_cast<int32_t>(n)) {}

  I18nKind Kind() const { return kind_; }
  const char* Str() const { return str_; }
  int32_t Num() const { return num_; }

 private:
  I18nKind kind_;
  const char* str_ = nullptr;
  int32_t num_ = 0;
};

// Where a formatted text came from.
enum class I18nSource { None, Loaded, BuiltIn };

// Turns the "#1"/"#2" placeholders of a loaded text into printf specifiers of
// the given kinds (nPlaceholders 1 or 2). *pSwapped becomes 1 when "#2" comes
// first, so that the caller passes its arguments in reverse. False (and the
// caller uses the built-in text) when the placeholders do not fit: a missing,
// repeated or out-of-range number, two digits after "#", or a further "#".
bool _TransformFormat(const char* sText, std::string* pOut, int nPlaceholders, I18nKind nKind1,
                      I18nKind nKind2, int* pSwapped);

// Formats the text of an id (plain or composite) with up to two arguments
// into *pOut, cut to nCapacity UTF-16 units. With bBuiltIn only the built-in
// text is used. Answers where the text came from (None: no usable text, and
// *pOut is emptied); *pFit tells whether it fit.
I18nSource I18N_wsprintf_Internal(std::string* pOut, size_t nCapacity, int nID, bool bBuiltIn,
                                  std::initializer_list<I18nArg> args, bool* pFit);

// The same for a plain id and for a composite id; true when a text was
// produced and fit.
bool I18N_wsprintf(std::string* pOut, size_t nCapacity, int nID, bool bBuiltIn,
                   std::initializer_list<I18nArg> args = {});
bool I18N_wsprintfI(std::string* pOut, size_t nCapacity, int nID, bool bBuiltIn,
                    std::initializer_list<I18nArg> args = {});

// Convenience: the formatted text of an id (up to 4096 units), empty when the
// id has no usable text. The form shown to users: "%%" of a loaded text
// becomes "%".
std::string I18N_Format(int nID, std::initializer_list<I18nArg> args = {}, bool bBuiltIn = false);
