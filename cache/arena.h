// Memory for the cached objects: entries, object records, aliases and
// keyword lists are carved from large blocks that the cache owns, and are
// all let go at once when it is freed. A load makes hundreds of thousands of
// small records; from blocks they cost no allocation each, and the blocks
// are faulted in ahead of use (huge pages where the kernel gives them), so
// that a first load in a fresh process is not a long run of page faults.
// A caller that can foresee how much more it will ask for (the loader, from
// the part of the table it has read) gets small pages for the last stretch,
// which a huge page would mostly leave unused.
// A freed cache keeps its blocks for the next load, as an allocator keeps
// its heap, but lets the kernel take their pages back when it needs them.
#ifndef QD_CACHE_ARENA_H
#define QD_CACHE_ARENA_H

#include <cstddef>
#include <vector>

namespace qdcache {

class Arena {
 public:
  Arena() = default;
  ~Arena() { Release(); }
  Arena(const Arena &) = delete;
  Arena &operator=(const Arena &) = delete;

  // 8-aligned memory; ends the process (status 1) when none can be had, as
  // the cache's other small allocators do.
  void *Allocate(size_t bytes);
  // Whether `p` lies in one of the blocks (its memory is not freed alone).
  bool Owns(const void *p) const;
  // Lets go of everything carved; the blocks stay for reuse, their pages
  // reclaimable by the kernel.
  void Reset();
  // Gives every block back to the kernel.
  void Release();
  // The caller's estimate of how many more bytes it will ask for before
  // the next Reset; until it gives one, every stretch is taken whole.
  void Expect(size_t more);
  size_t mapped() const { return mapped_; }
  size_t used() const { return used_; }

 private:
  struct Block {
    char *base;
    size_t size;
  };
  void NewBlock(size_t at_least);
  void Enter(size_t block);
  void Populate(size_t upto);
  bool WillFill(const char *stretch_end) const;
  static constexpr size_t kUnknown = ~static_cast<size_t>(0);
  std::vector<Block> blocks_;
  size_t current_ = 0;         // the block carved from
  char *next_ = nullptr;       // first free byte of the newest block
  char *end_ = nullptr;        // end of the newest block
  char *populated_ = nullptr;  // faulted in up to here
  size_t mapped_ = 0;
  size_t used_ = 0;
  size_t expected_ = kUnknown;  // used_ the caller expects to reach
  bool small_ = false;          // the stretch being faulted in takes small pages
};

// Zeroed memory straight from the kernel, faulted in at once (in huge pages
// when it fills them), for a table that is rebuilt rather than grown in
// place; ends the process (status 1) when none can be had.
void *MapZeroed(size_t bytes);
void Unmap(void *p, size_t bytes);
// Zeroes the range again, giving a big one's pages back to the kernel.
void Rezero(void *p, size_t bytes);

}  // namespace qdcache

#endif
