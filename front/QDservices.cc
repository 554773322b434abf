// Services every part of the library rests on: error reporting, the
// reporting allocator, the command runner and its SIGCHLD guard, and the
// list helpers.
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "front.h"
#include "qd.h"

namespace {

const char kModule[] = "QDservices";

// The action in force before a command ran; one for the whole process.
struct SignalGuard {
  struct sigaction work_sigaction;
  struct sigaction cstat;
};
SignalGuard guard;

// The module name as it reaches the reporter: cut at its last '.'. The
// caller's string is left alone (it is usually a literal).
std::string ModuleName(const char *module) {
  std::string name = module != nullptr ? module : "";
  size_t dot = name.rfind('.');
  if (dot != std::string::npos) name.resize(dot);
  return name;
}

// Apart from QDmalloc, which every query calls: its own body then needs no
// frame for the message.
__attribute__((noinline, cold)) void ReportNoMemory(const char *module, size_t size) {
  std::string name = ModuleName(module);
  QDerror(kModule, "%s: cannot malloc %d bytes\n", name.c_str(), static_cast<int>(size));
}

}  // namespace

extern "C" {

void QDerror(const char *module, const char *format, ...) {
  if (vcel_verbose_level < 3) return;
  std::string name = ModuleName(module);
  va_list args;
  va_start(args, format);
  VCELvtrace(3, name.c_str(), format, args);
  va_end(args);
}

void *QDmalloc(const char *module, size_t size) {
  void *p = malloc(size);
  if (__builtin_expect(p == nullptr, 0)) ReportNoMemory(module, size);
  return p;
}

void setup_sig(void) {
  sigemptyset(&guard.work_sigaction.sa_mask);
  guard.work_sigaction.sa_handler = SIG_DFL;
  guard.work_sigaction.sa_flags = SA_NOCLDSTOP | SA_NODEFER | SA_RESETHAND;
  sigaction(SIGCHLD, &guard.work_sigaction, &guard.cstat);
}

void release_sig(void) { sigaction(SIGCHLD, &guard.cstat, nullptr); }

int ExecuteCommand(char *command, QDLineHandler handler, void *context) {
  setup_sig();
  strcat(command, " 2>/dev/null");
  FILE *out = popen(command, "re");
  if (out == nullptr) {
    QDtrace(8, kModule, "ExecuteCommand:      popen failed, errno = %d", errno);
    release_sig();
    return -1;
  }
  char line[1024];
  while (fgets(line, sizeof line, out) != nullptr) {
    char *nl = strrchr(line, '\n');
    if (nl != nullptr) *nl = '\0';
    if (handler != nullptr) handler(context, line);
  }
  int status = pclose(out);
  release_sig();
  int exit_status = status == -1 ? 255 : (status >> 8) & 0xff;
  int term_status = status == -1 ? 0x7f : status & 0xff;
  int result = term_status != 0 ? -1 : exit_status;
  QDtrace(8, kModule, "ExecuteCommand:      Command exit status = %d", exit_status);
  QDtrace(8, kModule, "ExecuteCommand: Command execution status = %d", term_status);
  QDtrace(8, kModule, "ExecuteCommand:            Return status = %d", result);
  return result;
}

void QDFreeAliasList(AliasList *list) {
  QDtrace(8, kModule, "List address = %lu", reinterpret_cast<unsigned long>(list));
  while (list != nullptr) {
    AliasList *next = list->next;
    if (list->alias != nullptr) {
      QDtrace(8, kModule, "Free alias block = %lu", reinterpret_cast<unsigned long>(list->alias));
      QDtrace(8, kModule, "Contains string  = %s", list->alias);
      free(list->alias);
    }
    QDtrace(8, kModule, "Free list block = %lu", reinterpret_cast<unsigned long>(list));
    free(list);
    QDtrace(8, kModule, "Next list block = %lu", reinterpret_cast<unsigned long>(next));
    list = next;
  }
}

void FreeKeyList(KeywordList *list) {
  if (DestroyKeywordList(list) != 0) QDerror(kModule, "Cannot free Keyword List\n");
}

int DisplayParameterList(KeywordList *list) {
  if (vcel_verbose_level < 7) return 0;
  if (list == nullptr) {
    QDtrace(7, kModule, "List is NULL");
    return 0;
  }
  char *kw;
  char *value;
  int rc;
  while ((rc = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || rc == KWL_WARN)
    QDtrace(7, kModule, "%s=\"%s\"", kw, value);
  return 0;
}

int IsAlias(const char *name, int length) {
  if (name == nullptr || length <= 0) return 0;
  std::string_view s(name, strnlen(name, static_cast<size_t>(length)));
  return s.find("alias") != std::string_view::npos ? 1 : 0;
}

int IsMethod(const char *name, int length) {
  return name != nullptr && length > 0 && qd::NamesMethod(name, static_cast<size_t>(length)) ? 1 : 0;
}

}  // extern "C"
