#pragma once
// Texts by id. A plain id (1..243) answers with its loaded text when a
// language file is loaded, else with its built-in English text. A composite
// id (-1..-46) builds its text from a template that quotes plain texts as
// "[nnn]", each quoted text again loaded-or-built-in.
//
// Returned pointers point into the loaded table or the built-in texts and stay
// valid until I18N_DeInit; a composed text lives in the caller's holder.
#include <cstdint>
#include <string>

// One text. Plain ids: with bBuiltIn the built-in text, else the loaded one
// (or null). Composite ids: the template with its references resolved (with
// bBuiltIn from built-in texts only), kept in *pHolder; a template without
// references answers null, or the template itself when bRaw is set. Other ids
// answer null.
const char* _GetResource(int nID, bool bBuiltIn, std::string* pHolder, bool bRaw);

// Resolves the "[nnn]" references of a template into *pHolder (replacing its
// text). True when at least one reference was found and every reference had
// a text; a "[" that starts no reference is copied as it stands.
bool _BuildStringIndirect(const char* sTemplate, std::string* pHolder, bool bBuiltIn = false);

// The text of an id as shown: the loaded text, else the built-in one (only
// the built-in one with bBuiltIn). Null for an id without any text.
const char* I18N_GetText(int nID, bool bBuiltIn, std::string* pHolder);

// Accessors, one per message. Each answers the loaded text of its id, or the
// built-in one when none is loaded or bBuiltIn is set. Never null.
const char* I18N_AccessingTheDevice(bool bBuiltIn = false);           // 80
const char* I18N_EnumeratingFilesOnTheDevice(bool bBuiltIn = false);  // 81
const char* I18N_BadDriveLetter(bool bBuiltIn = false);               // 112
const char* I18N_CannotAssignDriveLetter(bool bBuiltIn = false);      // 107
const char* I18N_DriverError(bool bBuiltIn = false);                  // 111
const char* I18N_InitError(bool bBuiltIn = false);                    // 115
const char* I18N_Build(bool bBuiltIn = false);                        // 21
const char* I18N_Error(bool bBuiltIn = false);                        // 23
const char* I18N_Success(bool bBuiltIn = false);                      // 22
const char* I18N_Question(bool bBuiltIn = false);                     // 73
const char* I18N_Open(bool bBuiltIn = false);                         // 76
const char* I18N_Hide(bool bBuiltIn = false);                         // 20
const char* I18N_Homepage(bool bBuiltIn = false);                     // 127
const char* I18N_Version(bool bBuiltIn = false);                      // 157
const char* I18N_GetAlready(bool bBuiltIn, bool bCapital);            // 70 / 71
const char* I18N_GUIDevice(bool bBuiltIn, bool bCapital);             // 16 / 17
const char* I18N_GUIDrive(bool bBuiltIn, bool bCapital);              // 14 / 15
const char* I18N_GUICancel(bool bBuiltIn = false);                    // 2
const char* I18N_GUIClose(bool bBuiltIn = false);                     // 3
const char* I18N_GUIExit(bool bBuiltIn = false);                      // 5
const char* I18N_GUIMap(bool bBuiltIn = false);                       // 6
const char* I18N_GUIDisconnect(bool bBuiltIn = false);                // 7
const char* I18N_GUIRefresh(bool bBuiltIn = false);                   // 8
const char* I18N_GUISettings(bool bBuiltIn = false);                  // 9
const char* I18N_SortingFiles(bool bBuiltIn = false);                 // 209
const char* I18N_SortingFilesVirtual(bool bBuiltIn = false);          // 89
const char* I18N_Ignoremap(bool bBuiltIn = false);                    // 238
const char* _AdminPrivilegesNeeded(bool bBuiltIn = false);            // 103
const char* _Register(bool bBuiltIn = false);                         // 55
const char* _Deregister(bool bBuiltIn = false);                       // 56
const char* _Set(bool bBuiltIn = false);                              // 57
const char* _Unset(bool bBuiltIn = false);                            // 58

// Message-box titles: "Quillbox - " and the error or question text; the
// built-in text when the loaded one would make the title longer than 100
// characters.
std::string I18N_TitleError(bool bBuiltIn = false);
std::string I18N_TitleQuestion(bool bBuiltIn = false);

// "Unable to %s the dll" (101) or "Unable to %s the drive icon." (102, with
// bIcon), filled with register/deregister (dll) or set/unset (icon, bRemove
// choosing the second), then " (%d)" with nError when bFailed, then an empty
// line and "Administrator privileges needed." (103). At most 300 characters,
// else the built-in texts.
std::string _ErrorRegDereg(bool bIcon, bool bRemove, bool bFailed, int32_t nError,
                           bool bBuiltIn);
// The drive-icon message for setting or (bRemove) removing the icon.
std::string I18N_ErrorDriveIcon(bool bRemove, bool bBuiltIn = false);

namespace qb::i18n {

// _BuildStringIndirect that also counts the references answered from the
// loaded table (so a caller can tell a translated composite from English).
bool ComposeTemplate(const char* sTemplate, std::string* pHolder, bool bBuiltIn,
                     int* pLoadedRefs);

}  // namespace qb::i18n
