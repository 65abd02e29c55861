// The index journal of simulated devices: its lines and the file.
#include "platform/portable/sim_index_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "common/strings.h"
#include "platform/portable/sim_id_table.h"
#include "platform/portable/sim_ini.h"

namespace qb::portable::sim {
namespace {

// "<id>\t<puid>\t<flags>\t<created>\t<rel>"; false for anything else.
bool ParseObjectLine(std::string_view line, IndexRecord* r) {
  std::string_view f[4];
  for (auto& field : f) {
    size_t tab = line.find('\t');
    if (tab == std::string_view::npos) return false;
    field = line.substr(0, tab);
    line.remove_prefix(tab + 1);
  }
  if (line.empty() || !HandleOfId(f[0], &r->handle)) return false;
  r->id = f[0];
  r->puid = f[1];
  r->flags = static_cast<uint32_t>(std::strtoul(std::string(f[2]).c_str(), nullptr, 10));
  r->created = std::strtoull(std::string(f[3]).c_str(), nullptr, 10);
  r->rel = line;
  return true;
}

struct Seen {
  IndexRecord record;
  size_t line = 0;
  bool gone = false;
};

}  // namespace

IndexChunk ParseIndexLines(std::string_view text) {
  IndexChunk chunk;
  std::vector<Seen> seen;
  while (!text.empty()) {
    size_t eol = text.find('\n');
    std::string_view line = text.substr(0, eol);
    text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
    ++chunk.lines;
    if (line.rfind("next=", 0) == 0) {
      chunk.next = std::max<uint64_t>(chunk.next, std::strtoull(std::string(line.substr(5)).c_str(), nullptr, 16));
      continue;
    }
    Seen s;
    s.line = chunk.lines;
    s.gone = line.size() > 2 && line[0] == '-';
    if (s.gone) {
      s.record.id = line.substr(1);
      if (!HandleOfId(s.record.id, &s.record.handle)) continue;
    } else if (!ParseObjectLine(line, &s.record)) {
      continue;
    }
    chunk.next = std::max(chunk.next, s.record.handle + 1);
    seen.push_back(s);
  }
  // The last line of each id says what it is; it keeps the place of its
  // first line. Sorting, not a map: no heap node per object.
  std::stable_sort(seen.begin(), seen.end(),
                   [](const Seen& a, const Seen& b) { return a.record.handle < b.record.handle; });
  std::vector<Seen> last;
  for (size_t i = 0; i < seen.size();) {
    size_t j = i;
    while (j + 1 < seen.size() && seen[j + 1].record.handle == seen[i].record.handle) ++j;
    if (!seen[j].gone) last.push_back(Seen{seen[j].record, seen[i].line, false});
    i = j + 1;
  }
  std::sort(last.begin(), last.end(), [](const Seen& a, const Seen& b) { return a.line < b.line; });
  chunk.live.reserve(last.size());
  for (const Seen& s : last) chunk.live.push_back(s.record);
  return chunk;
}

std::string IndexLine(const IndexRecord& r) {
  std::string line(r.id);
  line += '\t';
  line += r.puid;
  line += qb::Format("\t%u\t%llu\t", r.flags, static_cast<unsigned long long>(r.created));
  line += r.rel;
  line += '\n';
  return line;
}

std::string IndexGoneLine(std::string_view id) { return "-" + std::string(id) + "\n"; }

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
