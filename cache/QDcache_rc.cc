// The cache settings, read from the library's settings file before a load.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cache_state.h"
#include "qd_paths.h"

using qdcache::kModule;

extern "C" void QDcache_read_rc(void) {
  const char *path = getenv("TAV_LIBQDRC");
  if (path == nullptr || *path == '\0') path = QD_RC_PATH;
  FILE *in = fopen(path, "re");
  if (in == nullptr) {
    QDtrace(5, kModule, "Cannot open QD library environment options path: %s", path);
    return;
  }
  if (KeywordList *list = KeywordStreamToList(in)) {
    char *kw;
    char *value;
    int st;
    while ((st = ReferenceNextKeywordInList(list, &kw, &value)) != KWL_END) {
      if (st != KWL_OK && st != KWL_WARN) break;
      if (*value == '\0') continue;
      if (strcmp(kw, "aliashashsize") == 0) {
        qdc_rc.aliashashsize = static_cast<unsigned int>(atoi(value));
        if (qdc_rc.aliashashsize == 0) qdc_rc.aliashashsize = 1;
      } else if (strcmp(kw, "directload") == 0) {
        qdc_rc.directload = static_cast<unsigned char>(atoi(value) & 0xff);
      } else if (strcmp(kw, "directsave") == 0) {
        qdc_rc.directsave = static_cast<unsigned char>(atoi(value) & 0xff);
      } else if (strcmp(kw, "QD_EXPIRATION") == 0) {
        if (getenv("QD_EXPIRATION") != nullptr) {
          QDtrace(6, kModule, "QDcache_read_rc: QD_EXPIRATION overridden in environment");
        } else {
          // putenv keeps the string: it stays allocated for the process's life.
          std::string entry = std::string("QD_EXPIRATION=") + value;
          char *kept = strdup(entry.c_str());
          if (kept != nullptr && putenv(kept) == 0)
            QDtrace(6, kModule, "QDcache_read_rc: Set QD_EXPIRATION to %s days", value);
        }
      } else {
        QDtrace(4, kModule, "QDcache_read_rc: unknown keyword '%s'", kw);
      }
    }
    DestroyKeywordList(list);
  }
  if (vcel_verbose_level >= 6) {
    QDtrace(6, kModule, "QDcache_read_rc: '%s' values", path);
    QDtrace(6, kModule, "                 qdc_rc.aliashashsize  %d", static_cast<int>(qdc_rc.aliashashsize));
    QDtrace(6, kModule, "                 qdc_rc.directload     %s", qdc_rc.directload == 1 ? "ON" : "OFF");
    QDtrace(6, kModule, "                 qdc_rc.directsave     %s", qdc_rc.directsave == 1 ? "ON" : "OFF");
  }
  fclose(in);
  qdcache_directload = static_cast<signed char>(qdc_rc.directload);
  qdcache_directsave = static_cast<signed char>(qdc_rc.directsave);
}
