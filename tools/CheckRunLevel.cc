// CheckRunLevel - exits 0 when the system runs at a level where an
// alternative framework may be used (the multi-user levels 2 to 5), else 1.
//
// The current level comes from the run-level record of utmp. CHECKRUNLEVEL_LEVEL
// overrides it (for hosts without such a record, and for tests);
// CHECKRUNLEVEL_ALLOWED replaces the list of allowed levels.
#include <utmpx.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The level character of the utmp run-level record, or 0 when there is none.
char CurrentLevel() {
  if (const char *env = getenv("CHECKRUNLEVEL_LEVEL")) return env[0];
  char level = 0;
  setutxent();
  while (struct utmpx *u = getutxent()) {
    if (u->ut_type == RUN_LVL) level = static_cast<char>(u->ut_pid & 0xff);
  }
  endutxent();
  return level;
}

}  // namespace

int main(int argc, char **argv) {
  bool verbose = argc > 1 && strcmp(argv[1], "-v") == 0;
  if (argc > 2 || (argc == 2 && !verbose)) {
    fprintf(stderr, "usage: CheckRunLevel [-v]\n");
    return 2;
  }
  const char *allowed = getenv("CHECKRUNLEVEL_ALLOWED");
  if (allowed == nullptr || *allowed == '\0') allowed = "2345";
  char level = CurrentLevel();
  bool ok = level != 0 && strchr(allowed, level) != nullptr;
  if (verbose) printf("run level %c: %s\n", level ? level : '?', ok ? "framework allowed" : "not allowed");
  return ok ? 0 : 1;
}
