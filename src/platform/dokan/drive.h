#pragma once
// One mounted drive: the FUSE session of a letter, the opens of the kernel,
// and the translation of every kernel request into the calls of the
// operation table that Windows would make for it.
//
// Locks, in the order in which they may be nested:
//   ActiveDrives' registry mutex (dokan_linux.cpp) -> notifyMutex_;
//   opensMutex_ -> Open::lent (shared; taken there only for listed opens,
//   which nobody holds exclusively, so it never waits);
//   opensMutex_, Open::mutex, closeMutex_ and the node table's mutex are
//   leaves: no operation of the table is ever called while one of them is
//   held. A request waits for the closing thread (AwaitClosed) before it
//   takes any of them or calls the table.
//   Open::lent is held across one table call: shared by a request that
//   borrowed the open, exclusively by its Cleanup and CloseFile.
#define FUSE_USE_VERSION 312
#include <fuse3/fuse_lowlevel.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/dokan/attributes.h"
#include "platform/dokan/dokan.h"
#include "platform/dokan/node_table.h"
#include "platform/dokan/operation_table.h"

namespace qb::dokan {

using Listing = std::vector<WIN32_FIND_DATAW>;

// One open of the kernel (a file or folder handle of Windows).
struct Open {
  std::mutex mutex;      // guards info and listing between requests of this open
  DOKAN_FILE_INFO info;  // Context and flags of the open
  uint64_t node = 0;
  bool directory = false;
  // Set at the open: its writes go to WriteFile without passing through
  // the kernel's page cache of the file (see RegisterFileOpen).
  bool directWrites = false;
  // Folder snapshot, taken at offset 0; replies share it, never copy it.
  std::shared_ptr<const Listing> listing;
  // Written since the opener's last close(2) of one of its descriptors:
  // that close hands the data to the file system (FlushFileBuffers)
  // before it returns.
  std::atomic<bool> unflushed{false};
  // Held shared while another request of the node borrows this open; the
  // end of the open waits for it (a borrower makes one call).
  std::shared_mutex lent;
};

// A finished invalidation, for callers that wait for it.
struct InvalidationTicket {
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
};

class Drive {
 public:
  Drive(char letter, DOKAN_OPTIONS* options, const DOKAN_OPERATIONS& operations);
  ~Drive();
  Drive(const Drive&) = delete;
  Drive& operator=(const Drive&) = delete;

  // Mounts, serves until the mount is removed, tears down. A DOKAN_* code.
  int Run();

  std::shared_ptr<InvalidationTicket> QueueInvalidation(const std::string& path);

  // Request translations: each answers 0 or an errno. Names and attributes
  // in drive_requests.cpp, open files in drive_files.cpp, listings and the
  // volume in drive_listing.cpp; the FUSE callbacks (fuse_bridge.cpp) call
  // them.
  int Lookup(fuse_req_t req, uint64_t parent, const char* name, fuse_entry_param* e);
  void Forget(uint64_t node, uint64_t count) { nodes_.Forget(node, count); }
  int GetAttr(fuse_req_t req, uint64_t node, Open* open, struct stat* st);
  int SetAttr(fuse_req_t req, uint64_t node, const struct stat* attr, int toSet, Open* open,
              struct stat* st);
  int MakeDirectory(fuse_req_t req, uint64_t parent, const char* name, fuse_entry_param* e);
  int Unlink(fuse_req_t req, uint64_t parent, const char* name, bool directory);
  int Rename(fuse_req_t req, uint64_t parent, const char* name, uint64_t newParent,
             const char* newName, unsigned flags);
  // `keepData`: the kernel may keep the data it cached of the file.
  int OpenFile(fuse_req_t req, uint64_t node, int flags, Open** out, bool* keepData);
  int CreateFile(fuse_req_t req, uint64_t parent, const char* name, mode_t mode, int flags,
                 fuse_entry_param* e, Open** out);
  int Read(fuse_req_t req, Open* open, size_t size, off_t offset, std::vector<char>* out);
  int Write(fuse_req_t req, Open* open, const char* buffer, size_t size, off_t offset,
            size_t* written);
  int Flush(fuse_req_t req, Open* open);
  // close(2) of one descriptor: the opener's close flushes what the open
  // wrote since its last flush; other closes do nothing.
  int CloseDescriptor(fuse_req_t req, Open* open);
  void Release(Open* open);
  int OpenDirectory(fuse_req_t req, uint64_t node, Open** out);
  // Fills `buffer` from `offset`; with `plus` every entry carries its
  // attributes, so that the kernel needs no lookup for it.
  int ReadDirectory(fuse_req_t req, Open* open, size_t size, off_t offset, bool plus,
                    std::vector<char>* buffer);
  // Figures of the volume; the name limit is the one of folder `node`.
  int StatFs(fuse_req_t req, uint64_t node, struct statvfs* st);
  // The kernel's first request to the new mount: the file system is asked
  // for its volume's facts, as a system asks a volume it just mounted.
  void Started();
  // Drops an open whose reply did not reach the kernel.
  void Abandon(Open* open, bool countedLookup);

  bool Debug() const { return (options_->Options & (DOKAN_OPTION_DEBUG | DOKAN_OPTION_STDERR)) != 0; }
  char Letter() const { return letter_; }

 private:
  // A handle that lives for one request (lookup, stat, unlink, rename...).
  struct TempHandle {
    std::string path;
    DOKAN_FILE_INFO info;
    bool open = false;
  };
  // An open of a node lent to a request that the kernel sent without one.
  struct Borrowed {
    Open* open = nullptr;
    std::shared_lock<std::shared_mutex> hold;
  };

  int Mount();
  void Serve();
  // The end of an open (drive_closing.cpp). Cleanup and CloseFile of a
  // release run on the closing thread, in release order: a release may
  // upload a whole file, and the kernel's next request (the next file of a
  // copy) need not wait for that. A request that touches a node whose end
  // is still to run, or that changes or lists names, waits for it first, so
  // that every program sees the same order of events as with one thread.
  // A Cleanup may leave the rest of its end (DeferRestOfEnd) to the
  // finishing thread, which runs the rests and CloseFile in release order
  // while the closing thread goes on with the next end; the node counts as
  // closing until its rest has run.
  void StartCloser();
  void StopCloser();  // runs what is queued first
  void QueueClose(Open* open);
  void AwaitClosed(uint64_t node);  // 0: nothing to wait for
  void AwaitAllClosed();
  void CloserLoop();
  void FinisherLoop();
  // Queues what the flush of a close(2) left on the node to the closing
  // thread, behind the ends before it; runs it at once without one.
  void CloseLater(uint64_t node, std::function<void()> work);
  void AwaitRoomToClose();
  // Runs queued work on the closing thread; the rest it deferred, if any.
  std::function<void()> RunWork(const std::function<void()>& work);
  // Runs Cleanup (the open's lent lock held); the rest it deferred, if any.
  std::function<void()> CleanupOf(Open* open, const std::string& path);
  void CloseAfterCleanup(Open* open, const std::string& path, const std::function<void()>& rest);
  void TearDown();
  void CloseRemainingOpens();
  void StartNotifier();
  void StopNotifier();
  void NotifierLoop();
  void ApplyInvalidation(const std::string& path);

  DOKAN_FILE_INFO NewInfo(fuse_req_t req) const;
  DOKAN_FILE_INFO Begin(fuse_req_t req, Open* open) const;
  void End(Open* open, const DOKAN_FILE_INFO& info) const;
  Open* Register(std::unique_ptr<Open> open);
  Open* ListLocked(std::unique_ptr<Open> open);  // opensMutex_ held
  // Register for an open of a file: a write-only open that is the node's
  // only one writes past the kernel's page cache (directWrites), and the
  // node's next open does not keep cached data.
  Open* RegisterFileOpen(std::unique_ptr<Open> open, int flags);
  // Withdraws an open from the drive's lists; false when it was not there.
  bool Unregister(Open* open);
  void CloseOpen(Open* open);
  // With the path the open had when it was released (its node may be
  // forgotten by the time the closing thread gets to it).
  void CloseOpenAs(Open* open, const std::string& path);
  Borrowed Borrow(uint64_t node);
  NTSTATUS OpenTemp(fuse_req_t req, const std::string& path, ACCESS_MASK access, ULONG options,
                    bool directory, TempHandle* handle);
  void CloseTemp(TempHandle* handle);
  int FolderTargetErrno(fuse_req_t req, const std::string& newPath, int err);
  int QueryByPath(fuse_req_t req, const std::string& path, BY_HANDLE_FILE_INFORMATION* out);
  // Paths for requests that name something: only a name that still leads
  // to its node counts (ENOENT when it went).
  int ChildPath(uint64_t parent, const char* name, std::string* path) const;
  int NamedPathOf(uint64_t node, std::string* path) const;
  // Path for requests on an open: the last one its node had.
  int PathOf(uint64_t node, std::string* path) const;
  int InfoOfOpen(fuse_req_t req, uint64_t node, Open* open, BY_HANDLE_FILE_INFORMATION* info);
  // Attributes of a node for the kernel; a node without a name has no links.
  void StatOfNode(const BY_HANDLE_FILE_INFORMATION& info, uint64_t node, struct stat* st) const;
  // The path of an open whose node went (the teardown): the root stands in.
  std::string PathOrRoot(uint64_t node) const;
  void EntryOf(uint64_t node, const BY_HANDLE_FILE_INFORMATION& info, fuse_entry_param* e) const;
  int TakeListing(fuse_req_t req, Open* open, const std::string& path);
  size_t AddEntry(fuse_req_t req, Open* open, const WIN32_FIND_DATAW& entry, off_t next,
                  bool plus, char* out, size_t room);
  int ApplySetAttr(const std::string& path, const struct stat* attr, int toSet,
                   DOKAN_FILE_INFO* info);

  // Set once before the session starts; no lock needed.
  const char letter_;
  DOKAN_OPTIONS* const options_;
  const OperationTable table_;
  Owner owner_;
  std::string mountPoint_;
  unsigned connection_ = 0;
  fuse_session* session_ = nullptr;

  NodeTable nodes_;  // its own leaf lock

  std::mutex opensMutex_;  // guards opens_ and opensOfNode_
  std::set<Open*> opens_;  // owned; freed by Release, Abandon or the teardown
  std::unordered_multimap<uint64_t, Open*> opensOfNode_;

  // Leaf lock: nothing is called while it is held.
  std::mutex closeMutex_;  // guards the fields below up to finisher_
  std::condition_variable closeWake_, closeDone_;
  struct Closing {
    Open* open;  // null: work that the flush of a close(2) left
    uint64_t node;
    std::string path;  // the open's path at its release
    std::function<void()> work;
  };
  std::deque<Closing> closeQueue_;  // released, not yet cleaned up; flushes' work
  // The queued end or flush that may run now (closeQueue_.end(): none).
  std::deque<Closing>::iterator NextReady();
  std::unordered_multiset<uint64_t> closingNodes_;  // nodes of the queued, running and finishing ends
  bool closeStop_ = false;
  std::thread closer_;
  struct Finishing {
    Open* open;  // null: a rest that a close(2) left, no CloseFile
    uint64_t node;
    std::string path;
    std::function<void()> rest;
  };
  std::deque<Finishing> finishQueue_;  // cleaned up, waiting for their rest and CloseFile
  std::unordered_multiset<uint64_t> finishingNodes_;  // nodes of finishQueue_ and of the running rest
  bool finishStop_ = false;
  std::thread finisher_;

  std::mutex notifyMutex_;  // guards the three fields below
  std::condition_variable notifyWake_;
  std::deque<std::pair<std::string, std::shared_ptr<InvalidationTicket>>> notifyQueue_;
  bool notifyStop_ = false;
  std::thread notifier_;
  std::shared_ptr<InvalidationTicket> notifierGone_;  // finished when the notifier thread ends
};

// The FUSE operation table of the bridge (fuse_bridge.cpp).
const fuse_lowlevel_ops& BridgeOperations();
// True while this thread answers a kernel request (the closing thread
// always counts as answering one).
bool InsideRequest();
void MarkRequestThread();

// Drives served by this process, by letter (dokan_linux.cpp).
void RegisterDrive(char letter, Drive* drive);
void UnregisterDrive(char letter);

}  // namespace qb::dokan
