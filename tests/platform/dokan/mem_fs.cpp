#include "mem_fs.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <sstream>

#include "common/strings.h"
#include "platform/dokan/dokan_linux.h"
#include "platform/system/clock.h"

namespace qbtest {

struct MemFs::Node {
  bool dir = false;
  std::string name;
  DWORD attributes = 0;
  FILETIME created, accessed, written;
  std::string data;
  uint32_t index = 0;
  std::map<std::string, std::shared_ptr<Node>> children;  // by upper-case name
  std::weak_ptr<Node> parent;
};

struct MemFs::Handle {
  std::shared_ptr<Node> node;
};

namespace {

using Node = MemFs::Node;
std::atomic<uint32_t> gNextIndex{1};

MemFs* FsOf(PDOKAN_FILE_INFO info) {
  return reinterpret_cast<MemFs*>(info->DokanOptions->GlobalContext);
}

std::shared_ptr<Node> NodeOf(PDOKAN_FILE_INFO info) {
  auto* h = reinterpret_cast<MemFs::Handle*>(info->Context);
  return h ? h->node : nullptr;
}

std::string Key(const std::string& name) { return qb::ToUpperAZ(name); }

std::vector<std::string> Split(const std::string& path) {
  std::vector<std::string> parts;
  std::string cur;
  for (char c : path) {
    if (c == '\\') {
      if (!cur.empty()) parts.push_back(cur);
      cur.clear();
    } else {
      cur.push_back(c);
    }
  }
  if (!cur.empty()) parts.push_back(cur);
  return parts;
}

std::pair<std::string, std::string> ParentAndName(const std::string& path) {
  const size_t cut = path.rfind('\\');
  if (cut == std::string::npos || cut == 0) return {"\\", path.substr(cut == 0 ? 1 : 0)};
  return {path.substr(0, cut), path.substr(cut + 1)};
}

std::shared_ptr<Node> MakeNode(bool dir, const std::string& name, DWORD attributes) {
  auto n = std::make_shared<Node>();
  n->dir = dir;
  n->name = name;
  n->attributes = (attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN |
                                 FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE)) |
                  (dir ? FILE_ATTRIBUTE_DIRECTORY : 0);
  n->created = n->accessed = n->written = qb::sys::GetSystemTimeAsFileTime();
  n->index = gNextIndex++;
  return n;
}

std::string Hex(const char* label, uint32_t v) {
  char b[40];
  snprintf(b, sizeof b, "%s=0x%x", label, v);
  return b;
}

NTSTATUS Create(LPCWSTR FileName, PDOKAN_IO_SECURITY_CONTEXT, ACCESS_MASK DesiredAccess,
                ULONG FileAttributes, ULONG ShareAccess, ULONG CreateDisposition,
                ULONG CreateOptions, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  ACCESS_MASK access = 0;
  DWORD flags = 0, disposition = 0;
  DokanMapKernelToUserCreateFileFlags(DesiredAccess, FileAttributes, CreateOptions,
                                      CreateDisposition, &access, &flags, &disposition);
  fs->Record("ZwCreateFile", FileName,
             "disp=" + std::to_string(CreateDisposition) + " " + Hex("opts", CreateOptions) + " " +
                 Hex("access", DesiredAccess) + " " + Hex("share", ShareAccess) + " " +
                 Hex("attrs", FileAttributes) + " win32disp=" + std::to_string(disposition) +
                 " " + Hex("win32access", access) + " " + Hex("win32flags", flags) +
                 " dir=" + std::to_string(info->IsDirectory) + " pid=" +
                 std::to_string(info->ProcessId) + " append=" +
                 std::to_string(info->WriteToEndOfFile),
             info);
  std::lock_guard lock(fs->mutex_);
  const auto [parentPath, name] = ParentAndName(FileName);
  std::shared_ptr<Node> node = fs->Resolve(FileName);
  if (node && disposition == OPEN_EXISTING && fs->Hidden(FileName)) node = nullptr;
  const bool writes = access & (GENERIC_WRITE | FILE_WRITE_DATA | FILE_APPEND_DATA);
  NTSTATUS status = STATUS_SUCCESS;
  if (node) {
    if (node->dir && (CreateOptions & FILE_NON_DIRECTORY_FILE)) return STATUS_FILE_IS_A_DIRECTORY;
    if (!node->dir && (CreateOptions & FILE_DIRECTORY_FILE)) return STATUS_NOT_A_DIRECTORY;
    if (disposition == CREATE_NEW) return STATUS_OBJECT_NAME_COLLISION;
    if (!node->dir && (node->attributes & FILE_ATTRIBUTE_READONLY) &&
        (writes || disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING))
      return STATUS_ACCESS_DENIED;
    if (!node->dir && (disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING))
      node->data.clear();
    if (disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS)
      status = STATUS_OBJECT_NAME_COLLISION;
  } else {
    if (disposition == OPEN_EXISTING || disposition == TRUNCATE_EXISTING)
      return fs->Resolve(parentPath) ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
    std::shared_ptr<Node> parent = fs->Resolve(parentPath);
    if (!parent || !parent->dir) return STATUS_OBJECT_PATH_NOT_FOUND;
    node = MakeNode((CreateOptions & FILE_DIRECTORY_FILE) != 0, name, FileAttributes);
    node->parent = parent;
    parent->children[Key(name)] = node;
  }
  info->IsDirectory = node->dir ? 1 : 0;
  info->Context = reinterpret_cast<ULONG64>(new MemFs::Handle{node});
  return status;
}

// A rest that waits until the test lets it go.
void LeaveHeldRest(MemFs* fs, const std::string& path, PDOKAN_FILE_INFO info) {
  auto rest = [fs, path, info] {
    fs->WaitWhileEndHeld(path);
    fs->Record("Rest", path.c_str(), "", info);
  };
  if (!qb::dokan::DeferRestOfEnd(rest)) rest();
}

void Cleanup(LPCWSTR FileName, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("Cleanup", FileName, "", info);
  if (fs->EndHeld(FileName)) LeaveHeldRest(fs, FileName, info);
  std::lock_guard lock(fs->mutex_);
  std::shared_ptr<Node> node = NodeOf(info);
  if (!node || !info->DeleteOnClose) return;
  if (auto parent = node->parent.lock()) {
    auto it = parent->children.find(Key(node->name));
    if (it != parent->children.end() && it->second == node) parent->children.erase(it);
  }
}

void CloseFile(LPCWSTR FileName, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("CloseFile", FileName, "", info);
  delete reinterpret_cast<MemFs::Handle*>(info->Context);
  info->Context = 0;
}

NTSTATUS ReadFile(LPCWSTR FileName, LPVOID Buffer, DWORD Length, LPDWORD Read, LONGLONG Offset,
                  PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("ReadFile", FileName, "off=" + std::to_string(Offset) + " len=" + std::to_string(Length), info);
  if (fs->Blocked(FileName)) {
    fs->WaitWhileBlocked(FileName);
    fs->Record("ReadReleased", FileName, "", info);
  }
  std::lock_guard lock(fs->mutex_);
  std::shared_ptr<Node> node = NodeOf(info);
  if (!node || node->dir) return STATUS_INVALID_HANDLE;
  *Read = 0;
  if (Offset >= static_cast<LONGLONG>(node->data.size())) return STATUS_END_OF_FILE;
  const size_t n = std::min<size_t>(Length, node->data.size() - static_cast<size_t>(Offset));
  memcpy(Buffer, node->data.data() + Offset, n);
  *Read = static_cast<DWORD>(n);
  return STATUS_SUCCESS;
}

NTSTATUS WriteFile(LPCWSTR FileName, LPCVOID Buffer, DWORD Length, LPDWORD Written,
                   LONGLONG Offset, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("WriteFile", FileName,
             "off=" + std::to_string(Offset) + " len=" + std::to_string(Length) +
                 " eof=" + std::to_string(info->WriteToEndOfFile),
             info);
  std::lock_guard lock(fs->mutex_);
  std::shared_ptr<Node> node = NodeOf(info);
  if (!node || node->dir) return STATUS_INVALID_HANDLE;
  const size_t at = info->WriteToEndOfFile ? node->data.size() : static_cast<size_t>(Offset);
  if (node->data.size() < at + Length) node->data.resize(at + Length);
  memcpy(node->data.data() + at, Buffer, Length);
  *Written = Length;
  node->written = qb::sys::GetSystemTimeAsFileTime();
  return STATUS_SUCCESS;
}

NTSTATUS Flush(LPCWSTR FileName, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("FlushFileBuffers", FileName, "", info);
  if (fs->FlushFails(FileName)) return STATUS_DISK_FULL;
  if (fs->FlushHeld(FileName)) LeaveHeldRest(fs, FileName, info);
  return STATUS_SUCCESS;
}

void Describe(const Node& n, BY_HANDLE_FILE_INFORMATION* out) {
  out->dwFileAttributes = n.attributes | (n.dir ? 0 : FILE_ATTRIBUTE_ARCHIVE);
  out->ftCreationTime = n.created;
  out->ftLastAccessTime = n.accessed;
  out->ftLastWriteTime = n.written;
  out->dwVolumeSerialNumber = 0x600DCAFE;
  out->nFileSizeHigh = static_cast<DWORD>(uint64_t{n.data.size()} >> 32);
  out->nFileSizeLow = static_cast<DWORD>(n.data.size());
  out->nNumberOfLinks = 1;
  out->nFileIndexLow = n.index;
}

NTSTATUS GetInfo(LPCWSTR FileName, LPBY_HANDLE_FILE_INFORMATION out, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("GetFileInformation", FileName, "", info);
  std::lock_guard lock(fs->mutex_);
  std::shared_ptr<Node> node = NodeOf(info);
  if (!node) node = fs->Resolve(FileName);
  if (!node) return STATUS_OBJECT_NAME_NOT_FOUND;
  Describe(*node, out);
  return STATUS_SUCCESS;
}

NTSTATUS FindFiles(LPCWSTR PathName, PFillFindData fill, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("FindFiles", PathName, "", info);
  std::vector<WIN32_FIND_DATAW> entries;
  {
    std::lock_guard lock(fs->mutex_);
    std::shared_ptr<Node> dir = NodeOf(info);
    if (!dir || !dir->dir) return STATUS_NOT_A_DIRECTORY;
    if (std::strcmp(PathName, "\\") != 0) {
      WIN32_FIND_DATAW dot;
      dot.cFileName = ".";
      dot.dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY;
      entries.push_back(dot);
      dot.cFileName = "..";
      entries.push_back(dot);
    }
    for (auto& [key, n] : dir->children) {
      WIN32_FIND_DATAW d;
      BY_HANDLE_FILE_INFORMATION b;
      Describe(*n, &b);
      d.dwFileAttributes = b.dwFileAttributes;
      d.ftCreationTime = b.ftCreationTime;
      d.ftLastAccessTime = b.ftLastAccessTime;
      d.ftLastWriteTime = b.ftLastWriteTime;
      d.SetFileSize(static_cast<int64_t>(n->data.size()));
      d.cFileName = n->name;
      entries.push_back(d);
    }
  }
  for (WIN32_FIND_DATAW& d : entries) fill(&d, info);
  return STATUS_SUCCESS;
}

NTSTATUS SetAttributes(LPCWSTR FileName, DWORD attributes, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("SetFileAttributes", FileName, Hex("attrs", attributes), info);
  std::lock_guard lock(fs->mutex_);
  std::shared_ptr<Node> node = NodeOf(info);
  if (!node) return STATUS_INVALID_HANDLE;
  if (attributes == FILE_ATTRIBUTE_NORMAL) attributes = 0;
  node->attributes = (attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN |
                                    FILE_ATTRIBUTE_SYSTEM)) |
                     (node->dir ? FILE_ATTRIBUTE_DIRECTORY : 0);
  return STATUS_SUCCESS;
}

NTSTATUS SetTime(LPCWSTR FileName, const FILETIME* c, const FILETIME* a, const FILETIME* w,
                 PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  std::string detail = std::string("c=") + (c ? std::to_string(c->Value()) : "-") +
                       " a=" + (a ? std::to_string(a->Value()) : "-") +
                       " w=" + (w ? std::to_string(w->Value()) : "-");
  fs->Record("SetFileTime", FileName, detail, info);
  std::lock_guard lock(fs->mutex_);
  std::shared_ptr<Node> node = NodeOf(info);
  if (!node) return STATUS_INVALID_HANDLE;
  if (c) node->created = *c;
  if (a) node->accessed = *a;
  if (w) node->written = *w;
  return STATUS_SUCCESS;
}

NTSTATUS DeleteFile(LPCWSTR FileName, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("DeleteFile", FileName, "", info);
  std::lock_guard lock(fs->mutex_);
  std::shared_ptr<Node> node = NodeOf(info);
  if (!node) return STATUS_OBJECT_NAME_NOT_FOUND;
  if (node->dir || (node->attributes & FILE_ATTRIBUTE_READONLY)) return STATUS_ACCESS_DENIED;
  return STATUS_SUCCESS;
}

NTSTATUS DeleteDirectory(LPCWSTR FileName, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("DeleteDirectory", FileName, "", info);
  std::lock_guard lock(fs->mutex_);
  std::shared_ptr<Node> node = NodeOf(info);
  if (!node || !node->dir) return STATUS_NOT_A_DIRECTORY;
  if (!node->children.empty()) return STATUS_DIRECTORY_NOT_EMPTY;
  return STATUS_SUCCESS;
}

NTSTATUS MoveFile(LPCWSTR FileName, LPCWSTR NewFileName, BOOL replace, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("MoveFile", FileName, std::string(NewFileName) + " replace=" + std::to_string(replace), info);
  std::lock_guard lock(fs->mutex_);
  std::shared_ptr<Node> node = NodeOf(info);
  if (!node) return STATUS_OBJECT_NAME_NOT_FOUND;
  const auto [parentPath, name] = ParentAndName(NewFileName);
  std::shared_ptr<Node> parent = fs->Resolve(parentPath);
  if (!parent || !parent->dir) return STATUS_OBJECT_PATH_NOT_FOUND;
  for (auto p = parent; p; p = p->parent.lock())
    if (p == node) return STATUS_INVALID_PARAMETER;  // into its own subtree
  std::shared_ptr<Node> target = fs->Resolve(NewFileName);
  if (target && target != node) {
    if (!replace) return STATUS_OBJECT_NAME_COLLISION;
    if (target->dir) return STATUS_ACCESS_DENIED;
  }
  auto old = node->parent.lock();
  old->children.erase(Key(node->name));
  node->name = name;
  node->parent = parent;
  parent->children[Key(name)] = node;
  return STATUS_SUCCESS;
}

NTSTATUS SetEndOfFile(LPCWSTR FileName, LONGLONG size, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("SetEndOfFile", FileName, "size=" + std::to_string(size), info);
  std::lock_guard lock(fs->mutex_);
  std::shared_ptr<Node> node = NodeOf(info);
  if (!node || node->dir) return STATUS_INVALID_HANDLE;
  node->data.resize(static_cast<size_t>(size));
  return STATUS_SUCCESS;
}

NTSTATUS SetAllocationSize(LPCWSTR FileName, LONGLONG size, PDOKAN_FILE_INFO info) {
  MemFs* fs = FsOf(info);
  fs->Record("SetAllocationSize", FileName, "size=" + std::to_string(size), info);
  std::lock_guard lock(fs->mutex_);
  std::shared_ptr<Node> node = NodeOf(info);
  if (!node || node->dir) return STATUS_INVALID_HANDLE;
  if (static_cast<size_t>(size) < node->data.size()) node->data.resize(static_cast<size_t>(size));
  return STATUS_SUCCESS;
}

NTSTATUS DiskFree(PULONGLONG available, PULONGLONG total, PULONGLONG totalFree,
                  PDOKAN_FILE_INFO info) {
  FsOf(info)->Record("GetDiskFreeSpace", "", "", info);
  *total = 1ull << 30;
  *available = *totalFree = (1ull << 30) - (1ull << 20);
  return STATUS_SUCCESS;
}

NTSTATUS Volume(LPWSTR name, DWORD nameSize, LPDWORD serial, LPDWORD maxComponent, LPDWORD flags,
                LPWSTR fsName, DWORD fsNameSize, PDOKAN_FILE_INFO info) {
  FsOf(info)->Record("GetVolumeInformation", "", "", info);
  if (name && nameSize > 12) strcpy(name, "Test Volume");
  if (fsName && fsNameSize > 6) strcpy(fsName, "MEMFS");
  if (serial) *serial = 0x600DCAFE;
  if (maxComponent) *maxComponent = 255;
  if (flags) *flags = FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK;
  return STATUS_SUCCESS;
}

NTSTATUS Mounted(LPCWSTR MountPoint, PDOKAN_FILE_INFO info) {
  FsOf(info)->Record("Mounted", MountPoint, "", info);
  return STATUS_SUCCESS;
}

NTSTATUS Unmounted(PDOKAN_FILE_INFO info) {
  FsOf(info)->Record("Unmounted", "", "", info);
  return STATUS_SUCCESS;
}

}  // namespace

MemFs::MemFs() : root_(MakeNode(true, "", 0)) {}
MemFs::~MemFs() = default;

DOKAN_OPERATIONS MemFs::Operations() {
  DOKAN_OPERATIONS ops{};
  ops.ZwCreateFile = Create;
  ops.Cleanup = qbtest::Cleanup;
  ops.CloseFile = qbtest::CloseFile;
  ops.ReadFile = qbtest::ReadFile;
  ops.WriteFile = qbtest::WriteFile;
  ops.FlushFileBuffers = Flush;
  ops.GetFileInformation = GetInfo;
  ops.FindFiles = qbtest::FindFiles;
  ops.SetFileAttributes = SetAttributes;
  ops.SetFileTime = SetTime;
  ops.DeleteFile = qbtest::DeleteFile;
  ops.DeleteDirectory = qbtest::DeleteDirectory;
  ops.MoveFile = qbtest::MoveFile;
  ops.SetEndOfFile = qbtest::SetEndOfFile;
  ops.SetAllocationSize = qbtest::SetAllocationSize;
  ops.GetDiskFreeSpace = DiskFree;
  ops.GetVolumeInformation = Volume;
  ops.Mounted = qbtest::Mounted;
  ops.Unmounted = qbtest::Unmounted;
  return ops;
}

void MemFs::FillOptions(DOKAN_OPTIONS* options, const char* mountPoint, bool singleThread) {
  *options = DOKAN_OPTIONS{};
  options->Version = DOKAN_VERSION;
  options->SingleThread = singleThread ? 1 : 0;
  options->Options = DOKAN_OPTION_REMOVABLE;
  options->MountPoint = mountPoint;
  options->GlobalContext = reinterpret_cast<ULONG64>(this);
}

void MemFs::Record(const char* op, LPCWSTR path, std::string detail, PDOKAN_FILE_INFO info) {
  FsCall call{op, path ? path : "", std::move(detail), info ? info->DeleteOnClose : 0};
  std::function<void(const FsCall&)> sink;
  {
    std::lock_guard lock(callsMutex_);
    calls_.push_back(call);
    sink = sink_;
  }
  if (sink) sink(call);
}

std::vector<FsCall> MemFs::Calls() const {
  std::lock_guard lock(callsMutex_);
  return calls_;
}

void MemFs::ClearCalls() {
  std::lock_guard lock(callsMutex_);
  calls_.clear();
}

void MemFs::SetSink(std::function<void(const FsCall&)> sink) {
  std::lock_guard lock(callsMutex_);
  sink_ = std::move(sink);
}

std::shared_ptr<MemFs::Node> MemFs::Resolve(const std::string& path) const {
  std::shared_ptr<Node> cur = root_;
  for (const std::string& part : Split(path)) {
    if (!cur->dir) return nullptr;
    auto it = cur->children.find(Key(part));
    if (it == cur->children.end()) return nullptr;
    cur = it->second;
  }
  return cur;
}

bool MemFs::PutFile(const std::string& path, const std::string& content) {
  std::lock_guard lock(mutex_);
  const auto [parentPath, name] = ParentAndName(path);
  std::shared_ptr<Node> parent = Resolve(parentPath);
  if (!parent || !parent->dir) return false;
  std::shared_ptr<Node> node = Resolve(path);
  if (!node) {
    node = MakeNode(false, name, 0);
    node->parent = parent;
    parent->children[Key(name)] = node;
  }
  node->data = content;
  node->written = qb::sys::GetSystemTimeAsFileTime();
  return true;
}

bool MemFs::Remove(const std::string& path) {
  std::lock_guard lock(mutex_);
  std::shared_ptr<Node> node = Resolve(path);
  if (!node || node == root_) return false;
  node->parent.lock()->children.erase(Key(node->name));
  return true;
}

bool MemFs::Read(const std::string& path, std::string* content) const {
  std::lock_guard lock(mutex_);
  std::shared_ptr<Node> node = Resolve(path);
  if (!node || node->dir) return false;
  *content = node->data;
  return true;
}

bool MemFs::Exists(const std::string& path) const {
  std::lock_guard lock(mutex_);
  return Resolve(path) != nullptr;
}

DWORD MemFs::Attributes(const std::string& path) const {
  std::lock_guard lock(mutex_);
  std::shared_ptr<Node> node = Resolve(path);
  return node ? node->attributes : 0;
}

void MemFs::HideFromOpens(const std::string& path) {
  std::lock_guard lock(mutex_);
  hidden_ = qb::ToUpperAZ(path);
}

bool MemFs::Hidden(const std::string& path) const {
  std::lock_guard lock(mutex_);
  return !hidden_.empty() && hidden_ == qb::ToUpperAZ(path);
}

void MemFs::BlockReadsOf(const std::string& path) {
  std::lock_guard lock(gateMutex_);
  blocked_ = path;
}

void MemFs::ReleaseReads() {
  {
    std::lock_guard lock(gateMutex_);
    blocked_.clear();
  }
  gateOpen_.notify_all();
}

bool MemFs::Blocked(const std::string& path) {
  std::lock_guard lock(gateMutex_);
  return blocked_ == path;
}

void MemFs::WaitWhileBlocked(const std::string& path) {
  std::unique_lock lock(gateMutex_);
  gateOpen_.wait_for(lock, std::chrono::seconds(10), [&] { return blocked_ != path; });
}

void MemFs::WaitWhileEndHeld(const std::string& path) {
  std::unique_lock lock(gateMutex_);
  gateOpen_.wait_for(lock, std::chrono::seconds(10), [&] { return held_ != path; });
}

void MemFs::HoldEndsOf(const std::string& path) {
  std::lock_guard lock(gateMutex_);
  held_ = path;
  holdFlushes_ = false;
}

void MemFs::HoldFlushesOf(const std::string& path) {
  std::lock_guard lock(gateMutex_);
  held_ = path;
  holdFlushes_ = true;
}

bool MemFs::FlushHeld(const std::string& path) {
  std::lock_guard lock(gateMutex_);
  return holdFlushes_ && held_ == path;
}

void MemFs::FailFlushesOf(const std::string& path) {
  std::lock_guard lock(gateMutex_);
  failingFlush_ = path;
}

bool MemFs::FlushFails(const std::string& path) {
  std::lock_guard lock(gateMutex_);
  return failingFlush_ == path;
}

void MemFs::ReleaseEnds() {
  {
    std::lock_guard lock(gateMutex_);
    held_.clear();
  }
  gateOpen_.notify_all();
}

bool MemFs::EndHeld(const std::string& path) {
  std::lock_guard lock(gateMutex_);
  return !holdFlushes_ && held_ == path;
}

std::string CallLine(const FsCall& c) {
  return c.op + "|" + c.path + "|" + c.detail + "|" + std::to_string(c.deleteOnClose);
}

bool ParseCallLine(const std::string& line, FsCall* c) {
  std::vector<std::string> parts;
  std::stringstream in(line);
  std::string part;
  while (std::getline(in, part, '|')) parts.push_back(part);
  if (parts.size() != 4) return false;
  *c = FsCall{parts[0], parts[1], parts[2], std::atoi(parts[3].c_str())};
  return true;
}

}  // namespace qbtest
