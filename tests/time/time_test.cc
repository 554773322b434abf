// Time stamps: their text form, comparison, and setting the process's stamp.
// A fixed time zone (with daylight saving) keeps local times reproducible.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "qd.h"
#include "sandbox.h"
#include "trace_capture.h"

using testing_support::Sandbox;

namespace {

class Stamps : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    unsetenv("QD_TIMESTAMP");
  }
};

struct tm Stamp(int year, int mon, int mday, int hour, int min, int sec, int wday, int yday,
                int isdst) {
  struct tm t = {};
  t.tm_year = year, t.tm_mon = mon, t.tm_mday = mday, t.tm_hour = hour, t.tm_min = min;
  t.tm_sec = sec, t.tm_wday = wday, t.tm_yday = yday, t.tm_isdst = isdst;
  return t;
}

std::string Text(struct tm t) {
  char buf[29];
  int n = QDtm2value(t, buf);
  EXPECT_EQ(n, static_cast<int>(strlen(buf)));
  return buf;
}

// The text on the heap, exactly as long as it is, so that the sanitizer
// build catches any read past its end.
struct tm Read(const std::string &text) {
  char *copy = static_cast<char *>(malloc(text.size() + 1));
  memcpy(copy, text.c_str(), text.size() + 1);
  struct tm t = QDvalue2tm(copy);
  free(copy);
  return t;
}

TEST_F(Stamps, TextFormsReadAndWrittenComparedAndExpired) {
  const std::pair<struct tm, const char *> cases[] = {
      {Stamp(0, 0, 0, 0, 0, 0, 0, 0, 0), "0000,00,00,00,00,00,0,000,00"},
      {Stamp(97, 2, 14, 9, 5, 3, 5, 72, 0), "0097,02,14,09,05,03,5,072,00"},
      {Stamp(124, 11, 31, 23, 59, 59, 2, 365, 0), "0124,11,31,23,59,59,2,365,00"},
      {Stamp(97, 2, 14, 9, 5, 3, 5, 72, -1), "0097,02,14,09,05,03,5,072,-1"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Text(c.first), c.second);
    EXPECT_EQ(Text(Read(c.second)), c.second) << "round trip";
  }
  // Fields wider than their place are written whole, then cut to the
  // value's length.
  EXPECT_EQ(Text(Stamp(12345, 100, 1, 1, 1, 1, 10, 1000, 1)), "12345,100,01,01,01,01,10,100");
  struct tm t = Read("0097,02,14,09,05,03,5,072,00");
  EXPECT_EQ(std::vector<int>({t.tm_sec, t.tm_min, t.tm_hour, t.tm_mday, t.tm_mon, t.tm_year, t.tm_wday, t.tm_yday}),
            std::vector<int>({3, 5, 9, 14, 2, 97, 5, 72}));
  // The commas alone make a value: what lies between them is read as it is.
  EXPECT_EQ(Read("0097,02,14,09,05,03,5,072,").tm_mday, 14);
  EXPECT_EQ(Read("0097,02,14,09,05,03,5,072,00 and more").tm_isdst, 0);
  Sandbox box;
  TraceCapture trace(box, 2);
  for (const char *bad : {"1997-03-14", "", "0097,02,14,09,05,03,5,072", "0097.02,14,09,05,03,5,072,00"})
    EXPECT_EQ(Text(Read(bad)), "0000,00,00,00,00,00,0,000,00") << bad;
  EXPECT_TRUE(trace.Has("Invalid timestamp value format: 1997-03-14") && trace.Has("Zeroing-out timestamp"));

  struct tm a = Stamp(97, 2, 14, 9, 5, 3, 5, 72, 0), b = Stamp(97, 2, 14, 9, 5, 3, 1, 10, 1);
  EXPECT_EQ(QDcomparestamps(a, b), 0);  // weekday, day of year and flag play no part
  b.tm_sec = 4;
  EXPECT_EQ(QDcomparestamps(a, b), -1);
  EXPECT_EQ(QDcomparestamps(Stamp(98, 0, 1, 0, 0, 0, 0, 0, 0), a), 1);
  EXPECT_EQ(QDexpired(a), 0) << "no expiration date yet";
  QDexpirationdate = Stamp(100, 0, 1, 0, 0, 0, 6, 0, 0);
  EXPECT_EQ(QDexpired(a), 1);
  EXPECT_EQ(QDexpired(QDexpirationdate), 0);
}

TEST_F(Stamps, TheEnvironmentSetsTheStampOnce) {
  strcpy(QDstampstring, "previous");
  EXPECT_EQ(QDsettime(QD_TS_ENV, nullptr), 242);  // not set: timestamping off
  EXPECT_EQ(QDtimestamp.tm_mday, 0);
  EXPECT_STREQ(QDstampstring, "previous");
  for (const auto &[value, rc] :
       {std::pair<const char *, int>{"0", 245}, {"1997-03-14", 254}, {"0097,02,14,09,05,03,5,072,00", 0}}) {
    setenv("QD_TIMESTAMP", value, 1);
    EXPECT_EQ(QDsettime(QD_TS_ENV, nullptr), rc) << value;
  }
  // The first setting holds for the process.
  setenv("QD_TIMESTAMP", "", 1);
  EXPECT_EQ(QDsettimefmenv(), 0);
  EXPECT_STREQ(QDstampstring, "0097,02,14,09,05,03,5,072,00");
}

TEST_F(Stamps, ExplicitEvents) {
  Sandbox box;
  TraceCapture trace(box, 7);
  struct tm s = Stamp(97, 2, 14, 9, 5, 3, 5, 72, 0);
  EXPECT_EQ(QDsettime(QD_TS_STAMP, &s), 0);
  EXPECT_STREQ(QDstampstring, "0097,02,14,09,05,03,5,072,00");
  time_t clock = 15638400;
  EXPECT_EQ(QDsettime(QD_TS_CLOCK, &clock), 0);
  EXPECT_STREQ(QDstampstring, "0070,06,01,02,00,00,3,181,01");
  EXPECT_EQ(QDsettime(QD_TS_STRING, const_cast<char *>("1997-03-14")), 254);
  EXPECT_STREQ(QDstampstring, "0070,06,01,02,00,00,3,181,01") << "unchanged on failure";
  EXPECT_EQ(QDsettime(6, nullptr), 255);
  EXPECT_EQ(QDsettime(QD_TS_ZERO, nullptr), 0);
  EXPECT_STREQ(QDstampstring, "0000,00,00,00,00,00,0,000,00");
  // With timestamping off again, the environment is read afresh; an empty value means now.
  setenv("QD_TIMESTAMP", "0101,00,01,00,00,00,1,000,00", 1);
  EXPECT_EQ(QDsettime(QD_TS_ENV, nullptr), 0);
  EXPECT_EQ(QDtimestamp.tm_year, 101);
  QDsettime(QD_TS_ZERO, nullptr);
  setenv("QD_TIMESTAMP", "", 1);
  time_t before = time(nullptr);
  EXPECT_EQ(QDsettime(QD_TS_ENV, nullptr), 0);
  time_t after = time(nullptr);
  struct tm lo, hi;
  EXPECT_GE(QDcomparestamps(QDtimestamp, *QDcl2stamp(&lo, &before)), 0);
  EXPECT_LE(QDcomparestamps(QDtimestamp, *QDcl2stamp(&hi, &after)), 0);
}

TEST_F(Stamps, TouchWritesTheTimeStampOnlyWhenStamping) {
  Sandbox box;
  box.WriteTable("disk0:::: desc=\"x\"\n");
  EXPECT_EQ(QDtouch("disk0").tm_mday, 0);
  EXPECT_EQ(box.ReadTable(), "disk0:::: desc=\"x\"\n");
  setenv("QD_TIMESTAMP", "0097,02,14,09,05,03,5,072,00", 1);
  ASSERT_EQ(QDsettime(QD_TS_ENV, nullptr), 0);
  EXPECT_EQ(QDtouch("disk0").tm_year, 97);
  QDtouch("disk0");  // a second touch writes the same single attribute again
  EXPECT_EQ(box.ReadTable(), "disk0::::desc=\"x\" ObjModifyTime=\"0097,02,14,09,05,03,5,072,00\" "
                            "ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\n");
}

}  // namespace
