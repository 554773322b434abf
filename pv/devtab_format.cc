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

// Reads text from `pos` up to an unescaped stop character, undoing escapes.
// Returns the index of the stop character, or text.size().
size_t ReadField(std::string_view text, size_t pos, const char *stops, std::string *out) {
  while (pos < text.size()) {
    char c = text[pos];
    if (c == '\\' && pos + 1 < text.size()) {
      out->push_back(text[pos + 1]);
      pos += 2;
      continue;
    }
    if (std::strchr(stops, c) != nullptr && c != '\0') return pos;
    out->push_back(c);
    ++pos;
  }
  return pos;
}

Defect ReadHead(std::string_view text, std::string *alias, std::string *positional, size_t *next) {
  alias->clear();
  size_t pos = ReadField(text, 0, ":", alias);
  if (pos >= text.size()) return Defect::kFewColons;
  if (alias->size() > kMaxNameLength) return Defect::kFieldTooLong;
  for (int i = 0; i < 3; ++i) {
    std::string scratch;
    std::string *field = positional ? &positional[i] : &scratch;
    field->clear();
    pos = ReadField(text, pos + 1, ":", field);
    if (pos >= text.size()) return Defect::kFewColons;
    if (field->size() > kMaxNameLength) return Defect::kFieldTooLong;
  }
  if (alias->empty()) return Defect::kEmptyAlias;
  *next = pos + 1;
  return Defect::kNone;
}

}  // namespace

Defect ParseAlias(std::string_view text, std::string *alias) {
  // Only the alias is kept; the positional fields are checked, not stored.
  size_t pos = 0;
  return ReadHead(text, alias, nullptr, &pos);
}

Defect ParseEntry(std::string_view text, Entry *out) {
  out->npairs = 0;
  size_t pos = 0;
  Defect d = ReadHead(text, &out->alias, out->positional, &pos);
  if (d != Defect::kNone) return d;
  for (;;) {
    while (pos < text.size() && (IsBlank(text[pos]) || text[pos] == '\r')) ++pos;
    if (pos >= text.size()) return Defect::kNone;
    Pair &pair = out->AddPair();
    pos = ReadField(text, pos, "= \t", &pair.name);
    if (pos >= text.size() || text[pos] != '=') return Defect::kNoEquals;
    if (pair.name.empty()) return Defect::kEmptyKeyword;
    if (pair.name.size() > kMaxNameLength) return Defect::kFieldTooLong;
    ++pos;
    if (pos < text.size() && text[pos] == '"') {
      pos = ReadField(text, pos + 1, "\"", &pair.value);
      if (pos >= text.size()) return Defect::kUnterminatedQuote;
      ++pos;
    } else {
      pos = ReadField(text, pos, " \t", &pair.value);
    }
    if (pair.value.size() > kMaxValueLength) return Defect::kFieldTooLong;
  }
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
    AppendEscapedField(out, p.name);
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
  // Blanks separate pairs and are not escaped, so a keyword cannot hold one.
  for (char c : keyword)
    if (IsBlank(c) || c == '\r') return "keyword holds a blank";
  return nullptr;
}

const char *CheckValue(std::string_view value) {
  if (value.size() > kMaxValueLength) return "value too long";
  return nullptr;
}

bool FindEntry(std::string_view image, std::string_view alias, RawEntry *found, Entry *entry) {
  // Fast path: the alias as our writer spells it, at the start of a line.
  std::string needle = "\n";
  AppendEscapedAlias(&needle, alias);
  std::string_view head(needle);
  size_t pos = 0;
  bool at_start = image.substr(0, head.size() - 1) == head.substr(1);
  for (;;) {
    size_t start;
    if (at_start) {
      start = 0;
      at_start = false;
    } else {
      const void *hit = memmem(image.data() + pos, image.size() - pos, head.data(), head.size());
      if (hit == nullptr) break;
      start = static_cast<size_t>(static_cast<const char *>(hit) - image.data()) + 1;
    }
    pos = start;
    if (!StartsLine(image, start)) continue;
    size_t end = EntryEnd(image, start);
    std::string_view text = image.substr(start, end - start);
    if (ParseEntry(text, entry) == Defect::kNone && entry->alias == alias) {
      found->text = text;
      found->offset = start;
      return true;
    }
  }
  // Slow path: an alias spelt with unusual escapes still counts.
  Scanner scanner(image);
  RawEntry raw;
  std::string name;
  while (scanner.Next(&raw)) {
    if (raw.text.find('\\') == std::string_view::npos) continue;
    if (ParseAlias(raw.text, &name) != Defect::kNone || name != alias) continue;
    if (ParseEntry(raw.text, entry) != Defect::kNone) continue;
    *found = raw;
    return true;
  }
  return false;
}

}  // namespace devtab
