// Keyword lists: an ordered chain of keyword=value entries with a cursor.
//
// Each entry is one allocation holding the node and both strings; a value
// that outgrows its room moves to a block of its own. Object tables of
// hundreds of thousands of entries are built from these, so the common case
// is one malloc per entry.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "pv.h"
#include "pv_internal.h"

struct KeywordEntry {
  KeywordEntry *next;
  char *value;          // inline after the keyword, or a block of its own
  uint32_t value_room;  // bytes available at value, terminator included
  uint8_t value_own;    // value lives in a block of its own
  uint8_t no_value;     // added with a NULL value: delivered as "" with KWL_WARN
  char keyword[1];      // the keyword, then (when inline) the value
};

namespace {

constexpr unsigned long kLiveMagic = 0x4b574c31UL;  // "KWL1"
constexpr unsigned long kDeadMagic = 0xdeadbeefUL;

KeywordEntry *NewEntry(const char *keyword, const char *value) {
  if (keyword == nullptr) keyword = "";
  bool no_value = value == nullptr;
  if (no_value) value = "";
  size_t klen = strlen(keyword) + 1;
  size_t vlen = strlen(value) + 1;
  if (klen + vlen > UINT32_MAX) return nullptr;
  auto *e = static_cast<KeywordEntry *>(malloc(offsetof(KeywordEntry, keyword) + klen + vlen));
  if (e == nullptr) return nullptr;
  e->next = nullptr;
  memcpy(e->keyword, keyword, klen);
  e->value = e->keyword + klen;
  memcpy(e->value, value, vlen);
  e->value_room = static_cast<uint32_t>(vlen);
  e->value_own = 0;
  e->no_value = no_value;
  return e;
}

void FreeEntry(KeywordEntry *e) {
  if (e->value_own) free(e->value);
  free(e);
}

int SetValue(KeywordEntry *e, const char *value) {
  e->no_value = value == nullptr ? 1 : 0;
  if (value == nullptr) value = "";
  size_t vlen = strlen(value) + 1;
  if (vlen <= e->value_room) {
    memmove(e->value, value, vlen);
    return KWL_OK;
  }
  if (vlen > UINT32_MAX) return KWL_NOMEM;
  char *block = static_cast<char *>(malloc(vlen));
  if (block == nullptr) return KWL_NOMEM;
  memcpy(block, value, vlen);
  if (e->value_own) free(e->value);
  e->value = block;
  e->value_room = static_cast<uint32_t>(vlen);
  e->value_own = 1;
  return KWL_OK;
}

bool Live(const KeywordList *list) { return list != nullptr && list->kwl_magic == kLiveMagic; }

void Append(KeywordList *list, KeywordEntry *e) {
  if (list->kwl_last != nullptr)
    list->kwl_last->next = e;
  else
    list->kwl_first = e;
  // A list that has delivered nothing yet starts from its first entry.
  if (list->kwl_cursor == nullptr && list->kwl_count == 0) list->kwl_cursor = e;
  list->kwl_last = e;
  ++list->kwl_count;
}

KeywordEntry *FindEntry(KeywordList *list, const char *keyword) {
  for (KeywordEntry *e = list->kwl_first; e != nullptr; e = e->next)
    if (strcmp(e->keyword, keyword) == 0) return e;
  return nullptr;
}

// Unlinks every entry for which drop(entry) holds, keeping the cursor valid.
template <typename Pred>
int RemoveIf(KeywordList *list, Pred drop) {
  int removed = 0;
  KeywordEntry *prev = nullptr;
  for (KeywordEntry *e = list->kwl_first; e != nullptr;) {
    KeywordEntry *next = e->next;
    if (!drop(e)) {
      prev = e;
      e = next;
      continue;
    }
    if (prev != nullptr)
      prev->next = next;
    else
      list->kwl_first = next;
    if (list->kwl_last == e) list->kwl_last = prev;
    if (list->kwl_cursor == e) list->kwl_cursor = next;
    --list->kwl_count;
    FreeEntry(e);
    ++removed;
    e = next;
  }
  return removed;
}

int Deliver(const KeywordEntry *e) { return e->no_value ? KWL_WARN : KWL_OK; }

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
  for (KeywordEntry *e = list->kwl_first; e != nullptr;) {
    KeywordEntry *next = e->next;
    FreeEntry(e);
    e = next;
  }
  list->kwl_magic = kDeadMagic;
  free(list);
  return KWL_OK;
}

int AddKeywordToList(KeywordList *list, const char *keyword, const char *value) {
  if (!Live(list) || keyword == nullptr) return KWL_INVALID;
  KeywordEntry *e = NewEntry(keyword, value);
  if (e == nullptr) return KWL_NOMEM;
  Append(list, e);
  return KWL_OK;
}

int AddValueToList(KeywordList *list, const char *keyword, const char *value) {
  if (!Live(list) || keyword == nullptr || value == nullptr) return KWL_INVALID;
  KeywordEntry *e = FindEntry(list, keyword);
  if (e == nullptr) return AddKeywordToList(list, keyword, value);
  if (IsInCommaList(value, e->value)) return KWL_OK;
  if (e->value[0] == '\0') return SetValue(e, value);
  size_t old = strlen(e->value);
  size_t add = strlen(value);
  char *joined = static_cast<char *>(malloc(old + 1 + add + 1));
  if (joined == nullptr) return KWL_NOMEM;
  memcpy(joined, e->value, old);
  joined[old] = ',';
  memcpy(joined + old + 1, value, add + 1);
  int rc = SetValue(e, joined);
  free(joined);
  return rc;
}

int UpdateKeywordInList(KeywordList *list, const char *keyword, const char *value) {
  if (!Live(list) || keyword == nullptr) return KWL_INVALID;
  KeywordEntry *e = FindEntry(list, keyword);
  if (e == nullptr) return AddKeywordToList(list, keyword, value);
  return SetValue(e, value);
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
  int removed = 0;
  for (KeywordEntry *keep = list->kwl_first; keep != nullptr; keep = keep->next) {
    const char *kw = keep->keyword;
    KeywordEntry *prev = keep;
    for (KeywordEntry *e = keep->next; e != nullptr;) {
      KeywordEntry *next = e->next;
      if (strcmp(e->keyword, kw) == 0) {
        prev->next = next;
        if (list->kwl_last == e) list->kwl_last = prev;
        if (list->kwl_cursor == e) list->kwl_cursor = next;
        --list->kwl_count;
        FreeEntry(e);
        ++removed;
      } else {
        prev = e;
      }
      e = next;
    }
  }
  return removed > 0 ? KWL_DUPLICATE : KWL_OK;
}

int ReferenceKeywordInList(KeywordList *list, const char *keyword, char **keyword_out,
                           char **value_out) {
  if (!Live(list) || keyword == nullptr) return KWL_INVALID;
  KeywordEntry *e = FindEntry(list, keyword);
  if (e == nullptr) return KWL_NOTFOUND;
  if (keyword_out != nullptr) *keyword_out = e->keyword;
  if (value_out != nullptr) *value_out = e->value;
  return Deliver(e);
}

int ReferenceNextKeywordInList(KeywordList *list, char **keyword_out, char **value_out) {
  // Every failure ends the iteration: callers loop until KWL_END.
  if (!Live(list) || list->kwl_cursor == nullptr) return KWL_END;
  KeywordEntry *e = list->kwl_cursor;
  list->kwl_cursor = e->next;
  if (keyword_out != nullptr) *keyword_out = e->keyword;
  if (value_out != nullptr) *value_out = e->value;
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
  KeywordList *copy = CreateKeywordList();
  if (copy == nullptr) return nullptr;
  if (AddKeywordListToList(copy, list) != KWL_OK) {
    DestroyKeywordList(copy);
    return nullptr;
  }
  copy->kwl_cursor = copy->kwl_first;
  return copy;
}

int AddKeywordListToList(KeywordList *dest, KeywordList *src) {
  if (!Live(dest) || !Live(src)) return KWL_INVALID;
  // Copy before linking so that a list appended to itself ends.
  KeywordEntry *head = nullptr;
  KeywordEntry *tail = nullptr;
  unsigned long n = 0;
  for (KeywordEntry *e = src->kwl_first; e != nullptr; e = e->next) {
    KeywordEntry *c = NewEntry(e->keyword, e->no_value ? nullptr : e->value);
    if (c == nullptr) {
      while (head != nullptr) {
        KeywordEntry *next = head->next;
        FreeEntry(head);
        head = next;
      }
      return KWL_NOMEM;
    }
    if (tail != nullptr)
      tail->next = c;
    else
      head = c;
    tail = c;
    ++n;
  }
  if (head == nullptr) return KWL_OK;
  bool fresh_cursor = dest->kwl_cursor == nullptr && dest->kwl_count == 0;
  if (dest->kwl_last != nullptr)
    dest->kwl_last->next = head;
  else
    dest->kwl_first = head;
  dest->kwl_last = tail;
  dest->kwl_count += n;
  if (fresh_cursor) dest->kwl_cursor = head;
  return KWL_OK;
}

int NumberOfKeywords(KeywordList *list) {
  return Live(list) ? static_cast<int>(list->kwl_count) : 0;
}

int ValidKeywordList(KeywordList *list) { return Live(list) ? KWL_OK : KWL_INVALID; }

int DisplayKeywordList(KeywordList *list) { return pv::WriteListToTrace(8, "DisplayKeywordList", list); }

int DumpKeywordList(KeywordList *list) { return pv::WriteListToTrace(-1, "DumpKeywordList", list); }

}  // extern "C"
