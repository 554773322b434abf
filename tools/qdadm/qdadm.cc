// qdadm - the administrator's tool over libQD.
//
//   qdadm [--json] [-t TABLE] [-v LEVEL] COMMAND [ARGS...]
//
// Every command maps onto one public operation of the library; the exit
// status is 0 on success and the library's own code otherwise.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"

extern char **environ;

namespace qdadm {

void Say(const char *format, ...) {
  va_list args;
  va_start(args, format);
  fprintf(stderr, "qdadm: ");
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
  va_end(args);
}

std::vector<std::string> ToVector(AliasList *list) {
  std::vector<std::string> out;
  for (AliasList *n = list; n != nullptr; n = n->next) out.push_back(n->alias);
  return out;
}

AliasList *ToAliasList(const Args &aliases) {
  AliasList *head = nullptr;
  for (auto it = aliases.rbegin(); it != aliases.rend(); ++it) {
    auto *n = static_cast<AliasList *>(malloc(sizeof(AliasList)));
    n->alias = strdup(it->c_str());
    n->next = head;
    head = n;
  }
  return head;
}

Pairs ToPairs(KeywordList *list) {
  Pairs out;
  if (list == nullptr) return out;
  list->kwl_cursor = list->kwl_first;
  char *kw;
  char *value;
  int st;
  while ((st = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || st == KWL_WARN)
    out.emplace_back(kw, value);
  return out;
}

bool AddPair(const std::string &arg, KeywordList **list) {
  size_t eq = arg.find('=');
  if (eq == std::string::npos || eq == 0) {
    Say("not a name=value pair: %s", arg.c_str());
    return false;
  }
  if (*list == nullptr) *list = CreateKeywordList();
  AddKeywordToList(*list, arg.substr(0, eq).c_str(), arg.substr(eq + 1).c_str());
  return true;
}

KeywordList *ToList(const Args &args, size_t from, size_t to) {
  KeywordList *list = CreateKeywordList();
  for (size_t i = from; i < to; ++i) {
    if (!AddPair(args[i], &list)) {
      DestroyKeywordList(list);
      return nullptr;
    }
  }
  return list;
}

}  // namespace qdadm

namespace {

using namespace qdadm;

bool IsMethodName(const std::string &name) { return IsMethod(name.c_str(), static_cast<int>(name.size())) != 0; }

// ---------------------------------------------------------------- commands

int Get(Output &out, const Args &a) {
  if (a.size() == 2) {
    NameValue *nv = IsMethodName(a[1]) ? QDgetmethod(a[0].c_str(), a[1].c_str())
                                       : QDgetattr(a[0].c_str(), a[1].c_str());
    if (nv == nullptr) {
      Say("no value for %s", std::string(a[0] + " " + a[1]).c_str());
      return kNoEntry;
    }
    out.Value(nv->name, nv->value);
    free(nv);
    return 0;
  }
  ObjectRecord *o = QDgetobj(a[0].c_str());
  if (o == nullptr) {
    Say("no entry for %s", std::string(a[0]).c_str());
    return kNoEntry;
  }
  out.Object(o->alias, ToPairs(o->attributes), ToPairs(o->methods));
  QDfreeobj(o);
  return 0;
}

int Methods(Output &out, const Args &a) {
  if (a.size() == 2) {
    if (!IsMethodName(a[1])) {
      Say("not a method name (it holds neither \"cmd\" nor \"func\"): %s", std::string(a[1]).c_str());
      return kBadArguments;
    }
    return Get(out, a);
  }
  KeywordList *methods = QDgetmethods(a[0].c_str());
  if (methods == nullptr) {
    Say("no entry for %s", std::string(a[0]).c_str());
    return kNoEntry;
  }
  out.Fields(ToPairs(methods));
  DestroyKeywordList(methods);
  return 0;
}

int Attrs(Output &out, const Args &a) {
  KeywordList *attrs = QDgetattrs(a[0].c_str());
  if (attrs == nullptr) {
    Say("no entry for %s", std::string(a[0]).c_str());
    return kNoEntry;
  }
  out.Fields(ToPairs(attrs));
  DestroyKeywordList(attrs);
  return 0;
}

int Put(Output &, const Args &a) {
  KeywordList *list = ToList(a, 1, a.size());
  if (list == nullptr) return kBadArguments;
  int rc = QDput(a[0].c_str(), list);
  DestroyKeywordList(list);
  if (rc == KWL_DUPLICATE) {
    Say("%s", std::string("a name given twice was written once (the first value)").c_str());
    return 0;
  }
  if (rc != 0) Say("cannot write %s", std::string(a[0]).c_str());
  return rc == -1 ? 255 : rc;
}

int Delete(Output &, const Args &a) {
  int rc = QDdelete(a[0].c_str());
  if (rc == kNoEntry) Say("no entry for %s", std::string(a[0]).c_str());
  else if (rc != 0) Say("cannot delete %s", std::string(a[0]).c_str());
  return rc == -1 ? 255 : rc;
}

int List(Output &out, const Args &a) {
  KeywordList *criteria = a.empty() ? nullptr : ToList(a, 0, a.size());
  if (!a.empty() && criteria == nullptr) return kBadArguments;
  AliasList *aliases = QDgetaliases(criteria);
  out.Aliases(ToVector(aliases));
  QDFreeAliasList(aliases);
  DestroyKeywordList(criteria);
  return 0;
}

int Match(Output &out, const Args &a) {
  size_t dashes = 0;
  while (dashes < a.size() && a[dashes] != "--") ++dashes;
  if (dashes == a.size()) {
    Say("%s", std::string("give the criteria, then --, then the aliases").c_str());
    return kBadArguments;
  }
  KeywordList *criteria = ToList(a, 0, dashes);
  if (criteria == nullptr) return kBadArguments;
  AliasList *candidates = ToAliasList(Args(a.begin() + static_cast<long>(dashes) + 1, a.end()));
  AliasList *matched = QDmatchalias(criteria, candidates);
  out.Aliases(ToVector(matched));
  QDFreeAliasList(matched);
  QDFreeAliasList(candidates);
  DestroyKeywordList(criteria);
  return 0;
}

// search [--any] [--not NAME=VALUE]... [--filter NAMES] NAME=VALUE...
int Search(Output &out, const Args &a) {
  short type = QD_MATCH_ALL;
  std::string filter = ",,,";  // every attribute and method
  KeywordList *must = nullptr, *must_not = nullptr;
  bool ok = true;
  for (size_t i = 0; ok && i < a.size(); ++i) {
    if (a[i] == "--any") {
      type = QD_MATCH_ANY;
    } else if ((a[i] == "--not" || a[i] == "--filter") && i + 1 < a.size()) {
      if (a[i] == "--filter") filter = a[++i];
      else ok = AddPair(a[++i], &must_not);
    } else if (a[i].rfind("--", 0) == 0) {
      Say("unknown or incomplete search option %s", a[i].c_str());
      ok = false;
    } else {
      ok = AddPair(a[i], &must);
    }
  }
  if (ok && must == nullptr && must_not == nullptr) {
    Say("%s", "give at least one NAME=VALUE or --not NAME=VALUE");
    ok = false;
  }
  SearchCriteria_t *criteria = ok ? CreateSearchCriteria(type, QD_ONE_LEVEL) : nullptr;
  if (criteria == nullptr) {
    DestroyKeywordList(must);
    DestroyKeywordList(must_not);
    return ok ? 255 : kBadArguments;
  }
  if (must != nullptr) AddKeyListToSearch(criteria, must);
  if (must_not != nullptr) AddNotKeyListToSearch(criteria, must_not);
  ObjectList *found = QDsearchaliases(criteria, filter.c_str());
  std::vector<ObjectView> objects;
  for (ObjectList *n = found; n != nullptr; n = n->next)
    objects.push_back({n->Object->alias, ToPairs(n->Object->attributes), ToPairs(n->Object->methods)});
  out.Objects(objects);
  DestroyObjectList(found);
  DestroySearchCriteria(criteria);
  return 0;
}

int Next(Output &out, const Args &a) {
  char *next = QDnextalias(a[0].c_str(), a.size() == 2 ? a[1].c_str() : nullptr);
  if (next == nullptr) {
    Say("no further alias in class %s", std::string(a[0]).c_str());
    return kNoEntry;
  }
  out.Value("alias", next);
  free(next);
  return 0;
}

int Touch(Output &out, const Args &a) {
  int rc = QDsettime(QD_TS_ENV, nullptr);
  if (QDtimestamp.tm_mday == 0) {
    Say("%s", std::string("timestamping is off: set QD_TIMESTAMP (empty for now, or a stamp value)").c_str());
    return rc != 0 ? rc : 242;
  }
  QDtouch(a[0].c_str());
  out.Value("ObjTimestamp", QDstampstring);
  return 0;
}

int Stamp(Output &out, const Args &a) {
  int rc = a.empty() ? QDsettime(QD_TS_ENV, nullptr)
                     : QDsettime(QD_TS_STRING, const_cast<char *>(a[0].c_str()));
  if (rc != 0 && rc != 242 && rc != 245) {
    Say("not a time stamp value: %s", std::string(a.empty() ? std::string(getenv("QD_TIMESTAMP")) : a[0]).c_str());
    return rc;
  }
  char when[64] = "";
  if (QDtimestamp.tm_mday != 0) strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &QDtimestamp);
  out.Fields({{"stamp", QDtimestamp.tm_mday != 0 ? QDstampstring : ""},
              {"time", when},
              {"timestamping", QDtimestamp.tm_mday != 0 ? "on" : "off"}});
  return 0;
}

int Lock(Output &out, const Args &a) {
  const std::string &kind = a[0];
  int mode = kind == "read" ? QDREAD : kind == "write" ? QDWRITE : kind == "test" ? QDWRITE | QDLOCK_TEST : -1;
  if (mode < 0) {
    Say("not a lock kind (read, write or test): %s", std::string(kind).c_str());
    return kBadArguments;
  }
  if (kind == "test") {
    int rc = QDlock(mode);
    out.Value("lock", rc == 0 ? "free" : "held");
    return rc == 0 ? 0 : 1;
  }
  if (a.size() < 3 || a[1] != "--") {
    Say("%s", std::string("give the command to run under the lock after --").c_str());
    return kBadArguments;
  }
  if (QDlock(mode) != 0) {
    Say("cannot take the %s lock", std::string(kind).c_str());
    return 255;
  }
  // The command runs without a shell: its arguments are taken as given.
  std::vector<char *> argv;
  for (size_t i = 2; i < a.size(); ++i) argv.push_back(const_cast<char *>(a[i].c_str()));
  argv.push_back(nullptr);
  pid_t pid;
  int status = 255;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0) {
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
    }
    status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  } else {
    Say("cannot run %s", std::string(a[2]).c_str());
  }
  QDunlock(mode);
  return status;
}

int Cache(Output &out, const Args &a) {
  const std::string &what = a[0];
  if (what != "load" && what != "flush" && what != "stats") {
    Say("not a cache command (load, flush or stats): %s", std::string(what).c_str());
    return kBadArguments;
  }
  if (QDcache_load() != 0) {
    Say("%s", std::string("cannot load the cache").c_str());
    return 255;
  }
  long long entries = 0;
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp; e = e->next) ++entries;
  if (what == "flush") {
    int rc = QDcache_flush();
    out.Counts({{"entries", entries}, {"flushed", rc == 0 ? 1 : 0}});
    return rc == 0 ? 0 : 255;
  }
  qdadm::Numbers counts = {{"entries", entries},
                           {"aliashashsize", qdc_rc.aliashashsize},
                           {"directload", qdcache_directload},
                           {"directsave", qdcache_directsave}};
  if (what == "stats") {
    static const char *const labels[] = {
        "hook_QDLput", "hook_GetAllAliases", "hook_GetSpecificAliases", "hook_QDdelete",
        "hook_UnitProp", "hook_DevAllAttr", "hook_QDmatchalias", "hash", "hash_lookup",
        "hash_searchadd", "max_hash_chain", "QDcache_load_direct_add", "QDcache_find_alias",
        "CachedReferenceNextAttribute", "QDcache_addalias", "QDcache_addobj", "QDcache_rmobj",
        "QDcache_archive_obj"};
    for (int i = 0; i < 18; ++i) counts.emplace_back(labels[i], qdcache_info[i]);
  }
  out.Counts(counts);
  QDcache_free();
  return 0;
}

// 0 when the result reports no failure: errorcode and completioncode
// absent or 0.
int ResultStatus(KeywordList *result) {
  for (const char *code : {"errorcode", "completioncode"}) {
    char *value = nullptr;
    int st = ReferenceKeywordInList(result, code, nullptr, &value);
    if ((st == KWL_OK || st == KWL_WARN) && atoi(value) != 0) return 1;
  }
  return 0;
}

int Perform(Output &out, const Args &a) {
  KeywordList *params = ToList(a, 2, a.size());
  if (params == nullptr) return kBadArguments;
  KeywordList *result = QDperform(a[0].c_str(), a[1].c_str(), params);
  DestroyKeywordList(params);
  if (result == nullptr) {
    Say("%s gave no result list", std::string(a[0] + " " + a[1]).c_str());
    return 255;
  }
  out.Fields(ToPairs(result));
  int rc = ResultStatus(result);
  DestroyKeywordList(result);
  return rc;
}

int Plan(Output &out, const Args &a) {
  NameValue *method = QDgetmethod(a[0].c_str(), a[1].c_str());
  if (method == nullptr) {
    Say("no method %s", std::string(a[0] + " " + a[1]).c_str());
    return kNoEntry;
  }
  KeywordList *list = nullptr;
  QDbuildmethodlist(a[0].c_str(), &method, &list);
  free(method);
  if (list == nullptr) {
    Say("cannot expand %s (run with -v 3 for the reason)", std::string(a[0] + " " + a[1]).c_str());
    return 255;
  }
  // Operators gather until the method they govern.
  std::vector<qdadm::Step> steps;
  qdadm::Step next;
  for (const auto &entry : ToPairs(list)) {
    if (entry.first == META_PRE_OP) {
      next.pre += entry.second;
    } else if (entry.first == META_POST_OP) {
      next.post += entry.second;
    } else {
      next.kind = entry.first == META_CMD ? "command" : "function";
      next.value = entry.second;
      steps.push_back(next);
      next = qdadm::Step();
    }
  }
  DestroyKeywordList(list);
  out.Steps(steps);
  return 0;
}

struct Command {
  const char *name;
  size_t min_args, max_args;  // max 0: any number
  const char *usage;
  const char *help;
  int (*run)(Output &, const Args &);
};

const Command kCommands[] = {
    {"get", 1, 2, "get ALIAS [NAME]", "Print one attribute or method, or the whole object.", Get},
    {"attrs", 1, 1, "attrs ALIAS", "Print every attribute of an entry.", Attrs},
    {"methods", 1, 2, "methods ALIAS [NAME]", "Print every method of an entry, or one.", Methods},
    {"put", 2, 0, "put ALIAS NAME=VALUE...", "Write attributes and methods (the entry is made when missing).", Put},
    {"delete", 1, 1, "delete ALIAS", "Remove an entry, after writing its archive copy.", Delete},
    {"list", 0, 0, "list [NAME=ITEMS...]", "List every alias, or those whose entries meet every criterion.", List},
    {"match", 2, 0, "match NAME=ITEMS... -- ALIAS...", "Print the given aliases whose entries meet every criterion.", Match},
    {"search", 1, 0, "search [--any] [--not N=V]... [--filter NAMES] N=V...",
     "Print the objects whose attributes hold every (or, with --any, one) N=V and no --not N=V.", Search},
    {"next", 1, 2, "next CLASS [ALIAS]", "Print the first alias of a class, or the one after ALIAS.", Next},
    {"touch", 1, 1, "touch ALIAS", "Write the current time stamp (from QD_TIMESTAMP) to an entry.", Touch},
    {"stamp", 0, 1, "stamp [VALUE]", "Show the process's time stamp, from QD_TIMESTAMP or VALUE.", Stamp},
    {"lock", 1, 0, "lock {read|write|test} [-- COMMAND [ARGS...]]", "Run a command while holding the table lock, or test it.", Lock},
    {"perform", 2, 0, "perform ALIAS METHOD [NAME=VALUE...]", "Run a method with parameters; print its result list.", Perform},
    {"plan", 2, 2, "plan ALIAS METHOD", "Print the steps a method would run, in order, with their operators; run none.", Plan},
    {"cache", 1, 1, "cache {load|flush|stats}", "Load the whole table into the cache; report it, or write it back.", Cache},
    {"status", 1, 0, "status ALIAS...", "Print whether entries are active or stale, with their time stamps.", Status},
    {"expire", 0, 0, "expire", "Print the expiration date in force (the stamp less QD_EXPIRATION days).", Expire},
    {"archive", 1, 0, "archive {--all|ALIAS...|--list|--clean}",
     "Archive stale entries, list the run directories, or remove expired ones.", Archive},
    {"contains", 1, 3, "contains [--tree] [--extended] ALIAS",
     "Print the entries an entry contains, one level or the whole tree.", Contains},
    {"destroy", 1, 0, "destroy [--tree] [--delete] [--extended] [--fallback] [--dry-run] ALIAS",
     "Destroy or delete an entry, with --tree all it contains first; print the outcome.", Destroy},
    {"create", 1, 0, "create [--class-file FILE] CLASS [NAME=VALUE...]",
     "Make an entry of a class, with an alias of its own; print the alias.", Create},
    {"update", 2, 0, "update [--class-file FILE] ALIAS CLASS [NAME=VALUE...]",
     "Change an entry and apply a class to it again.", Update},
    {"method", 4, 6, "method {add|rm|update} ALIAS METHOD ELEMENT [INDEX [OPS]]",
     "Add, remove or change an element of a meta-method value.", Method},
    {"value", 4, 4, "value {add|rm} ALIAS NAME ITEM", "Add an item to a multi-value attribute, or remove one.",
     Value},
};

void Usage(FILE *to) {
  fprintf(to, "usage: qdadm [--json] [-t TABLE] [-v LEVEL] COMMAND [ARGS...]\n\ncommands:\n");
  for (const Command &c : kCommands) fprintf(to, "  %-46s %s\n", c.usage, c.help);
  fprintf(to, "\nqdadm COMMAND --help shows one command.\n");
}

}  // namespace

int main(int argc, char **argv) {
  vcel_argv = argv;
  vcel_verbose_level = 3;  // the library's errors reach standard error
  bool json = false;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    std::string opt = argv[i];
    if (opt == "--json") {
      json = true;
    } else if ((opt == "-t" || opt == "-v") && i + 1 < argc) {
      if (opt == "-t") {
        setenv("TAV_DEVTAB", argv[++i], 1);
      } else {
        char *end = nullptr;
        long level = strtol(argv[++i], &end, 10);
        if (*end != '\0' || level < -1 || level > 8) {
          Say("not a trace level (0 to 8): %s", std::string(argv[i]).c_str());
          return kBadArguments;
        }
        vcel_verbose_level = static_cast<int>(level);
      }
    } else if (opt == "-h" || opt == "--help") {
      Usage(stdout);
      return 0;
    } else {
      Say("unknown option %s", std::string(opt).c_str());
      Usage(stderr);
      return kBadArguments;
    }
  }
  if (i >= argc) {
    Usage(stderr);
    return kBadArguments;
  }
  std::string name = argv[i++];
  for (const Command &c : kCommands) {
    if (name != c.name) continue;
    Args args(argv + i, argv + argc);
    if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
      printf("usage: qdadm %s\n%s\n", c.usage, c.help);
      return 0;
    }
    if (args.size() < c.min_args || (c.max_args != 0 && args.size() > c.max_args)) {
      fprintf(stderr, "usage: qdadm %s\n", c.usage);
      return kBadArguments;
    }
    Output out(json);
    int rc = c.run(out, args);
    if (fflush(stdout) != 0) return 255;
    return rc;
  }
  Say("unknown command %s", std::string(name).c_str());
  Usage(stderr);
  return kBadArguments;
}
