#include "i18n/resources.h"

#include <cstring>

#include "common/strings.h"
#include "diag/trace.h"
#include "i18n/builtin_texts.h"
#include "i18n/format.h"
#include "i18n/text_table.h"

namespace {

constexpr size_t kMaxTitle = 100;        // characters of a message-box title
constexpr size_t kMaxRegDeregText = 300;  // characters of the register/set message

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Reads "[nnn]" (one to three digits) at `p`; the id and the length of the
// reference, or false when `p` starts no reference.
bool ReadReference(const char* p, int* id, size_t* length) {
  if (*p != '[') return false;
  size_t i = 1;
  int value = 0;
  while (i <= 3 && IsDigit(p[i])) value = value * 10 + (p[i++] - '0');
  if (i == 1 || p[i] != ']') return false;
  *id = value;
  *length = i + 1;
  return true;
}

// The loaded text of a plain id, else its built-in text.
const char* PlainText(int id, bool bBuiltIn) {
  const char* text = bBuiltIn ? nullptr : _GetI18NString(id);
  return text ? text : qb::i18n::BuiltInText(id);
}

// An accessor's text: never null for the ids the accessors use.
const char* AccessorText(int id, bool bBuiltIn) {
  const char* text = PlainText(id, bBuiltIn);
  return text ? text : "";
}

std::string Title(const char* text) {
  return std::string(qb::i18n::kProductName) + " - " + text;
}

}  // namespace

namespace qb::i18n {

bool ComposeTemplate(const char* sTemplate, std::string* pHolder, bool bBuiltIn,
                     int* pLoadedRefs) {
  if (!sTemplate || !pHolder) return false;
  std::string out;
  int refs = 0;
  int loadedRefs = 0;
  const char* p = sTemplate;
  while (const char* open = std::strchr(p, '[')) {
    out.append(p, open);
    int id = 0;
    size_t length = 0;
    if (!ReadReference(open, &id, &length)) {
      out.push_back('[');
      p = open + 1;
      continue;
    }
    const char* loaded = bBuiltIn ? nullptr : _GetI18NString(id);
    const char* text = loaded ? loaded : BuiltInText(id);
    if (!text) {
      Trace("I5@_BuildStringIndirect: ", "No text for [%03d] in \"%s\"", id, sTemplate);
      return false;
    }
    out += text;
    ++refs;
    if (loaded) ++loadedRefs;
    p = open + length;
  }
  out += p;
  *pHolder = std::move(out);
  if (pLoadedRefs) *pLoadedRefs = loadedRefs;
  return refs > 0;
}

}  // namespace qb::i18n

bool _BuildStringIndirect(const char* sTemplate, std::string* pHolder, bool bBuiltIn) {
  return qb::i18n::ComposeTemplate(sTemplate, pHolder, bBuiltIn, nullptr);
}

const char* _GetResource(int nID, bool bBuiltIn, std::string* pHolder, bool bRaw) {
  using namespace qb::i18n;
  if (nID >= kFirstPlainId && nID <= kLastPlainId)
    return bBuiltIn ? BuiltInText(nID) : _GetI18NString(nID);
  if (nID < kFirstCompositeId || nID > kLastCompositeId) return nullptr;
  const char* tpl = CompositeTemplate(nID);
  if (!tpl) return nullptr;
  if (!pHolder) {
    Trace("I4@_GetResource: ", "No holder for composite text %d", nID);
    return nullptr;
  }
  if (_BuildStringIndirect(tpl, pHolder, bBuiltIn)) return pHolder->c_str();
  return bRaw ? tpl : nullptr;
}

const char* I18N_GetText(int nID, bool bBuiltIn, std::string* pHolder) {
  if (!bBuiltIn) {
    if (const char* text = _GetResource(nID, false, pHolder, true)) return text;
  }
  return _GetResource(nID, true, pHolder, true);
}

const char* I18N_AccessingTheDevice(bool bBuiltIn) { return AccessorText(80, bBuiltIn); }
const char* I18N_EnumeratingFilesOnTheDevice(bool bBuiltIn) { return AccessorText(81, bBuiltIn); }
const char* I18N_BadDriveLetter(bool bBuiltIn) { return AccessorText(112, bBuiltIn); }
const char* I18N_CannotAssignDriveLetter(bool bBuiltIn) { return AccessorText(107, bBuiltIn); }
const char* I18N_DriverError(bool bBuiltIn) { return AccessorText(111, bBuiltIn); }
const char* I18N_InitError(bool bBuiltIn) { return AccessorText(115, bBuiltIn); }
const char* I18N_Build(bool bBuiltIn) { return AccessorText(21, bBuiltIn); }
const char* I18N_Error(bool bBuiltIn) { return AccessorText(23, bBuiltIn); }
const char* I18N_Success(bool bBuiltIn) { return AccessorText(22, bBuiltIn); }
const char* I18N_Question(bool bBuiltIn) { return AccessorText(73, bBuiltIn); }
const char* I18N_Open(bool bBuiltIn) { return AccessorText(76, bBuiltIn); }
const char* I18N_Hide(bool bBuiltIn) { return AccessorText(20, bBuiltIn); }
const char* I18N_Homepage(bool bBuiltIn) { return AccessorText(127, bBuiltIn); }
const char* I18N_Version(bool bBuiltIn) { return AccessorText(157, bBuiltIn); }
const char* I18N_GetAlready(bool bBuiltIn, bool bCapital) {
  return AccessorText(bCapital ? 70 : 71, bBuiltIn);
}
const char* I18N_GUIDevice(bool bBuiltIn, bool bCapital) {
  return AccessorText(bCapital ? 16 : 17, bBuiltIn);
}
const char* I18N_GUIDrive(bool bBuiltIn, bool bCapital) {
  return AccessorText(bCapital ? 14 : 15, bBuiltIn);
}
const char* I18N_GUICancel(bool bBuiltIn) { return AccessorText(2, bBuiltIn); }
const char* I18N_GUIClose(bool bBuiltIn) { return AccessorText(3, bBuiltIn); }
const char* I18N_GUIExit(bool bBuiltIn) { return AccessorText(5, bBuiltIn); }
const char* I18N_GUIMap(bool bBuiltIn) { return AccessorText(6, bBuiltIn); }
const char* I18N_GUIDisconnect(bool bBuiltIn) { return AccessorText(7, bBuiltIn); }
const char* I18N_GUIRefresh(bool bBuiltIn) { return AccessorText(8, bBuiltIn); }
const char* I18N_GUISettings(bool bBuiltIn) { return AccessorText(9, bBuiltIn); }
const char* I18N_SortingFiles(bool bBuiltIn) { return AccessorText(209, bBuiltIn); }
const char* I18N_SortingFilesVirtual(bool bBuiltIn) { return AccessorText(89, bBuiltIn); }
const char* I18N_Ignoremap(bool bBuiltIn) { return AccessorText(238, bBuiltIn); }
const char* _AdminPrivilegesNeeded(bool bBuiltIn) { return AccessorText(103, bBuiltIn); }
const char* _Register(bool bBuiltIn) { return AccessorText(55, bBuiltIn); }
const char* _Deregister(bool bBuiltIn) { return AccessorText(56, bBuiltIn); }
const char* _Set(bool bBuiltIn) { return AccessorText(57, bBuiltIn); }
const char* _Unset(bool bBuiltIn) { return AccessorText(58, bBuiltIn); }

std::string I18N_TitleError(bool bBuiltIn) {
  std::string title = Title(I18N_Error(bBuiltIn));
  return qb::Utf16Length(title) > kMaxTitle ? Title(I18N_Error(true)) : title;
}

std::string I18N_TitleQuestion(bool bBuiltIn) {
  std::string title = Title(I18N_Question(bBuiltIn));
  return qb::Utf16Length(title) > kMaxTitle ? Title(I18N_Question(true)) : title;
}

std::string _ErrorRegDereg(bool bIcon, bool bRemove, bool bFailed, int32_t nError,
                           bool bBuiltIn) {
  const char* verb = bIcon ? (bRemove ? _Unset(bBuiltIn) : _Set(bBuiltIn))
                           : (bRemove ? _Deregister(bBuiltIn) : _Register(bBuiltIn));
  std::string text;
  bool fit = false;
  const I18nSource source = I18N_wsprintf_Internal(&text, kMaxRegDeregText, bIcon ? 102 : 101,
                                                   bBuiltIn, {verb}, &fit);
  if (bFailed) fit = _TcsCat(&text, kMaxRegDeregText, qb::Format(" (%d)", nError).c_str()) && fit;
  fit = _TcsCat(&text, kMaxRegDeregText, "\n\n") && fit;
  fit = _TcsCat(&text, kMaxRegDeregText, _AdminPrivilegesNeeded(bBuiltIn)) && fit;
  // A message that did not fit, or whose loaded text was unusable, is shown
  // wholly in English rather than half translated.
  if (!bBuiltIn && (!fit || source != I18nSource::Loaded))
    return _ErrorRegDereg(bIcon, bRemove, bFailed, nError, true);
  return text;
}

std::string I18N_ErrorDriveIcon(bool bRemove, bool bBuiltIn) {
  return _ErrorRegDereg(true, bRemove, false, 0, bBuiltIn);
}
