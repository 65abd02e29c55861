#include "i18n/builtin_texts.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace qb::i18n {
namespace {

struct Entry {
  int id;
  const char* text;
};

// Sorted by id so that a lookup is a binary search.
constexpr Entry kBuiltIn[] = {
    {1, "OK"},
    {2, "Cancel"},
    {3, "Cl&ose"},
    {4, "&Apply"},
    {5, "&Exit"},
    {6, "&Map"},
    {7, "&Disconnect"},
    {8, "&Refresh"},
    {9, "&Settings..."},
    {10, "&Browse..."},
    {11, "Filename format..."},
    {12, "Settings"},
    {13, "About"},
    {14, "Drive"},
    {15, "drive"},
    {16, "Device"},
    {17, "device"},
    {18, "Log"},
    {19, "All"},
    {20, "Hide"},
    {21, "build"},
    {22, "Success"},
    {23, "Error"},
    {24, "Warning"},
    {25, "Value"},
    {26, "Property"},
    {27, "this"},
    {28, "Name"},
    {29, "Miscellaneous"},
    {30, "Date"},
    {31, "Time"},
    {32, "Long"},
    {33, "Short"},
    {35, "Year"},
    {36, "Month"},
    {37, "Day"},
    {38, "Hour"},
    {39, "Minute"},
    {40, "Second"},
    {42, "original"},
    {43, "Range"},
    {44, "Counter"},
    {45, "Clear"},
    {49, "Text format"},
    {50, "Unchanged"},
    {51, "Lowercase"},
    {52, "Uppercase"},
    {53, "new"},
    {54, "File"},
    {55, "register"},
    {56, "deregister"},
    {57, "set"},
    {58, "unset"},
    {59, "disabled"},
    {60, "enabled"},
    {61, "User interface language"},
    {62, "Diagnostics"},
    {63, "Size"},
    {64, "Example"},
    {65, "example"},
    {66, "Location"},
    {67, "current"},
    {68, "pending"},
    {70, "Already"},
    {71, "already"},
    {72, "Directory separator"},
    {73, "Question"},
    {74, "The device does not contain any pictures."},
    {75, "Do you want to map it as the drive letter anyway?"},
    {76, "Open"},
    {80, "Communicating with the device..."},
    {81, "Retrieving list of files from the device..."},
    {82, "Wait until the drive %c: gets mapped..."},
    {83, "Waiting until the %s becomes available..."},
    {84, "Disconnecting drive %c: ..."},
    {85, "Map %s device to a drive letter"},
    {86, "Disconnect %s drive"},
    {87, "and cancel its drive letter mapping."},
    {88, "Map as %s drive..."},
    {89, "Changing names according to specified format..."},
    {90, "Battery level of the device '%s' is only %d%%"},
    {91, "Do you want to continue?"},
    {92, "Register 'Device Connected' event"},
    {93, "Registering the %s as a 'Device Connected' event handler in Windows failed."},
    {94, "Range selector"},
    {95, "Digits selector"},
    {100, "This version does not support Windows %s."},
    {101, "Unable to %s the dll"},
    {102, "Unable to %s the drive icon."},
    {103, "Administrator privileges needed."},
    {104, "%s is not available."},
    {105, "%s is not compatible with %s"},
    {106, "The drive %c: is already in use."},
    {107, "Cannot assign a drive letter"},
    {108, "This device is already mapped as drive %c: using %s."},
    {109, "%s mapped as %c:"},
    {110, "Device is busy."},
    {111, "Driver error"},
    {112, "Bad drive letter"},
    {113, "Error while retrieving a file from the device."},
    {114, "Error occurred while launching %s."},
    {115, "Error during initialization."},
    {116, "The battery in the device may be dead."},
    {127, "Homepage"},
    {140, "%s Cache Files"},
    {141, "Temporary files created while transferring data from your devices to the computer."},
    {142, "Select new %s cache directory location"},
    {143, "will be added automatically"},
    {144, "Cache size must be between %d and %d."},
    {150, "&Check for a new version"},
    {151, "Error occurred while checking if a new version is available."},
    {152, "Your version"},
    {153, "Latest version"},
    {154, "There is a new version of the %s available."},
    {155, "Would you like to visit the %s website now?"},
    {156, "You already have the latest version of the %s installed."},
    {157, "Version"},
    {161, "Change for this i&nstance..."},
    {162, "Original name"},
    {163, "Invalid format"},
    {164, "Number of digits to use"},
    {165, "Select characters to use"},
    {166, "Please wait, it may take several minutes"},
    {167, "Default file name format"},
    {170, "&Open location of the %s data files"},
    {171, "&Enable logging"},
    {172, "&Dump device data to a file..."},
    {173, "Cache settings"},
    {174, "Third parties"},
    {175, "Save %s data..."},
    {176, "Check battery level before mapping device to a drive letter"},
    {177, "DST filetime fix"},
    {180, "Profiles"},
    {181, "Device profiles"},
    {182, "First storage card:"},
    {183, "Map automatically"},
    {184, "If preferred letter is not available"},
    {185, "Ask"},
    {186, "Use first available drive letter"},
    {187, "Use last available drive letter"},
    {188, "Delete..."},
    {189, "Do you want to delete this profile?"},
    {190, "Name"},
    {191, "Alias"},
    {192, "Serial number"},
    {193, "default profile"},
    {194, "Profile"},
    {195, "Map additional storage cards separately"},
    {196, "The drive letter %c: is reserved for device's second card slot."},
    {197, "both card slots set to use %c:"},
    {198, "Second storage card:"},
    {199, "Preferred drive letter"},
    {200, "System integration"},
    {201, "Drive mapping options"},
    {202, "Device profile"},
    {203, "Original"},
    {204, "Virtual"},
    {205, "Original filesystem structure - settings"},
    {206, "Retrieve list of all files in all directories before the drive letter is mapped. This can be very slow if the device contains lots of files or directories and the device is accessed for the first time since it was connected to the computer."},
    {207, "Retrieve list of files and directories on-demand, as they are needed when accessing the device. This allows quicker response and eliminates need of collecting data about all the files and directories if access to only subset of files or directories is required."},
    {208, "Fill the directory content progressively to avoid delays when a directory contains lots of files. The Quillbox refreshes the Windows Explorer periodically so the content of the directory \"grows\" automatically. Some other file managers or command-line access may require manual directory refreshes to see all the files eventually. Writing to the device using command-line commands may require this setting to be disabled."},
    {209, "Sorting files..."},
    {210, "Filesystem structure"},
    {211, "Open mapped drive in the Windows Explorer"},
    {212, "Read/Write/Delete access with original file names and directory structure."},
    {213, "Read/Delete access with configurable file names and directory structure."},
    {214, "The whole device is scanned first to build the complete filesystem structure before the actual drive letter is made available."},
    {215, "Use device icons from the Windows Explorer"},
    {216, "Always route 'Device Connected' events for all devices (existing and newly installed) to the Quillbox"},
    {217, "Details"},
    {218, "Attention"},
    {219, "Storage"},
    {220, "Use 'Created Time' instead of 'Modified Time' for all files and directories"},
    {221, "Preferred drive letters"},
    {222, "Storage card"},
    {223, "Drive letter"},
    {224, "Delay automatic mapping of devices by"},
    {226, "Run program after drive is mapped"},
    {227, "Select a program to run"},
    {228, "Save"},
    {229, "Run Program"},
    {230, "Run this program when drive is mapped:"},
    {231, "Program arguments (optional):"},
    {232, "You can use the following parameters:"},
    {233, "Skip"},
    {234, "First available"},
    {235, "Last available"},
    {236, "Enables routing 'Device Connected' events for all existing and newly installed devices to the Quillbox."},
    {237, "Map manually"},
    {238, "Ignore"},
    {239, "Bypass the Windows AutoPlay/Device Stage"},
    {240, "Expire directories in the Quillbox cache after %d seconds to force refetching their content."},
    {241, "WARNING: This setting can cause performance degradation!"},
};

// Sorted by descending id (-1 first).
constexpr Entry kComposite[] = {
    {-1, "[016] '%s' %s"},
    {-5, "[032]:"},
    {-6, "[033]:"},
    {-7, "[162] ([043])..."},
    {-8, "AM/PM ([031])"},
    {-9, "[049]:"},
    {-10, "[064] ([042]):"},
    {-11, "[064] ([053]):"},
    {-12, "[035] ([032])"},
    {-13, "[036] ([032])"},
    {-14, "[037] ([032])"},
    {-15, "[035] ([033])"},
    {-16, "[036] ([033])"},
    {-17, "[037] ([033])"},
    {-18, "[038] ([032])"},
    {-19, "[039] ([032])"},
    {-20, "[040] ([032])"},
    {-21, "[038] ([033])"},
    {-22, "[039] ([033])"},
    {-23, "[040] ([033])"},
    {-24, "[044]..."},
    {-25, "[164]:"},
    {-26, "[165]:"},
    {-27, "[110] [083]"},
    {-28, "[090]\n\n[091]"},
    {-29, "[113]\n\n%s\n[054]:\n%s"},
    {-31, "[086] [087]"},
    {-32, "[162]"},
    {-33, "Unable to get list of files from the device, error 0x%08X.\n\nTry the mapping again later, or restart the \"Windows Image Acquisition (WIA)\" service, or reboot your workstation.\n\nIf the problem persists contact the 'device vendor' or 'device driver provider' for further assistance."},
    {-34, "[074]\n\n[075]"},
    {-35, "[219]:"},
    {-36, "[113] [116]"},
    {-38, "<[193]>"},
    {-39, "[194]:"},
    {-40, "Unable to get list of files from the device, error 0x%08X.\n\nThe Windows may be caching some device data even though the device is not connected to your workstation anymore, causing this error.\n\nIf the device is not connected to your workstation then re-connect it and try the mapping again.\n\nIf the device is still connected then try the mapping again later, or turn-off and turn-on your device, or restart the \"Windows Image Acquisition (WIA)\" service, or restart this Quillbox instance, to see if it helps."},
    {-41, "The device went offline, cannot get list of files."},
    {-42, "[213]\n\n[214]"},
    {-43, "[232]\r\n    %%L - [223]"},
    {-44, "[240]\n[241]"},
    {-45, "[016] '%s' / [219] '%s' "},
};

constexpr bool SortedBy(const Entry* first, const Entry* last, bool ascending) {
  for (const Entry* e = first; e + 1 < last; ++e) {
    if (ascending ? e[0].id >= e[1].id : e[0].id <= e[1].id) return false;
  }
  return true;
}
static_assert(SortedBy(std::begin(kBuiltIn), std::end(kBuiltIn), true));
static_assert(SortedBy(std::begin(kComposite), std::end(kComposite), false));
static_assert(kBuiltIn[0].id > kFirstPlainId &&
              kBuiltIn[std::size(kBuiltIn) - 1].id <= kLastPlainId);
static_assert(kComposite[0].id <= kLastCompositeId &&
              kComposite[std::size(kComposite) - 1].id >= kFirstCompositeId);

template <size_t N>
std::array<int, N> IdsOf(const Entry (&entries)[N]) {
  std::array<int, N> ids{};
  for (size_t i = 0; i < N; ++i) ids[i] = entries[i].id;
  return ids;
}

const Entry* Find(const Entry* first, const Entry* last, int id, bool ascending) {
  const Entry* it = std::lower_bound(first, last, id, [ascending](const Entry& e, int want) {
    return ascending ? e.id < want : e.id > want;
  });
  return it != last && it->id == id ? it : nullptr;
}

}  // namespace

const char* BuiltInText(int id) {
  const Entry* e = Find(std::begin(kBuiltIn), std::end(kBuiltIn), id, true);
  return e ? e->text : nullptr;
}

const char* CompositeTemplate(int id) {
  const Entry* e = Find(std::begin(kComposite), std::end(kComposite), id, false);
  return e ? e->text : nullptr;
}

const int* BuiltInIds(int* count) {
  static const auto ids = IdsOf(kBuiltIn);
  if (count) *count = static_cast<int>(ids.size());
  return ids.data();
}

const int* CompositeIds(int* count) {
  static const auto ids = IdsOf(kComposite);
  if (count) *count = static_cast<int>(ids.size());
  return ids.data();
}

}  // namespace qb::i18n
