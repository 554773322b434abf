// The cache's exported flags.
#include "qd.h"

extern "C" {
int qdcache_on = 0;  // set by a load, cleared by a flush or free
}

extern "C" {
int qd_stale = 0;  // nonzero: criteria queries include entries marked alias_status
}
