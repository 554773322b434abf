#!/bin/sh
# Seeded faults: each is one small, deliberate edit of the source, named for
# what it breaks. The script applies them one at a time, rebuilds, runs the
# suite and reports whether a test failed (the fault was caught). A fault no
# test catches is a gap in the suite.
#
#   scripts/mutants.sh [-l] [NAME...]
#
# -l lists the faults; NAMEs run only those (default: all). Not part of
# `make check`: it rebuilds once per fault. The source is restored after
# each fault, also when the script is interrupted.
#
# A fault is `fault NAME FILE PATTERN REPLACEMENT`, where PATTERN is literal
# text that must occur exactly once in FILE.
set -u
top=$(cd "$(dirname "$0")/.." && pwd)
build=${MUTANTS_BUILD:-$top/build/mutants}
jobs=${JOBS:-2}
list_only=0
if [ "${1:-}" = "-l" ]; then list_only=1; shift; fi
wanted="$*"

saved=""
restore() {
  if [ -n "$saved" ]; then
    cp "$build/saved.orig" "$top/$saved"
    saved=""
  fi
}
trap 'restore; exit 130' INT TERM
trap restore EXIT

if [ $list_only = 0 ]; then
  cmake -S "$top" -B "$build" -DQD_SANDBOX=ON -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ >/dev/null || exit 2
  cmake --build "$build" -j"$jobs" >/dev/null 2>&1 || { echo "the unchanged tree does not build" >&2; exit 2; }
fi

total=0 caught=0 missed=""
fault() {
  name=$1 file=$2
  if [ -n "$wanted" ]; then
    case " $wanted " in *" $name "*) ;; *) return 0 ;; esac
  fi
  if [ $list_only = 1 ]; then
    printf '%-44s %s\n' "$name" "$file"
    return 0
  fi
  total=$((total + 1))
  n=$(PAT=$3 perl -0777 -ne '$n = () = /\Q$ENV{PAT}\E/g; print $n' "$top/$file" 2>/dev/null || echo 0)
  if [ "$n" != 1 ]; then
    printf '%-44s STALE (the pattern occurs %s times in %s)\n' "$name" "$n" "$file"
    missed="$missed $name"
    return 0
  fi
  cp "$top/$file" "$build/saved.orig"
  saved=$file
  PAT=$3 REP=$4 perl -0777 -pi -e 's/\Q$ENV{PAT}\E/$ENV{REP}/' "$top/$file"
  if ! cmake --build "$build" -j"$jobs" >"$build/fault.log" 2>&1; then
    printf '%-44s DOES NOT BUILD\n' "$name"
    missed="$missed $name"
  elif ctest --test-dir "$build" -j"$jobs" --timeout 60 --stop-on-failure >"$build/fault.log" 2>&1; then
    printf '%-44s MISSED\n' "$name"
    missed="$missed $name"
  else
    by=$(sed -n '/tests FAILED:/,$p' "$build/fault.log" | grep -o '\- [^ ]*' | head -1 | cut -c3-)
    printf '%-44s caught by %s\n' "$name" "${by:-a failing test}"
    caught=$((caught + 1))
  fi
  restore
}

summary() {
  [ $list_only = 1 ] && return 0
  cmake --build "$build" -j"$jobs" >/dev/null 2>&1
  echo "$caught of $total faults caught"
  [ -z "$missed" ] || { echo "not caught:$missed"; exit 1; }
}

# ---------------------------------------------------------------- the faults
# One line each, grouped by subsystem. Every change of the code adds the
# faults that its own tests must catch.
faults() {
# Front and services
fault method-name-misses-func front/QDservices.cc 's.find("func")' 's.find("fnc")'
# Methods
fault meta-equal-indices-reordered methods/QDmeta.cc 'std::stable_sort(rows' 'std::sort(rows'
fault meta-index-100-accepted methods/QDmeta.cc 'v >= 1 && v <= 99' 'v >= 1 && v <= 100'
fault meta-single-element-gets-k methods/QDmeta.cc 'row.preops[0] == '"'"'\0'"'"' && n > 1' 'row.preops[0] == '"'"'\0'"'"' && n > 0'
fault meta-last-element-gets-pipe methods/QDmeta.cc 'n > 1 && i < n - 1' 'n > 1 && i < n'
fault meta-no-default-check methods/QDmeta.cc 'if (!condition) out.push_back' 'if (false) out.push_back'
fault meta-long-name-accepted methods/QDmeta.cc 'name.size() > META_NAME_MAX' 'name.size() > META_NAME_MAX + 1'
fault meta-invalid-ops-no-default-k methods/QDmeta.cc 'strcpy(row->preops, "k");' 'strcpy(row->preops, "");'
fault build-no-cycle-test methods/QDmethodlist.cc 'if (outer != method->name) continue;' 'continue;'
fault build-cmd-anywhere methods/methods.h 'first != nullptr && first[3] == '"'"'\0'"'"'' 'first != nullptr'
fault build-no-size-cap methods/QDmethodlist.cc 'if (NumberOfKeywords(list_) >= kMaxEntries)' 'if (false)'
fault exec-add-keeps-completioncode methods/QDexecute.cc 'RemoveKeywordFmList(output_, "completioncode");' ';'
fault exec-ignore-keeps-output methods/QDexecute.cc 'dropping current outputlist");
    Release(&output_);' 'dropping current outputlist");'
fault exec-pipe-passes-parameters methods/QDexecute.cc 'input_ = output_;' 'input_ = params_;'
fault exec-mandatory-ignored methods/QDexecute.cc 'return go_on_ == 1 || (pre_ & META_MAND) != 0;' 'return go_on_ == 1;'
fault exec-k-keeps-raw methods/QDexecute.cc 'case '"'"'k'"'"': pre_ &= ~static_cast<unsigned>(META_UNFORMATTED); break;' 'case '"'"'k'"'"': break;'
fault exec-piped-result-lost methods/QDexecute.cc 'if (*designated == nullptr) taken = &input_;' ';'
fault continue-interrupt-goes-on methods/QDperform.cc '{1, 1, INT_MIN, INT_MAX, {kHaltCompletion}, 0,' '{1, 1, INT_MIN, INT_MAX, {kHaltCompletion}, 1,'
fault continue-missing-reads-zero methods/QDperform.cc 'if (rc != KWL_OK && rc != KWL_WARN) return -1;' 'if (rc != KWL_OK && rc != KWL_WARN) return 0;'
fault continue-messages-at-any-level methods/QDperform.cc 'vcel_verbose_level >= 8 &&' 'vcel_verbose_level >= 0 &&'
fault perform-own-input-given-away methods/QDperform.cc 'if (out != nullptr && out == input) out = DuplicateKeywordList(out);' ';'
fault command-text-one-byte-over methods/QDcommand.cc 'text.size() + suffix < QD_METHOD_TEXT_MAX' 'text.size() + suffix <= QD_METHOD_TEXT_MAX'
fault command-long-value-accepted methods/QDcommand.cc 'strlen(value) > kValueMax' 'strlen(value) > kValueMax + 1'
fault command-text-to-the-shell methods/method_spawn.cc 'size_t at = text.find(kHereDoc);' 'size_t at = std::string::npos;'
fault command-killed-succeeds methods/QDcommand.cc 'return execution != 0 ? -1 : exit;' 'return exit;'
fault command-raw-file-kept methods/QDcommand.cc 'unlink(name);' ';'
fault function-slash-allowed methods/QDfunction.cc ' || library.find('"'"'/'"'"') != std::string::npos' ''
fault function-split-at-last-dot methods/QDfunction.cc 'std::string library(reference, dot);' 'std::string library(reference, strrchr(reference, '"'"'.'"'"'));'
fault function-missing-is-no-library methods/QDfunction.cc 'return BuildErrorCode(QD_METHOD_NOFUNCTION);' 'return BuildErrorCode(QD_METHOD_NOLIBRARY);'
}

faults
summary
