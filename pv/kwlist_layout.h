// How a keyword list lies in memory: a header, then blocks from which its
// entries are carved, each entry a small node followed by its keyword and
// its value. The list operations own this layout; the cache also lays lists
// out in memory of its own (a load makes hundreds of thousands of them), and
// the list operations then leave that memory alone.
#ifndef PV_KWLIST_LAYOUT_H
#define PV_KWLIST_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "pv.h"

// Entries lie back to back at 4-byte boundaries: a table's worth of short
// pairs loses less to padding, and x86 reads a pointer from any address.
// An entry's size follows from its strings, so the link to the next entry
// is all its head holds (a table's worth of pairs is millions of heads).
struct __attribute__((packed, aligned(4))) KeywordEntry {
  uintptr_t link;    // the next entry; the low bit marks this entry as one without a value
  char keyword[1];   // the keyword, then its value
};

struct KeywordBlock {
  KeywordBlock *next;  // the block filled before this one
  uint32_t used;
  uint32_t room;
};

namespace pv {
namespace layout {

constexpr unsigned long kLiveMagic = 0x4b574c31UL;  // "KWL1"
constexpr unsigned long kDeadMagic = 0xdeadbeefUL;

// Who owns the header and the memory laid out with it (kwl_shared).
enum Storage : int {
  kOwnBlocks = 0,  // the header alone; blocks come and go on their own
  kOneBlock = 1,   // header and a first block are one allocation of the list's
  kForeign = 2,    // header and the entries laid out behind it lie in memory the
                   // list does not own; entries added later go to blocks it owns
};

constexpr uintptr_t kNoValue = 1;  // entries are 4-aligned: the low bits of a link are free

constexpr size_t Align(size_t n) { return (n + 7) & ~static_cast<size_t>(7); }
constexpr size_t kBlockHead = Align(sizeof(KeywordBlock));
constexpr size_t kListHead = Align(sizeof(KeywordList));
constexpr size_t kEntryHead = offsetof(KeywordEntry, keyword);

// A list the list operations made and have not destroyed.
inline bool Live(const KeywordList *list) { return list != nullptr && list->kwl_magic == kLiveMagic; }

inline KeywordEntry *Next(const KeywordEntry *e) { return reinterpret_cast<KeywordEntry *>(e->link & ~kNoValue); }
inline void SetNext(KeywordEntry *e, const KeywordEntry *next) {
  e->link = reinterpret_cast<uintptr_t>(next) | (e->link & kNoValue);
}
inline bool NoValue(const KeywordEntry *e) { return (e->link & kNoValue) != 0; }
inline void SetNoValue(KeywordEntry *e, bool no_value) { e->link = (e->link & ~kNoValue) | (no_value ? kNoValue : 0); }

// Bytes of an entry whose keyword and value take klen and vlen bytes, their
// terminators included.
constexpr size_t EntrySize(size_t klen, size_t vlen) { return (kEntryHead + klen + vlen + 3) & ~static_cast<size_t>(3); }
// Bytes an entry takes for the strings it holds now (a value shortened in
// place leaves its old room behind, unused).
inline size_t Span(const KeywordEntry *e) {
  size_t klen = strlen(e->keyword) + 1;
  return EntrySize(klen, strlen(e->keyword + klen) + 1);
}
// Bytes of a list laid out at once with `room` bytes of entries.
constexpr size_t ListSize(size_t room, Storage storage) {
  return kListHead + (storage == kOneBlock ? kBlockHead : 0) + room;
}

inline char *Data(KeywordBlock *b) { return reinterpret_cast<char *>(b) + kBlockHead; }

// The block laid out right behind the header (a kOneBlock list's), or null.
inline KeywordBlock *HeaderBlock(KeywordList *list) {
  if (list->kwl_shared != kOneBlock) return nullptr;
  return reinterpret_cast<KeywordBlock *>(reinterpret_cast<char *>(list) + kListHead);
}

// Where the entries of a list laid out at once begin.
inline char *LaidEntries(KeywordList *list) {
  KeywordBlock *b = HeaderBlock(list);
  return b != nullptr ? Data(b) : reinterpret_cast<char *>(list) + kListHead;
}

// An empty list in `memory` (ListSize(room, storage) bytes, 8-aligned) with
// `room` bytes of entries ready behind it (kOneBlock), or to be filled by
// the owner of the memory with Fill (kForeign).
inline KeywordList *Lay(void *memory, size_t room, Storage storage) {
  auto *list = static_cast<KeywordList *>(memory);
  *list = KeywordList{};
  list->kwl_magic = kLiveMagic;
  list->kwl_shared = storage;
  if (KeywordBlock *block = HeaderBlock(list)) {
    *block = KeywordBlock{nullptr, 0, static_cast<uint32_t>(room)};
    list->kwl_blocks = block;
  }
  return list;
}

// Writes an entry at `at` (4-aligned, EntrySize(klen, vlen) bytes); it is
// not linked.
inline KeywordEntry *Fill(char *at, const char *keyword, size_t klen, const char *value, size_t vlen,
                          bool no_value) {
  auto *e = reinterpret_cast<KeywordEntry *>(at);
  e->link = no_value ? kNoValue : 0;
  memcpy(e->keyword, keyword, klen);
  memcpy(e->keyword + klen, value, vlen);
  return e;
}

// Fills an entry in reserved room of the newest block; it is not linked.
inline KeywordEntry *Carve(KeywordList *list, const char *keyword, size_t klen, const char *value,
                           size_t vlen, bool no_value) {
  KeywordBlock *b = list->kwl_blocks;
  KeywordEntry *e = Fill(Data(b) + b->used, keyword, klen, value, vlen, no_value);
  b->used += static_cast<uint32_t>(EntrySize(klen, vlen));
  return e;
}

// Links an entry behind the last one; a list that has delivered nothing yet
// starts its iteration at its first entry.
inline void Append(KeywordList *list, KeywordEntry *e) {
  if (list->kwl_last != nullptr)
    SetNext(list->kwl_last, e);
  else
    list->kwl_first = e;
  if (list->kwl_cursor == nullptr && list->kwl_count == 0) list->kwl_cursor = e;
  list->kwl_last = e;
  ++list->kwl_count;
}

}  // namespace layout
}  // namespace pv

#endif
