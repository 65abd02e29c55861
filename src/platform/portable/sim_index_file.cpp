// The index journal of simulated devices: its lines and the file.
#include "platform/portable/sim_index_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <unordered_map>

#include "common/strings.h"
#include "platform/portable/sim_ini.h"

namespace qb::portable::sim {
namespace {

uint64_t HandleOf(const std::string& id) {
  return id.size() > 1 && id[0] == 'o' ? std::strtoull(id.c_str() + 1, nullptr, 16) : 0;
}

// "<id>\t<puid>\t<flags>\t<created>\t<rel>"; false for anything else.
bool ParseObjectLine(std::string_view line, IndexRecord* r) {
  std::string_view f[4];
  for (auto& field : f) {
    size_t tab = line.find('\t');
    if (tab == std::string_view::npos) return false;
    field = line.substr(0, tab);
    line.remove_prefix(tab + 1);
  }
  if (line.empty() || f[0].size() < 2 || f[0][0] != 'o') return false;
  r->id = std::string(f[0]);
  r->puid = std::string(f[1]);
  r->flags = static_cast<uint32_t>(std::strtoul(std::string(f[2]).c_str(), nullptr, 10));
  r->created = std::strtoull(std::string(f[3]).c_str(), nullptr, 10);
  r->rel = std::string(line);
  return true;
}

}  // namespace

IndexChunk ParseIndexLines(std::string_view text) {
  IndexChunk chunk;
  std::vector<IndexRecord> seen;
  std::vector<bool> gone;
  std::unordered_map<std::string, size_t> at;
  while (!text.empty()) {
    size_t eol = text.find('\n');
    std::string_view line = text.substr(0, eol);
    text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
    ++chunk.lines;
    if (line.rfind("next=", 0) == 0) {
      chunk.next = std::max<uint64_t>(chunk.next, std::strtoull(std::string(line.substr(5)).c_str(), nullptr, 16));
      continue;
    }
    IndexRecord r;
    const bool goneLine = line.size() > 2 && line[0] == '-' && line[1] == 'o';
    if (goneLine) r.id = std::string(line.substr(1));
    if (!goneLine && !ParseObjectLine(line, &r)) continue;
    chunk.next = std::max(chunk.next, HandleOf(r.id) + 1);
    auto [it, fresh] = at.try_emplace(r.id, seen.size());
    if (fresh) {
      seen.push_back(std::move(r));
      gone.push_back(goneLine);
    } else {
      if (!goneLine) seen[it->second] = std::move(r);
      gone[it->second] = goneLine;
    }
  }
  for (size_t i = 0; i < seen.size(); ++i)
    if (!gone[i]) chunk.live.push_back(std::move(seen[i]));
  return chunk;
}

std::string IndexLine(const IndexRecord& r) {
  return qb::Format("%s\t%s\t%u\t%llu\t", r.id.c_str(), r.puid.c_str(), r.flags,
                    static_cast<unsigned long long>(r.created)) +
         r.rel + "\n";
}

std::string IndexGoneLine(const std::string& id) { return "-" + id + "\n"; }

std::string IndexNextLine(uint64_t next) {
  return qb::Format("next=%llX\n", static_cast<unsigned long long>(next));
}

bool IndexJournal::ReadNew(std::string* text, bool* fromStart) {
  text->clear();
  *fromStart = false;
  int fd = open(file_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT;
  struct stat st;
  bool ok = fstat(fd, &st) == 0;
  if (ok && (st.st_dev != dev_ || st.st_ino != ino_ || static_cast<uint64_t>(st.st_size) < offset_)) {
    dev_ = st.st_dev;
    ino_ = st.st_ino;
    offset_ = 0;
    *fromStart = true;
  }
  if (ok && static_cast<uint64_t>(st.st_size) > offset_) {
    std::string buf(static_cast<size_t>(st.st_size) - offset_, '\0');
    ssize_t n = pread(fd, buf.data(), buf.size(), static_cast<off_t>(offset_));
    ok = n >= 0;
    if (ok) buf.resize(static_cast<size_t>(n));
    // A line still being written is left for the next read.
    size_t end = buf.rfind('\n');
    if (ok && end != std::string::npos) {
      buf.resize(end + 1);
      offset_ += buf.size();
      *text = std::move(buf);
    }
  }
  close(fd);
  return ok;
}

bool IndexJournal::Append(const std::string& text) {
  int fd = open(file_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(fd);
  return done == text.size();
}

bool IndexJournal::Rewrite(const std::string& text) {
  if (!WriteFileAtomic(file_, text, nullptr)) return false;
  struct stat st;
  if (stat(file_.c_str(), &st) != 0) return false;
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  offset_ = static_cast<uint64_t>(st.st_size);
  return true;
}

}  // namespace qb::portable::sim
