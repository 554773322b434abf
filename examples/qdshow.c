/* qdshow - a small C program over libQD: prints an entry's attributes and
 * methods, or one value.
 *
 *   qdshow ALIAS          every attribute and method
 *   qdshow ALIAS NAME     one attribute or method
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qd.h"

static void print_list(const char *title, KeywordList *list) {
  char *kw;
  char *value;
  int rc;
  printf("%s:\n", title);
  list->kwl_cursor = list->kwl_first; /* restart the iteration */
  while ((rc = ReferenceNextKeywordInList(list, &kw, &value)) == 0 || rc == KWL_WARN)
    printf("  %-14s %s\n", kw, value);
}

int main(int argc, char **argv) {
  vcel_argv = argv;
  if (argc == 3) {
    const char *name = argv[2];
    NameValue *nv = IsMethod(name, (int)strlen(name)) ? QDLgetmethod(argv[1], name)
                                                      : QDLgetattr(argv[1], name);
    if (nv == NULL) {
      fprintf(stderr, "qdshow: %s has no %s\n", argv[1], name);
      return 1;
    }
    printf("%s\n", nv->value);
    free(nv);
    return 0;
  }
  if (argc != 2) {
    fprintf(stderr, "usage: qdshow alias [name]\n");
    return 2;
  }
  KeywordList *attrs = QDLgetattrs(argv[1]);
  KeywordList *methods = QDLgetmethods(argv[1]);
  if (attrs == NULL || methods == NULL) {
    fprintf(stderr, "qdshow: no entry for %s\n", argv[1]);
    DestroyKeywordList(attrs);
    DestroyKeywordList(methods);
    return 1;
  }
  printf("%s\n", argv[1]);
  print_list("attributes", attrs);
  print_list("methods", methods);
  DestroyKeywordList(attrs);
  DestroyKeywordList(methods);
  return 0;
}
