// Time stamps: the text form of a broken-down time, comparison, and the
// process's current stamp, set by event or from QD_TIMESTAMP.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "qd.h"

extern "C" {
struct tm QDtimestamp = {};       // the stamp this process gives what it writes
char QDstampstring[30] = "";      // its text form, the value of ObjTimestamp
struct tm QDexpirationdate = {};  // stale objects older than this expire
}

namespace {

const char kModule[] = "QDtime";
constexpr int kValueLength = 28;

// The time stamp attribute's list, kept for the life of the process.
KeywordList *TimeAttrList = nullptr;

bool IsSet(const struct tm &stamp) { return stamp.tm_mday != 0; }

// The commas of a value text, checked without reading past its end.
bool HasStampCommas(const char *text) {
  if (text == nullptr || strnlen(text, 26) < 26) return false;
  for (int pos : {4, 7, 10, 13, 16, 19, 21, 25})
    if (text[pos] != ',') return false;
  return true;
}

void SetNow() {
  time_t now = time(nullptr);
  QDcl2stamp(&QDtimestamp, &now);
}

// Writes n as exactly `width` digits; false when it does not fit.
bool PutDigits(char *&out, int n, int width) {
  int limit = 1;
  for (int i = 0; i < width; ++i) limit *= 10;
  if (n < 0 || n >= limit) return false;
  for (int i = width - 1; i >= 0; --i, n /= 10) out[i] = static_cast<char>('0' + n % 10);
  out += width;
  return true;
}

// The fields of a value whose every field is plain digits of the written
// width (what QDtm2value writes); false for anything else.
bool ReadPlainDigits(const char *text, struct tm *stamp) {
  int *const fields[] = {&stamp->tm_year, &stamp->tm_mon, &stamp->tm_mday, &stamp->tm_hour, &stamp->tm_min,
                         &stamp->tm_sec,  &stamp->tm_wday, &stamp->tm_yday, &stamp->tm_isdst};
  const int widths[] = {4, 2, 2, 2, 2, 2, 1, 3, 2};
  int read[9];
  const char *p = text;
  for (int i = 0; i < 9; ++i) {
    int n = 0;
    for (int w = 0; w < widths[i]; ++w, ++p) {
      if (*p < '0' || *p > '9') return false;
      n = n * 10 + (*p - '0');
    }
    if (*p != (i < 8 ? ',' : '\0') && !(i == 8 && *p >= ' ' && (*p < '0' || *p > '9'))) return false;
    read[i] = n;
    ++p;
  }
  for (int i = 0; i < 9; ++i) *fields[i] = read[i];
  return true;
}

}  // namespace

extern "C" {

void QDzerotimestamp(struct tm *stamp) { memset(stamp, 0, sizeof *stamp); }

int QDtm2value(struct tm stamp, char *value) {
  // A flush writes a stamp for every entry: in-range fields, the usual
  // case, take no trip through printf.
  const int fields[] = {stamp.tm_year, stamp.tm_mon, stamp.tm_mday, stamp.tm_hour, stamp.tm_min,
                        stamp.tm_sec,  stamp.tm_wday, stamp.tm_yday, stamp.tm_isdst};
  const int widths[] = {4, 2, 2, 2, 2, 2, 1, 3, 2};
  char text[32];
  char *out = text;
  bool fits = true;
  for (int i = 0; i < 9 && fits; ++i) {
    if (i > 0) *out++ = ',';
    fits = PutDigits(out, fields[i], widths[i]);
  }
  if (fits) {
    size_t n = static_cast<size_t>(out - text);
    memcpy(value, text, n);
    value[n] = '\0';
    return static_cast<int>(n);
  }
  int n = snprintf(value, kValueLength + 1, "%04d,%02d,%02d,%02d,%02d,%02d,%1d,%03d,%02d",
                   stamp.tm_year, stamp.tm_mon, stamp.tm_mday, stamp.tm_hour, stamp.tm_min,
                   stamp.tm_sec, stamp.tm_wday, stamp.tm_yday, stamp.tm_isdst);
  return n > kValueLength ? kValueLength : n;
}

struct tm QDvalue2tm(const char *value) {
  struct tm stamp = {};
  if (!HasStampCommas(value)) {
    QDtrace(2, kModule, "Invalid timestamp value format: %s", value ? value : "(null)");
    QDtrace(2, kModule, "Zeroing-out timestamp");
    return stamp;
  }
  // A load reads a stamp for nearly every object: the writer's own form,
  // digits only, takes no trip through sscanf.
  if (ReadPlainDigits(value, &stamp)) return stamp;
  // The widths are those of the writer; sscanf stops at the text's end.
  sscanf(value, "%4d,%2d,%2d,%2d,%2d,%2d,%1d,%3d,%2d", &stamp.tm_year, &stamp.tm_mon,
         &stamp.tm_mday, &stamp.tm_hour, &stamp.tm_min, &stamp.tm_sec, &stamp.tm_wday,
         &stamp.tm_yday, &stamp.tm_isdst);
  return stamp;
}

struct tm *QDcl2stamp(struct tm *stamp, const time_t *clock) {
  if (localtime_r(clock, stamp) == nullptr) QDzerotimestamp(stamp);
  return stamp;
}

int QDcl2value(const time_t *clock, char *value) {
  struct tm stamp;
  QDcl2stamp(&stamp, clock);
  return QDtm2value(stamp, value);
}

int QDcomparestamps(struct tm a, struct tm b) {
  const int left[] = {a.tm_year, a.tm_mon, a.tm_mday, a.tm_hour, a.tm_min, a.tm_sec};
  const int right[] = {b.tm_year, b.tm_mon, b.tm_mday, b.tm_hour, b.tm_min, b.tm_sec};
  for (int i = 0; i < 6; ++i) {
    if (left[i] > right[i]) return 1;
    if (left[i] < right[i]) return -1;
  }
  return 0;
}

int QDexpired(struct tm stamp) { return QDcomparestamps(stamp, QDexpirationdate) == -1 ? 1 : 0; }

int QDsettimefmenv(void) {
  if (IsSet(QDtimestamp)) {
    QDtrace(6, kModule, "QDsettimefmenv: Timestamp already set--no action taken");
    return 0;
  }
  const char *env = getenv("QD_TIMESTAMP");
  if (env == nullptr) {
    QDtrace(7, kModule, "Environment flag not set");
    QDtrace(7, kModule, "Set timestamp to 0");
    QDzerotimestamp(&QDtimestamp);
    return 242;
  }
  if (*env == '\0') {
    QDtrace(7, kModule, "Set timestamp to 'now'");
    SetNow();
    return 0;
  }
  if (strcmp(env, "0") == 0) {
    QDtrace(7, kModule, "Set timestamp to 'no timestamp' ");
    QDzerotimestamp(&QDtimestamp);
    return 245;
  }
  if (HasStampCommas(env)) {
    QDtrace(7, kModule, "Set timestamp to env value: %s", env);
    QDtimestamp = QDvalue2tm(env);
    return 0;
  }
  QDtrace(7, kModule, "Environment value syntax error: %s", env);
  return 254;
}

int QDsettime(int event, void *arg) {
  int rc = 0;
  switch (event) {
    case QD_TS_ZERO:
      QDtrace(7, kModule, "Set timestamp to 0");
      QDzerotimestamp(&QDtimestamp);
      break;
    case QD_TS_STAMP:
      QDtrace(7, kModule, "Set timestamp to stamp parameter");
      QDtimestamp = *static_cast<struct tm *>(arg);
      break;
    case QD_TS_CLOCK:
      QDtrace(7, kModule, "Set timestamp to stamp clock value");
      QDcl2stamp(&QDtimestamp, static_cast<time_t *>(arg));
      break;
    case QD_TS_STRING:
      QDtrace(7, kModule, "Set timestamp to string value");
      if (HasStampCommas(static_cast<const char *>(arg))) {
        QDtimestamp = QDvalue2tm(static_cast<const char *>(arg));
      } else {
        QDtrace(7, kModule, "Environment value syntax error: %s",
                arg ? static_cast<const char *>(arg) : "(null)");
        rc = 254;
      }
      break;
    case QD_TS_NOW:
      QDtrace(7, kModule, "Set timestamp to 'now'");
      SetNow();
      break;
    case QD_TS_ENV:
      QDtrace(7, kModule, "Check environment flag");
      rc = QDsettimefmenv();
      break;
    default:
      QDtrace(7, kModule, "Unknown timestamp event, no action taken");
      rc = 255;
  }
  if (rc != 0) return rc;
  QDtm2value(QDtimestamp, QDstampstring);
  QDtrace(7, kModule, "Current timestamp value: %s", QDstampstring);
  char text[64];
  const char *when = asctime_r(&QDtimestamp, text);
  QDtrace(7, kModule, "                         %s", when ? when : "(not a calendar time)\n");
  return 0;
}

struct tm QDtouch(const char *alias) {
  if (IsSet(QDtimestamp)) {
    if (TimeAttrList == nullptr)
      TimeAttrList = CreateKeywordList();
    else
      RemoveKeywordFmList(TimeAttrList, "ObjTimestamp");
    if (TimeAttrList != nullptr) {
      AddKeywordToList(TimeAttrList, "ObjTimestamp", QDstampstring);
      QDput(alias, TimeAttrList);
      RemoveKeywordFmList(TimeAttrList, "ObjTimestamp");
    }
  }
  return QDtimestamp;
}

}  // extern "C"
