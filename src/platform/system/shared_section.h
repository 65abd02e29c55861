#pragma once
// A named block of memory shared by every instance of a user's session
// (POSIX shared memory). It lives while an instance holds it: each holder
// keeps a shared flock on a lock file (in the runtime folder), and an opener that finds no
// holder (all ended, also by a crash) treats the section as new and zeroes it.
//
// Lock order: the guard lock (held only inside Open and Close) is taken
// before the lifetime lock; neither is held by callers.
#include <cstddef>
#include <string>

namespace qb::sys {

class SharedSection {
 public:
  SharedSection() = default;
  ~SharedSection();
  SharedSection(const SharedSection&) = delete;
  SharedSection& operator=(const SharedSection&) = delete;

  // Creates or opens `name` ("/Name") with `size` bytes and maps all of it
  // writable. False (and errno-style text in LastError) when any step fails.
  bool Open(const std::string& name, size_t size);
  // Unmaps and lets go of the lifetime lock; the last holder removes the
  // section's name so that the next opener starts afresh.
  void Close();
  // Close without unmapping, for a process that ends at once while other
  // threads may still read the memory (the end of the process unmaps it).
  void CloseKeepingView();

  void* Data() const { return data_; }
  size_t Size() const { return size_; }
  bool IsOpen() const { return data_ != nullptr; }
  // True when this opener found no other holder: the memory is zeroed.
  bool IsNew() const { return new_; }
  const std::string& LastError() const { return error_; }

  // Path of the lock file that marks the holders of `name`.
  static std::string LockFilePath(const std::string& name);

 private:
  bool Fail(const char* step);

  // Set by Open, cleared by Close; one owner thread.
  std::string name_;
  void* data_ = nullptr;
  size_t size_ = 0;
  int lockFd_ = -1;
  bool new_ = false;
  std::string error_;
};

}  // namespace qb::sys
