#include "shell/place_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "diag/trace.h"

namespace qb::shell::places {
namespace {

namespace fs = std::filesystem;
constexpr const char* kTag = "T8@EditPlacesFile: ";
constexpr int kAttempts = 5;

bool Unreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~' || c == '/';
}

// The whole file, or nothing when it cannot be read (missing: `*missing`).
std::optional<std::string> ReadAll(const fs::path& file, bool* missing) {
  std::error_code ec;
  *missing = !fs::exists(file, ec) && !ec;
  if (*missing) return std::string();
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return text;
}

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) return false;
    done += static_cast<size_t>(n);
  }
  return ::fsync(fd) == 0;
}

// A temporary file beside `file` with the text and the file's permissions.
std::optional<fs::path> WriteTemporary(const fs::path& file, const std::string& text) {
  std::string name = (file.parent_path() / ("." + file.filename().string() + ".quillbox-XXXXXX")).string();
  int fd = ::mkstemp(name.data());
  if (fd < 0) return std::nullopt;
  struct stat st{};
  const mode_t mode = ::stat(file.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0644;
  const bool ok = ::fchmod(fd, mode) == 0 && WriteAll(fd, text);
  ::close(fd);
  if (ok) return fs::path(name);
  ::unlink(name.c_str());
  return std::nullopt;
}

fs::path FollowLink(const fs::path& file) {
  std::error_code ec;
  if (!fs::is_symlink(file, ec)) return file;
  fs::path target = fs::weakly_canonical(file, ec);
  return ec ? file : target;
}

}  // namespace

std::string FileUri(const fs::path& path) {
  static const char* hex = "0123456789ABCDEF";
  std::string uri = "file://";
  for (unsigned char c : path.string()) {
    if (Unreserved(c)) {
      uri += static_cast<char>(c);
    } else {
      uri += '%';
      uri += hex[c >> 4];
      uri += hex[c & 15];
    }
  }
  return uri;
}

bool EditFile(const fs::path& given, bool createWhenMissing, const Edit& edit) {
  const fs::path file = FollowLink(given);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    bool missing = false;
    std::optional<std::string> before = ReadAll(file, &missing);
    if (!before) {
      Trace(kTag, "Cannot read \"%s\"", file.c_str());
      return false;
    }
    if (missing && !createWhenMissing) return true;
    std::optional<std::string> after = edit(*before);
    if (!after) {
      Trace(kTag, "Malformed \"%s\": left as it is", file.c_str());
      return false;
    }
    if (*after == *before) return true;  // also: nothing to remove from a missing file
    std::error_code ec;
    fs::create_directories(file.parent_path(), ec);
    std::optional<fs::path> temp = WriteTemporary(file, *after);
    if (!temp) {
      Trace(kTag, "Cannot write beside \"%s\"", file.c_str());
      return false;
    }
    // Someone else (a file manager) wrote meanwhile: edit their text instead.
    bool nowMissing = false;
    std::optional<std::string> now = ReadAll(file, &nowMissing);
    if (now == before && nowMissing == missing && ::rename(temp->c_str(), file.c_str()) == 0) return true;
    ::unlink(temp->c_str());
  }
  Trace(kTag, "\"%s\" kept changing; not edited", file.c_str());
  return false;
}

}  // namespace qb::shell::places
