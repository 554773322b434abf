// Writing table entries: the escapes, the head of an entry and its pairs.
//
// Heads and pairs are built in buffers that grow to what they need: an
// entry is never cut and never lost.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "cache_state.h"
#include "kwlist_layout.h"

namespace {

constexpr size_t kPairBuffer = 4096;

using qdcache::TextBuffer;

// The characters that take a backslash: colon, backslash, double quote,
// newline; `stop` also holds the terminator, where a scan ends too.
struct SpecialTable {
  bool special[256] = {};
  bool stop[256] = {};
  SpecialTable() {
    for (unsigned char c : {':', '\\', '"', '\n'}) special[c] = stop[c] = true;
    stop[0] = true;
  }
};
const SpecialTable kSpecial;

bool Special(char c) { return kSpecial.special[static_cast<unsigned char>(c)]; }

TextBuffer &HeadBuffer() {
  static TextBuffer buffer;
  return buffer;
}
TextBuffer &PairBuffer() {
  static TextBuffer buffer;
  return buffer;
}

// Appends s with its special characters escaped, leaving out the character
// `omit` (none when it is -1), and returns where s ends. Most strings are
// short and hold no special character at all: they are scanned in place and
// copied whole.
const char *AppendEscaped(TextBuffer *out, const char *s, int omit) {
  for (;;) {
    const char *run = s;
    while (!kSpecial.stop[static_cast<unsigned char>(*s)]) ++s;
    out->Put(run, static_cast<size_t>(s - run));
    if (*s == '\0') return s;
    if (omit < 0 || *s != static_cast<char>(omit)) {
      char pair[2] = {'\\', *s};
      out->Put(pair, 2);
    }
    ++s;
  }
}

const char *const kPositional[3] = {"cdevice", "bdevice", "pathname"};

// The positional fields as a lookup of each finds them: the first entry of
// the keyword, taken (and later removed) only when it has a value.
struct Positionals {
  int status[3] = {KWL_NOTFOUND, KWL_NOTFOUND, KWL_NOTFOUND};
  const char *value[3] = {};
  bool Taken(int i) const { return status[i] == KWL_OK; }
  // Which positional keyword `kw` is, or -1.
  static int Which(const char *kw) {
    // Many keywords start with c, b or p; few go on with d, d or a.
    int i = kw[0] == 'c' ? 0 : kw[0] == 'b' ? 1 : kw[0] == 'p' ? 2 : -1;
    return i >= 0 && kw[1] == kPositional[i][1] && strcmp(kw, kPositional[i]) == 0 ? i : -1;
  }
};

const char *ValueOf(const KeywordEntry *k) { return k->keyword + strlen(k->keyword) + 1; }

// One walk over the list's entries, as the list operations lay them out.
Positionals FindPositionals(const KeywordList *attributes) {
  Positionals p;
  if (!pv::layout::Live(attributes)) return p;
  for (const KeywordEntry *k = attributes->kwl_first; k != nullptr; k = pv::layout::Next(k)) {
    int i = Positionals::Which(k->keyword);
    if (i >= 0 && p.status[i] == KWL_NOTFOUND) {
      p.status[i] = pv::layout::NoValue(k) ? KWL_WARN : KWL_OK;
      p.value[i] = ValueOf(k);
    }
  }
  return p;
}

// Fields 1 to 4 with their colons.
void AppendHead(TextBuffer *out, const char *alias, const Positionals &p) {
  // An alias that starts like a comment or blank line would be skipped by
  // readers: its first character takes a backslash too.
  if (*alias == '#' || *alias == ' ' || *alias == '\t') out->Put('\\');
  AppendEscaped(out, alias, -1);
  out->Put(':');
  for (int i = 0; i < 3; ++i) {
    if (p.Taken(i)) AppendEscaped(out, p.value[i], -1);
    out->Put(':');
  }
}

// A pair; a null value is the one stored right after the keyword, as in a
// list entry, found where the keyword's scan ended.
void AppendPair(TextBuffer *out, const char *kw, const char *value, bool blank) {
  if (blank) out->Put(' ');
  const char *end = AppendEscaped(out, kw, -1);
  out->Put("=\"", 2);
  AppendEscaped(out, value != nullptr ? value : end + 1, '"');
  out->Put('"');
}

}  // namespace

extern "C" {

size_t strlenesc(const char *s) {
  size_t n = 0;
  for (; *s; ++s) n += Special(*s) ? 2 : 1;
  return n;
}

char *strcpyesc(char *dest, const char *src) {
  char *d = dest;
  for (; *src; ++src) {
    if (Special(*src)) *d++ = '\\';
    *d++ = *src;
  }
  *d = '\0';
  return dest;
}

char *strcatesc(char *dest, const char *src) {
  strcpyesc(dest + strlen(dest), src);
  return dest;
}

int strcpyesc_omit_ch(char *dest, const char *src, int ch) {
  char *d = dest;
  for (; *src; ++src) {
    if (*src == static_cast<char>(ch)) continue;
    if (Special(*src)) *d++ = '\\';
    *d++ = *src;
  }
  *d = '\0';
  return static_cast<int>(d - dest);
}

int flush_alias_to_stream(const char *alias, KeywordList *attributes) {
  // The head grows to whatever it needs, so no head is ever cut.
  TextBuffer &head = HeadBuffer();
  head.clear();
  Positionals p = FindPositionals(attributes);
  AppendHead(&head, alias, p);
  for (int i = 0; i < 3; ++i)
    if (p.Taken(i)) RemoveKeywordFmList(attributes, kPositional[i]);  // the values go with it
  if (fwrite(head.data(), 1, head.size(), QDlock_fptr) != head.size()) {
    QDtrace(3, "flush_alias_to_stream", "flush_alias_to_stream: fprintf failed, errno %d", errno);
    return -1;
  }
  return 0;
}

int flush_kwlist_to_stream(FILE *stream, KeywordList *list, int blank) {
  vcel_errno = 0;
  int rc = ValidKeywordList(list);
  if (rc != 0) return rc;
  list->kwl_cursor = list->kwl_first;
  TextBuffer &buffer = PairBuffer();
  buffer.clear();
  auto write_out = [&]() {
    if (fwrite(buffer.data(), 1, buffer.size(), stream) != buffer.size()) {
      QDtrace(3, "flush_kwlist_to_stream", "flush_kwlist_to_stream: fprintf failed, errno %d", errno);
      return false;
    }
    buffer.clear();
    return true;
  };
  char *kw;
  char *value;
  int st;
  while ((st = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || st == KWL_WARN) {
    if (buffer.size() >= kPairBuffer && !write_out()) return -1;
    AppendPair(&buffer, kw, value, blank != 0);
    blank = 1;
  }
  if (st != KWL_END) rc = st;
  if (!buffer.empty() && !write_out()) return -1;
  return rc;
}

int QDcache_flush_put(const char *alias, KeywordList *attributes, KeywordList *methods) {
  if (flush_alias_to_stream(alias, attributes) != 0) return -1;
  if (attributes != nullptr && flush_kwlist_to_stream(QDlock_fptr, attributes, 0) != 0) return -1;
  if (methods != nullptr && flush_kwlist_to_stream(QDlock_fptr, methods, attributes != nullptr) != 0)
    return -1;
  if (fputc('\n', QDlock_fptr) == EOF) {
    QDtrace(3, "QDcache_flush_put", "QDcache_flush_put: fprintf failed, errno %d", errno);
    return -1;
  }
  return 0;
}

}  // extern "C"

namespace qdcache {

bool AppendEntry(TextBuffer *out, const ObjectRecord *object, const char *stamp) {
  const KeywordList *attributes = object->attributes, *methods = object->methods;
  using pv::layout::Live;
  if ((attributes != nullptr && !Live(attributes)) || (methods != nullptr && !Live(methods))) return false;
  Positionals p = FindPositionals(attributes);
  AppendHead(out, object->alias, p);
  bool blank = false;
  if (attributes != nullptr) {
    for (const KeywordEntry *k = attributes->kwl_first; k != nullptr; k = pv::layout::Next(k)) {
      int i = Positionals::Which(k->keyword);
      if (i >= 0 && p.Taken(i)) continue;  // written in the head, removed from the list
      if (stamp != nullptr && k->keyword[0] == 'O' && strcmp(k->keyword, "ObjTimestamp") == 0) continue;
      AppendPair(out, k->keyword, nullptr, blank);
      blank = true;
    }
    if (stamp != nullptr) {
      AppendPair(out, "ObjTimestamp", stamp, blank);
      blank = true;
    }
  }
  if (methods != nullptr) {
    blank = attributes != nullptr;
    for (const KeywordEntry *k = methods->kwl_first; k != nullptr; k = pv::layout::Next(k)) {
      AppendPair(out, k->keyword, nullptr, blank);
      blank = true;
    }
  }
  out->Put('\n');
  return true;
}

}  // namespace qdcache
