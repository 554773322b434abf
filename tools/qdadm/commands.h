// qdadm's commands, for the files that hold them, and the helpers they share.
#ifndef QDADM_COMMANDS_H
#define QDADM_COMMANDS_H

#include <string>
#include <vector>

#include "output.h"
#include "qd.h"

namespace qdadm {

using Args = std::vector<std::string>;

constexpr int kBadArguments = 254;  // the library's "invalid argument"
constexpr int kNoEntry = 3;         // the library's "no such entry"

// A message on standard error, after "qdadm: ".
__attribute__((format(printf, 1, 2))) void Say(const char *format, ...);
std::vector<std::string> ToVector(AliasList *list);
// Every entry of the list, from the first.
Pairs ToPairs(KeywordList *list);
AliasList *ToAliasList(const Args &aliases);
// Adds NAME=VALUE to *list (made when null); false (after saying why) when
// the argument is not such a pair.
bool AddPair(const std::string &arg, KeywordList **list);
// NAME=VALUE arguments from..to as a keyword list; nullptr (after saying
// why) when one is not.
KeywordList *ToList(const Args &args, size_t from, size_t to);

// Object status, expiration and the archive.
int Status(Output &out, const Args &a);
int Expire(Output &out, const Args &a);
int Archive(Output &out, const Args &a);

// Containment and destroy.
int Contains(Output &out, const Args &a);
int Destroy(Output &out, const Args &a);

// Objects made from classes, meta-method elements, multi-value attributes.
int Create(Output &out, const Args &a);
int Update(Output &out, const Args &a);
int Method(Output &out, const Args &a);
int Value(Output &out, const Args &a);

}  // namespace qdadm

#endif
