// The calling thread's progress hook (see portable.h).
#include "platform/portable/portable.h"

namespace qb::portable {
namespace {
thread_local ProgressHook t_hook = nullptr;
thread_local void* t_context = nullptr;
}  // namespace

void SetThreadProgressHook(ProgressHook hook, void* context) {
  t_hook = hook;
  t_context = context;
}

void NoteThreadProgress() {
  if (t_hook) t_hook(t_context);
}

}  // namespace qb::portable
