// The clean-up list: files and table entries registered for removal on
// request. The list is the process's own; it lives here and nowhere else.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "qd.h"

namespace {

const char kModule[] = "QDcleanup";

// Newest registration first. Nodes are copies; the caller's records are
// never kept.
QDCleanupItem *CleanupList = nullptr;

// A name or qualifier field holds its terminator, or it cannot be trusted.
bool Terminated(const char *field) { return memchr(field, '\0', QD_CLEANUP_TEXT) != nullptr; }

bool Fits(const QDCleanupItem *item, bool qualifier) {
  if (Terminated(item->name) && (!qualifier || Terminated(item->qualifier))) return true;
  QDerror(kModule, "name or qualifier longer than %d characters\n", QD_CLEANUP_TEXT - 1);
  return false;
}

int Add(const QDCleanupItem *item) {
  if (item == nullptr) {
    QDerror(kModule, "item to be added is NULL\n");
    return -1;
  }
  bool object = item->type == QD_CLEANUP_OBJECT;
  if (!Fits(item, object)) return -1;
  auto *node = static_cast<QDCleanupItem *>(QDmalloc(kModule, sizeof(QDCleanupItem)));
  if (node == nullptr) {
    QDerror(kModule, "error in QDmalloc\n");
    return -1;
  }
  node->type = item->type;
  strcpy(node->name, item->name);
  if (object)
    strcpy(node->qualifier, item->qualifier);
  else
    node->qualifier[0] = '\0';
  node->next = CleanupList;
  CleanupList = node;
  return 0;
}

int Remove(const QDCleanupItem *item) {
  if (item == nullptr) {
    QDerror(kModule, "item to be removed is NULL\n");
    return -1;
  }
  if (!Fits(item, false)) return -1;
  bool qualifier_fits = Terminated(item->qualifier);
  for (QDCleanupItem **link = &CleanupList; *link != nullptr;) {
    QDCleanupItem *node = *link;
    bool match = strcmp(node->name, item->name) == 0 &&
                 (node->type != QD_CLEANUP_OBJECT || (qualifier_fits && strcmp(node->qualifier, item->qualifier) == 0));
    if (!match) {
      link = &node->next;
      continue;
    }
    *link = node->next;
    free(node);
  }
  return 0;
}

// Failures are reported and passed over: everything registered is tried.
void Execute() {
  for (const QDCleanupItem *node = CleanupList; node != nullptr; node = node->next) {
    if (node->type == QD_CLEANUP_FILE) {
      if (unlink(node->name) != 0) QDerror(kModule, "unlink failed with file %s, errno=%d\n", node->name, errno);
    } else if (node->type == QD_CLEANUP_OBJECT) {
      if (QDdelete(node->name) != 0) QDerror(kModule, "QDdelete failed with alias %s\n", node->name);
    }
  }
}

}  // namespace

extern "C" int QDcleanup(QDCleanupItem *item, unsigned short operation) {
  QDtrace(8, kModule, "entering, operation=%d", operation);
  int result = 0;
  switch (operation) {
    case QD_CLEANUP_ADD:
      result = Add(item);
      break;
    case QD_CLEANUP_REMOVE:
      result = Remove(item);
      break;
    case QD_CLEANUP_EXECUTE:
      Execute();
      break;
    default:
      QDerror(kModule, "invalid operation: %d\n", operation);
      result = -1;
  }
  if (result == 0) QDtrace(8, kModule, "returning");
  return result;
}
