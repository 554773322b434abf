// The cache settings file.
#include <gtest/gtest.h>

#include <cstdlib>

#include "qd.h"
#include "sandbox.h"
#include "trace_capture.h"

using testing_support::Sandbox;
using testing_support::WriteFile;

namespace {

class Settings : public testing::Test {
 protected:
  void SetUp() override {
    trace_ = std::make_unique<TraceCapture>(box_, 6);
    setenv("TAV_LIBQDRC", box_.Path("rc").c_str(), 1);
    unsetenv("QD_EXPIRATION");
  }
  void Read(const std::string &content) {
    WriteFile(box_.Path("rc"), content);
    QDcache_read_rc();
  }
  Sandbox box_;
  std::unique_ptr<TraceCapture> trace_;
};

TEST_F(Settings, TheExampleFile) {
  Read("aliashashsize=509\ndirectload=1\ndirectsave=0\nQD_EXPIRATION=30\n");
  EXPECT_EQ(qdc_rc.aliashashsize, 509u);
  EXPECT_EQ(qdcache_directload, 1);
  EXPECT_EQ(qdcache_directsave, 0);
  EXPECT_STREQ(getenv("QD_EXPIRATION"), "30");
  EXPECT_TRUE(trace_->Has("QDcache_read_rc: Set QD_EXPIRATION to 30 days"));
  EXPECT_TRUE(trace_->Has("                 qdc_rc.aliashashsize  509"));
  EXPECT_TRUE(trace_->Has("                 qdc_rc.directsave     OFF"));
}

TEST_F(Settings, ValuesKeepOrChangeAsTheFileSays) {
  Read("directload=0\ndirectsave=0\n");
  Read("directload=\n");  // an empty value is skipped: the previous value stays
  EXPECT_EQ(qdcache_directload, 0);
  Read("directload=2\n");  // nonzero is direct, though the trace says OFF
  EXPECT_EQ(qdcache_directload, 2);
  EXPECT_TRUE(trace_->Has("                 qdc_rc.directload     OFF"));
  Read("aliashashsize=0\n");
  EXPECT_EQ(qdc_rc.aliashashsize, 1u);
  Read("aliashashsize=junk\naliashashsize=64\n");  // the later entry wins
  EXPECT_EQ(qdc_rc.aliashashsize, 64u);
  Read("directsave=257\n");  // the low eight bits
  EXPECT_EQ(qdcache_directsave, 1);
  Read("YRA_FW=demo\n");
  EXPECT_TRUE(trace_->Has("QDcache_read_rc: unknown keyword 'YRA_FW'"));
  EXPECT_EQ(qdc_rc.aliashashsize, 64u);
}

TEST_F(Settings, TheEnvironmentWinsForTheExpirationPeriod) {
  setenv("QD_EXPIRATION", "10", 1);
  Read("QD_EXPIRATION=30\n");
  EXPECT_STREQ(getenv("QD_EXPIRATION"), "10");
  EXPECT_TRUE(trace_->Has("QDcache_read_rc: QD_EXPIRATION overridden in environment"));
}

TEST_F(Settings, AMissingFileChangesNothing) {
  qdcache_directsave = 7;
  setenv("TAV_LIBQDRC", box_.Path("missing").c_str(), 1);
  QDcache_read_rc();
  EXPECT_EQ(qdcache_directsave, 7) << "the copies are not refreshed";
  EXPECT_TRUE(trace_->Has("Cannot open QD library environment options path: " + box_.Path("missing")));
  setenv("TAV_LIBQDRC", "", 1);  // empty: the default path
  QDcache_read_rc();
  EXPECT_TRUE(trace_->Has("Cannot open QD library environment options path: /"));
}

}  // namespace
