// Keyword lists: an ordered chain of keyword=value entries with a cursor.
//
// Entries are carved from blocks that the list owns: an entry is one small
// node followed by its keyword and its value, and a list is a few
// allocations however long it is. A copy of a list (DuplicateKeywordList,
// AddKeywordListToList) is one block of exactly its size, and a duplicated
// list shares one allocation with its header. Object tables of hundreds of
// thousands of entries are built from these, where an allocation per entry
// dominated both time and memory. An entry that is removed, or whose value
// outgrows its room and is carved anew, leaves dead bytes behind; once those
// outweigh the live ones the list is packed into a fresh block.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kwlist_layout.h"
#include "pv.h"
#include "pv_internal.h"

namespace {

using namespace pv::layout;

constexpr size_t kFirstRoom = 256;
constexpr size_t kMaxGrowth = 64 * 1024;
constexpr size_t kPackSlack = 4096;  // dead bytes tolerated whatever the live ones
constexpr size_t kMaxBlock = UINT32_MAX / 2;

char *ValueOf(KeywordEntry *e) { return e->keyword + strlen(e->keyword) + 1; }

// Bytes after the keyword, terminator and alignment padding included.
size_t ValueRoom(KeywordEntry *e) { return Span(e) - kEntryHead - (strlen(e->keyword) + 1); }

// Makes sure the newest block has `need` bytes free, adding a block of at
// least `room` bytes when it has not.
bool Reserve(KeywordList *list, size_t need, size_t room) {
  KeywordBlock *b = list->kwl_blocks;
  if (b != nullptr && b->room - b->used >= need) return true;
  if (room < need) room = need;
  if (room > kMaxBlock) return false;
  auto *fresh = static_cast<KeywordBlock *>(malloc(kBlockHead + room));
  if (fresh == nullptr) return false;
  *fresh = KeywordBlock{b, 0, static_cast<uint32_t>(room)};
  list->kwl_blocks = fresh;
  return true;
}

// Room for a block added by single entries: doubling, up to a limit.
size_t GrowthRoom(KeywordList *list) {
  const KeywordBlock *b = list->kwl_blocks;
  // A copy is exact and mostly stays as it is: what is added to it later
  // (a time stamp at a flush) gets just its own room.
  if (list->kwl_shared != kOwnBlocks && (b == nullptr || b == HeaderBlock(list))) return 0;
  if (b == nullptr || b->room == 0) return kFirstRoom;
  return b->room >= kMaxGrowth / 2 ? kMaxGrowth : b->room * 2;
}

// A new entry in the list's storage, not yet linked.
KeywordEntry *NewEntry(KeywordList *list, const char *keyword, const char *value) {
  if (keyword == nullptr) keyword = "";
  bool no_value = value == nullptr;
  if (no_value) value = "";
  size_t klen = strlen(keyword) + 1;
  size_t vlen = strlen(value) + 1;
  if (klen + vlen > kMaxBlock / 2) return nullptr;
  if (!Reserve(list, EntrySize(klen, vlen), GrowthRoom(list))) return nullptr;
  return Carve(list, keyword, klen, value, vlen, no_value);
}

size_t PackedSize(KeywordEntry *e) {
  size_t klen = strlen(e->keyword) + 1;
  return EntrySize(klen, strlen(e->keyword + klen) + 1);
}

// Copies the first `n` entries of `src` behind the end of `list`, in
// storage reserved in one go, so that it either fully happens or not at all.
int CopyEntries(KeywordList *list, const KeywordList *src, unsigned int n) {
  if (n == 0) return KWL_OK;
  size_t total = 0;
  KeywordEntry *e = src->kwl_first;
  for (unsigned int i = 0; i < n; ++i, e = Next(e)) total += PackedSize(e);
  if (!Reserve(list, total, total)) return KWL_NOMEM;
  KeywordEntry *head = nullptr;
  KeywordEntry *tail = nullptr;
  e = src->kwl_first;
  for (unsigned int i = 0; i < n; ++i, e = Next(e)) {
    size_t klen = strlen(e->keyword) + 1;
    const char *value = e->keyword + klen;
    KeywordEntry *c = Carve(list, e->keyword, klen, value, strlen(value) + 1, NoValue(e));
    if (tail != nullptr)
      SetNext(tail, c);
    else
      head = c;
    tail = c;
  }
  bool fresh_cursor = list->kwl_cursor == nullptr && list->kwl_count == 0;
  if (list->kwl_last != nullptr)
    SetNext(list->kwl_last, head);
  else
    list->kwl_first = head;
  list->kwl_last = tail;
  list->kwl_count += n;
  if (fresh_cursor) list->kwl_cursor = head;
  return KWL_OK;
}

// Frees every block but the one laid out with the header, which is kept
// with nothing carved from it.
void DropStorage(KeywordList *list) {
  KeywordBlock *shared = HeaderBlock(list);
  for (KeywordBlock *b = list->kwl_blocks; b != nullptr;) {
    KeywordBlock *next = b->next;
    if (b != shared) free(b);
    b = next;
  }
  list->kwl_blocks = nullptr;
  if (shared != nullptr) {
    *shared = KeywordBlock{nullptr, 0, 0};
    list->kwl_blocks = shared;
  }
}

size_t Carved(const KeywordList *list) {
  size_t n = 0;
  for (const KeywordBlock *b = list->kwl_blocks; b != nullptr; b = b->next) n += b->used;
  return n;
}

// Bytes of the live entries that lie in blocks the list owns.
size_t LiveOwned(KeywordList *list) {
  size_t n = 0;
  for (KeywordEntry *e = list->kwl_first; e != nullptr; e = Next(e)) {
    auto *p = reinterpret_cast<char *>(e);
    for (KeywordBlock *b = list->kwl_blocks; b != nullptr; b = b->next) {
      if (p >= Data(b) && p < Data(b) + b->used) {
        n += Span(e);
        break;
      }
    }
  }
  return n;
}

// Packs the live entries into one block when the dead ones in the list's own
// blocks outweigh them. Order and cursor are kept; strings move, as any
// change of a list allows. Small lists are never packed.
void MaybePack(KeywordList *list) {
  if (list->kwl_count == 0) {
    DropStorage(list);
    return;
  }
  size_t carved = Carved(list);
  if (carved <= kPackSlack) return;
  size_t live = LiveOwned(list);
  size_t dead = carved - live;
  if (dead <= kPackSlack || dead <= live) return;
  KeywordList packed{};
  if (CopyEntries(&packed, list, list->kwl_count) != KWL_OK) return;  // stays as it is
  KeywordEntry *cursor = nullptr;
  for (KeywordEntry *o = list->kwl_first, *c = packed.kwl_first; o != nullptr; o = Next(o), c = Next(c))
    if (o == list->kwl_cursor) cursor = c;
  DropStorage(list);
  packed.kwl_blocks->next = list->kwl_blocks;
  list->kwl_blocks = packed.kwl_blocks;
  list->kwl_first = packed.kwl_first;
  list->kwl_last = packed.kwl_last;
  list->kwl_cursor = cursor;
}

// The entry of the keyword, and the one before it (null for the first).
KeywordEntry *FindEntry(KeywordList *list, const char *keyword, KeywordEntry **prev_out = nullptr) {
  KeywordEntry *prev = nullptr;
  // The first characters differ for most entries: they are compared first.
  for (KeywordEntry *e = list->kwl_first; e != nullptr; prev = e, e = Next(e)) {
    if (e->keyword[0] == keyword[0] && strcmp(e->keyword, keyword) == 0) {
      if (prev_out != nullptr) *prev_out = prev;
      return e;
    }
  }
  return nullptr;
}

// Gives the entry a new value: in place when it fits, else as a new entry
// carved in its stead.
int SetValue(KeywordList *list, KeywordEntry *e, KeywordEntry *prev, const char *value) {
  bool no_value = value == nullptr;
  if (no_value) value = "";
  size_t vlen = strlen(value) + 1;
  if (vlen <= ValueRoom(e)) {
    memmove(ValueOf(e), value, vlen);
    SetNoValue(e, no_value);
    return KWL_OK;
  }
  size_t klen = strlen(e->keyword) + 1;
  if (klen + vlen > kMaxBlock / 2 || !Reserve(list, EntrySize(klen, vlen), GrowthRoom(list)))
    return KWL_NOMEM;
  // The value may lie in this very list: carving copies it before the old
  // entry is let go.
  KeywordEntry *c = Carve(list, e->keyword, klen, value, vlen, no_value);
  SetNext(c, Next(e));
  if (prev != nullptr)
    SetNext(prev, c);
  else
    list->kwl_first = c;
  if (list->kwl_last == e) list->kwl_last = c;
  if (list->kwl_cursor == e) list->kwl_cursor = c;
  MaybePack(list);
  return KWL_OK;
}

// Unlinks every entry for which drop(entry) holds, keeping the cursor valid.
template <typename Pred>
int RemoveIf(KeywordList *list, Pred drop) {
  int removed = 0;
  KeywordEntry *prev = nullptr;
  for (KeywordEntry *e = list->kwl_first; e != nullptr;) {
    KeywordEntry *next = Next(e);
    if (!drop(e)) {
      prev = e;
      e = next;
      continue;
    }
    if (prev != nullptr)
      SetNext(prev, next);
    else
      list->kwl_first = next;
    if (list->kwl_last == e) list->kwl_last = prev;
    if (list->kwl_cursor == e) list->kwl_cursor = next;
    --list->kwl_count;
    ++removed;
    e = next;
  }
  if (removed > 0) MaybePack(list);
  return removed;
}

int Deliver(const KeywordEntry *e) { return NoValue(e) ? KWL_WARN : KWL_OK; }

}  // namespace

extern "C" {

KeywordList *CreateKeywordList(void) {
  auto *list = static_cast<KeywordList *>(calloc(1, sizeof(KeywordList)));
  if (list != nullptr) list->kwl_magic = kLiveMagic;
  return list;
}

int DestroyKeywordList(KeywordList *list) {
  if (list == nullptr) return KWL_OK;
  if (!Live(list)) return KWL_INVALID;
  DropStorage(list);
  list->kwl_magic = kDeadMagic;
  if (list->kwl_shared != kForeign) free(list);
  return KWL_OK;
}

int AddKeywordToList(KeywordList *list, const char *keyword, const char *value) {
  if (!Live(list) || keyword == nullptr) return KWL_INVALID;
  KeywordEntry *e = NewEntry(list, keyword, value);
  if (e == nullptr) return KWL_NOMEM;
  Append(list, e);
  return KWL_OK;
}

int AddValueToList(KeywordList *list, const char *keyword, const char *value) {
  if (!Live(list) || keyword == nullptr || value == nullptr) return KWL_INVALID;
  KeywordEntry *prev = nullptr;
  KeywordEntry *e = FindEntry(list, keyword, &prev);
  if (e == nullptr) return AddKeywordToList(list, keyword, value);
  const char *current = ValueOf(e);
  if (IsInCommaList(value, current)) return KWL_OK;
  if (current[0] == '\0') return SetValue(list, e, prev, value);
  size_t old = strlen(current);
  size_t add = strlen(value);
  char *joined = static_cast<char *>(malloc(old + 1 + add + 1));
  if (joined == nullptr) return KWL_NOMEM;
  memcpy(joined, current, old);
  joined[old] = ',';
  memcpy(joined + old + 1, value, add + 1);
  int rc = SetValue(list, e, prev, joined);
  free(joined);
  return rc;
}

int UpdateKeywordInList(KeywordList *list, const char *keyword, const char *value) {
  if (!Live(list) || keyword == nullptr) return KWL_INVALID;
  KeywordEntry *prev = nullptr;
  KeywordEntry *e = FindEntry(list, keyword, &prev);
  if (e == nullptr) return AddKeywordToList(list, keyword, value);
  return SetValue(list, e, prev, value);
}

int RemoveKeywordFmList(KeywordList *list, const char *keyword) {
  if (!Live(list) || keyword == nullptr) return KWL_INVALID;
  int removed = RemoveIf(list, [keyword](const KeywordEntry *e) {
    return strcmp(e->keyword, keyword) == 0;
  });
  return removed > 0 ? KWL_OK : KWL_NOTFOUND;
}

int RemoveDuplicateKeywordFmList(KeywordList *list) {
  if (!Live(list)) return KWL_INVALID;
  // Lists here are an object's attributes: short, so quadratic is cheapest.
  // The walk from the first entry meets only the entries kept so far.
  int removed = RemoveIf(list, [list](const KeywordEntry *e) {
    for (const KeywordEntry *k = list->kwl_first; k != e; k = Next(k))
      if (strcmp(k->keyword, e->keyword) == 0) return true;
    return false;
  });
  return removed > 0 ? KWL_DUPLICATE : KWL_OK;
}

int ReferenceKeywordInList(KeywordList *list, const char *keyword, char **keyword_out,
                           char **value_out) {
  if (!Live(list) || keyword == nullptr) return KWL_INVALID;
  KeywordEntry *e = FindEntry(list, keyword);
  if (e == nullptr) return KWL_NOTFOUND;
  if (keyword_out != nullptr) *keyword_out = e->keyword;
  if (value_out != nullptr) *value_out = ValueOf(e);
  return Deliver(e);
}

int ReferenceNextKeywordInList(KeywordList *list, char **keyword_out, char **value_out) {
  // Every failure ends the iteration: callers loop until KWL_END.
  if (!Live(list) || list->kwl_cursor == nullptr) return KWL_END;
  KeywordEntry *e = list->kwl_cursor;
  list->kwl_cursor = Next(e);
  if (keyword_out != nullptr) *keyword_out = e->keyword;
  if (value_out != nullptr) *value_out = ValueOf(e);
  return Deliver(e);
}

int GetNextKeywordFmList(KeywordList *list, char *keyword_buf, char *value_buf) {
  char *kw = nullptr;
  char *value = nullptr;
  int rc = ReferenceNextKeywordInList(list, &kw, &value);
  if (rc != KWL_OK && rc != KWL_WARN) return rc;
  size_t klen = strlen(kw);
  size_t vlen = strlen(value);
  bool fits = klen < KWL_KEYWORD_BUFSIZE && vlen < KWL_VALUE_BUFSIZE;
  if (klen >= KWL_KEYWORD_BUFSIZE) klen = KWL_KEYWORD_BUFSIZE - 1;
  if (vlen >= KWL_VALUE_BUFSIZE) vlen = KWL_VALUE_BUFSIZE - 1;
  memcpy(keyword_buf, kw, klen);
  keyword_buf[klen] = '\0';
  memcpy(value_buf, value, vlen);
  value_buf[vlen] = '\0';
  return fits ? rc : KWL_TRUNCATED;
}

KeywordList *DuplicateKeywordList(KeywordList *list) {
  if (!Live(list)) return nullptr;
  // The header and every entry in one allocation.
  size_t total = 0;
  for (KeywordEntry *e = list->kwl_first; e != nullptr; e = Next(e)) total += PackedSize(e);
  if (total > kMaxBlock) return nullptr;
  void *memory = malloc(ListSize(total, kOneBlock));
  if (memory == nullptr) return nullptr;
  KeywordList *copy = Lay(memory, total, kOneBlock);
  CopyEntries(copy, list, list->kwl_count);  // cannot fail: the room is there
  copy->kwl_cursor = copy->kwl_first;
  return copy;
}

int AddKeywordListToList(KeywordList *dest, KeywordList *src) {
  if (!Live(dest) || !Live(src)) return KWL_INVALID;
  // Counted first, so that a list appended to itself ends.
  return CopyEntries(dest, src, src->kwl_count);
}

int NumberOfKeywords(KeywordList *list) {
  return Live(list) ? static_cast<int>(list->kwl_count) : 0;
}

int ValidKeywordList(KeywordList *list) { return Live(list) ? KWL_OK : KWL_INVALID; }

int DisplayKeywordList(KeywordList *list) { return pv::WriteListToTrace(8, "DisplayKeywordList", list); }

int DumpKeywordList(KeywordList *list) { return pv::WriteListToTrace(-1, "DumpKeywordList", list); }

}  // extern "C"
