// Object status against the current stamp, and the expiration date.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "cache_fixture.h"

namespace {

class Status : public CacheTest {
 protected:
  // The process's stamp, as a run takes it from QD_TIMESTAMP.
  static void Stamp(const char *value) {
    setenv("QD_TIMESTAMP", value, 1);
    QDsettime(QD_TS_ZERO, nullptr);
    ASSERT_EQ(QDsettime(QD_TS_ENV, nullptr), 0);
  }
};

// Date, weekday and time of day: the fields the expiration walk moves.
std::string Shown(const struct tm &t) {
  char s[64];
  snprintf(s, sizeof s, "%04d-%02d-%02d wday %d %02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1,
           t.tm_mday, t.tm_wday, t.tm_hour, t.tm_min, t.tm_sec);
  return s;
}

TEST_F(Status, ExpirationDates) {
  struct Case {
    const char *now, *days, *expiration;  // days: QD_EXPIRATION, nullptr for unset
  } cases[] = {
      {"0099,00,05,12,00,00,2,004,00", nullptr, "1998-12-29 wday 2 12:00:00"},
      {"0100,02,03,08,30,00,5,062,00", "7", "2000-02-24 wday 5 08:30:00"},  // February of 28 days
      {"0101,02,07,00,00,00,3,065,00", "7", "2001-02-28 wday 3 00:00:00"},
      {"0101,02,10,00,00,00,6,068,00", "40", "2001-01-29 wday 1 00:00:00"},
      {"0099,02,01,00,00,00,1,059,00", "365", "1998-03-01 wday 0 00:00:00"},
      {"0099,00,05,00,00,00,2,004,00", "400", "1997-12-01 wday 1 00:00:00"},
      {"0099,00,05,12,00,00,2,004,00", "0", "1999-01-05 wday 2 12:00:00"},
      {"0099,00,05,12,00,00,2,004,00", "none", "1999-01-05 wday 2 12:00:00"},
  };
  for (const Case &c : cases) {
    if (c.days != nullptr) setenv("QD_EXPIRATION", c.days, 1);
    else unsetenv("QD_EXPIRATION");
    Stamp(c.now);
    EXPECT_EQ(QDset_expiration_date(), 0) << c.now;
    EXPECT_EQ(Shown(QDexpirationdate), c.expiration) << c.now << " less " << (c.days ? c.days : "7");
  }
  // A count too large for any table ends (at some year long past).
  setenv("QD_EXPIRATION", "99999999999999999999999", 1);
  EXPECT_EQ(QDset_expiration_date(), 0);
  EXPECT_LT(QDexpirationdate.tm_year, -20000);
  // Without a calendar stamp there is no date, and the last one stays.
  struct tm last = QDexpirationdate;
  Stamp("0099,13,05,12,00,00,2,004,00");  // month 14: no row in the month table
  EXPECT_EQ(QDset_expiration_date(), 255);
  QDsettime(QD_TS_ZERO, nullptr);
  EXPECT_EQ(QDset_expiration_date(), 255);
  EXPECT_EQ(QDcomparestamps(QDexpirationdate, last), 0);
}

TEST_F(Status, ObjectsAgainstTheCurrentStamp) {
  struct Case {
    const char *now, *stamp;  // now nullptr: timestamping off; stamp nullptr: none
    int status;
  } cases[] = {
      {"0099,00,05,12,00,00,2,004,00", "0099,00,05,12,00,00,2,004,00", OBJ_ACTIVE},
      {"0099,00,05,12,00,00,2,004,00", "0099,00,05,11,59,59,2,004,00", OBJ_STALE},
      {"0099,00,05,12,00,00,2,004,00", "0099,00,05,12,00,01,2,004,00", OBJ_ACTIVE},
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
