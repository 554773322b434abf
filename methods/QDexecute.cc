// Running a method list: the operators decide how each method runs, where
// its output goes and whether the run goes on.
#include "methods.h"

using qdmethods::kPerform;

namespace {

// One run of a method list. PARAMETERS is the caller's and never released
// here; every other list is the run's own until it is handed back.
class Run {
 public:
  Run(const char *alias, KeywordList *params) : alias_(alias), params_(params), input_(params) {}
  ~Run();
  Run(const Run &) = delete;
  Run &operator=(const Run &) = delete;

  void Operators(const char *ops);
  void Method(const char *kind, const char *value);
  bool Runs() const { return go_on_ == 1 || (pre_ & META_MAND) != 0; }
  void TraceFlags() const;
  KeywordList *Result();

 private:
  void Release(KeywordList **list);
  void CopyCode(const char *keyword);
  void PostProcess(const char *value);
  void TraceLists(const char *heading) const;

  const char *alias_;
  KeywordList *params_;
  KeywordList *input_;
  KeywordList *output_ = nullptr;
  KeywordList *cumulative_ = nullptr;
  bool return_cumulative_ = false;  // RETURNLIST: CUMULATIVELIST, else OUTPUTLIST
  unsigned pre_ = 0;
  unsigned post_ = 0;
  int go_on_ = 1;
};

Run::~Run() {
  Release(&input_);
  Release(&output_);
  Release(&cumulative_);
}

void Run::Release(KeywordList **list) {
  if (*list != params_) DestroyKeywordList(*list);
  *list = nullptr;
}

void Run::Operators(const char *ops) {
  for (const char *c = ops; *c != '\0'; ++c) {
    QDtrace(8, kPerform, "MetaOperator is '%c'", *c);
    switch (*c) {
      case '+': post_ |= META_ADD; break;
      case '-': post_ |= META_PIPE; break;
      case '?': post_ |= META_COND; break;
      case 'x': post_ |= META_IGNORE; break;
      case 'm': pre_ |= META_MAND; break;
      case 'u': pre_ |= META_UNFORMATTED; break;
      case 'k': pre_ &= ~static_cast<unsigned>(META_UNFORMATTED); break;
      default: break;  // '!' only kept the default '?' away
    }
  }
}

void Run::TraceFlags() const {
  QDtrace(8, kPerform, "MetaPreOperator  flags are '%02x'", pre_);
  QDtrace(8, kPerform, "MetaPostOperator flags are '%02x'", post_);
}

void Run::TraceLists(const char *heading) const {
  if (!qdmethods::Tracing(8)) return;
  QDtrace(8, kPerform, "%s", heading);
  const struct {
    const char *name;
    KeywordList *list;
  } lists[] = {{"PARAMETERS:", params_},
               {"INPUTLIST:", input_},
               {"OUTPUTLIST:", output_},
               {"CUMULATIVELIST:", cumulative_},
               {"RETURNLIST:", return_cumulative_ ? cumulative_ : output_}};
  for (const auto &l : lists) {
    QDtrace(8, kPerform, "%s", l.name);
    if (l.list == nullptr)
      QDtrace(8, kPerform, "List is NULL");
    else
      DisplayKeywordList(l.list);
  }
}

void Run::CopyCode(const char *keyword) {
  char *value = nullptr;
  int rc = ReferenceKeywordInList(output_, keyword, nullptr, &value);
  if (rc != KWL_OK && rc != KWL_WARN) return;
  RemoveKeywordFmList(cumulative_, keyword);
  AddKeywordToList(cumulative_, keyword, value);
}

void Run::Method(const char *kind, const char *value) {
  if (pre_ & META_MAND) {
    QDtrace(8, kPerform, "META_MAND: forcing execution of method");
    pre_ &= ~static_cast<unsigned>(META_MAND);
  }
  int formatted = 1;
  if (pre_ & META_UNFORMATTED) {
    QDtrace(8, kPerform, "META_UNFORMATTED: unformatted output expected ");
    pre_ &= ~static_cast<unsigned>(META_UNFORMATTED);
    formatted = 0;
  } else {
    QDtrace(8, kPerform, "META_UNFORMATTED: formatted output expected ");
  }
  TraceLists("LIST STATES AFTER PRE-PROCESSING:");
  Release(&output_);  // the previous output, when nothing took it over
  output_ = QDperformmethod(alias_, kind, value, input_, formatted);
  if (cumulative_ == nullptr) cumulative_ = CreateKeywordList();
  if (output_ != nullptr && cumulative_ != nullptr) {
    CopyCode("errorcode");
    CopyCode("completioncode");
  }
  TraceLists("LIST STATES AFTER METHOD-PROCESSING:");
  PostProcess(value);
}

void Run::PostProcess(const char *value) {
  if (post_ & META_ADD) {
    return_cumulative_ = true;
    QDtrace(8, kPerform, "META_ADD: adding output list to cumulative list");
    if (output_ != nullptr) {
      RemoveKeywordFmList(output_, "errorcode");
      RemoveKeywordFmList(output_, "completioncode");
      if (cumulative_ != nullptr) AddKeywordListToList(cumulative_, output_);
    }
    post_ &= ~static_cast<unsigned>(META_ADD);
  }
  if (post_ & META_IGNORE) {
    QDtrace(8, kPerform, "META_IGNORE: dropping current outputlist");
    Release(&output_);
    post_ &= ~static_cast<unsigned>(META_IGNORE);
  }
  if (post_ & META_PIPE) {
    QDtrace(8, kPerform, "META_PIPE: pipe-ing current outputlist to next method");
    Release(&input_);
    input_ = output_;
    output_ = nullptr;
    post_ &= ~static_cast<unsigned>(META_PIPE);
  } else {
    Release(&input_);
    input_ = params_;
  }
  if (post_ & META_COND) {
    QDtrace(8, kPerform, "META_COND: checking current condition to continue");
    if (go_on_ == 1) go_on_ = ContinueProcessing(value, cumulative_);
    post_ &= ~static_cast<unsigned>(META_COND);
  }
  TraceLists("LIST STATES AFTER POST-PROCESSING:");
}

KeywordList *Run::Result() {
  KeywordList **designated = return_cumulative_ ? &cumulative_ : &output_;
  KeywordList **taken = designated;
  // Nothing designated: the last output piped on with no method after it.
  if (*designated == nullptr) taken = &input_;
  KeywordList *result = *taken == params_ ? nullptr : *taken;
  if (result != nullptr) *taken = nullptr;
  return result;  // the destructor releases the rest
}

}  // namespace

extern "C" KeywordList *QDexecutemethodlist(const char *alias, KeywordList **methods, KeywordList *params) {
  KeywordList *list = methods != nullptr ? *methods : nullptr;
  QDtrace(6, kPerform, "QDexecutemethodlist( %s, %lu, %lu )", qdmethods::Text(alias),
          qdmethods::Address(list), qdmethods::Address(params));
  QDtrace(8, kPerform, "METALIST:");
  if (list == nullptr) return nullptr;
  DisplayKeywordList(list);
  Run run(alias, params);
  char *kw;
  char *value;
  int rc;
  list->kwl_cursor = list->kwl_first;
  while ((rc = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || rc == KWL_WARN) {
    QDtrace(8, kPerform, "MetaList:   NextKeyword: %s   NextValue: %s", kw, value);
    bool method = strcmp(kw, META_FCN) == 0 || strcmp(kw, META_CMD) == 0;
    if (!method) run.Operators(value);
    run.TraceFlags();
    if (method && run.Runs()) run.Method(kw, value);
  }
  return run.Result();
}
