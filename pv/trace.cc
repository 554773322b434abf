// The trace reporters. Filtering by level is the caller's business (libQD's
// QDtrace decides whether a line is produced); these only format and write.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "pv.h"
#include "pv_internal.h"

extern "C" {
int vcel_verbose_level = 0;
int vcel_explicit_level = -1;
char **vcel_argv = nullptr;
int vcel_errno = 0;
}

namespace {

// Where lines go: standard error, or the file VCEL_TRACE_FILE names.
struct Destination {
  std::string path;  // file in use, empty for standard error
  int fd = 2;
};
Destination dest;

bool ReadLevel(const char *name, int *out) {
  const char *text = getenv(name);
  if (text == nullptr || *text == '\0') return false;
  char *end = nullptr;
  long v = strtol(text, &end, 10);
  if (*end != '\0' || v < -1 || v > 99) return false;
  *out = static_cast<int>(v);
  return true;
}

__attribute__((constructor)) void ReadLevelsFromEnvironment() {
  ReadLevel("VCEL_VERBOSE", &vcel_verbose_level);
  ReadLevel("VCEL_EXPLICIT", &vcel_explicit_level);
}

int DestinationFd() {
  const char *want = getenv("VCEL_TRACE_FILE");
  if (want == nullptr || *want == '\0') want = "";
  if (dest.path != want) {
    if (dest.fd > 2) close(dest.fd);
    dest.fd = 2;
    dest.path = want;
    if (!dest.path.empty()) {
      int fd = open(want, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
      if (fd >= 0) dest.fd = fd;
    }
  }
  return dest.fd;
}

const char *ProgramName() {
  const char *name = (vcel_argv != nullptr && vcel_argv[0] != nullptr) ? vcel_argv[0]
                                                                       : program_invocation_name;
  const char *slash = strrchr(name, '/');
  return slash ? slash + 1 : name;
}

__attribute__((format(printf, 4, 0))) void Report(const char *tag, int level, const char *module,
                                                  const char *format, va_list args) {
  int saved = errno;
  char prefix[160];
  if (level >= 0)
    snprintf(prefix, sizeof prefix, "%s[%d] %s%d %s: ", ProgramName(), static_cast<int>(getpid()),
             tag, level, module ? module : "?");
  else
    snprintf(prefix, sizeof prefix, "%s[%d] %s* %s: ", ProgramName(), static_cast<int>(getpid()),
             tag, module ? module : "?");
  std::string line(prefix);
  if (format == nullptr) format = "(no format)";
  char body[2048];
  va_list again;
  va_copy(again, args);
  int n = vsnprintf(body, sizeof body, format, args);
  if (n >= static_cast<int>(sizeof body)) {
    std::string big(static_cast<size_t>(n) + 1, '\0');
    vsnprintf(&big[0], big.size(), format, again);
    big.resize(static_cast<size_t>(n));
    line += big;
  } else if (n > 0) {
    line += body;
  }
  va_end(again);
  while (!line.empty() && line.back() == '\n') line.pop_back();
  line.push_back('\n');
  pv::EmitTraceLine(line);
  errno = saved;
}

}  // namespace

namespace pv {

void Trace(int level, const char *module, const char *format, ...) {
  if (level != vcel_explicit_level && level > vcel_verbose_level) return;
  va_list args;
  va_start(args, format);
  Report("L", level, module, format, args);
  va_end(args);
}

void EmitTraceLine(const std::string &line) {
  int fd = DestinationFd();
  const char *p = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t n = write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    p += n;
    left -= static_cast<size_t>(n);
  }
}

int WriteListToTrace(int level, const char *module, KeywordList *list) {
  if (level >= 0 && level != vcel_explicit_level && level > vcel_verbose_level) return KWL_OK;
  if (ValidKeywordList(list) != KWL_OK) {
    VCELtrace(level, module, "list is not valid");
    return KWL_INVALID;
  }
  VCELtrace(level, module, "list of %d entries", NumberOfKeywords(list));
  KeywordEntry *saved = list->kwl_cursor;
  list->kwl_cursor = list->kwl_first;
  char *kw;
  char *value;
  int rc;
  while ((rc = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || rc == KWL_WARN)
    VCELtrace(level, module, "  %s=\"%s\"", kw, value);
  list->kwl_cursor = saved;
  return KWL_OK;
}

}  // namespace pv

extern "C" {

void VCELvtrace(int level, const char *module, const char *format, va_list args) {
  Report("L", level, module, format, args);
}

void VCELtrace(int level, const char *module, const char *format, ...) {
  va_list args;
  va_start(args, format);
  Report("L", level, module, format, args);
  va_end(args);
}

void IOTrace(int level, const char *module, const char *format, ...) {
  va_list args;
  va_start(args, format);
  Report("IO", level, module, format, args);
  va_end(args);
}

}  // extern "C"
