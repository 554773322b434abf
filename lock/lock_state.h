// Process-wide state of the locking subsystem: the table lock (on the lock
// file beside the table) and the file-pointer lock (on the table file).
//
// fcntl traps, written down once:
// - closing ANY descriptor of a file drops every lock this process holds on
//   it, so a descriptor of a locked file is never closed while other counted
//   locks still rely on it;
// - a lock never excludes its own process: nesting is counted here, and a
//   second F_SETLK(W) on the same file converts the lock (read <-> write);
// - a lock belongs to an inode, not a path: a file removed or replaced after
//   we opened it is caught by comparing inode numbers after locking.
#ifndef QD_LOCK_STATE_H
#define QD_LOCK_STATE_H

#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>

namespace qdlock {

struct TableLock {
  int fd = -1;              // QDlock_fd: the open lock file
  int counter = 0;          // QDlock_counter: locks held, both kinds
  int rlck_cnt = 0;         // QDlock_rlck_cnt
  int wlck_cnt = 0;         // QDlock_wlck_cnt
  const char *utility = "unknown";  // QDlock_utility: program name for the records
  char path[1024] = "";     // QDlock_path
  struct stat fd_stat {};   // QDlock_stat
  struct stat path_stat {}; // QDlock_path_stat
  char info[100] = "";      // QDlock_info: the last record written
};

struct FileLock {
  int fd = -1;              // the open table file
  int lock_counter = 0;
  int read_lock_count = 0;
  int write_lock_count = 0;
  char file[1024] = "";     // QDlock_file
  bool writable = false;    // fd was opened read-write
  FILE *read_only = nullptr; // the read stream a conversion to write replaced:
                             // kept open, as closing it would drop our locks
};

extern TableLock table;
extern FileLock file;

// Holds SIGINT for its lifetime, restoring the mask it found.
class SigintHold {
 public:
  SigintHold();
  ~SigintHold();
  SigintHold(const SigintHold &) = delete;
  SigintHold &operator=(const SigintHold &) = delete;

 private:
  sigset_t saved_;
};

// Seconds between attempts while waiting for a conflicting table lock.
unsigned RetrySeconds();

// This process, holding the table file's write lock, has replaced the table
// with the file on `fd`, already write-locked: the file lock moves to it
// (counts unchanged), so that it stays on the file the path names. False
// when no write file lock is held or the stream cannot be made; the caller
// then keeps `fd`.
bool AdoptReplacement(int fd);

}  // namespace qdlock

#endif
