// KDE's places: an XBEL document. It is checked for well-formed markup and
// walked for its bookmark elements; edits cut or insert text at their byte
// offsets, so everything else stays as the user's programs wrote it.
#include <cctype>
#include <vector>

#include "shell/place_files.h"
#include "shell/place_text.h"

namespace qb::shell::places {
namespace {

constexpr const char* kBookmarkNs = "http://www.freedesktop.org/standards/desktop-bookmarks";

struct Bookmark {
  size_t begin = 0, end = 0;  // '<' of the start tag, one past the end tag's '>'
  std::string href;
};

struct Xbel {
  bool declaresBookmarkNs = false;
  size_t closeTag = 0;  // '<' of </xbel>
  std::vector<Bookmark> bookmarks;
};

struct Tag {
  std::string name;
  std::string attributes;
  bool closing = false, empty = false;
  size_t end = 0;  // one past '>'
};

bool NameChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == ':' || c == '_' || c == '-' || c == '.' || (c & 0x80);
}

// The tag that starts at text[pos] == '<' (not a comment, PI or declaration).
std::optional<Tag> ReadTag(const std::string& text, size_t pos) {
  Tag tag;
  size_t i = pos + 1;
  if (i < text.size() && text[i] == '/') tag.closing = true, ++i;
  const size_t nameStart = i;
  while (i < text.size() && NameChar(text[i])) ++i;
  if (i == nameStart) return std::nullopt;
  tag.name = text.substr(nameStart, i - nameStart);
  char quote = 0;
  const size_t attrStart = i;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (quote) {
      if (c == quote) quote = 0;
      else if (c == '<') return std::nullopt;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      tag.empty = i > attrStart && text[i - 1] == '/';
      tag.attributes = text.substr(attrStart, i - attrStart - (tag.empty ? 1 : 0));
      tag.end = i + 1;
      return (tag.closing && tag.empty) ? std::nullopt : std::optional<Tag>(tag);
    }
  }
  return std::nullopt;
}

// The value of attribute `name` as written (our own values need no decoding).
std::string Attribute(const std::string& attributes, const std::string& name) {
  for (size_t at = attributes.find(name); at != std::string::npos; at = attributes.find(name, at + 1)) {
    if (at == 0 || !std::isspace(static_cast<unsigned char>(attributes[at - 1]))) continue;
    size_t i = at + name.size();
    while (i < attributes.size() && std::isspace(static_cast<unsigned char>(attributes[i]))) ++i;
    if (i >= attributes.size() || attributes[i] != '=') continue;
    ++i;
    while (i < attributes.size() && std::isspace(static_cast<unsigned char>(attributes[i]))) ++i;
    if (i >= attributes.size() || (attributes[i] != '"' && attributes[i] != '\'')) continue;
    const size_t close = attributes.find(attributes[i], i + 1);
    if (close != std::string::npos) return attributes.substr(i + 1, close - i - 1);
  }
  return {};
}

// Where the markup that starts at `pos` ends (comments, CDATA, PI,
// declarations), or npos when it does not end.
size_t SkipSpecial(const std::string& text, size_t pos) {
  auto past = [&](const char* close, size_t from) {
    size_t at = text.find(close, from);
    return at == std::string::npos ? at : at + std::char_traits<char>::length(close);
  };
  if (text.compare(pos, 4, "<!--") == 0) return past("-->", pos + 4);
  if (text.compare(pos, 9, "<![CDATA[") == 0) return past("]]>", pos + 9);
  if (text.compare(pos, 2, "<?") == 0) return past("?>", pos + 2);
  const size_t bracket = text.find('[', pos), close = text.find('>', pos);
  if (bracket != std::string::npos && bracket < close) return past("]>", bracket);  // DOCTYPE with a subset
  return close == std::string::npos ? close : close + 1;
}

bool OnlySpace(const std::string& text, size_t from, size_t to) {
  for (size_t i = from; i < to; ++i)
    if (!std::isspace(static_cast<unsigned char>(text[i]))) return false;
  return true;
}

// Records an element that has just ended.
void Ended(const std::string& name, size_t begin, const std::string& attributes, size_t end, Xbel* doc) {
  if (name == "bookmark") doc->bookmarks.push_back({begin, end, Attribute(attributes, "href")});
}

struct Open {
  std::string name, attributes;
  size_t begin;
};

// Well-formed markup with one root element <xbel>; its bookmark elements.
std::optional<Xbel> Scan(const std::string& text) {
  if (!IsCleanUtf8(text)) return std::nullopt;
  Xbel doc;
  std::vector<Open> open;
  bool rootSeen = false;
  size_t pos = 0;
  for (size_t lt = text.find('<'); lt != std::string::npos; lt = text.find('<', pos)) {
    if (open.empty() && !OnlySpace(text, pos, lt)) return std::nullopt;  // text outside the root
    if (text.compare(lt, 2, "<!") == 0 || text.compare(lt, 2, "<?") == 0) {
      pos = SkipSpecial(text, lt);
      if (pos == std::string::npos) return std::nullopt;
      continue;
    }
    std::optional<Tag> tag = ReadTag(text, lt);
    if (!tag) return std::nullopt;
    pos = tag->end;
    if (tag->closing) {
      if (open.empty() || open.back().name != tag->name) return std::nullopt;
      if (open.size() == 1) doc.closeTag = lt;
      Ended(tag->name, open.back().begin, open.back().attributes, pos, &doc);
      open.pop_back();
      continue;
    }
    if (open.empty()) {
      if (rootSeen || tag->name != "xbel" || tag->empty) return std::nullopt;
      rootSeen = true;
      doc.declaresBookmarkNs = Attribute(tag->attributes, "xmlns:bookmark") == kBookmarkNs;
    }
    if (tag->empty) Ended(tag->name, lt, tag->attributes, pos, &doc);
    else open.push_back({tag->name, tag->attributes, lt});
  }
  if (!rootSeen || !open.empty() || !OnlySpace(text, pos, text.size())) return std::nullopt;
  return doc;
}

// The range of a bookmark with its own line: the indentation before it and
// the line break after it go along when nothing else shares the line.
std::pair<size_t, size_t> LineRange(const std::string& text, const Bookmark& b) {
  size_t begin = b.begin, end = b.end;
  const size_t lineStart = text.rfind('\n', begin == 0 ? 0 : begin - 1);
  const size_t from = lineStart == std::string::npos ? 0 : lineStart + 1;
  const size_t lineEnd = text.find('\n', end);
  const size_t to = lineEnd == std::string::npos ? text.size() : lineEnd;
  if (OnlySpace(text, from, begin) && OnlySpace(text, end, to)) {
    begin = from;
    end = lineEnd == std::string::npos ? to : lineEnd + 1;
  }
  return {begin, end};
}

std::string RemoveBookmarks(const std::string& text, const Xbel& doc, const UriTest& remove) {
  std::string out = text;
  // Last first, so that the earlier offsets stay right.
  for (auto it = doc.bookmarks.rbegin(); it != doc.bookmarks.rend(); ++it) {
    if (!remove(it->href)) continue;
    auto [begin, end] = LineRange(out, *it);
    out.erase(begin, end - begin);
  }
  return out;
}

std::string Element(const Place& place, bool declaresNs) {
  const std::string ns = declaresNs ? "" : std::string(" xmlns:bookmark=\"") + kBookmarkNs + "\"";
  return " <bookmark href=\"" + XmlEscaped(place.uri) + "\">\n" +
         "  <title>" + XmlEscaped(OneLine(place.label)) + "</title>\n" +
         "  <info>\n"
         "   <metadata owner=\"http://freedesktop.org\">\n"
         "    <bookmark:icon" + ns + " name=\"" + XmlEscaped(place.icon) + "\"/>\n"
         "   </metadata>\n"
         "  </info>\n"
         " </bookmark>\n";
}

}  // namespace

std::optional<std::string> XbelWithout(const std::string& text, const UriTest& remove) {
  std::optional<Xbel> doc = Scan(text);
  if (!doc) return std::nullopt;
  return RemoveBookmarks(text, *doc, remove);
}

std::optional<std::string> XbelWith(const std::string& text, const Place& place) {
  std::optional<Xbel> doc = Scan(text);
  if (!doc) return std::nullopt;
  const std::string element = Element(place, doc->declaresBookmarkNs);
  const std::string uri = XmlEscaped(place.uri);
  int same = 0, ofUri = 0;
  for (const Bookmark& b : doc->bookmarks) {
    if (b.href != uri) continue;
    ++ofUri;
    auto [begin, end] = LineRange(text, b);
    if (text.compare(begin, end - begin, element) == 0) ++same;
  }
  if (same == 1 && ofUri == 1) return text;  // already there, exactly once
  std::string out = RemoveBookmarks(text, *doc, [&](const std::string& href) { return href == uri; });
  std::optional<Xbel> left = Scan(out);
  if (!left) return std::nullopt;
  size_t at = left->closeTag;
  const size_t lineStart = out.rfind('\n', at == 0 ? 0 : at - 1);
  const size_t from = lineStart == std::string::npos ? 0 : lineStart + 1;
  if (OnlySpace(out, from, at)) at = from;
  else out.insert(at++, "\n");  // </xbel> shares its line: ours starts a new one
  out.insert(at, element);
  return out;
}

}  // namespace qb::shell::places
