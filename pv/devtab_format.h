// The device table's text format, read and written.
//
// One entry a line: alias:cdevice:bdevice:pathname: then keyword="value"
// pairs separated by blanks. In the four head fields and in keywords the
// characters : \ " and newline carry a backslash (in keywords from our writer
// also = and blanks); in values : \ and newline do (and, from our writer, "
// too). A backslash before any character yields that character, so an
// escaped newline continues the entry on the next line.
// Lines that are blank or start with '#' are not entries.
#ifndef PV_DEVTAB_FORMAT_H
#define PV_DEVTAB_FORMAT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace devtab {

// Longest alias, positional field or keyword, and longest value, unescaped.
// Longer fields make the entry malformed, so the writer refuses them.
constexpr size_t kMaxNameLength = 1024;
constexpr size_t kMaxValueLength = 8192;

extern const char *const kPositionalNames[3];  // cdevice, bdevice, pathname

struct Pair {
  std::string name;
  std::string value;
};

struct Entry {
  std::string alias;
  std::string positional[3];  // in the order of kPositionalNames
  std::vector<Pair> pairs;    // only the first npairs are in use (storage is reused)
  size_t npairs = 0;

  Pair &AddPair();  // a cleared pair at the end
  // Index of the first pair called name, or npairs.
  size_t Find(std::string_view name) const;
};

enum class Defect {
  kNone,
  kEmptyAlias,
  kFewColons,
  kUnterminatedQuote,
  kNoEquals,
  kEmptyKeyword,
  kFieldTooLong,
};
const char *DefectText(Defect defect);

// One entry's text as it stands in the file, without its final newline.
struct RawEntry {
  std::string_view text;
  size_t line = 0;    // line number of its first line, from 1
  size_t offset = 0;  // byte offset in the image
};

// Walks the entries of a table image in file order.
class Scanner {
 public:
  explicit Scanner(std::string_view image) : image_(image) {}
  bool Next(RawEntry *out);
  size_t offset() const { return pos_; }

 private:
  std::string_view image_;
  size_t pos_ = 0;
  size_t line_ = 1;
};

// Index of the newline that ends the entry starting at `from` (escaped
// newlines skipped), or image.size() when the image ends first.
size_t EntryEnd(std::string_view image, size_t from, size_t *newlines = nullptr);
// True when a line starting at `pos` begins a new entry (the newline before
// it, if any, is not escaped).
bool StartsLine(std::string_view image, size_t pos);
bool IsCommentOrBlank(std::string_view text);

Defect ParseEntry(std::string_view text, Entry *out);
// Checks the whole entry as ParseEntry does, keeping only the alias.
Defect ParseAlias(std::string_view text, std::string *alias);
// Whether the entry's alias is `alias`, whose writer's spelling (from
// AppendEscapedAlias) is `spelt`; cheap unless the head holds escapes.
bool AliasIs(std::string_view text, std::string_view alias, std::string_view spelt);

bool IsMethodName(std::string_view name);  // holds "cmd" or "func"

void AppendEscapedField(std::string *out, std::string_view field);
void AppendEscapedValue(std::string *out, std::string_view value);
// The alias as it starts an entry line (first character guarded when it
// would read as a comment or blank line), with its colon.
void AppendEscapedAlias(std::string *out, std::string_view alias);
// Whole entry line with its newline: attributes first, then methods.
void FormatEntry(const Entry &entry, std::string *out);

// Why the writer cannot write this name or value, or nullptr when it can.
const char *CheckAlias(std::string_view alias);
const char *CheckKeyword(std::string_view keyword);
const char *CheckValue(std::string_view value);

// First entry of `image` whose alias is `alias`; false when none.
bool FindEntry(std::string_view image, std::string_view alias, RawEntry *found, Entry *entry);

}  // namespace devtab

#endif
