/*
 * pv.h - libPV, the local-services library beside libQD.
 *
 * Keyword lists, comma lists, the device table cursor, the trace reporters
 * and the dispatch between the caller and the local implementation.
 *
 * Ownership: every list returned here belongs to the caller. Keyword lists
 * are released with DestroyKeywordList; a comma list is one array and one
 * string block, both from malloc (free the block in the last slot, then the
 * array). Strings handed out by reference (Reference* calls, the table
 * cursor) stay owned by the list or cursor.
 */
#ifndef PV_H
#define PV_H

#include <stdarg.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define PV_EXPORT __attribute__((visibility("default")))
#define PV_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define PV_EXPORT
#define PV_PRINTF(f, a)
#endif

/* Status codes of the list operations. */
#define KWL_OK 0
#define KWL_DUPLICATE 240 /* RemoveDuplicateKeywordFmList thinned the list */
#define KWL_NOTFOUND 241  /* lookup: no such keyword */
#define KWL_WARN 243      /* delivered, but the entry has no value (added with NULL) */
#define KWL_INVALID 244   /* null or destroyed list */
#define KWL_END 245       /* iteration (or table cursor) has no further entry */
#define KWL_NOMEM 247     /* out of memory */
#define KWL_TRUNCATED 248 /* GetNextKeywordFmList: entry did not fit the buffers */

/* Buffer sizes that GetNextKeywordFmList fills. */
#define KWL_KEYWORD_BUFSIZE 36
#define KWL_VALUE_BUFSIZE 516

typedef struct KeywordEntry KeywordEntry; /* private to the list operations */
struct KeywordBlock;                      /* private to the list operations */

/*
 * A keyword list. Callers may touch exactly one thing: restarting an
 * iteration by copying kwl_first into kwl_cursor. Everything else is private.
 */
typedef struct KeywordList {
  unsigned long kwl_magic;  /* private: marks a live list */
  KeywordEntry *kwl_cursor; /* entry the next iteration call delivers */
  KeywordEntry *kwl_first;  /* first entry, or NULL when empty */
  KeywordEntry *kwl_last;   /* private: last entry */
  struct KeywordBlock *kwl_blocks; /* private: storage of the entries */
  unsigned int kwl_count;   /* private: number of entries */
  int kwl_shared;           /* private: who owns the memory laid out with the header */
} KeywordList;

/* Keyword lists. Strings passed in are copied. A NULL value makes an entry
 * without a value: it reads as "" and is delivered with KWL_WARN. */
PV_EXPORT KeywordList *CreateKeywordList(void);
PV_EXPORT int DestroyKeywordList(KeywordList *list); /* NULL is allowed */
PV_EXPORT int AddKeywordToList(KeywordList *list, const char *keyword, const char *value);
/* Adds value as an item of keyword's comma-separated value (keyword added when absent). */
PV_EXPORT int AddValueToList(KeywordList *list, const char *keyword, const char *value);
/* Sets the first entry of keyword (added when absent). */
PV_EXPORT int UpdateKeywordInList(KeywordList *list, const char *keyword, const char *value);
/* Removes every entry of keyword. */
PV_EXPORT int RemoveKeywordFmList(KeywordList *list, const char *keyword);
/* Keeps the first entry of each keyword; KWL_DUPLICATE when it removed any. */
PV_EXPORT int RemoveDuplicateKeywordFmList(KeywordList *list);
/* First entry of keyword; out strings stay owned by the list. */
PV_EXPORT int ReferenceKeywordInList(KeywordList *list, const char *keyword, char **keyword_out,
                                     char **value_out);
/* Entry at the cursor, advancing it; KWL_END at the end (and for NULL). */
PV_EXPORT int ReferenceNextKeywordInList(KeywordList *list, char **keyword_out, char **value_out);
/* As above, copying into buffers of KWL_KEYWORD_BUFSIZE and KWL_VALUE_BUFSIZE bytes. */
PV_EXPORT int GetNextKeywordFmList(KeywordList *list, char *keyword_buf, char *value_buf);
PV_EXPORT KeywordList *DuplicateKeywordList(KeywordList *list);
PV_EXPORT int AddKeywordListToList(KeywordList *dest, KeywordList *src);
PV_EXPORT int NumberOfKeywords(KeywordList *list);
PV_EXPORT int ValidKeywordList(KeywordList *list);
/* One keyword=value a line; values with blanks at their ends, quotes or
 * line breaks are written "quoted" with backslash escapes. */
PV_EXPORT KeywordList *KeywordStreamToList(FILE *in);
PV_EXPORT int KeywordListToStream(FILE *out, KeywordList *list);
PV_EXPORT int DisplayKeywordList(KeywordList *list);
PV_EXPORT int DumpKeywordList(KeywordList *list);

/* Comma lists: items (blanks around them trimmed, empty ones skipped), NULL,
 * then the address of the one block that holds every item. */
typedef char **CommaList;
PV_EXPORT CommaList ParseCommaList(const char *text);
PV_EXPORT int IsInCommaList(const char *item, const char *text);

/* The device table: TAV_DEVTAB when set, else the default table. malloc'd. */
PV_EXPORT char *_pdevtabpath(void);
/* Opens (or rewinds) the table cursor; -1 when the table cannot be read. */
PV_EXPORT int ResetDeviceTabFile(void);
/* Next (alias, name, value) of the table, KWL_END after the last; the
 * strings belong to the cursor and last until the next call. */
PV_EXPORT int ReferenceNextAttribute(char **alias, char **name, char **value);

/* Tracing. A line is produced when level == vcel_explicit_level or
 * level <= vcel_verbose_level (the reporters themselves do not filter).
 * VCEL_VERBOSE and VCEL_EXPLICIT set the levels when the library loads;
 * VCEL_TRACE_FILE names a file to append to instead of standard error. */
PV_EXPORT extern int vcel_verbose_level;
PV_EXPORT extern int vcel_explicit_level;
PV_EXPORT extern char **vcel_argv; /* the program's argv, when it sets it */
PV_EXPORT extern int vcel_errno;   /* status word of the list writers */
PV_EXPORT void VCELtrace(int level, const char *module, const char *format, ...) PV_PRINTF(3, 4);
PV_EXPORT void VCELvtrace(int level, const char *module, const char *format, va_list args)
    PV_PRINTF(3, 0);
PV_EXPORT void IOTrace(int level, const char *module, const char *format, ...) PV_PRINTF(3, 4);

/* Dispatch. Every alias and search on this host is local, so these call
 * back libQD's exported QDL functions (looked up at run time). */
struct NameValue;
struct AliasList;
struct ObjectRecord;
PV_EXPORT int IsLocalAlias(const char *alias);
PV_EXPORT int IsLocalSearch(KeywordList *criteria);
PV_EXPORT struct NameValue *PVQueryattr(const char *alias, const char *name);
PV_EXPORT KeywordList *PVQueryattrs(const char *alias);
PV_EXPORT struct NameValue *PVQuerymeth(const char *alias, const char *name);
PV_EXPORT KeywordList *PVQuerymeths(const char *alias);
PV_EXPORT struct AliasList *PVgetaliases(KeywordList *criteria);
PV_EXPORT int PVPut(const char *alias, KeywordList *list);
PV_EXPORT struct ObjectRecord *PVQueryobjs(const char *alias);
PV_EXPORT char *PVQuerynext(const char *class_name, const char *current);
PV_EXPORT KeywordList *NVPerform(const char *alias, const char *method, KeywordList *params);

#ifdef __cplusplus
}
#endif
#endif /* PV_H */
