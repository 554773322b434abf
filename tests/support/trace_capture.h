// Sends the trace reporters to a file for one test and reads it back.
#ifndef TESTS_SUPPORT_TRACE_CAPTURE_H
#define TESTS_SUPPORT_TRACE_CAPTURE_H

#include <cstdlib>
#include <string>

#include "pv.h"
#include "sandbox.h"

class TraceCapture {
 public:
  TraceCapture(const testing_support::Sandbox &box, int verbose, int explicit_level = -1)
      : path_(box.Path("trace.log")) {
    setenv("VCEL_TRACE_FILE", path_.c_str(), 1);
    vcel_verbose_level = verbose;
    vcel_explicit_level = explicit_level;
  }
  std::string Text() const { return testing_support::ReadFile(path_); }
  bool Has(const std::string &fragment) const { return Text().find(fragment) != std::string::npos; }

 private:
  std::string path_;
};

#endif
