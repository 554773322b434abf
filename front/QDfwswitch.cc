// The framework switch: once per process it decides whether a framework
// library (libQD<name>.so, with FW-prefixed replacements) or the local
// implementation serves the public functions. Every failure falls back to
// local service.
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "command.h"
#include "qd.h"
#include "qd_paths.h"

namespace {

const char kModule[] = "QDfwswitch";
constexpr size_t kBuf = 1024;

enum : int { kUndecided = 0, kLocal = 1, kFramework = 2 };

// The switch's whole state.
struct SwitchState {
  int YRAFramework = kUndecided;
  void *handle = nullptr;  // the framework library while the state is 2
  char env_entry[kBuf] = "";  // "YRA_FW=name", kept alive for putenv
  char name[kBuf] = "";       // the framework name being decided on
  char path[kBuf] = "";       // its library path
};
SwitchState sw;

int Local() {
  sw.YRAFramework = kLocal;
  return 1;
}

const char *CheckerPath() {
#ifdef QD_FAULT_INJECTION
  // Test builds may point the switch at a checker of the test's choosing.
  if (const char *p = getenv("QD_RUNLEVEL_CHECKER_PATH")) return p;
#endif
  return QD_RUNLEVEL_CHECKER;
}

// Step 3 of the decision; returns 1 (local) or 0 (framework loaded).
int Decide() {
  const char *env = getenv("YRA_FW");
  QDtrace(8, kModule, "framework environment variable: %s", env ? env : "(null)");
  if (env != nullptr && *env != '\0') {
    if (strlen(env) >= sizeof sw.name) {
      QDerror(kModule, "Input argument is too long\n");
      return Local();
    }
    strcpy(sw.name, env);
  } else {
    QDtrace(8, kModule, "checking for rc file");
    if (QDread_rc(sw.name) != 0) return Local();
  }
  // A name is a file name part: anything that could lead out of the
  // library directory is refused.
  if (strchr(sw.name, '/') != nullptr) {
    QDerror(kModule, "Invalid framework name: %s\n", sw.name);
    return Local();
  }
  QDtrace(8, kModule, "stat for run-level checker");
  struct stat st;
  const char *checker = CheckerPath();
  if (stat(checker, &st) != 0) {
    QDtrace(8, kModule, "Cannot stat() run-level checker - framework set to default");
    return Local();
  }
  QDtrace(8, kModule, "calling run-level checker");
  qd::CommandLine line(kBuf);
  line.Word(checker).Raw(" >/dev/null 2>&1");
  int status = line.error() == nullptr ? system(line.text().c_str()) : -1;
  if (status == -1) {
    QDerror(kModule, "system() failed.\n");
    return Local();
  }
  if (((status >> 8) & 0xff) != 0) {
    QDtrace(8, kModule, "Run-level not appropriate for framework choice");
    return Local();
  }
  QDtrace(8, kModule, "switch value = %s", sw.name);
  char *dir = nullptr;
  QDLibDirName(&dir);
  int n = snprintf(sw.path, sizeof sw.path, "%s/libQD%s.so", dir, sw.name);
  if (n < 0 || static_cast<size_t>(n) >= sizeof sw.path) {
    QDerror(kModule, "Input argument is too long\n");
    return Local();
  }
  sw.handle = dlopen(sw.path, RTLD_NOW);
  if (sw.handle == nullptr) {
    const char *why = dlerror();
    QDtrace(2, kModule, "%s", why ? why : "dlopen failed");
    return Local();
  }
  QDtrace(8, kModule, "Dynamic execution, dlopen okay");
  dlerror();
  auto init = reinterpret_cast<int (*)(void)>(dlsym(sw.handle, "FWinit"));
  if (init == nullptr) {
    const char *why = dlerror();
    QDerror(kModule, "No symbol for FWinit: %s\n", why ? why : "");
    dlclose(sw.handle);
    sw.handle = nullptr;
    return Local();
  }
  QDtrace(8, kModule, "calling FWinit");
  int rc = init();
  if (rc != 0) {
    // The library stays open: its code may still be referenced.
    QDerror(kModule, "Error in FWinit, returned %d, using original QD\n", rc);
    return Local();
  }
  QDtrace(8, kModule, "Dynamic execution, init okay");
  return 0;
}

}  // namespace

extern "C" {

int QDLibDirName(char **dir) {
  const char *env = getenv("SO_DIR");
  *dir = const_cast<char *>(env != nullptr ? env : QD_LIB_DIR);
  return 0;
}

int QDread_rc(char *name) {
  const char *rc = getenv("TAV_LIBQDRC");
  if (rc == nullptr || *rc == '\0') rc = QD_RC_PATH;
  FILE *in = fopen(rc, "re");
  if (in == nullptr) {
    QDtrace(8, kModule, "Cannot open rc file.");
    return 1;
  }
  KeywordList *list = KeywordStreamToList(in);
  fclose(in);
  bool found = false;
  char *kw;
  char *value;
  int st;
  while ((st = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || st == KWL_WARN) {
    if (strcmp(kw, "YRA_FW") != 0 || *value == '\0') continue;
    if (strlen(value) >= kBuf) {
      QDerror(kModule, "Input argument is too long\n");
      continue;
    }
    strcpy(name, value);
    QDtrace(8, kModule, "%s=%s", "YRA_FW", value);
    found = true;
  }
  DestroyKeywordList(list);
  return found ? 0 : 1;
}

int FWswitch(const char *name, QDfwfunc *fn) {
  QDtrace(8, kModule, "switch setting: %d", sw.YRAFramework);
  if (sw.YRAFramework == kLocal) return 1;
  const char *tab = getenv("TAV_DEVTAB");
  if (tab != nullptr && strcmp(tab, QD_DEVTAB_PATH) != 0) {
    QDtrace(8, kModule, "non default table override in effect, path=%s", tab);
    return 1;
  }
  if (sw.YRAFramework == kUndecided && Decide() != 0) return 1;
  if (strcmp(name, "placebo") != 0) {
    QDtrace(8, kModule, "Searching for routine %s()", name);
    dlerror();
    void *sym = dlsym(sw.handle, name);
    if (sym == nullptr) {
      // A framework that lacks one function serves nothing more.
      const char *why = dlerror();
      QDerror(kModule, "No symbol for function - %s\n", why ? why : name);
      dlclose(sw.handle);
      sw.handle = nullptr;
      return Local();
    }
    if (fn != nullptr) *fn = reinterpret_cast<QDfwfunc>(sym);
    QDtrace(8, kModule, "found symbol %s()", name);
  }
  sw.YRAFramework = kFramework;
  return 0;
}

int SetFWswitch(const char *name) {
  if (name == nullptr) {
    QDtrace(8, kModule, "Setting framework switch to QD_FW");
    sw.YRAFramework = kLocal;
    return 0;
  }
  char *dir = nullptr;
  QDLibDirName(&dir);
  // The entry buffer is live in the environment: it is only overwritten
  // with an entry known to fit.
  char entry[kBuf];
  size_t limit = kBuf - strlen(dir);
  int n = strlen(name) <= limit ? snprintf(entry, sizeof entry, "%s=%s", "YRA_FW", name) : -1;
  if (n < 0 || static_cast<size_t>(n) >= sizeof entry) {
    QDerror(kModule, "Input argument is too long\n");
    return -1;
  }
  memcpy(sw.env_entry, entry, static_cast<size_t>(n) + 1);
  int rc = putenv(sw.env_entry);
  if (rc != 0) {
    QDerror(kModule, "putenv returned %d\n", rc);
    return -1;
  }
  QDtrace(8, kModule, "Setting framework switch to %s", name);
  sw.YRAFramework = kUndecided;
  return 0;
}

int IsOriginalQD(void) {
  QDtrace(8, kModule, "checking for original QD");
  return FWswitch("placebo", nullptr) == 0 ? 0 : 1;
}

}  // extern "C"
