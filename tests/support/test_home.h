#pragma once
// Hermetic test homes: every test that touches settings, logs, caches, drives
// or simulated devices points QUILLBOX_HOME at a fresh folder of its own.
#include <filesystem>
#include <string>

namespace qbtest {

class ScopedHome {
 public:
  ScopedHome();
  ~ScopedHome();
  ScopedHome(const ScopedHome&) = delete;
  ScopedHome& operator=(const ScopedHome&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  std::filesystem::path operator/(const std::string& child) const { return path_ / child; }

 private:
  std::filesystem::path path_;
  std::string previous_;
  bool hadPrevious_ = false;
};

// Folder of the built programs (quillbox, quillbox-simdev, quillbox-probe).
std::filesystem::path BinDir();
// Root of the source tree (for shipped files such as share/lang).
std::filesystem::path SourceDir();

}  // namespace qbtest
