// Stand-ins for libraries that are not this build's desktop module: with
// QB_WITH_ENTRY a module of another build (its entry point refuses this
// program's interface), without it a library without the entry point.
#include <cstdint>

#ifdef QB_WITH_ENTRY
extern "C" void* quillbox_ui_toolkit(uint32_t) { return nullptr; }
#else
extern "C" int quillbox_ui_stand_in() { return 0; }
#endif
