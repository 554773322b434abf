// Object status against the current stamp, and the expiration date.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

class Status : public CacheTest {
 protected:
  // The process's stamp, as a run takes it from QD_TIMESTAMP.
  static int Stamp(const char *value) {
    setenv("QD_TIMESTAMP", value, 1);
    QDsettime(QD_TS_ZERO, nullptr);
    return QDsettime(QD_TS_ENV, nullptr);
  }
};

// Date, weekday and time of day: the fields the expiration walk moves.
std::string Shown(const struct tm &t) {
  char s[64];
  snprintf(s, sizeof s, "%04d-%02d-%02d wday %d %02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1,
           t.tm_mday, t.tm_wday, t.tm_hour, t.tm_min, t.tm_sec);
  return s;
}

size_t Count(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST_F(Status, ExpirationDates) {
  TraceCapture trace(box_, 7);
  struct Case {
    const char *now;
    const char *days;  // QD_EXPIRATION; nullptr: unset
    const char *expiration;
    size_t crossings;
  } cases[] = {
      {"0099,00,05,12,00,00,2,004,00", nullptr, "1998-12-29 wday 2 12:00:00", 1},
      {"0100,02,03,08,30,00,5,062,00", "7", "2000-02-24 wday 5 08:30:00", 0},  // February of 28 days
      {"0101,02,07,00,00,00,3,065,00", "7", "2001-02-28 wday 3 00:00:00", 0},
      {"0101,02,10,00,00,00,6,068,00", "40", "2001-01-29 wday 1 00:00:00", 0},
      {"0099,02,01,00,00,00,1,059,00", "365", "1998-03-01 wday 0 00:00:00", 1},
      {"0099,00,05,00,00,00,2,004,00", "400", "1997-12-01 wday 1 00:00:00", 2},
      {"0099,00,05,12,00,00,2,004,00", "0", "1999-01-05 wday 2 12:00:00", 0},
      {"0099,00,05,12,00,00,2,004,00", "none", "1999-01-05 wday 2 12:00:00", 0},
      {"0099,00,05,12,00,00,2,004,00", "-3", "1999-01-05 wday 2 12:00:00", 0},
  };
  for (const Case &c : cases) {
    if (c.days != nullptr) setenv("QD_EXPIRATION", c.days, 1);
    else unsetenv("QD_EXPIRATION");
    ASSERT_EQ(Stamp(c.now), 0);
    size_t before = Count(trace.Text(), "crossed year boundary");
    EXPECT_EQ(QDset_expiration_date(), 0) << c.now;
    EXPECT_EQ(Shown(QDexpirationdate), c.expiration) << c.now << " less " << (c.days ? c.days : "7");
    EXPECT_EQ(Count(trace.Text(), "crossed year boundary") - before, c.crossings) << c.now;
  }
  // A count too large for any table ends (at some year long past).
  setenv("QD_EXPIRATION", "99999999999999999999999", 1);
  EXPECT_EQ(QDset_expiration_date(), 0);
  EXPECT_LT(QDexpirationdate.tm_year, -20000);
}

TEST_F(Status, NoExpirationDateWithoutACalendarStamp) {
  struct tm before = QDexpirationdate;
  unsetenv("QD_TIMESTAMP");
  QDsettime(QD_TS_ENV, nullptr);
  EXPECT_EQ(QDset_expiration_date(), 255);
  ASSERT_EQ(Stamp("0099,13,05,12,00,00,2,004,00"), 0);  // month 14: no row in the month table
  EXPECT_EQ(QDset_expiration_date(), 255);
  EXPECT_EQ(QDcomparestamps(QDexpirationdate, before), 0) << "unchanged";
}

TEST_F(Status, ObjectsAgainstTheCurrentStamp) {
  struct Case {
    const char *now;  // nullptr: timestamping off
    const char *stamp;  // ObjTimestamp; nullptr: none
    int status;
  } cases[] = {
      {"0099,00,05,12,00,00,2,004,00", "0099,00,05,12,00,00,2,004,00", OBJ_ACTIVE},
      {"0099,00,05,12,00,00,2,004,00", "0099,00,05,11,59,59,2,004,00", OBJ_STALE},
      {"0099,00,05,12,00,00,2,004,00", "0099,00,05,12,00,01,2,004,00", OBJ_ACTIVE},
      {"0099,00,05,12,00,00,2,004,00", "0098,11,31,23,59,59,4,364,00", OBJ_STALE},
      {"0099,00,05,12,00,00,2,004,00", "yesterday", OBJ_STALE},
      {"0099,00,05,12,00,00,2,004,00", nullptr, OBJ_ACTIVE},
      {nullptr, "0090,00,05,12,00,00,5,004,00", OBJ_ACTIVE},
  };
  for (const Case &c : cases) {
    if (c.now != nullptr) Stamp(c.now);
    else QDsettime(QD_TS_ZERO, nullptr);
    KeywordList *attrs = c.stamp ? List({{"k", "v"}, {"ObjTimestamp", c.stamp}}) : List({{"k", "v"}});
    ObjectRecord *o = Create_object(strdup("disk0"), attrs, nullptr);
    EXPECT_EQ(QDobjectstatus(o), c.status) << (c.now ? c.now : "off") << " against " << (c.stamp ? c.stamp : "none");
    QDfreeobj(o);
  }
  Stamp("0099,00,05,12,00,00,2,004,00");
  EXPECT_EQ(QDaliasstatus("disk0"), OBJ_ACTIVE) << "no attributes to judge by";
}

TEST_F(Status, WhileCachedTheCacheDecides) {
  box_.WriteTable("seen:::: ObjTimestamp=\"0099,00,01,00,00,00,5,000,00\"\n"
                  "unseen:::: ObjTimestamp=\"0099,00,01,00,00,00,5,000,00\"\n"
                  "plain:::: k=\"1\"\n");
  setenv("QD_TIMESTAMP", "0099,00,05,12,00,00,2,004,00", 1);
  ASSERT_EQ(QDcache_load(), 0);
  QDcache_touch_obj(QDcache_find_alias("seen"));
  EXPECT_EQ(QDaliasstatus("seen"), OBJ_ACTIVE);
  EXPECT_EQ(QDaliasstatus("unseen"), OBJ_STALE);
  EXPECT_EQ(QDaliasstatus("plain"), OBJ_ACTIVE);
  QDcache_free();
}

}  // namespace
