// Command methods: the command text, and its two runners (keyword=value
// output, or raw output).
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "methods.h"
#include "method_spawn.h"

using qdmethods::kPerform;

namespace {

const char kFormattedSuffix[] = " 2>/dev/null";
const char kRawTemplate[] = "/tmp/xrawXXXXXX";
// The raw runner's suffix is " 2>" and a name of the template's length.
constexpr size_t kRawSuffixLength = 3 + sizeof kRawTemplate - 1;
constexpr size_t kKeywordMax = 32;  // the 33-byte field of a parameter name
constexpr size_t kValueMax = 512;   // the 513-byte field of its value

bool Fits(const std::string &text, size_t suffix, const char *who) {
  if (text.size() + suffix < QD_METHOD_TEXT_MAX) return true;
  QDerror(kPerform, "%s: command text of %d bytes does not fit in %d\n", who,
          static_cast<int>(text.size() + suffix + 1), QD_METHOD_TEXT_MAX);
  return false;
}

// Appends the parameter lines; false (traced) for an entry too long for
// its field, which is refused rather than cut.
bool AddParameters(std::string *text, KeywordList *params) {
  if (params == nullptr) return true;
  params->kwl_cursor = params->kwl_first;
  char kw[KWL_KEYWORD_BUFSIZE];
  char value[KWL_VALUE_BUFSIZE];
  int rc;
  while ((rc = GetNextKeywordFmList(params, kw, value)) != KWL_END) {
    if ((rc != KWL_OK && rc != KWL_WARN) || strlen(kw) > kKeywordMax || strlen(value) > kValueMax) {
      QDerror(kPerform, "Parameter '%s' is longer than %d characters or its value than %d\n", kw,
              static_cast<int>(kKeywordMax), static_cast<int>(kValueMax));
      return false;
    }
    text->append(kw).append("=").append(value).append("\n");
  }
  return true;
}

// Everything the stream holds, read in pieces of at most 1023 characters.
std::string ReadAll(FILE *in) {
  std::string all;
  char piece[1024];
  while (fgets(piece, sizeof piece, in) != nullptr) all.append(piece);
  return all;
}

struct Statuses {
  int exit = -1;       // bits 8 to 15 of the wait status
  int execution = -1;  // bits 0 to 7
  int result() const { return execution != 0 ? -1 : exit; }
};

Statuses FromWait(int status) {
  Statuses s;
  s.exit = (status >> 8) & 0xff;
  s.execution = status & 0xff;
  return s;
}

void TraceStatuses(const char *who, const Statuses &s) {
  QDtrace(8, kPerform, "%s:      Command exit status = %d", who, s.exit);
  QDtrace(8, kPerform, "%s: Command execution status = %d", who, s.execution);
  QDtrace(8, kPerform, "%s:            Return status = %d", who, s.result());
}

// Holds the SIGCHLD guard for one command run.
struct SignalGuard {
  SignalGuard() { setup_sig(); }
  ~SignalGuard() { release_sig(); }
  SignalGuard(const SignalGuard &) = delete;
  SignalGuard &operator=(const SignalGuard &) = delete;
};

}  // namespace

extern "C" {

KeywordList *BuildErrorCode(int code) {
  KeywordList *list = CreateKeywordList();
  if (list == nullptr) return nullptr;
  char text[16];
  snprintf(text, sizeof text, "%d", code);
  if (AddKeywordToList(list, "errorcode", text) != 0) {
    DestroyKeywordList(list);
    return nullptr;
  }
  return list;
}

KeywordList *PerformCommand(const char *command, const char *alias, KeywordList *params, int formatted) {
  QDtrace(6, kPerform, "PerformCommand ( %s, %s, %lu, %d )", qdmethods::Text(command),
          qdmethods::Text(alias), qdmethods::Address(params), formatted);
  if (command == nullptr) return nullptr;
  std::string text = std::string(command) + "    2>/dev/null << 'EOF'\n";
  if (!AddParameters(&text, params)) return nullptr;
  text += "'EOF'";
  if (!Fits(text, formatted ? sizeof kFormattedSuffix - 1 : kRawSuffixLength, "PerformCommand"))
    return nullptr;
  QDtrace(6, kPerform, "Command string follows on next line...");
  QDtrace(6, kPerform, "%s", text.c_str());
  KeywordList *out = nullptr;
  int status = formatted ? ExecuteVCELCommand(text.c_str(), &out) : ExecuteRawCommand(text.c_str(), &out);
  if (status < 0) {
    DestroyKeywordList(out);
    return nullptr;
  }
  return out;
}

int ExecuteVCELCommand(const char *text, KeywordList **out) {
  if (text == nullptr || out == nullptr) return -1;
  *out = nullptr;
  std::string full = std::string(text) + kFormattedSuffix;
  if (!Fits(full, 0, "ExecuteVCELCommand")) return -1;
  SignalGuard guard;
  qdmethods::Child child;
  Statuses s;
  if (child.Start(qdmethods::SplitCommandText(full))) {
    FILE *in = fdopen(child.TakeOutput(), "r");
    if (in != nullptr) {
      *out = KeywordStreamToList(in);
      fclose(in);
    }
    s = FromWait(child.Wait());
  }
  TraceStatuses("ExecuteVCELCommand", s);
  return s.result();
}

int ExecuteRawCommand(const char *text, KeywordList **out) {
  if (text == nullptr || out == nullptr) return -1;
  *out = nullptr;
  SignalGuard guard;
  std::string full = text;
  char name[sizeof kRawTemplate];
  memcpy(name, kRawTemplate, sizeof name);
  // Made by mkstemp: no other process can slip a file in under the name.
  int err_fd = mkostemp(name, O_CLOEXEC);
  if (err_fd >= 0) {
    full += std::string(" 2>") + name;
  } else {
    QDtrace(8, kPerform, "ExecuteRawCommand: Cannot create temporary file");
    full += kFormattedSuffix;
  }
  std::string output;
  std::string message;
  Statuses s;
  bool started = false;
  if (Fits(full, 0, "ExecuteRawCommand")) {
    QDtrace(8, kPerform, "ExecuteRawCommand: %s", full.c_str());
    qdmethods::Child child;
    started = child.Start(qdmethods::SplitCommandText(full));
    if (started) {
      if (FILE *in = fdopen(child.TakeOutput(), "r")) {
        output = ReadAll(in);
        fclose(in);
      }
      int status = child.Wait();
      QDtrace(8, kPerform, "ExecuteRawCommand: pclose returned %d\n", status);
      QDtrace(8, kPerform, "ExecuteRawCommand:   Return status (pclose) = %d", status);
      s = FromWait(status);
      QDtrace(8, kPerform, "ExecuteRawCommand:      Command exit status = %d", s.exit);
      QDtrace(8, kPerform, "ExecuteRawCommand: Command execution status = %d", s.execution);
    }
  }
  if (err_fd >= 0) {
    if (FILE *err = fdopen(err_fd, "r")) {
      message = ReadAll(err);
      fclose(err);
    } else {
      close(err_fd);
    }
    unlink(name);
  }
  if (!started) return -1;
  if ((*out = CreateKeywordList()) != nullptr) {
    char code[16];
    snprintf(code, sizeof code, "%d", s.exit);
    if (AddKeywordToList(*out, "output", output.c_str()) != 0 ||
        AddKeywordToList(*out, "message", message.c_str()) != 0 ||
        AddKeywordToList(*out, "errorcode", code) != 0) {
      DestroyKeywordList(*out);
      *out = nullptr;
    }
  }
  QDtrace(8, kPerform, "Execute Raw Command:         COMMAND RESULTS:");
  TraceStatuses("ExecuteRawCommand", s);
  return s.result();
}

}  // extern "C"
