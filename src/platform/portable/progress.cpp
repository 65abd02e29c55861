// The progress reporter of the calling thread (see portable.h).
#include "platform/portable/portable.h"

namespace qb::portable {
namespace {

thread_local ProgressReporter t_reporter;

}  // namespace

void NoteProgress() {
  if (t_reporter) t_reporter();
}

ProgressReporter CurrentProgressReporter() { return t_reporter; }

ScopedProgressReporter::ScopedProgressReporter(ProgressReporter reporter)
    : previous_(std::exchange(t_reporter, std::move(reporter))) {}

ScopedProgressReporter::~ScopedProgressReporter() { t_reporter = std::move(previous_); }

}  // namespace qb::portable
