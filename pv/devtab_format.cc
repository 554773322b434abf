#include "devtab_format.h"

#include <cstring>

namespace devtab {

const char *const kPositionalNames[3] = {"cdevice", "bdevice", "pathname"};

Pair &Entry::AddPair() {
  if (npairs == pairs.size()) pairs.emplace_back();
  Pair &p = pairs[npairs++];
  p.name.clear();
  p.value.clear();
  return p;
}

size_t Entry::Find(std::string_view name) const {
  for (size_t i = 0; i < npairs; ++i)
    if (pairs[i].name == name) return i;
  return npairs;
}

const char *DefectText(Defect defect) {
  switch (defect) {
    case Defect::kNone: return "no defect";
    case Defect::kEmptyAlias: return "empty alias";
    case Defect::kFewColons: return "fewer than four colons";
    case Defect::kUnterminatedQuote: return "unterminated quote";
    case Defect::kNoEquals: return "keyword without '='";
    case Defect::kEmptyKeyword: return "empty keyword";
    case Defect::kFieldTooLong: return "over-long field";
  }
  return "unknown defect";
}

namespace {

// A newline ends an entry unless an odd run of backslashes stands before it.
// Parity is local: the character before the run is never mid-escape.
bool NewlineEscaped(std::string_view image, size_t nl) {
  size_t run = 0;
  while (run < nl && image[nl - 1 - run] == '\\') ++run;
  return (run & 1) != 0;
}

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

size_t EntryEnd(std::string_view image, size_t from, size_t *newlines) {
  size_t pos = from;
  size_t count = 0;
  // A comment is one line, whatever it ends with: a backslash at its end must
  // not join the entry that follows to it.
  size_t first = from;
  while (first < image.size() && (image[first] == ' ' || image[first] == '\t')) ++first;
  if (first < image.size() && image[first] == '#') {
    const void *hit = std::memchr(image.data() + first, '\n', image.size() - first);
    if (newlines) *newlines = hit != nullptr ? 1 : 0;
    return hit != nullptr ? static_cast<size_t>(static_cast<const char *>(hit) - image.data()) : image.size();
  }
  for (;;) {
    const void *hit = pos < image.size() ? std::memchr(image.data() + pos, '\n', image.size() - pos)
                                         : nullptr;
    if (hit == nullptr) {
      if (newlines) *newlines = count;
      return image.size();
    }
    size_t nl = static_cast<size_t>(static_cast<const char *>(hit) - image.data());
    ++count;
    if (!NewlineEscaped(image, nl)) {
      if (newlines) *newlines = count;
      return nl;
    }
    pos = nl + 1;
  }
}

bool StartsLine(std::string_view image, size_t pos) {
  return pos == 0 || (image[pos - 1] == '\n' && !NewlineEscaped(image, pos - 1));
}

bool IsCommentOrBlank(std::string_view text) {
  for (char c : text) {
    if (IsBlank(c) || c == '\r') continue;
    return c == '#';
  }
  return true;
}

bool Scanner::Next(RawEntry *out) {
  while (pos_ < image_.size()) {
    size_t newlines = 0;
    size_t end = EntryEnd(image_, pos_, &newlines);
    RawEntry raw;
    raw.text = image_.substr(pos_, end - pos_);
    raw.line = line_;
    raw.offset = pos_;
    line_ += newlines;
    pos_ = end < image_.size() ? end + 1 : end;
    if (IsCommentOrBlank(raw.text)) continue;
    *out = raw;
    return true;
  }
  return false;
}

namespace {

// Which bytes end a run of ordinary characters in each part of an entry.
struct StopTable {
  bool stop[256] = {};
  explicit StopTable(const char *chars) {
    for (const char *c = chars; *c; ++c) stop[static_cast<unsigned char>(*c)] = true;
    stop[static_cast<unsigned char>('\\')] = true;
  }
};
const StopTable kHeadStops(":");
const StopTable kKeywordStops("= \t");
const StopTable kQuotedStops("\"");
const StopTable kBareStops(" \t");

// Counts a field's length without keeping it: validation needs no copies.
struct Counter {
  size_t n = 0;
  void clear() { n = 0; }
  void append(const char *, size_t k) { n += k; }
  void push_back(char) { ++n; }
  size_t size() const { return n; }
  bool empty() const { return n == 0; }
};

// Reads from `pos` up to an unescaped stop byte, undoing escapes, a run of
// ordinary bytes at a time. Returns the stop's index, or text.size().
template <typename Field>
size_t ReadField(std::string_view text, size_t pos, const StopTable &stops, Field *out) {
  const char *p = text.data();
  const size_t n = text.size();
  while (pos < n) {
    size_t start = pos;
    while (pos < n && !stops.stop[static_cast<unsigned char>(p[pos])]) ++pos;
    if (pos > start) out->append(p + start, pos - start);
    if (pos >= n) break;
    if (p[pos] != '\\') return pos;
    // A backslash yields the byte after it; a lone one at the end stays.
    out->push_back(pos + 1 < n ? p[pos + 1] : '\\');
    pos += 2;
  }
  return n;
}

// The one grammar of an entry. `pair(name, value)` supplies the fields of
// the next pair.
template <typename AliasField, typename Field, typename NextPair>
Defect Parse(std::string_view text, AliasField *alias, Field *positional, NextPair next_pair) {
  alias->clear();
  size_t pos = ReadField(text, 0, kHeadStops, alias);
  if (pos >= text.size()) return Defect::kFewColons;
  if (alias->size() > kMaxNameLength) return Defect::kFieldTooLong;
  for (int i = 0; i < 3; ++i) {
    positional[i].clear();
    pos = ReadField(text, pos + 1, kHeadStops, &positional[i]);
    if (pos >= text.size()) return Defect::kFewColons;
    if (positional[i].size() > kMaxNameLength) return Defect::kFieldTooLong;
  }
  if (alias->empty()) return Defect::kEmptyAlias;
  ++pos;
  for (;;) {
    while (pos < text.size() && (IsBlank(text[pos]) || text[pos] == '\r')) ++pos;
    if (pos >= text.size()) return Defect::kNone;
    Field *name;
    Field *value;
    next_pair(&name, &value);
    pos = ReadField(text, pos, kKeywordStops, name);
    if (pos >= text.size() || text[pos] != '=') return Defect::kNoEquals;
    if (name->empty()) return Defect::kEmptyKeyword;
    if (name->size() > kMaxNameLength) return Defect::kFieldTooLong;
    ++pos;
    if (pos < text.size() && text[pos] == '"') {
      pos = ReadField(text, pos + 1, kQuotedStops, value);
      if (pos >= text.size()) return Defect::kUnterminatedQuote;
      ++pos;
    } else {
      pos = ReadField(text, pos, kBareStops, value);
    }
    if (value->size() > kMaxValueLength) return Defect::kFieldTooLong;
  }
}

}  // namespace

Defect ParseEntry(std::string_view text, Entry *out) {
  out->npairs = 0;
  return Parse(text, &out->alias, out->positional, [out](std::string **name, std::string **value) {
    Pair &p = out->AddPair();
    *name = &p.name;
    *value = &p.value;
  });
}

Defect ParseAlias(std::string_view text, std::string *alias) {
  Counter positional[3];
  Counter name, value;
  return Parse(text, alias, positional, [&](Counter **n, Counter **v) {
    name.clear();
    value.clear();
    *n = &name;
    *v = &value;
  });
}

bool AliasIs(std::string_view text, std::string_view alias, std::string_view spelt) {
  // The usual case: the alias as our writer spells it, with its colon.
  if (text.size() >= spelt.size() && text.compare(0, spelt.size(), spelt) == 0) return true;
  // Otherwise the head spells it with other escapes, or without the guard
  // our writer puts before a leading blank (a hand-edited line needs none).
  size_t colon = text.find(':');
  std::string_view head = text.substr(0, colon);
  if (head.find('\\') == std::string_view::npos)
    return colon != std::string_view::npos && head == alias;
  std::string name;
  ReadField(text, 0, kHeadStops, &name);
  return name == alias;
}

bool IsMethodName(std::string_view name) {
  return name.find("cmd") != std::string_view::npos || name.find("func") != std::string_view::npos;
}

namespace {

void AppendEscaped(std::string *out, std::string_view s, const char *specials) {
  out->reserve(out->size() + s.size() + 8);
  for (char c : s) {
    if (c != '\0' && std::strchr(specials, c) != nullptr) out->push_back('\\');
    out->push_back(c);
  }
}

}  // namespace

void AppendEscapedField(std::string *out, std::string_view field) {
  AppendEscaped(out, field, ":\\\"\n");
}

void AppendEscapedValue(std::string *out, std::string_view value) {
  AppendEscaped(out, value, ":\\\"\n");
}

void AppendEscapedAlias(std::string *out, std::string_view alias) {
  if (!alias.empty() && (alias[0] == '#' || IsBlank(alias[0]) || alias[0] == '\r'))
    out->push_back('\\');
  AppendEscapedField(out, alias);
  out->push_back(':');
}

void FormatEntry(const Entry &entry, std::string *out) {
  AppendEscapedAlias(out, entry.alias);
  for (const std::string &field : entry.positional) {
    AppendEscapedField(out, field);
    out->push_back(':');
  }
  auto append_pair = [out](const Pair &p) {
    // A keyword read from a hand-edited entry may hold an escaped '=' or
    // blank; written bare, either would split the pair when read back.
    AppendEscaped(out, p.name, ":\\\"\n= \t\r");
    out->append("=\"");
    AppendEscapedValue(out, p.value);
    out->push_back('"');
  };
  bool first = true;
  for (size_t i = 0; i < entry.npairs; ++i) {
    if (IsMethodName(entry.pairs[i].name)) continue;
    if (!first) out->push_back(' ');
    append_pair(entry.pairs[i]);
    first = false;
  }
  for (size_t i = 0; i < entry.npairs; ++i) {
    if (!IsMethodName(entry.pairs[i].name)) continue;
    out->push_back(' ');
    append_pair(entry.pairs[i]);
  }
  out->push_back('\n');
}

const char *CheckAlias(std::string_view alias) {
  if (alias.empty()) return "empty alias";
  if (alias.size() > kMaxNameLength) return "alias too long";
  return nullptr;
}

const char *CheckKeyword(std::string_view keyword) {
  if (keyword.empty()) return "empty keyword";
  if (keyword.size() > kMaxNameLength) return "keyword too long";
  // Blanks separate pairs: the writer escapes one that an entry already
  // holds, but takes no new keyword with one.
  for (char c : keyword)
    if (IsBlank(c) || c == '\r') return "keyword holds a blank";
  return nullptr;
}

const char *CheckValue(std::string_view value) {
  if (value.size() > kMaxValueLength) return "value too long";
  return nullptr;
}

bool FindEntry(std::string_view image, std::string_view alias, RawEntry *found, Entry *entry) {
  std::string spelt;
  AppendEscapedAlias(&spelt, alias);
  Scanner scanner(image);
  RawEntry raw;
  while (scanner.Next(&raw)) {
    if (!AliasIs(raw.text, alias, spelt)) continue;
    if (ParseEntry(raw.text, entry) != Defect::kNone) continue;  // malformed: skipped
    *found = raw;
    return true;
  }
  return false;
}

}  // namespace devtab
