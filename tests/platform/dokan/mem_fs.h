#pragma once
// A file system written only against the Dokan interface: an in-memory tree
// with Windows semantics (case-insensitive names, read-only attribute,
// delete on close, replace-if-existing moves). It records every call that
// reaches its table, so that tests can compare the order of the calls.
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dokan/dokan.h"

namespace qbtest {

struct FsCall {
  std::string op;      // "ZwCreateFile", "Cleanup", ...
  std::string path;    // backslash form
  std::string detail;  // op-specific: "disp=2 opts=0x1060 access=0x..." ...
  int deleteOnClose = 0;
};

class MemFs {
 public:
  MemFs();
  ~MemFs();

  // The table to hand to DokanMain; its DOKAN_OPTIONS must carry this
  // object in GlobalContext.
  static DOKAN_OPERATIONS Operations();
  void FillOptions(DOKAN_OPTIONS* options, const char* mountPoint, bool singleThread);

  std::vector<FsCall> Calls() const;
  void ClearCalls();
  // Every recorded call is also handed to `sink` (the test server writes
  // them to a file for the test process).
  void SetSink(std::function<void(const FsCall&)> sink);

  // Changes made behind the kernel's back (as a device would).
  bool PutFile(const std::string& path, const std::string& content);
  bool Remove(const std::string& path);
  // Content of a file, or false when missing.
  bool Read(const std::string& path, std::string* content) const;
  bool Exists(const std::string& path) const;
  DWORD Attributes(const std::string& path) const;
  // Opens of an existing file (FILE_OPEN) answer "not found" for `path`, as
  // when the file appears between a lookup and a create.
  void HideFromOpens(const std::string& path);
  bool Hidden(const std::string& path) const;
  // Reads of `path` wait (at most 10 s) until ReleaseReads.
  void BlockReadsOf(const std::string& path);
  void ReleaseReads();
  bool Blocked(const std::string& path);
  void WaitWhileBlocked(const std::string& path);
  // The Cleanup of `path` leaves the rest of its end to the drive layer
  // (DeferRestOfEnd): a rest, recorded as "Rest", that waits (at most 10 s)
  // until ReleaseEnds.
  void HoldEndsOf(const std::string& path);
  // The same for the FlushFileBuffers of a close(2) of `path`.
  void HoldFlushesOf(const std::string& path);
  void ReleaseEnds();
  bool EndHeld(const std::string& path);
  bool FlushHeld(const std::string& path);
  // FlushFileBuffers of `path` fails with STATUS_DISK_FULL.
  void FailFlushesOf(const std::string& path);
  bool FlushFails(const std::string& path);
  void WaitWhileEndHeld(const std::string& path);

  struct Node;
  struct Handle;
  void Record(const char* op, LPCWSTR path, std::string detail, PDOKAN_FILE_INFO info);
  std::shared_ptr<Node> Resolve(const std::string& path) const;  // call with mutex_ held
  std::shared_ptr<Node> root_;
  mutable std::recursive_mutex mutex_;

 private:
  mutable std::mutex callsMutex_;
  std::vector<FsCall> calls_;
  std::function<void(const FsCall&)> sink_;
  std::string hidden_;  // under mutex_
  std::mutex gateMutex_;  // guards blocked_
  std::condition_variable gateOpen_;
  std::string blocked_;
  std::string held_;  // under gateMutex_
  bool holdFlushes_ = false;  // under gateMutex_: held_ names flushes, not Cleanups
  std::string failingFlush_;  // under gateMutex_
};

// Parses a line written by the sink ("op|path|detail|deleteOnClose").
bool ParseCallLine(const std::string& line, FsCall* call);
std::string CallLine(const FsCall& call);

}  // namespace qbtest
