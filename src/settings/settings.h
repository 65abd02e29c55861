#pragma once
// The program's global settings: values under SOFTWARE\Quillbox of the
// current user. Every reader opens the key, reads one value, closes the key
// and checks the value, so a change takes effect at the next read; a value
// that is missing, of another type or out of bounds reads as its default.
// Only ExpiryDirlistInterval is read once per process. The machine key
// (HKEY_LOCAL_MACHINE\SOFTWARE\Quillbox) holds the install folder and the
// defaults that Registry_CopyMachineDefaults copies into the user's key.
//
// Text is UTF-8. A "buffer, capacity" pair behaves like a fixed buffer of
// `capacity` UTF-16 units: the text is cut to capacity - 1 units. Readers
// that return text return buffer->c_str(), or null for none.
#include <cstddef>
#include <cstdio>
#include <string>

#include "platform/system/codes.h"

// The settings key under both roots.
constexpr const char* QB_SETTINGS_KEY = "SOFTWARE\\Quillbox";

// Bits of the Flags value; use the one-line tests below, not the word.
constexpr DWORD QB_FLAG_TRACE_LOG = 0x001;         // write the trace log
constexpr DWORD QB_FLAG_BATTERY_CHECK = 0x002;     // battery check before mapping
constexpr DWORD QB_FLAG_OPEN_EXPLORER = 0x004;     // open the new drive in the file manager
constexpr DWORD QB_FLAG_ICON_OPTION = 0x008;       // handed to the drive-icon registration
constexpr DWORD QB_FLAG_AGENT_ARRIVAL = 0x010;     // with QB_FLAG_AGENT_PRESENT: agent handles arrival
constexpr DWORD QB_FLAG_LOG_PER_PROCESS = 0x020;   // one trace log per process
constexpr DWORD QB_FLAG_RUN_PROGRAM = 0x040;       // start ProgramToRun after mapping
constexpr DWORD QB_FLAG_AGENT_PRESENT = 0x080;     // an agent is present: /b allowed
constexpr DWORD QB_FLAG_IDENTIFY_BY_PNPID = 0x100; // tell devices apart by PnP id too
constexpr DWORD QB_FLAG_DST_FILETIME_FIX = 0x200;  // file-time option of the directory tree
constexpr DWORD QB_FLAGS_DEFAULT = QB_FLAG_BATTERY_CHECK;

// Readers (never fail).
DWORD Registry_Get_Flags();                  // also migrates TraceFlags into Flags
DWORD Registry_Get_AutomapDelay();           // seconds, 0..30 (else 0)
DWORD Registry_Get_CacheSize();              // MiB, at least 100
DWORD Registry_Get_ExpiryDirlistInterval();  // seconds, 1..86400; read once per process
DWORD Registry_Get_GetFileDelayMs();         // milliseconds, 0..1000 (else 0)
int Registry_Get_FileTimeOffsetMinutes();    // -1440..1440 (else 0)

// The cache folder (<root>/Quillbox/QUILLBOX_CACHE) or, with rootOnly, its
// root; with `pending` the CacheRootPending value only (the buffer, possibly
// empty). A configured root must be an absolute path whose folder exists or
// can be made, else the local application-data folder is used. The folder is
// created. Null when no folder can be had.
const char* Registry_Get_CacheRoot(bool pending, std::string* buffer, size_t capacity, bool rootOnly);
// Writes CacheRootPending (pending) or CacheRoot; true on success.
bool Registry_Set_CacheRoot(bool pending, const char* path);
// Removes CacheRootPending once it was taken over (or found unusable), so
// that it is applied at one start only. True when it is gone.
bool Registry_Clear_CacheRootPending();
// <common application-data>/Quillbox/<LngFile>, when LngFile is set and the
// buffer holds at least 260 units.
const char* Registry_Get_LngFile(std::string* buffer, size_t capacity);
const char* Registry_Get_ProgramToRun(std::string* buffer, size_t capacity);
const char* Registry_Get_ProgramToRunArguments(std::string* buffer, size_t capacity);
// The unnamed value of the machine key, less one trailing separator.
const char* Registry_Get_InstallFolder(std::string* buffer, size_t capacity);

// Copies the machine's Timestamp, Flags, AutomapDelay and CacheSize into the
// user's key when the machine's Timestamp is newer; true when copied.
bool Registry_CopyMachineDefaults();

// The settings lines of the trace log's header: one line per value of the
// user's settings key, "name=data" ("@" for the unnamed value; REG_SZ as
// text of at most 300 bytes, REG_DWORD "0x%08X", REG_QWORD "0x%016llX",
// other types "<type=%d>"), each ending in `eol`. Writes no trace lines, so
// that the log writer may call it while it writes the header.
std::string Registry_SettingsDumpText(const char* eol = "\r\n");
// Writes those lines into an open file.
void Registry_DumpSettings(FILE* file);

// One test per Flags bit, each 0 or 1.
inline bool Registry_IsTraceLogOn() { return (Registry_Get_Flags() & QB_FLAG_TRACE_LOG) != 0; }
inline bool Registry_IsBatteryCheckOn() { return (Registry_Get_Flags() & QB_FLAG_BATTERY_CHECK) != 0; }
inline bool Registry_IsOpenExplorerOn() { return (Registry_Get_Flags() & QB_FLAG_OPEN_EXPLORER) != 0; }
inline bool Registry_IsIconOptionOn() { return (Registry_Get_Flags() & QB_FLAG_ICON_OPTION) != 0; }
inline bool Registry_IsAgentArrivalOn() {
  const DWORD both = QB_FLAG_AGENT_ARRIVAL | QB_FLAG_AGENT_PRESENT;
  return (Registry_Get_Flags() & both) == both;
}
inline bool Registry_IsLogPerProcessOn() { return (Registry_Get_Flags() & QB_FLAG_LOG_PER_PROCESS) != 0; }
inline bool Registry_IsRunProgramOn() { return (Registry_Get_Flags() & QB_FLAG_RUN_PROGRAM) != 0; }
inline bool Registry_IsAgentPresent() { return (Registry_Get_Flags() & QB_FLAG_AGENT_PRESENT) != 0; }
inline bool Registry_IsIdentifyByPnpIdOn() { return (Registry_Get_Flags() & QB_FLAG_IDENTIFY_BY_PNPID) != 0; }
inline bool Registry_IsDstFiletimeFixOn() { return (Registry_Get_Flags() & QB_FLAG_DST_FILETIME_FIX) != 0; }

namespace qb::settings {
// The ExpiryDirlistInterval value read now, clamped (the reader above keeps
// the first result for the process).
DWORD ReadExpiryDirlistInterval();
}  // namespace qb::settings
