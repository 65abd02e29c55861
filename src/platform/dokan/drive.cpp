#include "platform/dokan/drive.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>

#include "diag/trace.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/dokan/letter_state.h"
#include "platform/dokan/mount_table.h"

namespace qb::dokan {
namespace {

constexpr const char* kTag = "K1@DokanMain: ";
constexpr int kMaxThreads = 16;
constexpr int kIdleThreads = 4;
constexpr auto kNotifierPoll = std::chrono::milliseconds(500);
constexpr auto kNotifierStopLimit = std::chrono::milliseconds(2000);

// Mount options take commas and backslashes as separators and escapes.
std::string OptionText(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == ',' || c == '\\') out.push_back('\\');
    if (static_cast<unsigned char>(c) >= 0x20) out.push_back(c);
  }
  return out;
}

std::string SubtypeOf(const std::string& fileSystemName) {
  std::string out;
  for (char c : fileSystemName)
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-')
      out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  return out.empty() ? "dokan" : out;
}

}  // namespace

Drive::Drive(char letter, DOKAN_OPTIONS* options, const DOKAN_OPERATIONS& operations)
    : letter_(letter), options_(options), table_(operations) {
  owner_.uid = getuid();
  owner_.gid = getgid();
  mountPoint_ = MountPointOf(letter).string();
}

Drive::~Drive() {
  StopCloser();
  StopNotifier();
  CloseRemainingOpens();
}

int Drive::Run() {
  const LetterInfo before = InspectLetter(letter_);
  if (before.state != LetterState::kEmpty && before.state != LetterState::kOursStale) {
    Trace(kTag, "Drive letter '%c' is taken (%d)", letter_, static_cast<int>(before.state));
    return DOKAN_MOUNT_ERROR;
  }
  std::optional<LetterClaim> claim = LetterClaim::Take(letter_);
  if (!claim) {
    Trace(kTag, "Drive letter '%c' is held by another server", letter_);
    return DOKAN_MOUNT_ERROR;
  }
  // Under the claim nobody else of ours mounts the letter; what is still
  // recorded there was left by a killed server.
  CleanStale(letter_, before);
  std::error_code ec;
  std::filesystem::create_directory(mountPoint_, ec);
  if (!std::filesystem::is_directory(mountPoint_, ec) || !std::filesystem::is_empty(mountPoint_, ec)) {
    Trace(kTag, "Mount point \"%s\" cannot be used", mountPoint_.c_str());
    return DOKAN_MOUNT_ERROR;
  }
  claim->WriteRecord({getpid(), 0, 0, options_->Options});
  const int mounted = Mount();
  if (mounted != DOKAN_SUCCESS) {
    std::filesystem::remove(mountPoint_, ec);
    return mounted;
  }
  claim->WriteRecord({getpid(), 0, connection_, options_->Options});
  RegisterDrive(letter_, this);
  StartNotifier();
  StartCloser();
  DOKAN_FILE_INFO info{};
  info.DokanOptions = options_;
  table_.Mounted(options_->MountPoint ? options_->MountPoint : "", &info);
  Serve();
  StopCloser();
  UnregisterDrive(letter_);
  StopNotifier();
  TearDown();
  table_.Unmounted(&info);
  std::filesystem::remove(mountPoint_, ec);
  return DOKAN_SUCCESS;
}

int Drive::Mount() {
  // The names of the mount table come from the file system's own answer.
  VolumeInfo volume;
  DOKAN_FILE_INFO info{};
  info.DokanOptions = options_;
  table_.Volume(&volume, &info);
  if (volume.volumeName.empty()) volume.volumeName = "DOKAN";
  std::string opts = "fsname=" + OptionText(volume.volumeName) +
                     ",subtype=" + SubtypeOf(volume.fileSystemName) + ",default_permissions";
  if (options_->Options & DOKAN_OPTION_WRITE_PROTECT) opts += ",ro";
  std::vector<std::string> words{"quillbox-drive", "-o", opts};
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  fuse_args args = FUSE_ARGS_INIT(static_cast<int>(argv.size()), argv.data());
  session_ = fuse_session_new(&args, &BridgeOperations(), sizeof(fuse_lowlevel_ops), this);
  if (!session_) {
    Trace(kTag, "fuse_session_new failed");
    return DOKAN_MOUNT_ERROR;
  }
  if (fuse_session_mount(session_, mountPoint_.c_str()) != 0) {
    Trace(kTag, "Mount of \"%s\" failed", mountPoint_.c_str());
    fuse_session_destroy(session_);
    session_ = nullptr;
    return DOKAN_MOUNT_ERROR;
  }
  if (auto m = FindMount(mountPoint_)) connection_ = m->minor;
  Trace(kTag, "Mounted '%c' at \"%s\" (connection %u)", letter_, mountPoint_.c_str(), connection_);
  return DOKAN_SUCCESS;
}

void Drive::Serve() {
  int rc;
  if (options_->SingleThread) {
    rc = fuse_session_loop(session_);
  } else {
    fuse_loop_config* config = fuse_loop_cfg_create();
    fuse_loop_cfg_set_max_threads(config, kMaxThreads);
    fuse_loop_cfg_set_idle_threads(config, kIdleThreads);
    rc = fuse_session_loop_mt(session_, config);
    fuse_loop_cfg_destroy(config);
  }
  Trace(kTag, "Session of '%c' ended: %d", letter_, rc);
}

void Drive::TearDown() {
  // Windows closes every handle of a removed drive: the file system sees
  // Cleanup and CloseFile for opens that the kernel never released.
  CloseRemainingOpens();
  if (auto m = FindMount(mountPoint_); m && m->minor == connection_)
    fuse_session_unmount(session_);
  fuse_session_destroy(session_);
  session_ = nullptr;
}

void Drive::CloseRemainingOpens() {
  std::set<Open*> left;
  {
    std::lock_guard lock(opensMutex_);
    left.swap(opens_);
    opensOfNode_.clear();
  }
  for (Open* open : left) CloseOpen(open);
}

Open* Drive::Register(std::unique_ptr<Open> open) {
  std::lock_guard lock(opensMutex_);
  return ListLocked(std::move(open));
}

Open* Drive::ListLocked(std::unique_ptr<Open> open) {
  Open* raw = open.release();
  opens_.insert(raw);
  opensOfNode_.emplace(raw->node, raw);
  return raw;
}

// A program that only writes a file (cp, tar, a shell's redirection) has
// its data copied once into pages of the kernel's cache of the drive's
// file and once more out of them to this process: half the kernel's work
// of such a write, for pages nobody reads. Without the cache (FUSE
// direct_io) the data comes straight from the writer's buffer. Only for
// the node's only open: a reader that holds the file open keeps seeing
// every write through the cache, on any kernel (kernels before 6.6 do not
// drop the cached pages that a direct write changes). Pages cached by
// earlier opens are dropped at the next open (no kept data).
Open* Drive::RegisterFileOpen(std::unique_ptr<Open> open, int flags) {
  const uint64_t node = open->node;
  Open* raw = nullptr;
  {
    std::lock_guard lock(opensMutex_);  // the test and the entry are one step
    open->directWrites = (flags & O_ACCMODE) == O_WRONLY && opensOfNode_.count(node) == 0;
    raw = ListLocked(std::move(open));
  }
  if (raw->directWrites) nodes_.ForgetContent(node);
  return raw;
}

bool Drive::Unregister(Open* open) {
  std::lock_guard lock(opensMutex_);
  if (!opens_.erase(open)) return false;
  auto [first, last] = opensOfNode_.equal_range(open->node);
  for (auto it = first; it != last; ++it)
    if (it->second == open) {
      opensOfNode_.erase(it);
      break;
    }
  return true;
}

// Cleanup and CloseFile of an open that nobody can find any more; a
// request that borrowed it finishes its call first.
void Drive::CloseOpen(Open* open) { CloseOpenAs(open, PathOrRoot(open->node)); }

void Drive::CloseOpenAs(Open* open, const std::string& path) {
  // A rest that the Cleanup left runs at once here: the end is whole.
  CloseAfterCleanup(open, path, CleanupOf(open, path));
}

Drive::Borrowed Drive::Borrow(uint64_t node) {
  std::lock_guard lock(opensMutex_);
  auto it = opensOfNode_.find(node);
  if (it == opensOfNode_.end()) return {};
  // Listed opens are never held exclusively: CloseOpen runs after
  // Unregister, so this never waits.
  return {it->second, std::shared_lock(it->second->lent)};
}

// ---------------------------------------------------------------------------
// Invalidation

void Drive::StartNotifier() {
  notifyStop_ = false;
  notifierGone_ = std::make_shared<InvalidationTicket>();
  auto gone = notifierGone_;
  notifier_ = std::thread([this, gone] {
    NotifierLoop();
    std::lock_guard lock(gone->mutex);
    gone->finished = true;
    gone->done.notify_all();
  });
}

void Drive::StopNotifier() {
  if (!notifier_.joinable()) return;
  {
    std::lock_guard lock(notifyMutex_);
    notifyStop_ = true;
  }
  notifyWake_.notify_all();
  std::unique_lock lock(notifierGone_->mutex);
  if (!notifierGone_->done.wait_for(lock, kNotifierStopLimit,
                                    [&] { return notifierGone_->finished; })) {
    // Only a notification that the kernel holds back can keep it: ending
    // the connection makes the kernel give it back at once.
    Trace(kTag, "Notifier of '%c' does not stop; ending connection %u", letter_, connection_);
    AbortConnection(connection_);
  }
  lock.unlock();
  notifier_.join();
}

std::shared_ptr<InvalidationTicket> Drive::QueueInvalidation(const std::string& path) {
  auto ticket = std::make_shared<InvalidationTicket>();
  {
    std::lock_guard lock(notifyMutex_);
    if (notifyStop_) return nullptr;
    notifyQueue_.emplace_back(path, ticket);
  }
  notifyWake_.notify_one();
  return ticket;
}

void Drive::NotifierLoop() {
  std::unique_lock lock(notifyMutex_);
  while (!notifyStop_) {
    if (notifyQueue_.empty()) {
      notifyWake_.wait_for(lock, kNotifierPoll);
      continue;
    }
    auto [path, ticket] = std::move(notifyQueue_.front());
    notifyQueue_.pop_front();
    lock.unlock();
    ApplyInvalidation(path);
    {
      std::lock_guard done(ticket->mutex);
      ticket->finished = true;
    }
    ticket->done.notify_all();
    lock.lock();
  }
  for (auto& [path, ticket] : notifyQueue_) {
    std::lock_guard done(ticket->mutex);
    ticket->done.notify_all();  // never finished: the drive is going
  }
  notifyQueue_.clear();
}

void Drive::ApplyInvalidation(const std::string& path) {
  // Walk the known nodes down the path; what the kernel never saw needs
  // nothing.
  uint64_t parent = NodeTable::kRoot, node = NodeTable::kRoot;
  std::string name;
  size_t pos = 1;
  while (pos <= path.size() && node != 0) {
    const size_t next = std::min(path.find('\\', pos), path.size());
    if (next == pos) break;
    name = path.substr(pos, next - pos);
    parent = node;
    node = nodes_.Find(parent, name);
    pos = next + 1;
  }
  if (name.empty()) {
    fuse_lowlevel_notify_inval_inode(session_, NodeTable::kRoot, 0, 0);
    return;
  }
  if (node == 0 && pos <= path.size()) return;  // a folder above it is unknown
  fuse_lowlevel_notify_inval_entry(session_, parent, name.c_str(), name.size());
  if (node) nodes_.ForgetContent(node);
  if (node) fuse_lowlevel_notify_inval_inode(session_, node, 0, 0);
  fuse_lowlevel_notify_inval_inode(session_, parent, 0, 0);
}

}  // namespace qb::dokan
