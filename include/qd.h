/*
 * qd.h - libQD: the entries of the device table as objects.
 *
 * Ownership: every record or list a function returns belongs to the caller.
 * Name/value records and alias strings are freed with free(); alias lists
 * with QDFreeAliasList; keyword lists with DestroyKeywordList (pv.h). Free
 * functions accept NULL. Strings passed in are never kept.
 *
 * Status codes: 0 success; -1 general failure; 254 invalid argument; a
 * device command's exit status is passed on unchanged.
 *
 * The library is single-threaded: its process-wide state is unguarded.
 */
#ifndef QD_H
#define QD_H

#include <stddef.h>
#include <stdio.h>
#include <time.h>

#include "pv.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define QD_EXPORT __attribute__((visibility("default")))
#define QD_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define QD_EXPORT
#define QD_PRINTF(f, a)
#endif

#define QD_NAME_MAX 32   /* longest attribute or method name */
#define QD_VALUE_MAX 512 /* longest value in a NameValue */

/* The result of a one-name query. Freed with free(). */
typedef struct NameValue {
  char name[QD_NAME_MAX + 1];   /* requested name */
  char value[QD_VALUE_MAX + 1]; /* its value */
} NameValue;

/* A chain of aliases. Freed with QDFreeAliasList. */
typedef struct AliasList {
  char *alias;            /* owned */
  struct AliasList *next; /* NULL at the end */
} AliasList;

/* An object: one table entry. Freed with QDfreeobj, which frees all it owns. */
struct ContainedNode;
typedef struct ObjectRecord {
  char *alias;                     /* owned; NULL while being built */
  KeywordList *attributes;         /* owned: neither alias nor method names */
  KeywordList *methods;            /* owned: names holding "cmd" or "func" */
  struct ContainedNode *contained; /* owned chain of contained objects */
} ObjectRecord;

/* One link of an object's chain of contained objects. */
typedef struct ContainedNode {
  ObjectRecord *object;       /* owned */
  struct ContainedNode *next; /* NULL at the end */
} ContainedNode;

/* A framework library's function, as the switch hands it out. */
typedef void (*QDfwfunc)(void);

/* Handler of one line of a command's output (newline removed). */
typedef int (*QDLineHandler)(void *context, char *line);

/* ---- Diagnostics, memory and the command runner ---- */

/* A trace line through VCELtrace when level == vcel_explicit_level or
 * level <= vcel_verbose_level. */
QD_EXPORT void QDtrace(int level, const char *module, const char *format, ...) QD_PRINTF(3, 4);
/* An error line at level 3 when vcel_verbose_level >= 3; the module name is
 * cut at its last '.'. */
QD_EXPORT void QDerror(const char *module, const char *format, ...) QD_PRINTF(2, 3);
/* malloc that reports failure ("%s: cannot malloc %d bytes"). */
QD_EXPORT void *QDmalloc(const char *module, size_t size);
/* Runs a shell command, handing each output line to handler; returns its exit
 * status, or -1 when it could not start or ended by a signal. `command` is a
 * writable buffer with room for 12 more characters (" 2>/dev/null"). */
QD_EXPORT int ExecuteCommand(char *command, QDLineHandler handler, void *context);
QD_EXPORT void setup_sig(void);
QD_EXPORT void release_sig(void);
QD_EXPORT void QDFreeAliasList(AliasList *list);
QD_EXPORT void FreeKeyList(KeywordList *list);
QD_EXPORT int DisplayParameterList(KeywordList *list);

/* ---- Name classes ---- */

/* 1 when the first `length` characters of name hold "alias". */
QD_EXPORT int IsAlias(const char *name, int length);
/* 1 when the first `length` characters of name hold "cmd" or "func". */
QD_EXPORT int IsMethod(const char *name, int length);

/* ---- Framework switch ---- */

/* 0 when a framework serves `name` (*fn set), 1 for local service. The name
 * "placebo" decides without looking a function up. */
QD_EXPORT int FWswitch(const char *name, QDfwfunc *fn);
/* Names the framework to decide on next (NULL: local from now on). 0 or -1. */
QD_EXPORT int SetFWswitch(const char *name);
/* 1 while the local implementation is in force, 0 under a framework. */
QD_EXPORT int IsOriginalQD(void);
/* 0 when the settings file names a framework (copied into name, 1024 bytes). */
QD_EXPORT int QDread_rc(char *name);
/* *dir: SO_DIR, else the built-in library directory. Not to be freed. */
QD_EXPORT int QDLibDirName(char **dir);

/* The cache flag: 0 until the cache is loaded. */
QD_EXPORT extern int qdcache_on;
/* 0 (default): criteria queries leave out entries that carry alias_status. */
QD_EXPORT extern int qd_stale;

/* ---- Locks ---- */

/* Lock modes: QDREAD or QDWRITE, optionally with QDLOCK_NOWAIT or QDLOCK_TEST. */
#define QDREAD 0
#define QDWRITE 1
#define QDLOCK_NOWAIT 2 /* one attempt only */
#define QDLOCK_TEST 4   /* ask whether the lock could be had; take nothing */

/* The table lock (a lock file beside the table); nests by counting. 0 or -1.
 * Pair every successful QDlock with a QDunlock of the same kind. */
QD_EXPORT int QDlock(int mode);
QD_EXPORT int QDunlock(int mode);
/* The table lock plus a record lock on the table file, with a stream on it
 * in QDlock_fptr (not to be closed by the caller). 0 or -1. */
QD_EXPORT int QDlock_fp(int mode);
QD_EXPORT int QDunlock_fp(int mode);
QD_EXPORT extern FILE *QDlock_fptr;

/* ---- Queries ---- */

/* The public queries: a framework or the local implementation serves them.
 * Results as for the QDL functions below. */
QD_EXPORT NameValue *QDgetattr(const char *alias, const char *name);
QD_EXPORT KeywordList *QDgetattrs(const char *alias);
QD_EXPORT NameValue *QDgetmethod(const char *alias, const char *name);
QD_EXPORT KeywordList *QDgetmethods(const char *alias);
/* A whole object; always local. QDfreeobj. */
QD_EXPORT ObjectRecord *QDgetobj(const char *alias);

/* Local implementations. */

/* One attribute; NULL for a method name, an unknown alias or name. free(). */
QD_EXPORT NameValue *QDLgetattr(const char *alias, const char *name);
/* One method; NULL for a name that is not a method name. free(). */
QD_EXPORT NameValue *QDLgetmethod(const char *alias, const char *name);
/* All attributes (neither alias names nor method names). DestroyKeywordList. */
QD_EXPORT KeywordList *QDLgetattrs(const char *alias);
/* All methods. DestroyKeywordList. */
QD_EXPORT KeywordList *QDLgetmethods(const char *alias);

QD_EXPORT ObjectRecord *QDLgetobj(const char *alias);

/* ---- Aliases ---- */

/* Every alias in table order (criteria NULL), or those whose entries meet
 * the criteria (each criterion: attribute = comma list of required items).
 * NULL when there are none. QDFreeAliasList. */
QD_EXPORT AliasList *QDgetaliases(KeywordList *criteria);
QD_EXPORT AliasList *QDLgetaliases(KeywordList *criteria);
/* The candidates whose entries meet every criterion, in reverse table order. */
QD_EXPORT AliasList *QDmatchalias(KeywordList *criteria, AliasList *candidates);
/* The alias after `current` (or the first, for NULL) among the aliases of
 * the class; NULL at the end. free(). */
QD_EXPORT char *QDnextalias(const char *class_name, const char *current);
QD_EXPORT char *QDLnextalias(const char *class_name, const char *current);
/* 1 when name is a criterion and value meets it, -1 when it fails it, 0 when
 * name is no criterion. */
QD_EXPORT int MeetCriteria(KeywordList *criteria, const char *name, const char *value);
QD_EXPORT AliasList *FindAliasInList(const char *alias, AliasList *list);
/* A new node holding a copy of node's alias, in front of list. */
QD_EXPORT AliasList *AddAliasToList(AliasList *node, AliasList *list);
/* Frees a comma list from ParseCommaList; NULL is allowed. */
QD_EXPORT void DestroyCommaList(CommaList list);

/* ---- Time stamps ---- */

/* A stamp is a struct tm; one whose day of month is 0 is unset. Its text
 * form (28 characters) is "%04d,%02d,%02d,%02d,%02d,%02d,%1d,%03d,%02d" of
 * years since 1900, month (0-11), day, hours, minutes, seconds, weekday,
 * day of year and the daylight flag. */
#define QD_TS_ZERO 0   /* no argument */
#define QD_TS_STAMP 1  /* struct tm * */
#define QD_TS_CLOCK 2  /* time_t * */
#define QD_TS_STRING 3 /* value text */
#define QD_TS_NOW 4    /* no argument */
#define QD_TS_ENV 5    /* from QD_TIMESTAMP */

QD_EXPORT extern struct tm QDtimestamp;      /* this process's current stamp */
QD_EXPORT extern char QDstampstring[30];     /* its text form */
QD_EXPORT extern struct tm QDexpirationdate; /* stale objects older than this expire */

QD_EXPORT void QDzerotimestamp(struct tm *stamp);
/* Writes the text form into value (at least 29 bytes); its length. */
QD_EXPORT int QDtm2value(struct tm stamp, char *value);
/* The stamp a text form stands for; the zero stamp when it is not one. */
QD_EXPORT struct tm QDvalue2tm(const char *value);
QD_EXPORT struct tm *QDcl2stamp(struct tm *stamp, const time_t *clock);
QD_EXPORT int QDcl2value(const time_t *clock, char *value);
/* 1 when a is later than b, -1 when earlier, 0 when equal to the second. */
QD_EXPORT int QDcomparestamps(struct tm a, struct tm b);
/* 1 when the stamp is earlier than QDexpirationdate. */
QD_EXPORT int QDexpired(struct tm stamp);
/* Sets QDtimestamp by event; 0, 254 (bad text), 255 (unknown event), or for
 * QD_TS_ENV the result of QDsettimefmenv. */
QD_EXPORT int QDsettime(int event, void *arg);
/* From QD_TIMESTAMP while the stamp is unset: 0 (set, or already set), 242
 * (not set: timestamping off), 245 ("0"), 254 (not a stamp). */
QD_EXPORT int QDsettimefmenv(void);
/* Writes the current stamp to the entry as ObjTimestamp (when timestamping
 * is on); returns the current stamp. */
QD_EXPORT struct tm QDtouch(const char *alias);

/* ---- Object records ---- */

/* Takes over the three pointers; NULL when out of memory. */
QD_EXPORT ObjectRecord *Create_object(char *alias, KeywordList *attributes, KeywordList *methods);
/* Frees the object and everything it owns, contained objects included. */
QD_EXPORT void QDfreeobj(ObjectRecord *object);
/* Writes the object's attributes and methods to the entry `alias`; 12 when
 * the combined list cannot be built, else the result of the write. */
QD_EXPORT int QDputobj(const char *alias, ObjectRecord *object);

#ifdef __cplusplus
}
#endif
#endif /* QD_H */
