#pragma once
// index.ini as a journal shared by every process that opens a device:
// "next=<hex>" lines and one line per object change, only ever appended
// (an object's line again when it moves or its flags change, "-<id>" when it
// goes), so that giving ids to new objects costs what they add, not what the
// device holds. When the file holds far more lines than objects it is
// rewritten whole through a new file; readers notice the new file and read
// it from the start.
//
// Line of an object: <id>\t<puid>\t<flags>\t<created FILETIME>\t<relative path>
// An id is "o<hex>" as the device gives it; a line with any other id, like
// any other malformed line, is skipped.
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace qb::portable::sim {

// The texts are views into the journal's text (or the caller's strings).
struct IndexRecord {
  std::string_view id;
  std::string_view puid;
  uint32_t flags = 0;
  uint64_t created = 0;
  std::string_view rel;
  uint64_t handle = 0;  // the id's number
};

// What some whole lines of the journal say, the last word on each id. Its
// records point into the parsed text, which must outlive them.
struct IndexChunk {
  std::vector<IndexRecord> live;  // objects still there at the chunk's end, first seen first
  uint64_t next = 0;              // the highest next free handle named or implied
  size_t lines = 0;
};

IndexChunk ParseIndexLines(std::string_view text);
std::string IndexLine(const IndexRecord& r);
std::string IndexGoneLine(std::string_view id);
std::string IndexNextLine(uint64_t next);

// Reads and writes one journal file. Not thread-safe; callers hold the
// device's index lock (the file lock) around each use.
class IndexJournal {
 public:
  explicit IndexJournal(std::filesystem::path file) : file_(std::move(file)) {}

  // The whole lines written since the last call; all of them when the file
  // was replaced (*fromStart set) or is read for the first time.
  bool ReadNew(std::string* text, bool* fromStart);
  // Appends in one write (O_APPEND keeps writers of other processes apart).
  bool Append(const std::string& text);
  // Replaces the file through a new one; what this reader read is now all.
  bool Rewrite(const std::string& text);

 private:
  const std::filesystem::path file_;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
  uint64_t offset_ = 0;  // whole lines read so far from the file (dev_, ino_)
};

}  // namespace qb::portable::sim
