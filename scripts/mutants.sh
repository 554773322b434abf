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
}

faults
summary
