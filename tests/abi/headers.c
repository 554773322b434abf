/* The public headers are plain C: this file is compiled as C99 with
 * -pedantic -Werror and must use every type a C caller meets. */
#include "pv.h"
#include "qd.h"

int abi_headers_compile(void);

int abi_headers_compile(void) {
  NameValue nv;
  AliasList node;
  KeywordList *list = CreateKeywordList();
  CommaList items = ParseCommaList("a,b");
  nv.name[0] = '\0';
  node.alias = nv.name;
  node.next = NULL;
  if (list != NULL) list->kwl_cursor = list->kwl_first;
  DestroyKeywordList(list);
  return items != NULL && node.next == NULL;
}
