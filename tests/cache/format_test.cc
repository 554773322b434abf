// Writing table entries, and reading them back with the table cursor.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "qd.h"
#include "sandbox.h"

using testing_support::ReadFile;
using testing_support::Sandbox;

namespace {

KeywordList *List(std::initializer_list<std::pair<const char *, const char *>> pairs) {
  KeywordList *l = CreateKeywordList();
  for (auto &p : pairs) AddKeywordToList(l, p.first, p.second);
  return l;
}

// Writes one entry the way the flush does, into a fresh file.
std::string Put(const Sandbox &box, const char *alias, KeywordList *attrs, KeywordList *methods) {
  QDlock_fptr = fopen(box.Path("out.tab").c_str(), "w");
  EXPECT_EQ(QDcache_flush_put(alias, attrs, methods), 0);
  fclose(QDlock_fptr);
  QDlock_fptr = nullptr;
  DestroyKeywordList(attrs);
  DestroyKeywordList(methods);
  return ReadFile(box.Path("out.tab"));
}

TEST(Escapes, LengthCopyAndOmission) {
  EXPECT_EQ(strlenesc("a:b\\"), 6u);
  char buf[64];
  EXPECT_STREQ(strcpyesc(buf, "a:b\"c\nd"), "a\\:b\\\"c\\\nd");
  EXPECT_STREQ(strcatesc(buf, ":"), "a\\:b\\\"c\\\nd\\:");
  EXPECT_EQ(strcpyesc_omit_ch(buf, "a\"b:c", '"'), 5);
  EXPECT_STREQ(buf, "ab\\:c");
  EXPECT_EQ(strcpyesc_omit_ch(buf, "plain", '"'), 5);
}

TEST(FlushPut, WritesTheTableFormat) {
  Sandbox box;
  struct Case {
    std::string got, want;
  } cases[] = {
      {Put(box, "disk1",
           List({{"cdevice", "/dev/rdsk/0s2"}, {"bdevice", "/dev/dsk/0s2"}, {"desc", "Disk: \"A\""},
                 {"type", "disk"}}),
           List({{"remove", "rm -f a:b"}})),
       "disk1:/dev/rdsk/0s2:/dev/dsk/0s2::desc=\"Disk\\: A\" type=\"disk\" remove=\"rm -f a\\:b\"\n"},
      {Put(box, "x", List({{"k", "v"}}), nullptr), "x::::k=\"v\"\n"},
      {Put(box, "x", List({{"pathname", ""}}), List({{"upcmd", "up"}})), "x:::: upcmd=\"up\"\n"},
      {Put(box, "x", List({}), List({})), "x::::\n"},
      {Put(box, "a:b", List({{"desc", "line1\nline2"}}), nullptr), "a\\:b::::desc=\"line1\\\nline2\"\n"},
      {Put(box, "x", List({{"desc", "say \"hi\""}}), nullptr), "x::::desc=\"say hi\"\n"},
      {Put(box, "#c", List({}), nullptr), "\\#c::::\n"},
  };
  for (const Case &c : cases) EXPECT_EQ(c.got, c.want);
}

// Whatever the writer writes, the table cursor reads back as the same
// triples (double quotes in values are dropped by design).
TEST(FlushPut, RoundTripThroughTheTableCursor) {
  Sandbox box;
  std::mt19937 gen(7);
  const std::string alphabet = "ab:\\\"\n =#\t,xyz09";
  auto text = [&](size_t min, size_t max) {
    std::string s;
    size_t n = min + gen() % (max - min + 1);
    for (size_t i = 0; i < n; ++i) s.push_back(alphabet[gen() % alphabet.size()]);
    return s;
  };
  using Triple = std::tuple<std::string, std::string, std::string>;
  std::vector<Triple> want;
  QDlock_fptr = fopen(box.table().c_str(), "w");
  for (int i = 0; i < 200; ++i) {
    std::string alias = text(1, 12) + std::to_string(i);
    std::string cdev = text(0, 8);
    KeywordList *attrs = CreateKeywordList(), *methods = CreateKeywordList();
    AddKeywordToList(attrs, "cdevice", cdev.c_str());
    want.emplace_back(alias, "cdevice", cdev);
    want.emplace_back(alias, "bdevice", "");
    want.emplace_back(alias, "pathname", "");
    for (int k = 0; k < 3; ++k) {
      std::string kw = "k" + std::to_string(k), value = text(0, 30);
      for (char &c : kw) c = c == ' ' ? '_' : c;
      AddKeywordToList(attrs, kw.c_str(), value.c_str());
      value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
      want.emplace_back(alias, kw, value);
    }
    AddKeywordToList(methods, "runcmd", "echo \"x\":y");
    want.emplace_back(alias, "runcmd", "echo x:y");
    ASSERT_EQ(QDcache_flush_put(alias.c_str(), attrs, methods), 0);
    DestroyKeywordList(attrs);
    DestroyKeywordList(methods);
  }
  fclose(QDlock_fptr);
  QDlock_fptr = nullptr;
  std::vector<Triple> got;
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  char *a, *n, *v;
  while (ReferenceNextAttribute(&a, &n, &v) != KWL_END) got.emplace_back(a, n, v);
  EXPECT_EQ(got, want);
}

TEST(FlushPut, AnOverlongHeadIsWrittenWhole) {
  Sandbox box;
  std::string alias(700, 'a'), path(900, 'p');
  std::string out = Put(box, alias.c_str(), List({{"pathname", path.c_str()}}), nullptr);
  EXPECT_EQ(out, alias + ":::" + path + ":\n");
}

}  // namespace
