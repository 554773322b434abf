// The cache: its store and settings, loading, the hooks that answer and write
// through it, and writing it back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "cache_fixture.h"
#include "list_util.h"
#include "table_gen.h"
#include "trace_capture.h"

namespace {

class Store : public CacheTest {
 protected:
  void SetUp() override { ASSERT_EQ(QDcache_hash_init(), 0); }
  void TearDown() override {
    while (qdcache_ocp->next != qdcache_ocp) QDcache_rmobj(qdcache_ocp->next);
    free(qdchash_tbl);
  }
  static oce *Add(const char *alias, const pvtest::Pairs &pairs, unsigned char status = 1) {
    return QDcache_addalias(alias, pvtest::MakeList(pairs).get(), status);
  }
};

TEST_F(Store, TheCharacterSumHashAndItsChains) {
  EXPECT_EQ(QDcache_hash("abc") - qdchash_tbl, 38);
  EXPECT_EQ(QDcache_hash("a\xE9") - qdchash_tbl, 74);  // 0xE9 counts as -23
  EXPECT_EQ(QDcache_hash("\xE9") - qdchash_tbl, (0u - 23u) % 128u);
  oce *ab = Add("ab", {});
  oce *ba = Add("ba", {});  // anagrams share a chain, in the order added
  oce *head = QDcache_hash("ab");
  EXPECT_TRUE(head->hnext == ab && ab->hnext == ba && ba->hnext == head);
  EXPECT_EQ(QDcache_hash_lookup("aa"), nullptr);
  TearDown();
  qdc_rc.aliashashsize = 100;  // not a divisor of 256: the sign of a byte shows
  ASSERT_EQ(QDcache_hash_init(), 0);
  EXPECT_EQ(QDcache_hash("\xE9") - qdchash_tbl, 73);
  free(qdchash_tbl);
  qdc_rc.aliashashsize = 1;  // one bucket: one chain of every alias
  ASSERT_EQ(QDcache_hash_init(), 0);
  for (int i = 0; i < 50; ++i) Add(("alias" + std::to_string(i)).c_str(), {});
  EXPECT_EQ(qdcache_info[10], 50u);
  EXPECT_STREQ(QDcache_hash_lookup("alias17")->objptr->alias, "alias17");
}

TEST_F(Store, ASecondEntryOfAnAliasIsQueuedButNeverChained) {
  oce *first = Add("dup", {{"n", "1"}});
  EXPECT_EQ(Add("dup", {{"n", "2"}}), first);
  oce *second = qdcache_ocp->prev;
  EXPECT_TRUE(second != first && second->hnext == second);
  EXPECT_EQ(QDcache_dump_aliases(), 2);
  QDcache_rmobj(first);
  EXPECT_EQ(QDcache_hash_lookup("dup"), nullptr);
  EXPECT_EQ(QDcache_dump_aliases(), 1);
}

TEST_F(Store, StatusStampsAndCleanedValuesFromThePairs) {
  oce *plain = Add("plain", {{"class", "disk"}});
  EXPECT_EQ(plain->status, OCE_ACTIVE);
  EXPECT_EQ(plain->accesstime.tm_mday + plain->modifytime.tm_mday, 0);
  oce *stale = Add("stale", {{"ObjTimestamp", "0097,02,14,09,05,03,5,072,00"}});
  EXPECT_EQ(stale->status, 0);
  EXPECT_EQ(stale->accesstime.tm_mday, 14);
  EXPECT_EQ(QDcomparestamps(stale->accesstime, stale->modifytime), 0);
  oce *modified = Add("modified", {{"ObjTimestamp", "0097,02,14,09,05,03,5,072,00"},
                                   {"ObjModifyTime", "0096,00,02,00,00,00,2,001,00"}});
  EXPECT_EQ(modified->modifytime.tm_year, 96);
  QDsettime(QD_TS_STRING, const_cast<char *>("0120,05,01,12,00,00,1,152,01"));
  oce *fresh = Add("fresh", {{"ObjTimestamp", "0097,02,14,09,05,03,5,072,00"}}, OCE_ACTIVE | OCE_UPDATED);
  EXPECT_EQ(fresh->status, OCE_ACTIVE | OCE_UPDATED);
  EXPECT_EQ(fresh->accesstime.tm_year + fresh->modifytime.tm_year, 240);
  KeywordList *list = List({{"desc", "tab\there\nand\x7f\xe9"}, {"note", "caf\xe9 au lait"},
                            {"upcmd", "ifconfig up"}, {"statfunc", "s"}});
  oce *e = QDcache_addalias("net0", list, 1);
  EXPECT_EQ(pvtest::All(e->objptr->attributes), (pvtest::Pairs{{"desc", "tab here and  "}, {"note", "caf  au lait"}}));
  EXPECT_EQ(pvtest::All(list)[0].second, "tab here and  ") << "cleaned in the caller's list too";
  EXPECT_EQ(NumberOfKeywords(e->objptr->methods), 2);
  DestroyKeywordList(list);
}

TEST_F(Store, TheSettingsFile) {
  unsetenv("QD_EXPIRATION");
  auto read = [this](const std::string &text) {
    Settings(text);
    QDcache_read_rc();
  };
  read("aliashashsize=509\ndirectload=1\ndirectsave=0\nQD_EXPIRATION=30\n");
  EXPECT_EQ(qdc_rc.aliashashsize, 509u);
  EXPECT_EQ(qdcache_directload * 10 + qdcache_directsave, 10);
  EXPECT_STREQ(getenv("QD_EXPIRATION"), "30");
  read("directload=0\ndirectload=\nQD_EXPIRATION=40\n");  // an empty value is skipped
  EXPECT_EQ(qdcache_directload, 0);
  EXPECT_STREQ(getenv("QD_EXPIRATION"), "30");
  read("directload=2\naliashashsize=0\ndirectsave=257\n");  // nonzero is direct, though the trace says OFF
  EXPECT_EQ(qdcache_directload, 2);
  EXPECT_EQ(qdc_rc.aliashashsize * 10 + qdcache_directsave, 11u);  // 0 is kept as 1; the low 8 bits
  read("aliashashsize=junk\naliashashsize=64\nYRA_FW=demo\n");  // the later entry wins
  EXPECT_EQ(qdc_rc.aliashashsize, 64u);
  qdcache_directsave = 7;
  setenv("TAV_LIBQDRC", box_.Path("missing").c_str(), 1);
  QDcache_read_rc();
  EXPECT_EQ(qdcache_directsave, 7) << "the copies are not refreshed";
}

using V = std::vector<std::string>;

V Keys(KeywordList *list) {
  V keys;
  for (const auto &p : pvtest::All(list)) keys.push_back(p.first);
  return keys;
}

V QueueAliases() {
  V v;
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp; e = e->next) v.push_back(e->objptr->alias);
  return v;
}

// Every (alias, name, value) the table cursor reads, sorted; values without
// their double quotes, which the writer leaves out.
V Triples() {
  V out;
  ResetDeviceTabFile();
  char *a, *n, *v;
  while (ReferenceNextAttribute(&a, &n, &v) == KWL_OK) {
    std::string value = v;
    value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
    out.push_back(std::string(a) + "|" + n + "|" + value);
  }
  std::sort(out.begin(), out.end());
  return out;
}

class Load : public CacheTest {};

TEST_F(Load, DirectLoadKeepsTableOrderAndTheLoadersRules) {
  std::string long_alias(40, 'L');
  box_.WriteTable("a::::k=\"1\"\n"
                  "b:::/mnt:desc=\"first\" desc=\"second\"\n"
                  "b:/dev/b2:::desc=\"third\" alias=\"x\" extra=\"e\"\n"  // one object with the line before
                  "c:/dev/c:::zz=\"1\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\" aa=\"2\" upcmd=\"up\"\n" +
                  long_alias + ":::: x=\"1\" y=\"2\"\n");
  ASSERT_EQ(QDcache_load(), 0);
  EXPECT_EQ(QueueAliases(), (V{"a", "b", "c", long_alias}));
  EXPECT_EQ(Keys(QDcache_find_alias("a")->objptr->attributes), (V{"pathname", "k"}));  // no empty cdevice
  EXPECT_EQ(Attr("b", "desc"), "first");
  EXPECT_EQ(Keys(QDcache_find_alias("b")->objptr->attributes), (V{"pathname", "extra", "desc", "cdevice"}));
  oce *c = QDcache_find_alias("c");
  EXPECT_EQ(Keys(c->objptr->attributes), (V{"zz", "pathname", "cdevice", "aa", "ObjTimestamp"}));
  EXPECT_EQ(Keys(c->objptr->methods), V{"upcmd"});
  EXPECT_EQ(c->status, 0) << "a stamped object loads as stale";
  EXPECT_EQ(Keys(QDcache_find_alias(long_alias.c_str())->objptr->attributes).size(), 3u);
  EXPECT_EQ(qdcache_info[11], 4u);
  EXPECT_EQ(QDcache_load(), 0);
  EXPECT_EQ(QDcache_dump_aliases(), 4) << "a second load adds nothing";
  QDcache_free();
  EXPECT_EQ(qdcache_info[16], 4u) << "the free counts each removal";
}

// A table big enough to take several of the cache's blocks of memory loads
// whole, twice in one process (the second time into the blocks the first
// left), and a direct flush writes back what the cursor read.
TEST_F(Load, ABigTableLoadsWholeAgainAndAgain) {
  V aliases;
  tablegen::WriteTable(box_.table(), 20000, 3, &aliases);
  V triples = Triples();
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(QDcache_load(), 0);
    EXPECT_EQ(QueueAliases(), aliases) << round;
    for (size_t i = 0; i < aliases.size(); i += 997)
      EXPECT_STREQ(QDcache_find_alias(aliases[i].c_str())->objptr->alias, aliases[i].c_str());
    if (round == 0) QDcache_free();
  }
  ASSERT_EQ(QDcache_flush(), 0);
  EXPECT_TRUE(Triples() == triples);
}

TEST_F(Load, AFailedReadLeavesTheCacheFreeTheIndirectWayAndTheHashSize) {
  setenv("TAV_DEVTAB", box_.Path("no/such/dir/units.tab").c_str(), 1);
  EXPECT_EQ(QDcache_load(), -1);
  EXPECT_TRUE(qdcache_on == 0 && qdcache_free == 1 && qdchash_tbl == nullptr);
  setenv("TAV_DEVTAB", box_.table().c_str(), 1);
  Settings("directload=0\naliashashsize=1\n");
  ASSERT_EQ(QDcache_load(), 0) << "a later load can still succeed";
  V aliases = QueueAliases();
  EXPECT_EQ(aliases.size(), 32u);
  EXPECT_EQ(aliases.front(), "disk0");
  EXPECT_EQ(NumberOfKeywords(QDcache_find_alias("tape0")->objptr->methods), 3);
  EXPECT_EQ(qdcache_info[10], 32u) << "every alias in one chain";
  EXPECT_EQ(qdcache_info[11], 0u) << "nothing loaded directly";
}

using pvtest::Take;

class Hooks : public CacheTest {
 protected:
  void SetUp() override {
    setenv("QD_TIMESTAMP", "0126,10,22,10,00,00,0,325,00", 1);
    ASSERT_EQ(QDcache_load(), 0);
  }
  int Put(const char *alias, KeywordList *list) {
    int rc = QDcache_hook_QDLput(alias, list);
    DestroyKeywordList(list);
    return rc;
  }
  void Reload(const std::string &table) {
    QDcache_free();
    box_.WriteTable(table);
    ASSERT_EQ(QDcache_load(), 0);
  }
};

TEST_F(Hooks, PutsCreateTouchOrUpdateArchivingTheOldObjectOnce) {
  ASSERT_EQ(Put("net9", List({{"class", "network"}, {"upcmd", "ifconfig net9 up"}})), 0);
  oce *e = QDcache_find_alias("net9");
  EXPECT_EQ(e->status, OCE_ACTIVE | OCE_UPDATED);
  EXPECT_EQ(pvtest::All(e->objptr->methods), (pvtest::Pairs{{"upcmd", "ifconfig net9 up"}}));
  EXPECT_EQ(e->accesstime.tm_year, 126);
  ASSERT_EQ(Put("tape0", List({{"class", "tape"}, {"state", "online"}})), 0);  // unchanged: only touched
  EXPECT_EQ(QDcache_find_alias("tape0")->status, OCE_ACTIVE);
  EXPECT_TRUE(Archived().empty()) << "a new or touched object has no old state to archive";
  // "parity" is unchanged and left alone; "speed" changes; "flow" is
  // written again although equal; a tab and a 0xA0 byte become blanks.
  ASSERT_EQ(Put("tty02", List({{"parity", "none"}, {"speed", "57600"}, {"flow", "xonxoff"}, {"desc", "a\tb\xa0"}})), 0);
  EXPECT_EQ(QDcache_find_alias("tty02")->status, OCE_ACTIVE | OCE_UPDATED);
  EXPECT_EQ(Attr("tty02", "speed") + "|" + Attr("tty02", "desc"), "57600|a b ");
  EXPECT_NE(Attr("tty02", "ObjModifyTime"), "<none>");
  ASSERT_EQ(Put("tty02", List({{"speed", "9600"}})), 0);
  ASSERT_EQ(Archived(), V{"2026:11:22:10:00:00/tty02"});
  EXPECT_NE(testing_support::ReadFile(box_.Path("archive/2026:11:22:10:00:00/tty02")).find("speed=38400\n"),
            std::string::npos) << "the copy holds the old state";
}

// A cached object's lists lie in the cache's own memory: changing them over
// and over grows them into blocks of their own and packs them, and neither
// loses or corrupts a pair (run under ASan in the check build).
TEST_F(Hooks, ObjectsChangedOverAndOverKeepEveryPair) {
  for (int i = 0; i < 3000; ++i) {
    std::string value(static_cast<size_t>(i % 200), static_cast<char>('a' + i % 26));
    ASSERT_EQ(Put("disk1", List({{"state", value.c_str()}, {"scratch", std::to_string(i).c_str()}})), 0);
    if (i % 3 == 0) RemoveKeywordFmList(QDcache_find_alias("disk1")->objptr->attributes, "scratch");
  }
  EXPECT_EQ(Attr("disk1", "state"), std::string(2999 % 200, static_cast<char>('a' + 2999 % 26)));
  EXPECT_EQ(Attr("disk1", "scratch"), "2999");
  const pvtest::Pairs kept = {{"class", "disk"}, {"type", "scsi"}, {"cdevice", "/dev/rdsk/1s0"}, {"desc", "SCSI disk 1: 9.1 GB"}};
  for (const auto &[name, value] : kept) EXPECT_EQ(Attr("disk1", name.c_str()), value) << name;
  Reload(testing_support::ReadFile(testing_support::SampleTablePath()));
  EXPECT_EQ(Attr("disk1", "state"), "online") << "a reload starts from the table";
}

TEST_F(Hooks, ListsLeaveOutStaleEntriesWhereAskedAndNeedEveryCriterion) {
  auto specific = [](const pvtest::Pairs &criteria) {
    AliasList *got = nullptr;
    QDcache_hook_GetSpecificAliases(&got, pvtest::MakeList(criteria).get());
    return Take(got);
  };
  EXPECT_EQ(specific({{"class", "serial"}, {"speed", "9600"}}), (V{"console", "tty04", "tty00"}));
  Reload("old:::: class=\"disk\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\nnew:::: class=\"disk\"\n");
  EXPECT_EQ(specific({{"class", "disk"}}), V{"new"});
  AliasList *all = nullptr;
  QDcache_hook_GetAllAliases(&all, nullptr);
  EXPECT_EQ(Take(all), (V{"old", "new"}));
  qd_stale = 1;
  EXPECT_EQ(specific({{"class", "disk"}}), (V{"new", "old"}));
}

TEST_F(Hooks, TheCursorWalksAttributesThenMethodsThenStartsAgain) {
  Reload("one:/c::: x=\"1\" y=\"2\" mcmd=\"m\"\n");
  V seen;
  char *a, *n, *v;
  for (int i = 0; i < 8; ++i)
    seen.push_back(CachedReferenceNextAttribute(&a, &n, &v) == KWL_END ? "END" : std::string(a) + ":" + n + "=" + v);
  EXPECT_EQ(seen, (V{"one:y=2", "one:x=1", "one:pathname=", "one:cdevice=/c", "one:mcmd=m", "END", "one:y=2", "one:x=1"}));
}

TEST_F(Hooks, QueriesAnswerFromTheCacheWithoutCommands) {
  setenv("PATH", "/nonexistent", 1);  // no device command can run now
  EXPECT_EQ(pvtest::Value(QDgetattr("disk0", "desc")), "SCSI disk 0: 9.1 GB");
  EXPECT_EQ(NumberOfKeywords(pvtest::List(QDgetmethods("net1")).get()), 3);
  // A pair put into a cached list without a value has no value to read.
  AddKeywordToList(QDcache_find_alias("disk0")->objptr->attributes, "spare", nullptr);
  EXPECT_EQ(QDgetattr("disk0", "spare"), nullptr);
  // A caller's buffer, refilled after a query, names the new alias.
  char alias[] = "disk0";
  EXPECT_EQ(pvtest::Value(QDgetattr(alias, "desc")), "SCSI disk 0: 9.1 GB");
  memcpy(alias, "net1", 5);
  oce *found = QDcache_find_alias(alias);
  ASSERT_NE(found, nullptr);
  EXPECT_STREQ(found->objptr->alias, "net1");
}

using testing_support::ReadFile;

class Flush : public CacheTest {
 protected:
  // One entry written the way the flush writes it, into a fresh file.
  std::string Put(const char *alias, KeywordList *attrs, KeywordList *methods) {
    QDlock_fptr = fopen(box_.Path("out.tab").c_str(), "w");
    EXPECT_EQ(QDcache_flush_put(alias, attrs, methods), 0);
    fclose(QDlock_fptr);
    QDlock_fptr = nullptr;
    DestroyKeywordList(attrs);
    DestroyKeywordList(methods);
    return ReadFile(box_.Path("out.tab"));
  }
};

TEST_F(Flush, EntriesAreWrittenInTheTableFormat) {
  EXPECT_EQ(strlenesc("a:b\\"), 6u);
  char buf[64];
  EXPECT_STREQ(strcatesc(strcpyesc(buf, "a:b\"c\nd"), ":"), "a\\:b\\\"c\\\nd\\:");
  EXPECT_EQ(strcpyesc_omit_ch(buf, "a\"b:c", '"'), 5);
  EXPECT_STREQ(buf, "ab\\:c");
  const std::string alias(700, 'a'), path(900, 'p');
  const std::pair<std::string, std::string> cases[] = {
      {Put("disk1",
           List({{"cdevice", "/dev/rdsk/0s2"}, {"bdevice", "/dev/dsk/0s2"}, {"desc", "Disk: \"A\""}, {"type", "disk"}}),
           List({{"remove", "rm -f a:b"}})),
       "disk1:/dev/rdsk/0s2:/dev/dsk/0s2::desc=\"Disk\\: A\" type=\"disk\" remove=\"rm -f a\\:b\"\n"},
      {Put("x", List({{"k", "v"}}), nullptr), "x::::k=\"v\"\n"},
      {Put("x", List({{"pathname", ""}}), List({{"upcmd", "up"}})), "x:::: upcmd=\"up\"\n"},
      {Put("a:b", List({{"desc", "line1\nline2"}}), nullptr), "a\\:b::::desc=\"line1\\\nline2\"\n"},
      {Put("#c", List({}), nullptr), "\\#c::::\n"},
      {Put("n", List({{"cdevice", nullptr}, {"k", "v"}}), nullptr), "n::::cdevice=\"\" k=\"v\"\n"},
      {Put(alias.c_str(), List({{"pathname", path.c_str()}}), nullptr), alias + ":::" + path + ":\n"},
  };
  for (const auto &c : cases) EXPECT_EQ(c.first, c.second);
}

// Whatever the writer writes, the table cursor reads back as the same
// triples (double quotes in values are dropped by design).
TEST_F(Flush, TheCursorReadsBackWhatTheWriterWrote) {
  std::mt19937 gen(7);
  const std::string alphabet = "ab:\\\"\n =#\t,xyz09";
  auto text = [&](size_t max) {
    std::string s(gen() % (max + 1), ' ');
    for (char &c : s) c = alphabet[gen() % alphabet.size()];
    return s;
  };
  std::vector<std::string> want, got;
  QDlock_fptr = fopen(box_.table().c_str(), "w");
  for (int i = 0; i < 100; ++i) {
    std::string alias = text(12) + std::to_string(i), cdev = text(8), value = text(30);
    ASSERT_EQ(QDcache_flush_put(alias.c_str(), pvtest::MakeList({{"cdevice", cdev}, {"k", value}}).get(),
                                pvtest::MakeList({{"runcmd", "\"x\":y"}}).get()), 0);
    value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
    for (std::string t : {"cdevice|" + cdev, std::string("bdevice|"), std::string("pathname|"), "k|" + value,
                          std::string("runcmd|x:y")})
      want.push_back(alias + "|" + t);
  }
  fclose(QDlock_fptr);
  QDlock_fptr = nullptr;
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  char *a, *n, *v;
  while (ReferenceNextAttribute(&a, &n, &v) != KWL_END) got.push_back(std::string(a) + "|" + n + "|" + v);
  EXPECT_EQ(got, want);
}

TEST_F(Flush, ADirectFlushRewritesInReverseOrderAndFreesTheCache) {
  EXPECT_EQ(QDcache_flush(), 0);  // not loaded: nothing happens
  box_.WriteTable("a:/dev/a:::k=\"1\"\n"
                  "b::::ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\" z=\"2\"\n"
                  "c:::/p:runcmd=\"x\"\n");
  ASSERT_EQ(QDcache_load(), 0);
  ASSERT_EQ(QDcache_flush(), 0);
  EXPECT_EQ(box_.ReadTable(),
            "c:::/p: runcmd=\"x\"\n"
            "b::::z=\"2\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\n"
            "a:/dev/a:::k=\"1\"\n");
  EXPECT_TRUE(qdcache_on == 0 && qdcache_free == 1 && qdchash_tbl == nullptr);
  // A put loads the cache and flushes it.
  EXPECT_EQ(QDput("tty01", pvtest::MakeList({{"state", "offline"}, {"note", "moved: rack 4"}}).get()), 0);
  EXPECT_EQ(qdcache_on, 0);
  EXPECT_EQ(testing_support::RunProgram({testing_support::Command("unitprop"), "tty01", "note"}).out, "moved: rack 4\n");
}

// In object-writer mode the flush hands changed objects to unitmod; a
// stand-in records what it is asked to do.
TEST_F(Flush, TheObjectWriterWritesOnlyWhatChanged) {
  Settings("directsave=0\n");
  setenv("QD_TIMESTAMP", "0126,10,22,10,00,00,0,325,00", 1);
  box_.WriteTable("stale:::: k=\"1\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\n"
                  "touched:::: k=\"2\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\n"
                  "changed:::: k=\"3\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\n");
  std::string log_path = testing_support::FakeCommand(box_, "unitmod", "exit 0");
  ASSERT_EQ(QDcache_load(), 0);
  QDcache_touch_obj(QDcache_find_alias("touched"));
  QDcache_hook_QDLput("changed", pvtest::MakeList({{"k", "33"}}).get());
  ASSERT_EQ(QDcache_flush(), 0);
  EXPECT_EQ(ReadFile(log_path),
            "<-d><changed>\n<-m><changed><pathname=><ObjModifyTime=0126,10,22,10,00,00,0,325,00><k=33>"
            "<ObjTimestamp=0126,10,22,10,00,00,0,325,00>\n"
            "<-m><changed><ObjTimestamp=0126,10,22,10,00,00,0,325,00>\n"  // its (empty) method list
            "<-m><touched><ObjTimestamp=0126,10,22,10,00,00,0,325,00>\n");
  EXPECT_EQ(qdcache_free, 1);
}

}  // namespace
