// The report tree: a sorted tree of unique keywords. The direct loader
// gathers one entry's pairs in it, dropping repeated keywords.
#include <cstdlib>
#include <cstring>

#include "qd.h"

extern "C" {

report_node *report_root = nullptr;

char *newstring(const char *s) {
  if (s == nullptr) return nullptr;
  size_t n = strlen(s);
  char *copy = static_cast<char *>(calloc(n + 1, 1));
  if (copy == nullptr) {
    QDtrace(8, "report", "newstring: calloc failed");
    exit(1);
  }
  memcpy(copy, s, n);
  return copy;
}

report_node *newnode(const char *key, const char *value) {
  auto *node = static_cast<report_node *>(calloc(1, sizeof(report_node)));
  if (node == nullptr) {
    QDtrace(8, "report", "newnode: calloc failed");
    exit(1);
  }
  node->key = newstring(key);
  node->value = newstring(value);
  return node;
}

report_node *report_searchadd(const char *key, const char *value) {
  if (report_root == nullptr) return report_root = newnode(key, value);
  report_node *node = report_root;
  for (;;) {
    int cmp = strcmp(key, node->key);
    if (cmp == 0) return node;
    report_node **side = cmp < 0 ? &node->left : &node->right;
    if (*side == nullptr) return *side = newnode(key, value);
    node = *side;
  }
}

int report_add_unique(const char *key, const char *value) {
  report_node *node = report_searchadd(key, value);
  if (node == nullptr || node->count != 0) return -1;
  ++node->count;
  return 0;
}

void report_walk_action(report_node *node, const char *order, report_action action, void *argument) {
  if (node == nullptr) return;
  bool ascending = order == nullptr || order[0] == 'a';
  report_walk_action(ascending ? node->left : node->right, order, action, argument);
  action(argument, node->key, node->value);
  report_walk_action(ascending ? node->right : node->left, order, action, argument);
}

void report_apply(const char *order, report_action action, void *argument) {
  report_walk_action(report_root, order, action, argument);
}

void report_walk_free(report_node *node) {
  if (node == nullptr) return;
  report_walk_free(node->left);
  report_walk_free(node->right);
  free(node->key);
  free(node->value);
  free(node);
}

void report_free(void) {
  report_walk_free(report_root);
  report_root = nullptr;
}

}  // extern "C"
