#include "method_spawn.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

extern char **environ;

namespace qdmethods {

namespace {

const char kHereDoc[] = " << 'EOF'\n";
// The shell's side of the here-document, at the operator's place. The
// descriptor is closed for the command itself: it only needs its input.
const char kFromBody[] = " 0<&3 3<&-";
constexpr int kBodyFd = 3;
// Our own descriptors are moved up here, clear of 1 and 3, so that the
// child's dup2 onto those numbers always copies (and drops close-on-exec).
constexpr int kHighFd = 10;

int MoveHigh(int fd) {
  if (fd < 0 || fd >= kHighFd) return fd;
  int high = fcntl(fd, F_DUPFD_CLOEXEC, kHighFd);
  int saved = errno;
  close(fd);
  errno = saved;
  return high;
}

// An unnamed file holding data, read from its start.
int DataFile(const std::string &data) {
  int fd = memfd_create("qdmethod", MFD_CLOEXEC);
  if (fd < 0) {
    char name[] = "/tmp/qdbodyXXXXXX";
    fd = mkostemp(name, O_CLOEXEC);
    if (fd >= 0) unlink(name);
  }
  fd = MoveHigh(fd);
  if (fd < 0) return -1;
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      close(fd);
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  if (lseek(fd, 0, SEEK_SET) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

class Actions {
 public:
  Actions() { ok_ = posix_spawn_file_actions_init(&fa_) == 0; }
  ~Actions() {
    if (ok_) posix_spawn_file_actions_destroy(&fa_);
  }
  Actions(const Actions &) = delete;
  Actions &operator=(const Actions &) = delete;
  bool Dup(int from, int to) { return ok_ && posix_spawn_file_actions_adddup2(&fa_, from, to) == 0; }
  posix_spawn_file_actions_t *get() { return &fa_; }

 private:
  posix_spawn_file_actions_t fa_;
  bool ok_;
};

}  // namespace

ShellText SplitCommandText(const std::string &text) {
  ShellText t;
  // The first operator is ours or the command line's own: parameter lines
  // come after it, so no parameter can move it.
  size_t at = text.find(kHereDoc);
  if (at == std::string::npos) {
    t.script = text;
    return t;
  }
  t.script = text.substr(0, at) + kFromBody;
  // The here-document has no line of its own delimiter, so it runs to the
  // end of the text, and the shell ends its last line.
  t.body = text.substr(at + sizeof kHereDoc - 1) + "\n";
  t.has_body = true;
  return t;
}

bool Child::Start(const ShellText &text) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return false;
  int read_end = MoveHigh(pipe_fds[0]);
  int write_end = MoveHigh(pipe_fds[1]);
  int body = text.has_body ? DataFile(text.body) : -1;
  Actions actions;
  bool ready = read_end >= 0 && write_end >= 0 && (!text.has_body || body >= 0) &&
               actions.Dup(write_end, STDOUT_FILENO) && (!text.has_body || actions.Dup(body, kBodyFd));
  int rc = EINVAL;
  if (ready) {
    const char *argv[] = {"sh", "-c", text.script.c_str(), nullptr};
    rc = posix_spawn(&pid_, "/bin/sh", actions.get(), nullptr, const_cast<char *const *>(argv), environ);
  }
  int saved = errno;
  if (write_end >= 0) close(write_end);
  if (body >= 0) close(body);
  if (rc != 0) {
    pid_ = -1;
    if (read_end >= 0) close(read_end);
    errno = ready ? rc : saved;
    return false;
  }
  out_ = read_end;
  return true;
}

int Child::TakeOutput() {
  int fd = out_;
  out_ = -1;
  return fd;
}

int Child::Wait() {
  if (out_ >= 0) {
    close(out_);
    out_ = -1;
  }
  if (pid_ < 0) return -1;
  int status = 0;
  pid_t r;
  while ((r = waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return r < 0 ? -1 : status;
}

Child::~Child() { Wait(); }

}  // namespace qdmethods
