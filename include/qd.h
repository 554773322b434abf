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

/* ---- Queries (local implementations) ---- */

/* One attribute; NULL for a method name, an unknown alias or name. free(). */
QD_EXPORT NameValue *QDLgetattr(const char *alias, const char *name);
/* One method; NULL for a name that is not a method name. free(). */
QD_EXPORT NameValue *QDLgetmethod(const char *alias, const char *name);
/* All attributes (neither alias names nor method names). DestroyKeywordList. */
QD_EXPORT KeywordList *QDLgetattrs(const char *alias);
/* All methods. DestroyKeywordList. */
QD_EXPORT KeywordList *QDLgetmethods(const char *alias);

#ifdef __cplusplus
}
#endif
#endif /* QD_H */
