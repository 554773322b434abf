// The destroy walk, behind QDdestroy and QD_destroy_object.
//
// Everything the walk does to the outside world (run an object's method,
// delete an entry, write the cache back) goes through an actor: the library
// performs those acts, qdadm's dry run records them. The walk uses only
// libQD's public functions, so qdadm compiles this same walk against the
// shared library instead of keeping a copy of its logic.
#ifndef QD_ARCHIVE_DESTROY_WALK_H
#define QD_ARCHIVE_DESTROY_WALK_H

#include "qd.h"

namespace qd {

class DestroyActor {
 public:
  virtual ~DestroyActor() = default;
  // Runs the method of the alias without parameters: its result list
  // (the walk destroys it), or nullptr.
  virtual KeywordList *Perform(const char *alias, const char *method) = 0;
  // Deletes the entry: QDdelete's result.
  virtual int Delete(const char *alias) = 0;
  // The walk loaded the cache and is done with it.
  virtual void DoneWithCache() = 0;
};

// What merging a sub-list into a result list does with each keyword.
enum class Merge { kAliases, kCode, kAppend };
Merge MergeOf(const char *keyword);

// QDdestroy: defaults, the early failures, cache or lock, the walk.
KeywordList *Destroy(const char *alias, unsigned char flags, DestroyActor *actor);
// QD_destroy_object: the walk over the object and, with QDCONTAINS,
// everything it contains, contained objects first.
KeywordList *DestroyObject(ObjectRecord *object, unsigned char flags, DestroyActor *actor);

}  // namespace qd

#endif
