// Writing: the unitmod command lines, modify then add, the time stamp
// attribute, deletes and their archive copies; and safety: a writer killed at
// any point, a full disk or a failed sync leaves the old table or the new one,
// readers racing rewrites see whole tables, locks follow the table to its new
// file, and concurrent writers lose nothing.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "cache_fixture.h"
#include "list_util.h"

namespace {

using testing_support::Command;
using testing_support::ReadFile;
using testing_support::RunProgram;
using testing_support::WriteFile;

std::string Prop(const char *alias, const char *name) {
  auto r = RunProgram({Command("unitprop"), alias, name});
  return r.status == 0 ? r.out.substr(0, r.out.size() - 1) : "<" + std::to_string(r.status) + ">";
}

size_t Aliases() {
  auto r = RunProgram({Command("unitlist")});
  return static_cast<size_t>(std::count(r.out.begin(), r.out.end(), '\n'));
}

class Put : public CacheTest {
 protected:
  void SetUp() override { Settings("directsave=0\n"); }
  // A unitmod that logs its arguments and exits with `modify_status` for -m.
  void FakeUnitmod(int modify_status) {
    log_ = testing_support::FakeCommand(box_, "unitmod",
                                        "[ \"$1\" = -m ] && exit " + std::to_string(modify_status) + "\nexit 0");
  }
  std::string Log() const { return access(log_.c_str(), F_OK) == 0 ? ReadFile(log_) : ""; }
  // A put loads the cache for the rest of the process; the cache is let go
  // again, so that what follows works on the table.
  int Write(const char *alias, const pvtest::Pairs &pairs) {
    int rc = QDput(alias, pvtest::MakeList(pairs).get());
    QDcache_free();
    return rc;
  }
  std::string log_;
};

TEST_F(Put, CommandLinesCarryEveryValueLiterallyOrRefuseIt) {
  FakeUnitmod(0);
  ASSERT_EQ(chdir(box_.dir().c_str()), 0);
  KeywordList *l = List({{"alias", "disk0"}, {"plain", "x y"}, {"empty", ""}, {"quoted", "\"as is\""},
                         {"shell", "$(touch pwned) `id` ; | >"}, {"tab", "a\tb"}, {"odd key", "v"}});
  EXPECT_EQ(QDput("disk0", l), 0);
  EXPECT_EQ(Log(), "<-m><disk0><plain=x y><empty=><quoted=as is><shell=$(touch pwned) `id` ; | >><tab=a b><odd key=v>\n");
  EXPECT_EQ(pvtest::All(l)[5].second, "a b") << "the caller's list keeps the blank";
  EXPECT_NE(access("pwned", F_OK), 0);
  DestroyKeywordList(l);
  for (const char *bad : {"\"$(touch pwned)\"", "\"open", "close\"", "\"a\"b\""})
    EXPECT_EQ(Write("disk0", {{"desc", bad}}), -1) << bad;
  std::string calls = Log();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), '\n'), 1) << "a refused value ran unitmod";
  char *command =
      BuildPutCommand("disk0", pvtest::MakeList({{"desc", "Disk drive"}, {"alias", "disk0"}, {"n", "\"1\""}}).get(), "-m");
  ASSERT_NE(command, nullptr);
  OverlayPutCommand(command, "-a");
  EXPECT_STREQ(command, "unitmod -a disk0\\\n desc=\"Disk drive\"\\\n n=\"1\"");
  free(command);
}

TEST_F(Put, ModifyThenAddConflictsFailuresAndTheTimeStamp) {
  FakeUnitmod(3);
  EXPECT_EQ(Write("newdisk", {{"class", "disk"}}), 0);
  EXPECT_EQ(Log(), "<-m><newdisk><class=disk>\n<-a><newdisk><class=disk>\n");
  EXPECT_EQ(Write("disk0", {{"alias", "other"}}), 254);
  FakeUnitmod(5);
  EXPECT_EQ(Write("disk0", {{"class", "disk"}}), -1) << "unitmod -m failed with 5";
  FakeUnitmod(0);
  setenv("QD_TIMESTAMP", "0126,10,22,10,00,00,0,325,00", 1);
  KeywordList *l = List({{"class", "disk"}, {"class", "dup"}, {"ObjTimestamp", "old"}});
  EXPECT_EQ(QDput("disk0", l), KWL_DUPLICATE);
  EXPECT_NE(Log().find("<-m><disk0><class=disk><ObjTimestamp=old>\n"), std::string::npos) << Log();
  EXPECT_EQ(pvtest::All(l), (pvtest::Pairs{{"class", "disk"}})) << "the stamp leaves the list";
  DestroyKeywordList(l);
  QDput("disk1", pvtest::MakeList({{"class", "disk"}}).get());
  EXPECT_NE(Log().find("<-m><disk1><class=disk><ObjTimestamp=0126,10,22,10,00,00,0,325,00>\n"), std::string::npos);
}

TEST_F(Put, RealUnitmodAddsAndDeletesWriteTheirArchiveCopyFirst) {
  EXPECT_EQ(Write("tape9", {{"class", "tape"}, {"desc", "spare: slot 3"}}), 0);
  EXPECT_EQ(Prop("tape9", "desc"), "spare: slot 3");
  EXPECT_EQ(QDdelete("nosuch"), 3);
  EXPECT_TRUE(Archived().empty());
  EXPECT_EQ(QDdelete("lp0"), 0);  // timestamping off: filed under now, off again after
  EXPECT_EQ(Prop("lp0", "class"), "<3>");
  std::vector<std::string> files = Archived();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(QDtimestamp.tm_mday, 0);
  std::string copy = ReadFile(box_.Path("archive/" + files[0]));
  EXPECT_NE(copy.find("testcmd=echo test page | lp -d lp\n"), std::string::npos);
}

TEST_F(Put, TheRunDirectoryIsBuiltOncePerProcessAndNeverLeft) {
  setenv("QD_TIMESTAMP", "0097,02,14,09,05,03,5,072,00", 1);
  QDsettime(QD_TS_ENV, nullptr);
  EXPECT_EQ(QDdelete("tty00"), 0);
  QDsettime(QD_TS_STRING, const_cast<char *>("0098,02,14,09,05,03,6,072,00"));
  EXPECT_EQ(QDdelete("tty01"), 0);
  EXPECT_EQ(Write("../escape", {{"class", "x"}}), 0);
  EXPECT_EQ(QDdelete("../escape"), 0);
  std::vector<std::string> files = Archived();
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (std::vector<std::string>{"1997:03:14:09:05:03/tty00", "1997:03:14:09:05:03/tty01"}));
  EXPECT_NE(access(box_.Path("archive/escape").c_str(), F_OK), 0);
}

// Runs a put of disk1 state=offline with direct saving in a child process.
int PutInChild(const char *fault) {
  pid_t pid = fork();
  if (pid == 0) {
    if (fault != nullptr) setenv("QD_FAULT", fault, 1);
    _exit(QDput("disk1", pvtest::MakeList({{"state", "offline"}}).get()) == 0 ? 0 : 1);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFSIGNALED(st) ? -WTERMSIG(st) : WEXITSTATUS(st);
}

class Safety : public CacheTest {};

TEST_F(Safety, AFlushKilledOrFailingAtAnyPointLeavesTheOldOrTheNewTable) {
  const std::string sample = ReadFile(testing_support::SampleTablePath());
  const std::tuple<const char *, int, bool> cases[] = {  // the fault, how the put ends, whether the table was replaced
      {"kill@flush-writing", -SIGKILL, false}, {"kill@temp-written", -SIGKILL, false},
      {"kill@before-rename", -SIGKILL, false}, {"kill@after-rename", -SIGKILL, true},
      {"enospc@1", 1, false},                  {"eio@fsync", 1, false},
  };
  for (const auto &[fault, end, replaced] : cases) {
    box_.WriteTable(sample);
    EXPECT_EQ(PutInChild(fault), end) << fault;
    if (replaced) EXPECT_TRUE(Aliases() == 32 && Prop("disk1", "state") == "offline" && Prop("tty07", "speed") == "115200");
    else EXPECT_EQ(box_.ReadTable(), sample) << fault;
    // The next writer, whichever it is, removes what the killed one left.
    EXPECT_EQ(box_.Count(".units.tab.new."), end == -SIGKILL && !replaced ? 1 : 0) << fault;
    auto r = RunProgram({Command("unitmod"), "-m", "tty07", "speed=57600"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(box_.Count(".units.tab.new."), 0) << fault;
  }
}

// Readers take no lock: the shell runs unitlist and unitprop over and over
// while this process rewrites the table a thousand times through the
// library. Every listing must be the whole table, every entry whole.
TEST_F(Safety, ReadersRacingAThousandRewritesSeeOnlyWholeTables) {
  std::string table;
  for (int i = 0; i < 150; ++i)
    table += "e" + std::to_string(i) + "::::gen=\"0\" pad=\"" + std::string(40, 'x') + "\"\n";
  box_.WriteTable(table);
  std::string stop = box_.Path("stop"), log = box_.Path("seen");
  pid_t reader = fork();
  if (reader == 0) {
    // The loop also ends with this test's process, however that ends.
    std::string loop = "while [ ! -e '" + stop + "' ] && kill -0 " + std::to_string(getppid()) +
                       "; do echo @list; unitlist; echo @prop; unitprop -v e75; done >'" + log + "'";
    execlp("sh", "sh", "-c", loop.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  for (int i = 1; i <= 1000; ++i) {
    ASSERT_EQ(QDput(i % 2 ? "e75" : "e10", pvtest::MakeList({{"gen", std::to_string(i)}}).get()), 0);
  }
  WriteFile(stop, "");
  waitpid(reader, nullptr, 0);
  std::string seen = ReadFile(log);
  size_t lists = 0, props = 0;
  // The last block may be cut short by the stop: only whole ones count.
  for (size_t pos = seen.find('@'), next; pos != std::string::npos; pos = next) {
    if ((next = seen.find('@', pos + 1)) == std::string::npos) break;
    std::string block = seen.substr(pos, next - pos);
    if (block.rfind("@list\n", 0) == 0) {
      ++lists;
      EXPECT_EQ(std::count(block.begin(), block.end(), '\n'), 151) << block.substr(0, 200);
    } else {
      ++props;
      EXPECT_NE(block.find("pad='" + std::string(40, 'x') + "'"), std::string::npos) << block;
      EXPECT_NE(block.find("gen='"), std::string::npos) << block;
    }
  }
  EXPECT_GT(lists, 10u);
  EXPECT_GT(props, 10u);
}

// A reader that opened the table just before another process replaced it
// finds out when it has locked it, and reads the new table.
TEST_F(Safety, AReaderThatOpenedTheOldTableReadsTheNewOne) {
  pid_t pid = fork();
  if (pid == 0) {
    setenv("QD_FAULT", "stop@table-opened", 1);
    if (QDlock_fp(QDREAD) != 0 || ResetDeviceTabFile() != 0) _exit(2);
    struct stat locked, named;  // the lock, too, is on the new table
    if (fstat(fileno(QDlock_fptr), &locked) != 0 || stat(getenv("TAV_DEVTAB"), &named) != 0 ||
        locked.st_ino != named.st_ino)
      _exit(4);
    char *a, *n, *v;
    while (ReferenceNextAttribute(&a, &n, &v) == KWL_OK)
      if (strcmp(a, "tty07") == 0 && strcmp(n, "speed") == 0) _exit(strcmp(v, "57600") == 0 ? 0 : 1);
    _exit(3);
  }
  int st = 0;
  ASSERT_EQ(waitpid(pid, &st, WUNTRACED), pid);
  ASSERT_TRUE(WIFSTOPPED(st));
  auto r = RunProgram({Command("unitmod"), "-m", "tty07", "speed=57600"});
  EXPECT_EQ(r.status, 0) << r.err;
  kill(pid, SIGCONT);
  waitpid(pid, &st, 0);
  EXPECT_TRUE(WIFEXITED(st));
  EXPECT_EQ(WEXITSTATUS(st), 0);
}

// A flush made while the process holds the table file's lock leaves it
// holding a lock on the table the path names, not on the file it replaced.
TEST_F(Safety, TheFileLockMovesToTheReplacedTable) {
  std::string link = box_.Path("link.tab");  // a table named through a link stays one
  ASSERT_EQ(symlink(box_.table().c_str(), link.c_str()), 0);
  setenv("TAV_DEVTAB", link.c_str(), 1);
  ASSERT_EQ(QDlock_fp(QDWRITE), 0);
  ASSERT_EQ(QDcache_load(), 0);
  ASSERT_EQ(QDput("disk1", pvtest::MakeList({{"state", "offline"}}).get()), 0);
  ASSERT_EQ(QDcache_flush(), 0);
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(box_.table().c_str(), O_RDWR);
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    _exit(fcntl(fd, F_GETLK, &fl) == 0 && fl.l_type != F_UNLCK && fl.l_pid == getppid() ? 0 : 1);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  EXPECT_EQ(WEXITSTATUS(st), 0);
  EXPECT_EQ(QDunlock_fp(QDWRITE), 0);
  EXPECT_EQ(Prop("disk1", "state"), "offline");
  struct stat ls;
  EXPECT_TRUE(lstat(link.c_str(), &ls) == 0 && S_ISLNK(ls.st_mode));
}

// A real small file system (where the test may make one) without room for
// the new table leaves the old one as it was.
TEST_F(Safety, AFullFileSystemLeavesTheTableUnchanged) {
  std::string mnt = box_.Path("small");
  mkdir(mnt.c_str(), 0755);
  if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=64k") != 0)
    GTEST_SKIP() << "cannot mount a small tmpfs here (" << strerror(errno) << ")";
  std::string table = mnt + "/units.tab", before = box_.ReadTable();
  WriteFile(table, before);
  setenv("TAV_DEVTAB", table.c_str(), 1);
  WriteFile(mnt + "/filler", std::string(64 * 1024 - before.size() - 6 * 1024, 'x'));  // less room than needed
  EXPECT_EQ(QDput("disk1", pvtest::MakeList({{"state", "offline"}}).get()), -1);
  EXPECT_EQ(ReadFile(table), before);
  umount2(mnt.c_str(), MNT_DETACH);
}

// Six processes each write 60 distinct attributes of one entry: three
// through the cache with direct saving, three through unitmod.
TEST_F(Safety, ConcurrentWritersLoseNothing) {
  constexpr int kWriters = 6, kEach = 60;
  setenv("QD_LOCK_RETRY_SECONDS", "0", 1);
  WriteFile(box_.Path("direct.rc"), "directsave=1\n");
  WriteFile(box_.Path("unitmod.rc"), "directsave=0\n");
  std::vector<pid_t> kids;
  for (int w = 0; w < kWriters; ++w) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      setenv("TAV_LIBQDRC", box_.Path(w % 2 == 0 ? "direct.rc" : "unitmod.rc").c_str(), 1);
      for (int i = 0; i < kEach; ++i) {
        std::string name = "w" + std::to_string(w) + "_" + std::to_string(i);
        if (QDput("net1", pvtest::MakeList({{name, std::to_string(i)}}).get()) != 0) _exit(1);
      }
      _exit(0);
    }
    kids.push_back(pid);
  }
  for (pid_t pid : kids) {
    int st = 0;
    waitpid(pid, &st, 0);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
  }
  auto r = RunProgram({Command("unitprop"), "-v", "net1"});
  int found = 0;
  for (int w = 0; w < kWriters; ++w)
    for (int i = 0; i < kEach; ++i)
      found += r.out.find("w" + std::to_string(w) + "_" + std::to_string(i) + "='" + std::to_string(i) + "'\n") !=
               std::string::npos;
  EXPECT_EQ(found, kWriters * kEach);
  EXPECT_EQ(Aliases(), 32u);
}

}  // namespace
