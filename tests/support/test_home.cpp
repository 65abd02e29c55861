#include "support/test_home.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "platform/system/named_mutex.h"
#include "platform/system/paths.h"

namespace qbtest {

ScopedHome::ScopedHome() {
  std::string pattern = (std::filesystem::temp_directory_path() / "qbtest-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
  if (const char* old = std::getenv("QUILLBOX_HOME")) {
    previous_ = old;
    hadPrevious_ = true;
  }
  setenv("QUILLBOX_HOME", path_.c_str(), 1);
}

ScopedHome::~ScopedHome() {
  // An instance still ending when its home goes can no longer take its
  // lock files, so it leaves the home's shared section behind; the name
  // belongs to this home alone.
  shm_unlink(qb::sys::SharedSectionName().c_str());
  // So do the named mutexes of an instance that was killed.
  qb::sys::NamedMutex::RemoveAllWithPrefix(qb::sys::SharedSectionName().substr(1));
  if (hadPrevious_)
    setenv("QUILLBOX_HOME", previous_.c_str(), 1);
  else
    unsetenv("QUILLBOX_HOME");
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::filesystem::path BinDir() {
  if (const char* dir = std::getenv("QUILLBOX_BUILD_BIN")) return dir;
  return std::filesystem::path(QUILLBOX_DEFAULT_BIN_DIR);
}

std::filesystem::path SourceDir() {
  if (const char* dir = std::getenv("QUILLBOX_SOURCE_DIR")) return dir;
  return std::filesystem::path(QUILLBOX_DEFAULT_SOURCE_DIR);
}

}  // namespace qbtest
