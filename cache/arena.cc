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
// The stretch of small pages faulted in at a time.
constexpr size_t kSmallStep = 64u << 10;

size_t RoundUp(size_t n, size_t to) { return (n + to - 1) / to * to; }

// Fresh pages from the kernel; the process ends (status 1) when none can be had.
char *MapPages(size_t bytes) {
  void *p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (p == MAP_FAILED) {
    QDtrace(3, "QDcache", "QDcache: cannot map %lu bytes for cached objects", static_cast<unsigned long>(bytes));
    exit(1);
  }
  return static_cast<char *>(p);
}

// `bytes` (a multiple of kHuge) at a huge page boundary, so that each
// stretch of kHuge can take a huge page.
char *MapAligned(size_t bytes) {
  char *raw = MapPages(bytes + kHuge);
  char *base = raw + (RoundUp(reinterpret_cast<uintptr_t>(raw), kHuge) - reinterpret_cast<uintptr_t>(raw));
  if (base > raw) munmap(raw, static_cast<size_t>(base - raw));
  size_t tail = static_cast<size_t>(raw + bytes + kHuge - (base + bytes));
  if (tail > 0) munmap(base + bytes, tail);
  return base;
}

void Advise(void *p, size_t bytes, bool huge) {
#if defined(MADV_HUGEPAGE) && defined(MADV_NOHUGEPAGE)
  madvise(p, bytes, huge ? MADV_HUGEPAGE : MADV_NOHUGEPAGE);
#else
  (void)p, (void)bytes, (void)huge;
#endif
}

void FaultIn(void *p, size_t bytes) {
#ifdef MADV_POPULATE_WRITE
  // Where the kernel cannot, the pages are simply faulted in as they are used.
  madvise(p, bytes, MADV_POPULATE_WRITE);
#else
  (void)p, (void)bytes;
#endif
}

void *Map(size_t bytes) {
  if (bytes < kHuge) return MapPages(bytes);
  char *p = MapAligned(RoundUp(bytes, kHuge));
  Advise(p, RoundUp(bytes, kHuge), true);
  return p;
}

}  // namespace

void *MapZeroed(size_t bytes) {
  void *p = Map(bytes);
  FaultIn(p, bytes);
  return p;
}

void Unmap(void *p, size_t bytes) {
  if (p != nullptr) munmap(p, bytes < kHuge ? bytes : RoundUp(bytes, kHuge));
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
  char *p = MapAligned(want);
  blocks_.push_back({static_cast<char *>(p), want});
  mapped_ += want;
  Enter(blocks_.size() - 1);
}

void Arena::Expect(size_t more) { expected_ = used_ + more; }

// A huge page for each stretch the allocations will fill, small pages for
// the last one: the cache then holds little more than it uses.
bool Arena::WillFill(const char *stretch_end) const {
  if (expected_ == kUnknown) return true;
  size_t need = static_cast<size_t>(stretch_end - next_);
  return expected_ > used_ && expected_ - used_ >= need;
}

void Arena::Populate(size_t upto) {
  const Block &b = blocks_[current_];
  while (populated_ < b.base + upto) {
    size_t at = static_cast<size_t>(populated_ - b.base);
    size_t stretch = std::min(kHuge, b.size - at);  // blocks are whole huge pages
    if (at % kHuge == 0) {
      small_ = !WillFill(populated_ + stretch);
      Advise(populated_, stretch, !small_);
    }
    size_t step = small_ ? std::min(kSmallStep, stretch) : kHuge - at % kHuge;
    FaultIn(populated_, step);
    populated_ += step;
  }
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
  expected_ = kUnknown;
}

void Arena::Release() {
  for (const Block &b : blocks_) munmap(b.base, b.size);
  blocks_.clear();
  next_ = end_ = populated_ = nullptr;
  current_ = 0;
  mapped_ = used_ = 0;
  expected_ = kUnknown;
}

}  // namespace qdcache
