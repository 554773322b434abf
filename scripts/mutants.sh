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
# Object status and expiration
fault expire-february-29-days time/QDstatus.cc '{0, 28}' '{0, 29}'
fault expire-weekday-steps-by-count time/QDstatus.cc '(date->tm_wday + 7 - d % 7) % 7' '(date->tm_wday + 7 - n % 7) % 7'
fault expire-year-not-crossed time/QDstatus.cc 'if (date->tm_mon == 11) {' 'if (date->tm_mon == 0) {'
fault expire-count-equal-to-day time/QDstatus.cc 'if (n < date->tm_mday) {' 'if (n <= date->tm_mday) {'
fault expire-month-unchecked time/QDstatus.cc 'QDtimestamp.tm_mon < 0 || QDtimestamp.tm_mon > 11' 'QDtimestamp.tm_mon < 0'
fault status-stale-direction time/QDstatus.cc 'QDcomparestamps(QDtimestamp, stamp) <= 0' 'QDcomparestamps(QDtimestamp, stamp) >= 0'
fault status-cache-not-asked time/QDstatus.cc 'if (qdcache_on == 1 && object' 'if (qdcache_on == 2 && object'
# Archive runs and clean-up
fault archive-all-takes-a-list archive/QDarchive_run.cc 'mode == QD_ARCH_ALL && !Empty(list)' 'mode == QD_ARCH_ALL && Empty(list)'
fault archive-flushes-callers-cache archive/QDarchive_run.cc 'if (!loaded_here) {' 'if (false) {'
fault archive-follows-planted-link archive/QDarchive.cc 'O_WRONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK' 'O_WRONLY | O_CLOEXEC | O_NONBLOCK'
fault archive-writes-into-hard-link archive/QDarchive.cc '!S_ISREG(st.st_mode) || st.st_nlink != 1' '!S_ISREG(st.st_mode)'
fault archive-follows-run-directory-link archive/QDarchive.cc 'open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)' 'open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC)'
fault archive-dotdot-is-a-file-name archive/QDarchive.cc 'strcmp(alias, "..") != 0;' 'true;'
fault cleanup-name-may-run-on archive/archive_dir.h 'return name[19] == '"'"'\0'"'"';' 'return true;'
fault cleanup-follows-link archive/QDarchive_cleanup.cc 'openat(archive, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)' 'openat(archive, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC)'
fault cleanup-removes-the-expiration-day archive/QDarchive_cleanup.cc 'QDcomparestamps(stamp, QDexpirationdate) < 0' 'QDcomparestamps(stamp, QDexpirationdate) <= 0'
# Cache archiving
fault cache-archives-the-expired cache/QDcache_archive.cc 'QDcomparestamps(entry->accesstime, QDexpirationdate) < 0' 'QDcomparestamps(entry->accesstime, QDexpirationdate) > 0'
fault cache-archives-future-stamps cache/QDcache_archive.cc 'if (cmp > 0) {' 'if (cmp > 1) {'
fault cache-drops-the-other-duplicate cache/QDcache_archive.cc 'if (entry->hnext == entry) {' 'if (false) {'
fault cache-drops-an-uncopied-object cache/QDcache_archive.cc 'if (rc != 0) return rc;' '(void)rc;'
fault cache-list-mode-unchecked cache/QDcache_archive.cc 'result = empty ? 254 : QDcache_archive_list(list);' 'result = QDcache_archive_list(list);'
fault cache-kept-aliases-not-returned cache/QDcache_archive.cc 'if (list != nullptr) AddAnAliasToList' 'if (false) AddAnAliasToList'
# qdadm
fault qdadm-status-inverted tools/qdadm/archive_commands.cc 'QDobjectstatus(o) == OBJ_ACTIVE' 'QDobjectstatus(o) == OBJ_STALE'
fault qdadm-expired-counted-as-archived tools/qdadm/archive_commands.cc 'files.count(alias) != 0 ?' 'files.count(alias) == 0 ?'
}

faults
summary
