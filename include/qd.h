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
#include <sys/types.h>
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

/* ---- The cache ---- */

/* Status bits of a cache entry. */
#define OCE_ACTIVE 1  /* touched since the load, or loaded without a stamp */
#define OCE_UPDATED 2 /* modified or created since the load */

/* One cached object. Entries are on the object queue (next/prev, circular
 * through the sentinel qdcache_ocp1) and, the first of each alias, on the
 * chain of its hash bucket (hnext/hprev). */
typedef struct oce {
  struct oce *next;      /* object queue */
  struct oce *prev;
  struct oce *hnext;     /* hash chain */
  struct oce *hprev;
  ObjectRecord *objptr;  /* owned */
  unsigned char status;  /* OCE_ACTIVE, OCE_UPDATED */
  unsigned int qd_chain; /* private (it fills the padding before the stamps):
                            1 + the bucket whose chain holds it, or 0 */
  struct tm accesstime;  /* its ObjTimestamp; zero stamp for none */
  struct tm modifytime;  /* its ObjModifyTime */
} oce;

/* The cache settings, from the settings file. */
struct qdc_rc_t {
  unsigned int aliashashsize; /* buckets of the alias hash (at least 1) */
  unsigned char directload;   /* nonzero: load by reading the table file */
  unsigned char directsave;   /* nonzero: flush by rewriting the table file */
};
QD_EXPORT extern struct qdc_rc_t qdc_rc;

QD_EXPORT extern int qdcache_on;         /* 1 while the cache is loaded and in use */
QD_EXPORT extern int qdcache_free;       /* 1 while no cache contents are allocated */
QD_EXPORT extern int qdcache_directload; /* copy of qdc_rc.directload */
QD_EXPORT extern int qdcache_directsave; /* copy of qdc_rc.directsave */
/* 0 (default): criteria queries leave out entries that carry alias_status. */
QD_EXPORT extern int qd_stale;
QD_EXPORT extern long qdcache_running_sec;
QD_EXPORT extern unsigned int qdcache_info[18]; /* usage counters */
QD_EXPORT extern oce qdcache_ocp1;              /* the object queue's sentinel */
QD_EXPORT extern oce *qdcache_ocp;
QD_EXPORT extern oce *qdchash_tbl;              /* bucket heads, NULL while free */

/* Never NULL: ends the process (status 1) when memory is exhausted. */
QD_EXPORT oce *QDcache_oce_new(void);
QD_EXPORT void QDcache_oce_free(oce *entry);
QD_EXPORT void QDcache_oce_enq(oce *after, oce *entry);
QD_EXPORT void QDcache_oce_deq(oce *entry);
QD_EXPORT void QDcache_hash_enq(oce *after, oce *entry);
QD_EXPORT void QDcache_hash_deq(oce *entry);
QD_EXPORT int QDcache_hash_init(void);
QD_EXPORT oce *QDcache_hash(const char *alias);
QD_EXPORT oce *QDcache_hash_lookup(const char *alias);
QD_EXPORT oce *QDcache_hash_searchadd(const char *alias, oce *entry);
QD_EXPORT oce *QDcache_addobj(ObjectRecord *object, unsigned char status);
/* Builds an object from the pairs (from the list's cursor on) and adds it. */
QD_EXPORT oce *QDcache_addalias(const char *alias, KeywordList *pairs, unsigned char status);
QD_EXPORT void QDcache_rmobj(oce *entry);
QD_EXPORT oce *QDcache_find_alias(const char *alias);
QD_EXPORT int QDcache_dump_aliases(void);
QD_EXPORT void QDcache_show_info(void);
QD_EXPORT void QDcache_read_rc(void);

/* Loading: 0 when the cache is (or already was) loaded, -1 on failure. */
QD_EXPORT int QDcache_load(void);
QD_EXPORT int QDcache_load_direct(void);
QD_EXPORT void QDcache_load_direct_add(const char *alias);
QD_EXPORT int QDcache_load_direct_add_kw(void *list, const char *keyword, const char *value);

/* The table format's escapes: ':', '\\', '"' and newline take a backslash. */
QD_EXPORT size_t strlenesc(const char *s);
QD_EXPORT char *strcpyesc(char *dest, const char *src);
QD_EXPORT char *strcatesc(char *dest, const char *src);
/* As strcpyesc, but every ch is left out; the number of characters written. */
QD_EXPORT int strcpyesc_omit_ch(char *dest, const char *src, int ch);
/* Writing entries to the locked table stream QDlock_fptr. 0 or -1. */
QD_EXPORT int flush_alias_to_stream(const char *alias, KeywordList *attributes);
QD_EXPORT int flush_kwlist_to_stream(FILE *stream, KeywordList *list, int blank);
QD_EXPORT int QDcache_flush_put(const char *alias, KeywordList *attributes, KeywordList *methods);

/* Hooks: the queries and updates, answered from the cache while it is on. */
QD_EXPORT int QDcache_hook_UnitProp(const char *alias, const char *name, char *value);
QD_EXPORT int QDcache_hook_DevAllAttr(const char *alias, int which, KeywordList *result);
QD_EXPORT int QDcache_hook_QDLput(const char *alias, KeywordList *list);
QD_EXPORT int QDcache_hook_QDdelete(const char *alias);
QD_EXPORT AliasList *QDcache_hook_QDmatchalias(KeywordList *criteria, AliasList *aliases);
QD_EXPORT void QDcache_hook_GetAllAliases(AliasList **head, KeywordList *criteria);
QD_EXPORT void QDcache_hook_GetSpecificAliases(AliasList **head, KeywordList *criteria);
QD_EXPORT int check_criteria(KeywordList *list, KeywordList *criteria);
QD_EXPORT void QDcache_touch_obj(oce *entry);
QD_EXPORT void QDcache_update_obj(oce *entry);
QD_EXPORT void QDcache_set_accesstime_attr(oce *entry);
QD_EXPORT void QDcache_set_modifytime_attr(oce *entry);
QD_EXPORT int QDcache_alias_status(const char *alias);
QD_EXPORT int QDcache_check_duplicates(KeywordList *list);
/* The table cursor's contract over the cache (the table's cursor when off). */
QD_EXPORT int CachedReferenceNextAttribute(char **alias, char **name, char **value);

/* Writes the cache back (rewriting the table, or through the object
 * writer) and frees it: 0, or -1. QDcache_free frees without writing. */
QD_EXPORT int QDcache_flush(void);
QD_EXPORT void QDcache_free(void);

/* Archive modes of QDcache_archive and QDArchive. */
#define QD_ARCH_ALL 1  /* every cached object; the list must be empty (or NULL) */
#define QD_ARCH_LIST 2 /* the aliases of a non-empty list */

/* Archives stale objects and drops them from the cache (expired ones are
 * dropped without a copy): 0; 245 up to date or unstamped; 254 arguments
 * that do not fit the mode, or an alias not cached; 255 timestamping off,
 * a stamp later than the current one, or a copy that could not be written.
 * In QD_ARCH_ALL mode *list receives the aliases that stay (QDFreeAliasList). */
QD_EXPORT int QDcache_archive(int mode, AliasList **list);
QD_EXPORT int QDcache_archive_obj(oce *entry);
QD_EXPORT int QDcache_archive_list(AliasList **list);
QD_EXPORT int QDcache_archive_all(AliasList **list);

/* ---- Archive ---- */

QD_EXPORT extern char QDarchivedir[513];  /* this process's run directory */
QD_EXPORT extern char QDarchivepath[513]; /* the object file last written */
/* The run directory named after QDtimestamp (made when missing); NULL when
 * timestamping is off. */
QD_EXPORT char *QD_build_archive_dir(void);
/* Writes the object's archive copy: 0, or 255. */
QD_EXPORT int QD_archive_object(ObjectRecord *object);
/* Makes the directory and any missing parents: 0 or -1 (errno set). */
QD_EXPORT int mkdirp(const char *path, mode_t mode);
/* Archives stale objects under the table locks, loading and flushing the
 * cache when it was off; modes and list as for QDcache_archive. 254 for a
 * list that does not fit the mode, 255 for lock, cache or flush failures,
 * otherwise the result of QDcache_archive. */
QD_EXPORT int QDArchive(int mode, AliasList **list);
/* Removes the run directories older than the expiration date. Its result
 * carries no status. */
QD_EXPORT int QD_cleanup_archive_dir(void);
/* Unlinks every file in the directory (symbolic links themselves, never
 * what they point at): 0, or -1 when it cannot be opened as a directory. */
QD_EXPORT int QD_rmfiles(const char *dir);

/* The report tree: unique keywords in sorted order. */
typedef struct report_node {
  char *key;
  char *value;
  struct report_node *left;
  struct report_node *right;
  unsigned short count;
} report_node;
typedef int (*report_action)(void *argument, const char *key, const char *value);
QD_EXPORT extern report_node *report_root;
QD_EXPORT char *newstring(const char *s);
QD_EXPORT report_node *newnode(const char *key, const char *value);
QD_EXPORT report_node *report_searchadd(const char *key, const char *value);
QD_EXPORT int report_add_unique(const char *key, const char *value);
QD_EXPORT void report_walk_action(report_node *node, const char *order, report_action action,
                                  void *argument);
QD_EXPORT void report_apply(const char *order, report_action action, void *argument);
QD_EXPORT void report_walk_free(report_node *node);
QD_EXPORT void report_free(void);

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

/* The shared bodies of the local queries: one name (a record, or NULL), and
 * every attribute (methods 0) or every method (methods 1) of an entry. */
QD_EXPORT NameValue *UnitProp(const char *alias, const char *name);
QD_EXPORT KeywordList *DevAllAttr(const char *alias, int methods);
/* Line handlers of "unitprop" output (see ExecuteCommand). OutputSingleName
 * copies the line into `value`, a NameValue's value field, cut at
 * QD_VALUE_MAX characters; OutputAttrVal and OutputMethodVal add the line's
 * pair to `list` when its name is an attribute name, or a method name. */
QD_EXPORT int OutputSingleName(void *value, char *line);
QD_EXPORT int OutputAttrVal(void *list, char *line);
QD_EXPORT int OutputMethodVal(void *list, char *line);
/* Adds the pair of one "name=value" or "name='value'" line, whose first '='
 * is at name_length: 0, or -1 when the line is refused (and reported). */
QD_EXPORT int BuildNameValuePair(KeywordList *list, char *line, int name_length);

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

/* ---- Search ---- */

#define QD_MATCH_ALL 0   /* every criterion must hold */
#define QD_MATCH_ANY 1   /* one criterion suffices */
#define QD_ONE_LEVEL 0   /* the only group type served */
#define QD_MANY_LEVELS 1 /* refused */

/* The criteria of a search: attribute=value entries that must hold
 * (Klist) and that must not (Not_Klist). An entry without a value asks for
 * an empty value. The lists belong to the criteria once attached. */
typedef struct CriteriaGroup {
  short GroupType;        /* QD_ONE_LEVEL */
  KeywordList *Klist;     /* owned, or NULL */
  KeywordList *Not_Klist; /* owned, or NULL */
} CriteriaGroup;

typedef struct SearchCriteria_t {
  short search_type;    /* QD_MATCH_ALL or QD_MATCH_ANY */
  CriteriaGroup *group; /* owned */
} SearchCriteria_t;

/* The objects a search found, newest match first. Each object's alias is a
 * buffer of at least 513 bytes; a list that received nothing stays NULL.
 * Freed with DestroyObjectList. */
typedef struct ObjectList {
  ObjectRecord *Object;    /* owned */
  struct ObjectList *next; /* NULL at the end */
} ObjectList;

/* A criteria record with no lists; NULL for QD_MANY_LEVELS or no memory.
 * DestroySearchCriteria frees it with its lists. */
QD_EXPORT SearchCriteria_t *CreateSearchCriteria(short search_type, short group_type);
/* Attach the list that must hold, or must not: 0, or -1 (reported). */
QD_EXPORT int AddKeyListToSearch(SearchCriteria_t *criteria, KeywordList *list);
QD_EXPORT int AddNotKeyListToSearch(SearchCriteria_t *criteria, KeywordList *list);
QD_EXPORT void DestroySearchCriteria(SearchCriteria_t *criteria);
/* The objects that meet the criteria, with the attributes and methods the
 * filter names (",,," or NULL: all of them); NULL for none or an error.
 * Stale objects are left out unless qd_stale is set. */
QD_EXPORT ObjectList *QDsearchaliases(SearchCriteria_t *criteria, const char *filter);
QD_EXPORT int DestroyObjectList(ObjectList *list);
/* How many criteria one attribute meets: a count, or -1 (rejected). */
QD_EXPORT int MeetSearchCriteria(const char *name, const char *value, short search_type, KeywordList *klist,
                                 KeywordList *not_list);
/* Appends name=value to the methods or the attributes (by its name),
 * making the list when it is NULL: 0 or -1. */
QD_EXPORT int AddFilterItem(const char *name, const char *value, KeywordList **methods,
                            KeywordList **attributes);
/* A new head holding an object of the alias and both lists (taken over); NULL
 * on failure, the lists then staying the caller's. */
QD_EXPORT ObjectList *AddObjectToList(const char *alias, KeywordList *attributes, KeywordList *methods,
                                      ObjectList *head);

/* ---- Containment and destroy ---- */

/* Flags of containment and destroy (one byte). */
#define QDEXTENDED 0x01    /* indirect ObjContains entries; destroy: the object's own methods */
#define QDDEL 0x02         /* destroy: delete the entry */
#define QDDESTROY 0x04     /* destroy: run the object's QDdestroyfunc */
#define QDDELFALLBACK 0x08 /* destroy with QDEXTENDED: QDdelete when there is no QDdeletefunc */
#define QDOBJECT 0x10      /* the object alone, or one level of containment */
#define QDCONTAINS 0x20    /* the whole containment tree */

/* 0 when the alias names an object (looked up whole and freed), else -1. */
QD_EXPORT int QDcheck(const char *alias);
/* Fills object->contained from its ObjContains attribute, one level
 * (QDOBJECT, the default) or the whole tree (QDCONTAINS): the last alias
 * found comes first. An object already on the path from the top is put in
 * the chain but not followed again. 0 when something was found; 1 for
 * QDOBJECT|QDCONTAINS; 2 when the table can be neither cached nor locked;
 * 3 for no ObjContains (chain untouched) or nothing found (chain NULL).
 * The cache, once loaded here, stays loaded. */
QD_EXPORT int QDget_contained_objects(ObjectRecord *object, unsigned char flags);
/* A new node holding object in front of chain; chain itself when object is
 * NULL; NULL when out of memory (the chain is then the caller's still). */
QD_EXPORT ContainedNode *QDAddObjectToList(ContainedNode *chain, ObjectRecord *object);
/* Traces every object of the chain with its attributes and methods (level 8). */
QD_EXPORT void QDObjectListDump(ContainedNode *chain);
/* Does nothing; 0. */
QD_EXPORT int QDexec_on_contained(void);

/* The keywords of a destroy's result list. */
#define QD_ERRORCODE "errorcode"           /* last nonzero code met, else "0" */
#define QD_COMPLETIONCODE "completioncode" /* "3" when the object's own delete failed */
#define QD_DESTROYED "destroyed"           /* comma lists of aliases */
#define QD_DELETED "deleted"
#define QD_NOT_DESTROYED "not_destroyed"
#define QD_NOT_DELETED "not_deleted"
#define QD_MESSAGE "message" /* one entry per message, in the order of events */

/* Destroys and/or deletes the object, with QDCONTAINS after everything it
 * contains; flags default to QDDESTROY, QDOBJECT and QDDELFALLBACK. The
 * result list (DestroyKeywordList), or NULL when none can be made. The
 * cache, when this call loaded it, is written back before it returns. */
QD_EXPORT KeywordList *QDdestroy(const char *alias, unsigned char flags);
/* The same for an object record (whose chain it fills), without defaults,
 * cache or lock. */
QD_EXPORT KeywordList *QD_destroy_object(ObjectRecord *object, unsigned char flags);
/* Merges the result list `sub` into `result` and destroys `sub`. */
QD_EXPORT void QD_destroy_parse(KeywordList *result, KeywordList *sub);
/* Adds every item of the comma-separated value to the keyword, as
 * AddValueToList would one by one. */
QD_EXPORT void AddCommaValueToList(KeywordList *list, const char *keyword, const char *value);

/* ---- Clean-up list ---- */

#define QD_CLEANUP_FILE 0   /* a file to unlink */
#define QD_CLEANUP_OBJECT 1 /* an entry to delete with QDdelete */

#define QD_CLEANUP_ADD 0     /* register a copy of the item */
#define QD_CLEANUP_REMOVE 1  /* take back every registration matching the item */
#define QD_CLEANUP_EXECUTE 2 /* remove everything registered; the list stays */

#define QD_CLEANUP_TEXT 1024 /* the size of a name or a qualifier, terminator included */

/* A clean-up item: the caller's record, and the layout of the list's nodes. */
typedef struct QDCleanupItem {
  unsigned short type;                /* QD_CLEANUP_FILE or QD_CLEANUP_OBJECT */
  char name[QD_CLEANUP_TEXT];         /* the file's path, or the alias */
  char qualifier[QD_CLEANUP_TEXT];    /* object items: must match too on removal */
  struct QDCleanupItem *next;         /* list nodes only */
} QDCleanupItem;

/* Operates on the process's clean-up list: 0, or -1 (reported). A name or
 * qualifier without a terminator in its field is refused. */
QD_EXPORT int QDcleanup(QDCleanupItem *item, unsigned short operation);

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

/* Object status. */
#define OBJ_STALE 0  /* its ObjTimestamp is older than the current stamp */
#define OBJ_ACTIVE 1

/* OBJ_ACTIVE or OBJ_STALE: by the cache's status while the cache is on,
 * else by the object's ObjTimestamp (none: active). Timestamping off: active. */
QD_EXPORT int QDobjectstatus(ObjectRecord *object);
/* The status of an alias (answered by the cache while it is on; with the
 * cache off and timestamping on, active); -1 when out of memory. */
QD_EXPORT int QDaliasstatus(const char *alias);
/* Sets QDexpirationdate to the current stamp less QD_EXPIRATION days (7
 * when unset), February always of 28 days: 0, or 255 with timestamping off. */
QD_EXPORT int QDset_expiration_date(void);

/* ---- Writing ---- */

/* Writes the pairs into the entry (created when absent): 0, or the
 * duplicate code (240) when repeated keywords were dropped; 254 when the
 * list's own alias differs; -1 on failure; or the lock's failure. */
QD_EXPORT int QDput(const char *alias, KeywordList *list);
QD_EXPORT int QDLput(const char *alias, KeywordList *list);
/* "unitmod OPTION ALIAS" and the list's pairs, each argument quoted for the
 * shell; NULL when out of memory or a value cannot be passed literally. */
QD_EXPORT char *BuildPutCommand(const char *alias, KeywordList *list, const char *option);
QD_EXPORT void OverlayPutCommand(char *command, const char *option);
/* The line handler of unitmod's output: every line is ignored. */
QD_EXPORT int OutputPut(void *context, char *line);
/* Removes the entry after writing its archive copy: 0, 2 (no write lock),
 * 3 (no such entry), -1, or a hook's or framework's result. */
QD_EXPORT int QDdelete(const char *alias);

/* ---- Object records ---- */

/* Takes over the three pointers; NULL when out of memory. */
QD_EXPORT ObjectRecord *Create_object(char *alias, KeywordList *attributes, KeywordList *methods);
/* Frees the object and everything it owns, contained objects included. */
QD_EXPORT void QDfreeobj(ObjectRecord *object);
/* Writes the object's attributes and methods to the entry `alias`; 12 when
 * the combined list cannot be built, else the result of the write. */
QD_EXPORT int QDputobj(const char *alias, ObjectRecord *object);

/* ---- Objects made from classes ----
 *
 * A class is a table of rows that QDcreate and QDupdate apply to an object.
 * The kind of a row is flags & (QD_CLASS_METHOD | QD_CLASS_ADD):
 *   0                 an attribute default: added when the object lacks it
 *   QD_CLASS_ADD      a multi-value attribute: value added as one more item
 *   QD_CLASS_METHOD   a method: replaces the object's method of that name
 *   both              a combined method: the element value[index][mflags]
 *                     merged into the method's meta-method value
 * A row whose value cannot be applied whole (too long, a comma in an item,
 * an element that is not valid) is traced at level 3 and skipped. */
#define QD_CLASS_ADD 0x01
#define QD_CLASS_METHOD 0x10

typedef struct QDclass_entry_t {
  unsigned char flags;  /* QD_CLASS_METHOD, QD_CLASS_ADD; other bits unused */
  const char *keyword;  /* attribute or method name; NULL ends the rows */
  const char *value;    /* the value; for a combined method the element name */
  int index;            /* combined method: the element's index, 0 to 99 */
  unsigned char mflags; /* combined method: its operators, META_* bits */
} QDclass_entry_t;

typedef struct QDclass_tbl_t {
  const char *class_name;      /* NULL ends the table */
  const QDclass_entry_t *rows; /* that class's rows */
} QDclass_tbl_t;

/* The class table in force: NULL at start; the caller may point it at a
 * table of its own, which must stay valid while it is in force. */
QD_EXPORT extern const QDclass_tbl_t *QD_class_tbl;
/* The one-class table the _fm_tbl calls fill and put in force. */
QD_EXPORT extern QDclass_tbl_t QD_current_class_tbl[2];

#define QD_UNIQID_SIZE 15 /* 11 characters of prefix, 3 digits, terminator */

/* A new object of the class, not yet written (QDputobj writes it): the
 * caller's attributes copied, then the class applied. Without an alias one
 * is made by QDuniqid from the class name; to keep another process from
 * taking the same alias, hold QDlock(QDWRITE) from here to the QDputobj.
 * NULL when no alias is free or memory runs out. QDfreeobj. */
QD_EXPORT ObjectRecord *QDcreate(const char *class_name, const char *alias, KeywordList *attributes);
/* QDcreate after putting the one class (class_name, rows) in force; both
 * pointers are kept in QD_current_class_tbl. */
QD_EXPORT ObjectRecord *QDcreate_fm_tbl(const char *class_name, const char *alias,
                                        KeywordList *attributes, const QDclass_entry_t *rows);
/* Sets every pair of updates in the object's attributes (method names
 * included), then applies the class: 0; 254 for a NULL object; the status
 * of ValidKeywordList for an unusable list. */
QD_EXPORT int QDupdate(const char *class_name, ObjectRecord *object, KeywordList *updates);
QD_EXPORT int QDupdate_fm_tbl(const char *class_name, ObjectRecord *object, KeywordList *updates,
                              const QDclass_entry_t *rows);
/* Applies the rows of the class in force of that name (none: no change). */
QD_EXPORT void QD_classify_object(ObjectRecord *object, const char *class_name);
/* Merges a combined row's element into its method in the list: the result
 * of adding the merged value, or 254 when the element is refused (the list
 * is then unchanged). */
QD_EXPORT int QD_add_method_to_list(KeywordList *methods, const QDclass_entry_t *row);
/* The first of prefix0 .. prefix999 (prefix cut to 11 characters) that
 * names no object, into alias (QD_UNIQID_SIZE bytes): 0; 254 for an empty
 * prefix; 255, alias emptied, when all are taken. */
QD_EXPORT int QDuniqid(char *alias, const char *prefix);

/* Reads a class file (NULL: the default one): lines "class NAME" and rows
 * "KIND KEYWORD VALUE [INDEX [OPERATORS]]", KIND one of default, multi,
 * method, combined (see qdadm(1)). On a malformed file, NULL with
 * "FILE:LINE: what is wrong" in error (size bytes). QDfree_class_tbl. */
QD_EXPORT QDclass_tbl_t *QDread_class_file(const char *path, char *error, size_t size);
/* Frees a table from QDread_class_file; takes it out of force first. */
QD_EXPORT void QDfree_class_tbl(QDclass_tbl_t *table);

/* ---- Multi-value attributes ----
 *
 * Values are items separated by commas. The calls read the attribute, then
 * write it back with QDput; no lock is held between the two (hold
 * QDlock(QDWRITE) around the call to keep other writers out). A value that
 * holds a comma or is empty, an alias or method name, or a result longer
 * than QD_VALUE_MAX characters is refused: 254, nothing written. */

/* Adds the value as the last item unless it is one already: 0, 254, or -1
 * (no memory, or an attribute that cannot be read whole). */
QD_EXPORT int QDaddattributevalue(const char *alias, const char *name, const char *value);
/* Removes every item equal to the value: 0, 254, or -1. */
QD_EXPORT int QDdelattributevalue(const char *alias, const char *name, const char *value);
/* Removes the value's items and writes the attribute back (also when none
 * was there): 0 removed, 1 the write failed, 2 no such attribute or item. */
QD_EXPORT int DelEntryFmCommaList(const char *alias, const char *name, const char *value);
/* Links the second list behind the first (*first = second when empty);
 * the nodes now belong to *first. A second list already in the first is
 * left alone. */
QD_EXPORT void AddAliasListToList(AliasList **first, AliasList *second);
/* Unlinks the node (by identity) from *head and frees it; returns the node
 * that followed it. A node not in the list is left alone. */
QD_EXPORT AliasList *DelAliasFmList(AliasList **head, AliasList *node);


/* ---- Methods ----
 *
 * A method is an entry's pair whose name holds "cmd" or "func". One whose
 * name ends in "cmd" is a shell command; any other holds a meta-method
 * value: comma-separated elements name[index][operators], run in ascending
 * index order (equal indices in written order). An element names another
 * method of the entry, or a function "library.function" in the library
 * "library.so" of the method library directory (QDLibDirName). */

/* The keywords of a method list. */
#define META_PRE_OP "META_PRE_OP"   /* pre-operator characters */
#define META_POST_OP "META_POST_OP" /* post-operator characters */
#define META_CMD "META_CMD"         /* a shell command line */
#define META_FCN "META_FCN"         /* a function reference, library.function */

/* Operator flags. Pre-flags and post-flags share one bit space. */
#define META_COND 0x01        /* '?' post: check the codes, maybe halt */
#define META_PIPE 0x02        /* '-' post: the output is the next method's input */
#define META_ADD 0x04         /* '+' post: the output joins the cumulative list */
#define META_IGNORE 0x08      /* 'x' post: the output is dropped */
#define META_UNFORMATTED 0x10 /* 'u' pre: a command's output taken raw */
#define META_MAND 0x20        /* 'm' pre: runs even after a halt */
#define META_NOCOND 0x40      /* '!' post: only keeps the default '?' away */

#define META_KIND_PRE 0
#define META_KIND_POST 1

/* One row of the operator table; the table ends with a row of flag 0. */
typedef struct meta_oper_t {
  unsigned char flag; /* META_* bit */
  char oper;          /* the operator character */
  unsigned char kind; /* META_KIND_PRE or META_KIND_POST */
} meta_oper_t;
QD_EXPORT extern const meta_oper_t meta_oper_tbl[];

#define META_NAME_MAX 35 /* longest element name */
#define META_OPS_MAX 31  /* longest operator string of one kind */

/* One parsed element. */
typedef struct meta_method_t {
  char name[META_NAME_MAX + 1];
  int indx;                          /* 0 to 99; 50 when not given or not valid */
  char preops[META_OPS_MAX + 1];
  char postops[META_OPS_MAX + 1];
} meta_method_t;

/* The value as META_PRE_OP, META_POST_OP and META_FCN entries in run order,
 * with the default operators filled in. NULL when the value is NULL, when a
 * name or an operator string is too long for its field, or when memory runs
 * out: never a partial list. DestroyKeywordList. */
QD_EXPORT KeywordList *QDparsemetavalue(const char *value);
/* The post-operators kept ("?!-+x"), with '?' added when neither '?' nor
 * '!' is there and '-' when none of "-+x" is. free(); NULL when out of memory. */
QD_EXPORT char *QDParsePostOps(const char *ops);
/* qsort comparator of meta_method_t rows: a's index minus b's. */
QD_EXPORT int QDcmpmetaindx(const void *a, const void *b);

/* ---- Editing meta-method values ----
 *
 * An element is written name[index][operators]: name 1 to 35 characters
 * without ',', '[' or ']' (nor blanks at its ends), index 0 to 99, the
 * operators those of the mask in table order (0x23: "m?-"). An element of a
 * value belongs to a name when its text before '[' is that name, so "run"
 * never picks "runall". Elements that cannot be made so, and values that
 * would pass QD_VALUE_MAX characters, are refused with a level-3 trace and
 * never written cut. */

/* Into out (QD_VALUE_MAX + 1 bytes): current with the element added at the
 * end, or moved there in place of the name's first element. Refused: out
 * holds current unchanged (empty when current itself is over the bound). */
QD_EXPORT void QDcatmetamethod(char *out, const char *current, const char *name, int index,
                               unsigned char mask);
/* Adds or replaces the element in the alias's method and writes it back: 0
 * (also when the value has no room: it is written back unchanged); 254 for
 * a refused element or a method that holds no meta-method value (a name
 * without "cmd" or "func", or ending in "cmd"); 255 without memory or when
 * the method cannot be read whole. */
QD_EXPORT int QDaddmetamethod(const char *alias, const char *method, const char *name, int index,
                              unsigned char mask);
/* Removes every element of the name (nothing written when none): 0; 254
 * as above; 255 for an empty name, no memory, or an unreadable method. */
QD_EXPORT int QDrmmetamethod(const char *alias, const char *method, const char *name);
/* Removes, then adds the element: it ends up last. 0, or 254 or 255 as
 * above, with nothing written, when the result would be refused. */
QD_EXPORT int QDupdatemetamethod(const char *alias, const char *method, const char *name, int index,
                                 unsigned char mask);
/* When current holds the default element (its text, whole bracket groups)
 * beside another without the 'm' operator, sets method in list to current
 * without the default. Values over 1023 characters are left alone. */
QD_EXPORT void QDrmdefaultmetamethod(const char *default_value, const char *current,
                                     const char *method, KeywordList *list);

/* Appends the method's expansion to *list (made when *list is NULL):
 * META_CMD for a command method; for a meta-method its operators, and each
 * element expanded in place when it is a method of the alias, else as
 * META_FCN. When the expansion cannot be made whole (a method that refers
 * to itself, directly or through others; a value that cannot be parsed; a
 * list too long; no memory) the failure is traced, *list is destroyed
 * (also when the caller gave it) and set to NULL, so nothing of it runs. */
QD_EXPORT void QDbuildmethodlist(const char *alias, NameValue **method, KeywordList **list);

/* Result codes of a method run, under the keyword "errorcode". */
#define QD_METHOD_NOLIBRARY 1   /* no, a bad or an unloadable library */
#define QD_METHOD_NOFUNCTION 2  /* the function is not in the library */
#define QD_METHOD_NOTFOUND 3    /* the alias has no such method */
#define QD_METHOD_BADLIST 255   /* the method cannot be expanded; nothing ran */

/* Runs a method of an alias with the parameters (NULL for none) and returns
 * its result list: the keywords the methods report, among them errorcode,
 * completioncode and message. QDperform goes through libPV's dispatch;
 * QDLperform is the local implementation. NULL when the method gave no
 * list (a command killed by a signal, an empty meta-method).
 * DestroyKeywordList. The parameter list stays the caller's. */
QD_EXPORT KeywordList *QDperform(const char *alias, const char *method, KeywordList *params);
QD_EXPORT KeywordList *QDLperform(const char *alias, const char *method, KeywordList *params);
/* Runs one method-list entry: kind META_CMD runs value as a command
 * (formatted: keyword=value output; else raw), anything else calls the
 * function value. NULL params are run with an empty list. */
QD_EXPORT KeywordList *QDperformmethod(const char *alias, const char *kind, const char *value,
                                       KeywordList *params, int formatted);
/* Runs a method list (it stays the caller's) with the operators it holds. */
QD_EXPORT KeywordList *QDexecutemethodlist(const char *alias, KeywordList **methods,
                                           KeywordList *params);
/* 1 when the codes in the cumulative list let a run go on, 0 when they halt
 * it; at trace level 8 a halt appends method and message entries to it. */
QD_EXPORT int ContinueProcessing(const char *method, KeywordList *cumulative);

#define QD_METHOD_TEXT_MAX 4096 /* a command method's text, redirection included */

/* Runs a command line with the parameters as keyword=value lines on its
 * standard input. Formatted: its keyword=value output lines as a list; raw:
 * output, message and errorcode (its exit status). NULL when it cannot
 * start, ends by a signal, or its text would not fit QD_METHOD_TEXT_MAX
 * (a parameter name over 32 or value over 512 characters included). */
QD_EXPORT KeywordList *PerformCommand(const char *command, const char *alias, KeywordList *params,
                                      int formatted);
/* The runners of a command text as PerformCommand forms it: the command
 * line, "    2>/dev/null << 'EOF'", the parameter lines, "'EOF'". The lines
 * after the first reach the command as data, never as shell code. Status:
 * the exit status, or -1 (not started, killed, text too long: no list). */
QD_EXPORT int ExecuteVCELCommand(const char *text, KeywordList **out);
QD_EXPORT int ExecuteRawCommand(const char *text, KeywordList **out);

/* A function method: called with the alias and the parameter list, which it
 * must neither destroy nor keep; returns a new list (or NULL), which the
 * caller owns. */
typedef KeywordList *(*QDmethodfunc)(const char *alias, KeywordList *params);
/* Calls reference "library.function" from "<dir>/library.so"; the result
 * of the function, or a list of errorcode QD_METHOD_NOLIBRARY or
 * QD_METHOD_NOFUNCTION. A library stays loaded for the life of the process. */
QD_EXPORT KeywordList *PerformFunction(const char *reference, const char *alias,
                                       KeywordList *params);
/* A new list holding only errorcode=code. */
QD_EXPORT KeywordList *BuildErrorCode(int code);

#ifdef __cplusplus
}
#endif
#endif /* QD_H */
