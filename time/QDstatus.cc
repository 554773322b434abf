// Object status (active or stale against the current stamp) and the
// expiration date: the current stamp moved back by QD_EXPIRATION days.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "qd.h"
#include "stamp_text.h"

namespace {

const char kModule[] = "QDtime";

// Month by month, January first: the month before it and its days.
// February has 28 days in every year: the dates this library has always
// computed are the ones objects were kept by.
struct MonthRow {
  int previous;
  int days;
};
constexpr MonthRow kMonths[12] = {{11, 31}, {0, 28}, {1, 31},  {2, 30},  {3, 31}, {4, 30},
                                  {5, 31},  {6, 31}, {7, 30},  {8, 31},  {9, 30}, {10, 31}};

// Day counts past this are read as this many (about 27,000 years): the walk
// goes month by month, and nothing that old is kept in a table anyway.
constexpr long kMostDays = 10000000;

const char *StatusName(int status) { return status == OBJ_ACTIVE ? "OBJ_ACTIVE" : "OBJ_STALE"; }

// `rule` names the rule that decided, as the trace line shows it.
int Decide(int status, const char *rule) {
  QDtrace(7, kModule, "%s; status: %s", rule, StatusName(status));
  return status;
}

// Leading decimal digits (with a sign), as a count of days.
long DayCount(const char *text) {
  errno = 0;
  long n = strtol(text, nullptr, 10);
  if (n > kMostDays || (errno == ERANGE && n > 0)) {
    QDtrace(4, kModule, "Expiration setting '%s' too large, %ld days used", text, kMostDays);
    return kMostDays;
  }
  return n;
}

// Moves the stamp back by n days, one month at a time.
void SubtractDays(struct tm *date, long n) {
  while (n > 0) {
    const MonthRow &month = kMonths[date->tm_mon];
    QDtrace(7, kModule, "%3ld days left to subtract", n);
    QDtrace(7, kModule, "%3d days in month %d", month.days, date->tm_mon);
    if (n < date->tm_mday) {
      QDtrace(7, kModule, "enough days in this month");
      date->tm_mday -= static_cast<int>(n);
      date->tm_wday = (date->tm_wday + 7 - static_cast<int>(n % 7)) % 7;
      n = 0;
    } else {
      QDtrace(7, kModule, "subtract this month's days");
      int d = date->tm_mday;
      n -= d;
      date->tm_wday = (date->tm_wday + 7 - d % 7) % 7;
      date->tm_mon = month.previous;
      date->tm_mday = kMonths[date->tm_mon].days;
      if (date->tm_mon == 11) {
        QDtrace(7, kModule, "crossed year boundary");
        --date->tm_year;
      }
    }
  }
}

int ComputeExpiration() {
  if (QDtimestamp.tm_mday == 0) {
    QDtrace(6, kModule, "Timestamping is not active");
    return 255;
  }
  QDtrace(6, kModule, "Timestamping is active");
  // A stamp read from text carries whatever its digits said: a month the
  // table has no row for cannot be walked back from.
  if (QDtimestamp.tm_mon < 0 || QDtimestamp.tm_mon > 11) {
    QDtrace(3, kModule, "Current timestamp %s is not a calendar date; no expiration date",
            QDstampstring);
    return 255;
  }
  const char *days = getenv("QD_EXPIRATION");
  if (days != nullptr) {
    QDtrace(7, kModule, "%s=%s environment setting found", "QD_EXPIRATION", days);
  } else {
    days = "7";
    QDtrace(7, kModule, "Default expiration setting used: '%s' days", days);
  }
  QDexpirationdate = QDtimestamp;
  char now[64], then[64];
  QDtrace(7, kModule, "Timestamp:      %s", qdtime::AscTime(QDtimestamp, now));
  QDtrace(7, kModule, "Expiration:     %s", qdtime::AscTime(QDexpirationdate, then));
  long n = DayCount(days);
  QDtrace(7, kModule, "COMPUTE EXPIRATION DATE:");
  SubtractDays(&QDexpirationdate, n);
  QDtrace(7, kModule, "Expiration date is:      %s", qdtime::AscTime(QDexpirationdate, then));
  return 0;
}

}  // namespace

extern "C" {

int QDobjectstatus(ObjectRecord *object) {
  if (QDtimestamp.tm_mday == 0) return Decide(OBJ_ACTIVE, "Timestamping OFF");
  if (qdcache_on == 1 && object != nullptr && object->alias != nullptr) {
    int status = (QDcache_alias_status(object->alias) & OCE_ACTIVE) ? OBJ_ACTIVE : OBJ_STALE;
    return Decide(status, "Timestamping ON; object in cache");
  }
  char *kw;
  char *value;
  if (object == nullptr || object->attributes == nullptr ||
      ReferenceKeywordInList(object->attributes, "ObjTimestamp", &kw, &value) != 0)
    return Decide(OBJ_ACTIVE, "Timestamping OFF");
  struct tm stamp = QDvalue2tm(value);
  int status = QDcomparestamps(QDtimestamp, stamp) <= 0 ? OBJ_ACTIVE : OBJ_STALE;
  return Decide(status, "Timestamping ON; object not cached");
}

int QDaliasstatus(const char *alias) {
  if (alias == nullptr) return -1;
  size_t len = strlen(alias);
  auto *copy = static_cast<char *>(QDmalloc(kModule, len + 1));
  if (copy == nullptr) return -1;
  memcpy(copy, alias, len + 1);
  ObjectRecord *object = Create_object(copy, nullptr, nullptr);
  if (object == nullptr) {
    free(copy);
    return -1;
  }
  int status = QDobjectstatus(object);
  QDfreeobj(object);
  return status;
}

int QDset_expiration_date(void) {
  QDtrace(7, kModule, "QDset_expiration_date()");
  char now[64];
  QDtrace(7, kModule, "Current timestamp:      %s", qdtime::AscTime(QDtimestamp, now));
  QDtrace(7, kModule, "Timestamp value string: %s", QDstampstring);
  int result = ComputeExpiration();
  QDtrace(7, kModule, "QDset_expiration_date()  return ( %d )", result);
  return result;
}

}  // extern "C"
