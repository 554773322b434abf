#include "lock_state.h"

#include <cstdlib>

namespace qdlock {

TableLock table;
FileLock file;

SigintHold::SigintHold() {
  sigset_t block;
  sigemptyset(&block);
  sigaddset(&block, SIGINT);
  sigprocmask(SIG_BLOCK, &block, &saved_);
}

SigintHold::~SigintHold() { sigprocmask(SIG_SETMASK, &saved_, nullptr); }

unsigned RetrySeconds() {
#ifdef QD_FAULT_INJECTION
  // Test builds may shorten the wait so that contention tests stay quick.
  if (const char *s = getenv("QD_LOCK_RETRY_SECONDS")) return static_cast<unsigned>(atoi(s));
#endif
  return 3;
}

}  // namespace qdlock
