// The kernel's requests, each answered exactly once: translate, let the
// drive call the operation table, reply. No C++ exception leaves a callback.
#include <sys/statvfs.h>

#include <cerrno>

#include "diag/trace.h"
#include "platform/dokan/drive.h"

namespace qb::dokan {
namespace {

constexpr const char* kTag = "K2@Request: ";
thread_local bool tInsideRequest = false;

Drive& DriveOf(fuse_req_t req) { return *static_cast<Drive*>(fuse_req_userdata(req)); }
Open* OpenOf(fuse_file_info* fi) { return fi ? reinterpret_cast<Open*>(fi->fh) : nullptr; }

// Runs one request; an exception becomes EIO when nothing was answered yet.
template <typename F>
void Serve(fuse_req_t req, const char* what, uint64_t node, F&& body) {
  tInsideRequest = true;
  bool replied = false;
  try {
    if (DriveOf(req).Debug()) Trace(kTag, "%s %llu", what, static_cast<unsigned long long>(node));
    body(replied);
  } catch (...) {
    Trace(kTag, "%s: exception", what);
    if (!replied) fuse_reply_err(req, EIO);
  }
  tInsideRequest = false;
}

void OnInit(void* drive, fuse_conn_info* conn) {
  conn->want |= FUSE_CAP_ATOMIC_O_TRUNC;
  if (conn->capable & FUSE_CAP_READDIRPLUS) {
    conn->want |= FUSE_CAP_READDIRPLUS;
    conn->want &= ~FUSE_CAP_READDIRPLUS_AUTO;  // every listing carries attributes
  }
  conn->want &= ~FUSE_CAP_WRITEBACK_CACHE;  // every write reaches WriteFile
  // The kernel drops a file's cached data by itself when the attributes it
  // is given show another size or time.
  if (conn->capable & FUSE_CAP_AUTO_INVAL_DATA) conn->want |= FUSE_CAP_AUTO_INVAL_DATA;
  Trace("K2@Init: ", "max_write=%u max_read=%u max_readahead=%u", conn->max_write, conn->max_read,
        conn->max_readahead);
  static_cast<Drive*>(drive)->Started();
}

void OnLookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
  Serve(req, "lookup", parent, [&](bool& replied) {
    fuse_entry_param e{};
    const int err = DriveOf(req).Lookup(req, parent, name, &e);
    replied = true;
    err ? fuse_reply_err(req, err) : fuse_reply_entry(req, &e);
  });
}

void OnForget(fuse_req_t req, fuse_ino_t ino, uint64_t nlookup) {
  Serve(req, "forget", ino, [&](bool& replied) {
    DriveOf(req).Forget(ino, nlookup);
    replied = true;
    fuse_reply_none(req);
  });
}

void OnForgetMulti(fuse_req_t req, size_t count, fuse_forget_data* forgets) {
  Serve(req, "forget_multi", 0, [&](bool& replied) {
    for (size_t i = 0; i < count; ++i) DriveOf(req).Forget(forgets[i].ino, forgets[i].nlookup);
    replied = true;
    fuse_reply_none(req);
  });
}

void OnGetAttr(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  Serve(req, "getattr", ino, [&](bool& replied) {
    struct stat st{};
    const int err = DriveOf(req).GetAttr(req, ino, OpenOf(fi), &st);
    replied = true;
    err ? fuse_reply_err(req, err) : fuse_reply_attr(req, &st, 1.0);
  });
}

void OnSetAttr(fuse_req_t req, fuse_ino_t ino, struct stat* attr, int toSet, fuse_file_info* fi) {
  Serve(req, "setattr", ino, [&](bool& replied) {
    struct stat st{};
    const int err = DriveOf(req).SetAttr(req, ino, attr, toSet, OpenOf(fi), &st);
    replied = true;
    err ? fuse_reply_err(req, err) : fuse_reply_attr(req, &st, 1.0);
  });
}

void OnMkdir(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t) {
  Serve(req, "mkdir", parent, [&](bool& replied) {
    fuse_entry_param e{};
    const int err = DriveOf(req).MakeDirectory(req, parent, name, &e);
    replied = true;
    err ? fuse_reply_err(req, err) : fuse_reply_entry(req, &e);
  });
}

void OnUnlink(fuse_req_t req, fuse_ino_t parent, const char* name) {
  Serve(req, "unlink", parent, [&](bool& replied) {
    const int err = DriveOf(req).Unlink(req, parent, name, false);
    replied = true;
    fuse_reply_err(req, err);
  });
}

void OnRmdir(fuse_req_t req, fuse_ino_t parent, const char* name) {
  Serve(req, "rmdir", parent, [&](bool& replied) {
    const int err = DriveOf(req).Unlink(req, parent, name, true);
    replied = true;
    fuse_reply_err(req, err);
  });
}

void OnRename(fuse_req_t req, fuse_ino_t parent, const char* name, fuse_ino_t newParent,
              const char* newName, unsigned flags) {
  Serve(req, "rename", parent, [&](bool& replied) {
    const int err = DriveOf(req).Rename(req, parent, name, newParent, newName, flags);
    replied = true;
    fuse_reply_err(req, err);
  });
}

// Links, symbolic links and special files have no place on the drive.
void OnMknod(fuse_req_t req, fuse_ino_t, const char*, mode_t, dev_t) { fuse_reply_err(req, EPERM); }
void OnSymlink(fuse_req_t req, const char*, fuse_ino_t, const char*) { fuse_reply_err(req, EPERM); }
void OnLink(fuse_req_t req, fuse_ino_t, fuse_ino_t, const char*) { fuse_reply_err(req, EPERM); }

void OnOpen(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  Serve(req, "open", ino, [&](bool& replied) {
    Open* open = nullptr;
    bool keepData = false;
    Drive& drive = DriveOf(req);  // a reply frees the request, also when it fails
    const int err = drive.OpenFile(req, ino, fi->flags, &open, &keepData);
    replied = true;
    if (err) {
      fuse_reply_err(req, err);
      return;
    }
    fi->fh = reinterpret_cast<uint64_t>(open);
    fi->keep_cache = keepData ? 1 : 0;
    fi->direct_io = open->directWrites ? 1 : 0;
    if (fuse_reply_open(req, fi) != 0) drive.Abandon(open, false);
  });
}

void OnCreate(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* fi) {
  Serve(req, "create", parent, [&](bool& replied) {
    Open* open = nullptr;
    fuse_entry_param e{};
    Drive& drive = DriveOf(req);  // a reply frees the request, also when it fails
    const int err = drive.CreateFile(req, parent, name, mode, fi->flags, &e, &open);
    replied = true;
    if (err) {
      fuse_reply_err(req, err);
      return;
    }
    fi->fh = reinterpret_cast<uint64_t>(open);
    fi->keep_cache = 0;
    fi->direct_io = open->directWrites ? 1 : 0;
    if (fuse_reply_create(req, &e, fi) != 0) drive.Abandon(open, true);
  });
}

void OnRead(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info* fi) {
  Serve(req, "read", ino, [&](bool& replied) {
    std::vector<char> data;
    const int err = DriveOf(req).Read(req, OpenOf(fi), size, off, &data);
    replied = true;
    err ? fuse_reply_err(req, err) : fuse_reply_buf(req, data.data(), data.size());
  });
}

void OnWrite(fuse_req_t req, fuse_ino_t ino, const char* buf, size_t size, off_t off,
             fuse_file_info* fi) {
  Serve(req, "write", ino, [&](bool& replied) {
    size_t written = 0;
    const int err = DriveOf(req).Write(req, OpenOf(fi), buf, size, off, &written);
    replied = true;
    err ? fuse_reply_err(req, err) : fuse_reply_write(req, written);
  });
}

// close(2) of one descriptor: Windows has no call for it and ends the
// handle with the last descriptor (release), which the kernel sends after
// close(2) has returned. The opener's close of an open that wrote hands
// the data to the file system here (FlushFileBuffers), before close(2)
// returns; what it answers is close(2)'s result.
void OnFlush(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  Serve(req, "flush", ino, [&](bool& replied) {
    const int err = DriveOf(req).CloseDescriptor(req, OpenOf(fi));
    replied = true;
    fuse_reply_err(req, err);
  });
}

void OnFsync(fuse_req_t req, fuse_ino_t ino, int, fuse_file_info* fi) {
  Serve(req, "fsync", ino, [&](bool& replied) {
    const int err = DriveOf(req).Flush(req, OpenOf(fi));
    replied = true;
    fuse_reply_err(req, err);
  });
}

void OnRelease(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  Serve(req, "release", ino, [&](bool& replied) {
    DriveOf(req).Release(OpenOf(fi));
    replied = true;
    fuse_reply_err(req, 0);
  });
}

void OnOpenDir(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
  Serve(req, "opendir", ino, [&](bool& replied) {
    Open* open = nullptr;
    Drive& drive = DriveOf(req);  // a reply frees the request, also when it fails
    const int err = drive.OpenDirectory(req, ino, &open);
    replied = true;
    if (err) {
      fuse_reply_err(req, err);
      return;
    }
    fi->fh = reinterpret_cast<uint64_t>(open);
    if (fuse_reply_open(req, fi) != 0) drive.Abandon(open, false);
  });
}

void ReadDir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info* fi, bool plus) {
  Serve(req, plus ? "readdirplus" : "readdir", ino, [&](bool& replied) {
    std::vector<char> buffer;
    const int err = DriveOf(req).ReadDirectory(req, OpenOf(fi), size, off, plus, &buffer);
    replied = true;
    err ? fuse_reply_err(req, err) : fuse_reply_buf(req, buffer.data(), buffer.size());
  });
}

void OnReadDir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info* fi) {
  ReadDir(req, ino, size, off, fi, false);
}

void OnReadDirPlus(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info* fi) {
  ReadDir(req, ino, size, off, fi, true);
}

void OnFsyncDir(fuse_req_t req, fuse_ino_t, int, fuse_file_info*) { fuse_reply_err(req, 0); }

void OnStatFs(fuse_req_t req, fuse_ino_t ino) {
  Serve(req, "statfs", ino, [&](bool& replied) {
    struct statvfs st{};
    const int err = DriveOf(req).StatFs(req, ino, &st);
    replied = true;
    err ? fuse_reply_err(req, err) : fuse_reply_statfs(req, &st);
  });
}

fuse_lowlevel_ops MakeOperations() {
  fuse_lowlevel_ops ops{};
  ops.init = OnInit;
  ops.lookup = OnLookup;
  ops.forget = OnForget;
  ops.forget_multi = OnForgetMulti;
  ops.getattr = OnGetAttr;
  ops.setattr = OnSetAttr;
  ops.mknod = OnMknod;
  ops.mkdir = OnMkdir;
  ops.unlink = OnUnlink;
  ops.rmdir = OnRmdir;
  ops.symlink = OnSymlink;
  ops.rename = OnRename;
  ops.link = OnLink;
  ops.open = OnOpen;
  ops.read = OnRead;
  ops.write = OnWrite;
  ops.flush = OnFlush;
  ops.release = OnRelease;
  ops.fsync = OnFsync;
  ops.opendir = OnOpenDir;
  ops.readdir = OnReadDir;
  ops.readdirplus = OnReadDirPlus;
  ops.releasedir = OnRelease;
  ops.fsyncdir = OnFsyncDir;
  ops.statfs = OnStatFs;
  ops.create = OnCreate;
  return ops;
}

}  // namespace

const fuse_lowlevel_ops& BridgeOperations() {
  static const fuse_lowlevel_ops ops = MakeOperations();
  return ops;
}

bool InsideRequest() { return tInsideRequest; }

void MarkRequestThread() { tInsideRequest = true; }

}  // namespace qb::dokan
