// Another process that takes a lock and holds it until told to let go (or
// until it is killed), for tests that need real contention.
#ifndef TESTS_SUPPORT_HOLDER_H
#define TESTS_SUPPORT_HOLDER_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

class Holder {
 public:
  // Runs take() in a child; the constructor returns once it has succeeded.
  // Before letting go the child runs before_release().
  explicit Holder(std::function<int()> take, std::function<void()> release,
                  std::function<void()> before_release = [] {}) {
    signal(SIGPIPE, SIG_IGN);  // a killed holder must not take the test down
    int up[2], down[2];
    if (pipe(up) != 0 || pipe(down) != 0) abort();
    pid_ = fork();
    if (pid_ == 0) {
      close(up[0]);
      close(down[1]);
      char ok = take() == 0 ? 'y' : 'n';
      if (write(up[1], &ok, 1) != 1) _exit(2);
      char go;
      if (read(down[0], &go, 1) != 1) _exit(3);
      before_release();
      release();
      _exit(0);
    }
    close(up[1]);
    close(down[0]);
    go_ = down[1];
    char ok = 'n';
    took_ = read(up[0], &ok, 1) == 1 && ok == 'y';
    close(up[0]);
  }
  ~Holder() {
    Release();
    Wait();
  }
  bool took() const { return took_; }
  void Release() {
    if (go_ >= 0) {
      char go = 'g';
      if (write(go_, &go, 1) != 1) {
      }
      close(go_);
      go_ = -1;
    }
  }
  void Kill() { kill(pid_, SIGKILL); }
  int Wait() {
    if (pid_ <= 0) return -1;
    int st = 0;
    waitpid(pid_, &st, 0);
    pid_ = -1;
    return st;
  }

 private:
  pid_t pid_ = -1;
  int go_ = -1;
  bool took_ = false;
};

#endif
