#include "arena.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "qd.h"

namespace qdcache {

namespace {

constexpr size_t kMinBlock = 4u << 20;
constexpr size_t kHuge = 2u << 20;
// Faulted in a huge page at a time, as the allocations reach it.
constexpr size_t kPopulateStep = kHuge;

size_t RoundUp(size_t n, size_t to) { return (n + to - 1) / to * to; }

void *Map(size_t bytes) {
  void *p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (p == MAP_FAILED) {
    QDtrace(3, "QDcache", "QDcache: cannot map %lu bytes for cached objects", static_cast<unsigned long>(bytes));
    exit(1);
  }
#ifdef MADV_HUGEPAGE
  if (bytes >= kHuge) madvise(p, bytes, MADV_HUGEPAGE);
#endif
  return p;
}

}  // namespace

void *MapZeroed(size_t bytes) {
  void *p = Map(bytes);
#ifdef MADV_POPULATE_WRITE
  madvise(p, bytes, MADV_POPULATE_WRITE);
#endif
  return p;
}

void Unmap(void *p, size_t bytes) {
  if (p != nullptr) munmap(p, bytes);
}

void Rezero(void *p, size_t bytes) {
  if (bytes < kHuge || madvise(p, bytes, MADV_DONTNEED) != 0) memset(p, 0, bytes);
}

void *Arena::Allocate(size_t bytes) {
  bytes = (bytes + 7) & ~static_cast<size_t>(7);
  while (next_ == nullptr || static_cast<size_t>(end_ - next_) < bytes) {
    // The next kept block, or a new one when none is left that is big enough.
    size_t i = next_ == nullptr ? 0 : current_ + 1;
    while (i < blocks_.size() && blocks_[i].size < bytes) ++i;
    if (i < blocks_.size())
      Enter(i);
    else
      NewBlock(bytes);
  }
  char *p = next_;
  next_ += bytes;
  used_ += bytes;
  if (next_ > populated_) Populate(static_cast<size_t>(next_ - blocks_[current_].base));
  return p;
}

void Arena::Enter(size_t block) {
  current_ = block;
  next_ = populated_ = blocks_[block].base;
  end_ = next_ + blocks_[block].size;
}

void Arena::NewBlock(size_t at_least) {
  // Each block as big as all before it: few blocks, little left unused.
  size_t want = std::max({at_least, kMinBlock, mapped_});
  want = RoundUp(want, kHuge);
  void *p = Map(want);
  blocks_.push_back({static_cast<char *>(p), want});
  mapped_ += want;
  Enter(blocks_.size() - 1);
}

void Arena::Populate(size_t upto) {
  const Block &b = blocks_[current_];
  size_t from = static_cast<size_t>(populated_ - b.base);
  size_t to = std::min(b.size, RoundUp(upto, kPopulateStep));
#ifdef MADV_POPULATE_WRITE
  // Where the kernel cannot, the pages are simply faulted in as they are used.
  madvise(populated_, to - from, MADV_POPULATE_WRITE);
#endif
  populated_ = b.base + to;
}

bool Arena::Owns(const void *p) const {
  auto a = reinterpret_cast<uintptr_t>(p);
  for (const Block &b : blocks_) {
    auto base = reinterpret_cast<uintptr_t>(b.base);
    if (a >= base && a - base < b.size) return true;
  }
  return false;
}

void Arena::Reset() {
#ifdef MADV_FREE
  for (size_t i = 0; i < blocks_.size() && i <= current_; ++i) {
    size_t used = i < current_ ? blocks_[i].size : static_cast<size_t>(next_ - blocks_[i].base);
    if (used > 0) madvise(blocks_[i].base, RoundUp(used, 4096), MADV_FREE);
  }
#endif
  next_ = end_ = populated_ = nullptr;
  current_ = 0;
  used_ = 0;
}

void Arena::Release() {
  for (const Block &b : blocks_) munmap(b.base, b.size);
  blocks_.clear();
  next_ = end_ = populated_ = nullptr;
  current_ = 0;
  mapped_ = used_ = 0;
}

}  // namespace qdcache
