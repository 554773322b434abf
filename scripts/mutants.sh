#!/bin/sh
# Seeded faults: each is one small, deliberate edit of the source, named for
# what it breaks. The script applies them one at a time, rebuilds, runs the
# suite and reports whether a test failed (the fault was caught). A fault no
# test catches is a gap in the suite.
#
#   scripts/mutants.sh [-l|-c] [NAME...]
#
# -l lists the faults, -c checks that each still applies (its pattern occurs
# once) without building; NAMEs run only those (default: all). Not part of
# `make check`: it rebuilds once per fault. The source is restored after
# each fault, also when the script is interrupted.
#
# A fault is `fault NAME FILE PATTERN REPLACEMENT`, where PATTERN is literal
# text that must occur exactly once in FILE.
set -u
top=$(cd "$(dirname "$0")/.." && pwd)
build=${MUTANTS_BUILD:-$top/build/mutants}
jobs=${JOBS:-2}
list_only=0 check_only=0
if [ "${1:-}" = "-l" ]; then list_only=1; shift; fi
if [ "${1:-}" = "-c" ]; then list_only=1 check_only=1; shift; fi
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
  if [ $check_only = 1 ]; then
    n=$(PAT=$3 perl -0777 -ne '$n = () = /\Q$ENV{PAT}\E/g; print $n' "$top/$file" 2>/dev/null || echo 0)
    [ "$n" = 1 ] || { printf '%-44s STALE (%s matches in %s)\n' "$name" "$n" "$file"; missed="$missed $name"; }
    return 0
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
  if [ $check_only = 1 ]; then
    [ -z "$missed" ] || exit 1
    return 0
  fi
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
fault method-name-misses-func front/front.h '} else if (name[i] == '"'"'f'"'"' && i + 4 <= length) {' '} else if (name[i] == '"'"'F'"'"' && i + 4 <= length) {'
fault method-name-window-past-length front/front.h 'for (size_t i = 0; i + 3 <= length &&' 'for (size_t i = 0; i + 2 <= length &&'
fault error-module-not-cut front/QDservices.cc 'if (dot != std::string::npos) name.resize(dot);' ';'
fault command-exit-status-lost front/QDservices.cc 'int result = term_status != 0 ? -1 : exit_status;' 'int result = term_status != 0 ? -1 : 0;'
fault command-word-unquoted front/command.cc 'if (plain) {
    text_.append(word);' 'if (true) {
    text_.append(word);'
# Keyword lists and their cursor
fault kwlist-cursor-skips-first pv/kwlist_layout.h 'if (list->kwl_cursor == nullptr && list->kwl_count == 0) list->kwl_cursor = e;' 'if (list->kwl_cursor == nullptr && list->kwl_count == 1) list->kwl_cursor = e;'
fault kwlist-link-drops-no-value pv/kwlist_layout.h 'e->link = reinterpret_cast<uintptr_t>(next) | (e->link & kNoValue);' 'e->link = reinterpret_cast<uintptr_t>(next);'
fault kwlist-remove-keeps-last pv/kwlist.cc 'if (list->kwl_last == e) list->kwl_last = prev;' ';'
fault kwlist-duplicates-not-reported pv/kwlist.cc 'return removed > 0 ? KWL_DUPLICATE : KWL_OK;' 'return KWL_OK;'
fault kwlist-no-value-not-warned pv/kwlist.cc 'int Deliver(const KeywordEntry *e) { return NoValue(e) ? KWL_WARN : KWL_OK; }' 'int Deliver(const KeywordEntry *e) { return KWL_OK; }'
fault kwlist-value-room-overrun pv/kwlist.cc 'if (vlen <= ValueRoom(e)) {' 'if (vlen <= ValueRoom(e) + 8) {'
fault kwlist-addvalue-repeats pv/kwlist.cc 'if (IsInCommaList(value, current)) return KWL_OK;' ';'
fault kwlist-copy-cursor-mid pv/kwlist.cc 'copy->kwl_cursor = copy->kwl_first;' 'copy->kwl_cursor = copy->kwl_last;'
fault kwstream-quotes-lost pv/kwstream.cc 'if (IsBlank(s[0]) || IsBlank(s[n - 1]) || s[0] == '"'"'"'"'"') return true;' 'if (IsBlank(s[0]) || s[0] == '"'"'"'"'"') return true;'
fault kwstream-comment-read-as-entry pv/kwstream.cc 'if (pos == line.size() || line[pos] == '"'"'#'"'"') {' 'if (pos == line.size()) {'
# Comma lists
fault commalist-no-trim pv/commalist.cc 'std::string_view item = Trim(text.substr(0, comma));' 'std::string_view item = text.substr(0, comma);'
fault commalist-prefix-matches pv/commalist.cc 'return ForEachItem(text, [want](std::string_view have) { return have == want; }) ? 1 : 0;' 'return ForEachItem(text, [want](std::string_view have) { return have.substr(0, want.size()) == want; }) ? 1 : 0;'
# The table format: escapes and quotes
fault format-colon-unescaped pv/devtab_format.cc 'AppendEscaped(out, value, ":\\\"\n");' 'AppendEscaped(out, value, "\\\"\n");'
fault format-escaped-newline-ends-entry pv/devtab_format.cc 'return (run & 1) != 0;' 'return false;'
fault format-comment-guard-lost pv/devtab_format.cc 'if (!alias.empty() && (alias[0] == '"'"'#'"'"' || IsBlank(alias[0]) || alias[0] == '"'"'\r'"'"'))' 'if (false)'
fault writer-quote-kept cache/QDcache_format.cc 'AppendEscaped(out, value != nullptr ? value : end + 1, '"'"'"'"'"');' 'AppendEscaped(out, value != nullptr ? value : end + 1, -1);'
fault writer-positional-kept-as-pair cache/QDcache_format.cc 'if (p.Taken(i)) RemoveKeywordFmList(attributes, kPositional[i]);' ';'
fault flush-positional-written-twice cache/QDcache_format.cc 'if (i >= 0 && p.Taken(i)) continue;' ';'
fault flush-methods-blank-lost cache/QDcache_format.cc 'blank = attributes != nullptr;' 'blank = false;'
fault writer-positional-no-value-taken cache/QDcache_format.cc 'p.status[i] = pv::layout::NoValue(k) ? KWL_WARN : KWL_OK;' 'p.status[i] = KWL_OK;'
fault writer-strlenesc-miscounts cache/QDcache_format.cc 'for (; *s; ++s) n += Special(*s) ? 2 : 1;' 'for (; *s; ++s) n += 1;'
# The cursor over the table file
fault cursor-positional-order pv/cursor.cc 'if (f < 3) {' 'if (f < 2) {'
fault cursor-keeps-replaced-file pv/cursor.cc 'if (!StillCurrent(path)) {' 'if (cursor.fd < 0) {'
# The device commands
fault unitprop-unquoted commands/unitprop.cc 'fputs("'"'"'\n", stdout);' 'fputs("\n", stdout);'
fault unitlist-negation-ignored commands/unitlist.cc 'bool holds = AnyValueHolds(c, e) != c.negated;' 'bool holds = AnyValueHolds(c, e);'
fault unitmod-add-overwrites commands/unitmod.cc 'if (found) {
      Fail("an entry for %s exists already", alias);' 'if (false) {
      Fail("an entry for %s exists already", alias);'
fault unitmod-modify-appends commands/unitmod.cc 'if (i < e->npairs) {
      e->pairs[i].value = c.value;' 'if (false) {
      e->pairs[i].value = c.value;'
# The one rewrite of the table
fault rewrite-no-sync pv/devtab_file.cc 'if (err == 0 && sys::Fsync(fd_) != 0) err = errno;' ';'
fault rewrite-mode-lost pv/devtab_file.cc 'if (fchmod(fd_, old.st_mode & 07777) != 0) err = errno;' ';'
fault rewrite-stale-temps-kept pv/devtab_file.cc 'unlinkat(dirfd(d), e->d_name, 0);' ';'
fault rewrite-link-replaced pv/devtab_file.cc 'target_ = ResolvedPath(path);' 'target_ = path;'
fault rewrite-lock-not-carried pv/devtab_file.cc 'if (fcntl(fd_, F_SETLK, &fl) != 0) err = errno;' ';'
# The table lock: counters and record lines
fault lock-nested-read-not-counted lock/QDlock.cc '    ++table.rlck_cnt;
    ++table.counter;
    QDtrace(8, kLock, "QDlock_rlck_cnt = %d", table.rlck_cnt);' '    ++table.rlck_cnt;
    QDtrace(8, kLock, "QDlock_rlck_cnt = %d", table.rlck_cnt);'
fault lock-record-says-write lock/QDlock.cc 'write ? "write" : "read");
  size_t room' '"write");
  size_t room'
fault lock-file-never-removed lock/QDlock.cc 'if (unlink(table.path) == 0)' 'if (false)'
fault lock-inode-unchecked lock/QDlock.cc 'if (table.path_stat.st_ino != table.fd_stat.st_ino || table.path_stat.st_dev != table.fd_stat.st_dev) {' 'if (false) {'
fault lock-nowait-waits lock/QDlock.cc 'int cmd = (mode & QDLOCK_TEST) ? F_GETLK : (mode & QDLOCK_NOWAIT) ? F_SETLK : F_SETLKW;' 'int cmd = (mode & QDLOCK_TEST) ? F_GETLK : F_SETLKW;'
# The file-pointer lock
fault fplock-replaced-file-kept lock/QDlock_fp.cc 'if (file.lock_counter == 0 && !SameFile()) {' 'if (false) {'
fault fplock-nested-release-drops-all lock/QDlock_fp.cc 'if (file.lock_counter > 0) {
    // Every file lock' 'if (false) {
    // Every file lock'
# Time stamps: text and comparison
fault stamp-year-field-short time/QDtime.cc 'const int widths[] = {4, 2, 2, 2, 2, 2, 1, 3, 2};
  char text[32];' 'const int widths[] = {3, 2, 2, 2, 2, 2, 1, 3, 2};
  char text[32];'
fault stamp-compare-ignores-seconds time/QDtime.cc 'for (int i = 0; i < 6; ++i) {
    if (left[i] > right[i]) return 1;' 'for (int i = 0; i < 5; ++i) {
    if (left[i] > right[i]) return 1;'
fault stamp-env-zero-read-as-now time/QDtime.cc 'if (strcmp(env, "0") == 0) {' 'if (false) {'
fault stamp-reader-misreads-digits time/QDtime.cc 'n = n * 10 + (*p - '"'"'0'"'"');' 'n = n * 10 + (*p - '"'"'1'"'"');'
# The cache: hash, index and memory
fault index-anticipation-kept cache/cache_state.h 'void Forget() { anticipated_ = nullptr; }' 'void Forget() {}'
fault hash-unsigned-bytes cache/cache_state.cc 'sum += static_cast<unsigned int>(static_cast<signed char>(*p));' 'sum += static_cast<unsigned char>(*p);'
fault hash-max-chain-off-by-one cache/QDcache_store.cc 'if (walked + 1 > qdcache_info[qdcache::kMaxHashChain]) qdcache_info[qdcache::kMaxHashChain] = walked + 1;' 'if (walked > qdcache_info[qdcache::kMaxHashChain]) qdcache_info[qdcache::kMaxHashChain] = walked;'
fault index-second-entry-wins cache/QDcache_store.cc 'if (hashed != e) {
    e->hnext = e->hprev = e;' 'if (false) {
    e->hnext = e->hprev = e;'
fault store-stamp-ignored cache/QDcache_store.cc 'if (stamps.touched == nullptr && strcmp(keys[i], "ObjTimestamp") == 0) stamps.touched = values[i];' ';'
fault kwlist-frees-foreign-header pv/kwlist.cc 'if (list->kwl_shared != kForeign) free(list);' 'free(list);'
fault arena-reuse-restarts-first-block cache/arena.cc 'size_t i = next_ == nullptr ? 0 : current_ + 1;' 'size_t i = 0;'
fault free-removals-uncounted cache/QDcache_flush.cc 'qdcache_info[qdcache::kRmobj] += removed;' ';'
fault index-duplicate-alias-relinked cache/QDcache_store.cc 'if (!fresh) return slot->first;' ';'
fault store-values-not-cleaned cache/QDcache_store.cc 'if (static_cast<signed char>(*p) < 32 || *p == 127) *p = '"'"' '"'"';' ';'
fault store-clean-skips-high-bytes cache/QDcache_store.cc 'if (((w & k80) | ((w - 0x20 * k01) & ~w & k80) | ((del - k01) & ~del & k80)) == 0) continue;' 'if ((((w - 0x20 * k01) & ~w & k80) | ((del - k01) & ~del & k80)) == 0) continue;'
fault flush-stamp-written-twice cache/QDcache_format.cc 'if (stamp != nullptr && k->keyword[0] == '"'"'O'"'"' && strcmp(k->keyword, "ObjTimestamp") == 0) continue;' ';'
fault flush-stamp-not-written cache/QDcache_format.cc 'AppendPair(out, "ObjTimestamp", stamp, blank);' ';'
# Load and flush order
fault load-keeps-last-value cache/QDcache_load.cc 'if (last != nullptr && last->prefix == o.prefix && strcmp(last->key, o.key) == 0) continue;' 'if (last != nullptr && last->prefix == o.prefix && strcmp(last->key, o.key) == 0) { keys_.pop_back(); values_.pop_back(); }'
fault load-ascending-order cache/QDcache_load.cc 'if (a.prefix != b.prefix) return a.prefix > b.prefix;
    return strcmp(a.key, b.key) > 0;' 'if (a.prefix != b.prefix) return a.prefix < b.prefix;
    return strcmp(a.key, b.key) < 0;'
fault load-empty-cdevice-kept cache/QDcache_load.cc 'if (value->empty() && (strcmp(key, "cdevice") == 0 || strcmp(key, "bdevice") == 0)) return;' ';'
fault load-alias-pair-kept cache/QDcache_load.cc 'if (key[0] == '"'"'a'"'"' && strcmp(key, "alias") == 0) return;' ';'
fault load-same-alias-split cache/QDcache_load.cc 'if (have && next->alias == current->alias) {' 'if (false) {'
fault load-merged-positional-dropped cache/QDcache_load.cc 'p.value = more.positional[f];' 'continue;'
fault flush-forward-order cache/QDcache_flush.cc 'for (oce *e = qdcache_ocp->prev; e != qdcache_ocp;) {
    oce *prev = e->prev;' 'for (oce *e = qdcache_ocp->next; e != qdcache_ocp;) {
    oce *prev = e->next;'
fault flush-stale-written-by-writer cache/QDcache_flush.cc 'if ((e->status & OCE_ACTIVE) == 0) {
    QDtrace(8, kModule, "STALE object");' 'if (false) {
    QDtrace(8, kModule, "STALE object");'
fault hook-value-without-value-read cache/cache_state.h 'return pv::layout::NoValue(k) ? nullptr : k->keyword + (a - k->keyword) + 1;' 'return k->keyword + (a - k->keyword) + 1;'
fault hook-value-prefix-matches cache/cache_state.h 'if (*a != *b) continue;' 'if (*a != *b && *a == '"'"'\0'"'"') continue;'
fault hook-put-rewrites-unchanged cache/QDcache_hooks.cc '} else if (!changed && strcmp(stored, value) != 0) {' '} else if (!changed) {'
# The one-name queries
fault getattr-serves-methods objects/QDgetattr.cc 'if (qd::NamesMethod(name)) return nullptr;' ';'
fault getmethod-serves-attributes objects/QDgmethod.cc 'if (!qd::NamesMethod(name)) return nullptr;' ';'
# The put command line
fault put-alias-entry-written objects/QDput.cc 'if (strcmp(kw, "alias") == 0) continue;' ';'
fault put-value-unquoted objects/QDput.cc 'if (strchr("$`\\\"", *p) != nullptr) out->push_back('"'"'\\'"'"');' ';'
fault put-no-add-after-modify objects/QDput.cc 'if (status == 2 || status == 3) {' 'if (status == 2) {'
fault put-stamp-left-in-list objects/QDput.cc 'if (list != nullptr) RemoveKeywordFmList(list, "ObjTimestamp");' ';'
# Alias matching and listing
fault match-partial-criteria aliases/QDmatchal.cc 'if (node != nullptr && met == n) {' 'if (node != nullptr && met >= 1) {'
fault match-fail-ignored aliases/QDmatchal.cc 'if (!IsInCommaList(*item, value)) result = -1;' ';'
fault list-stale-included aliases/QDgaliases.cc 'if (qd_stale == 0) args.Raw(" alias_status!:\\*");' ';'
# Search
fault search-remainder-ignored aliases/QDsearchal.cc 'matched_ += static_cast<int>(criteria_.not_left());' 'matched_ += 0;'
fault search-any-needs-all aliases/QDsearchal.cc 'if (type_ == QD_MATCH_ANY && total_ > 1) total_ = 1;' ';'
fault search-filter-keeps-all aliases/QDsearchal.cc 'everything_(strcmp(text, kEverything) == 0)' 'everything_(true)'
fault search-no-value-matches-any aliases/QDsearchal.cc 'return *value == '"'"'\0'"'"';' 'return true;'
fault search-stale-kept aliases/QDsearchal.cc 'qd_stale == 0 && Stale(alias)' 'qd_stale == 1 && Stale(alias)'
fault search-blank-names-skipped aliases/QDsearchal.cc "&& name[0] != ' ' && name[0] != '\\t' && !watched_" '&& !watched_'
fault search-filter-names-unwatched aliases/QDsearchal.cc 'for (const NameSet *set : {&criteria_.names(), &filter_.names()})' 'for (const NameSet *set : {&criteria_.names()})'
fault search-everything-unwatched aliases/QDsearchal.cc 'watch_all_(filter_.everything())' 'watch_all_(false)'
fault search-names-numbered-twice aliases/QDsearchal.cc 'if (id >= 0) return id;' 'if (id >= 0 && false) return id;'
fault search-not-rejudged aliases/QDsearchal.cc 'if (criteria_.has_not()) criteria_.Judged(id);' ';'
fault search-cache-aliases-merged aliases/QDsearchal.cc 'alias == alias_seen_' 'true'
fault search-file-aliases-merged aliases/QDsearchal.cc '!(name[0] == '"'"'c'"'"' && name[1] == '"'"'d'"'"' && strcmp(name, "cdevice") == 0)' 'true'
fault search-comma-item-missed aliases/QDsearchal.cc '|| IsInCommaList(criterion, value) == 1;' ';'
fault search-walk-uncounted cache/cache_state.h 'qdcache_info[kCachedReferenceNextAttribute] += calls;' ';'
fault qdadm-search-any-ignored tools/qdadm/qdadm.cc 'type = QD_MATCH_ANY;' ';'

# The framework switch
fault fwswitch-private-table-ignored front/QDfwswitch.cc 'if (tab != nullptr && strcmp(tab, QD_DEVTAB_PATH) != 0) {' 'if (false) {'
fault fwswitch-first-rc-entry-wins front/QDfwswitch.cc '    strcpy(name, value);
    QDtrace(8, kModule, "%s=%s", "YRA_FW", value);
    found = true;' '    if (!found) strcpy(name, value);
    QDtrace(8, kModule, "%s=%s", "YRA_FW", value);
    found = true;'
fault fwswitch-missing-function-kept front/QDfwswitch.cc '      dlclose(sw.handle);
      sw.handle = nullptr;
      return Local();
    }
    if (fn != nullptr)' '      return 1;
    }
    if (fn != nullptr)'
# qdadm's argument handling
fault qdadm-json-ignored tools/qdadm/qdadm.cc 'if (opt == "--json") {
      json = true;' 'if (opt == "--json") {
      json = false;'
fault qdadm-arity-unchecked tools/qdadm/qdadm.cc 'if (args.size() < c.min_args || (c.max_args != 0 && args.size() > c.max_args)) {' 'if (false) {'
fault qdadm-put-accepts-bare-name tools/qdadm/qdadm.cc 'if (eq == std::string::npos || eq == 0) {' 'if (eq == 0) {'
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
# Containment, destroy and the clean-up list
fault contain-chain-in-objcontains-order aliases/QDcontain.cc 'const char *item = level->items[level->item++];' 'const char *item = [&] { size_t n = 0; while (level->items[n] != nullptr) ++n; return level->items[n - 1 - level->item++]; }();'
fault contain-both-flags-accepted aliases/QDcontain.cc 'if ((flags & QDOBJECT) != 0 && (flags & QDCONTAINS) != 0) {' 'if (false) {'
fault contain-warn-counts-as-found aliases/QDcontain.cc 'ReferenceKeywordInList(list, keyword, &kw, value) == KWL_OK;' 'ReferenceKeywordInList(list, keyword, &kw, value) != KWL_NOTFOUND;'
fault contain-path-never-left aliases/QDcontain.cc '      path.Leave(level.object);
' ''
fault contain-absent-clears-chain aliases/QDcontain.cc 'if (int rc = Open(&stack[0])) return rc;' 'if (int rc = Open(&stack[0])) { FreeChain(object->contained); object->contained = nullptr; return rc; }'
fault contain-indirect-ignored aliases/QDcontain.cc '(flags & QDEXTENDED) != 0 && Lookup(' 'false && Lookup('
fault destroy-no-default-destroy archive/destroy_walk.cc 'if ((flags & (QDDEL | QDDESTROY)) == 0) flags |= QDDESTROY;' ';'
fault destroy-early-list-has-codes archive/destroy_walk.cc 'KeywordList *list = NewResult(false);' 'KeywordList *list = NewResult(true);'
fault destroy-zero-code-overwrites archive/destroy_walk.cc 'if (strcmp(value, "0") != 0) UpdateKeywordInList(list_, QD_ERRORCODE, value);' 'UpdateKeywordInList(list_, QD_ERRORCODE, value);'
fault destroy-inner-failure-kept-inside archive/destroy_walk.cc 'top ? QD_COMPLETIONCODE : QD_ERRORCODE, "3"' 'QD_COMPLETIONCODE, "3"'
fault destroy-path-never-left archive/destroy_walk.cc '      if (visit.object->alias != nullptr) path.erase(visit.object->alias);
' ''
fault destroy-no-delete-fallback archive/destroy_walk.cc 'if ((flags & QDDELFALLBACK) == 0) {' 'if (true) {'
fault destroy-alias-listed-twice archive/destroy_walk.cc 'if (one && v->items.count(std::string(want)) != 0) return;' 'if (false) return;'
fault destroy-method-entries-dropped archive/destroy_walk.cc '        case qd::Merge::kAppend:
          AddKeywordToList(list_, kw, value);' '        case qd::Merge::kAppend:'
fault destroy-parse-zero-code-overwrites archive/QDdestroy.cc 'if (strcmp(value, "0") != 0) UpdateKeywordInList(result, QD_ERRORCODE, value);' 'UpdateKeywordInList(result, QD_ERRORCODE, value);'
fault cleanup-added-at-the-tail archive/QDcleanup.cc '  node->next = CleanupList;
  CleanupList = node;' '  node->next = nullptr;
  QDCleanupItem **end = &CleanupList;
  while (*end != nullptr) end = &(*end)->next;
  *end = node;'
fault cleanup-removes-first-match-only archive/QDcleanup.cc '    *link = node->next;
    free(node);' '    *link = node->next;
    free(node);
    break;'
fault cleanup-qualifier-ignored archive/QDcleanup.cc '(qualifier_fits && strcmp(node->qualifier, item->qualifier) == 0)' 'true'
fault cleanup-execute-empties-list archive/QDcleanup.cc '      Execute();
      break;' '      Execute();
      CleanupList = nullptr;
      break;'
fault qdadm-dry-run-performs tools/qdadm/contain_commands.cc 'if (given.count("--dry-run") == 0) {' 'if (true) {'
fault qdadm-tree-repeats-followed tools/qdadm/contain_commands.cc 'bool repeated = above.count(o->alias) != 0;' 'bool repeated = false;'
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
# Meta-method editing, classes and attribute values
fault edit-operators-out-of-order methods/QDmeta_edit.cc 'for (const meta_oper_t *op = meta_oper_tbl; op->flag != 0; ++op)
    if ((mask & op->flag) != 0) *at++ = op->oper;' 'for (const meta_oper_t *op = meta_oper_tbl + 6; op >= meta_oper_tbl; --op)
    if ((mask & op->flag) != 0) *at++ = op->oper;'
fault edit-unknown-mask-bits-kept methods/QDmeta_edit.cc '(mask & ~known) != 0' '(mask & ~known & 0x7f) != 0'
fault edit-element-prefix-matches methods/QDmeta_edit.cc 'return NameOf(element) == name; }' 'return NameOf(element).substr(0, strlen(name)) == name; }'
fault edit-index-tens-dropped methods/QDmeta_edit.cc 'if (index >= 10) *at++' 'if (index > 10) *at++'
fault edit-add-bound-off-by-one methods/QDmeta_edit.cc 'current.size() + 1 + element.size() > kValueMax' 'current.size() + 1 + element.size() >= kValueMax'
fault edit-move-bound-relaxed methods/QDmeta_edit.cc 'element.size() > kValueMax - 2' 'element.size() > kValueMax'
fault edit-update-loses-element-without-room methods/QDmeta_edit.cc 'case Edit::kNoRoom: return 255;' 'case Edit::kNoRoom: break;'
fault rmdefault-prefix-of-groups methods/QDmeta_edit.cc '(element.size() == wanted.size() || element[wanted.size()] == '"'"'['"'"')' 'true'
fault rmdefault-mandatory-ignored methods/QDmeta_edit.cc 'other = !element.empty() && qdmeta::OperatorGroup(element).find('"'"'m'"'"') == std::string_view::npos;' 'other = !element.empty();'
fault class-default-overrides-caller objects/QDcreate.cc 'if (st == KWL_OK || st == KWL_WARN) {
        QDtrace(8, kModule, "Attribute' 'if (false) {
        QDtrace(8, kModule, "Attribute'
fault class-multi-replaces objects/QDcreate.cc 'AddValueToList(object->attributes, row.keyword, row.value);' 'UpdateKeywordInList(object->attributes, row.keyword, row.value);'
fault class-method-added-twice objects/QDcreate.cc 'RemoveKeywordFmList(object->methods, row.keyword);' ';'
fault class-combined-as-method objects/QDcreate.cc 'switch (row.flags & (QD_CLASS_METHOD | QD_CLASS_ADD)) {' 'switch (row.flags & QD_CLASS_METHOD) {'
fault uniqid-prefix-cut-at-12 objects/QDmisc.cc '"%.11s%d"' '"%.12s%d"'
fault uniqid-stops-at-998 objects/QDmisc.cc 'for (int n = 0; n <= 999; ++n) {' 'for (int n = 0; n < 999; ++n) {'
fault delentry-write-failure-hidden objects/QDmisc.cc 'return failed ? 1 : found ? 0 : 2;' 'return found ? 0 : 2;'
fault delentry-missing-read-as-removed objects/QDmisc.cc 'return failed ? 1 : found ? 0 : 2;' 'return failed ? 1 : 0;'
fault aliaslist-empty-first-not-set objects/QDmisc.cc '*first = second;' ';'
fault values-comma-item-split objects/QDmisc.cc '} else if (strchr(value, '"'"','"'"') != nullptr) {' '} else if (false) {'
fault values-long-value-cut objects/QDmisc.cc 'if (updated.size() > QD_VALUE_MAX) {' 'if (updated.size() > QD_VALUE_MAX + 1) {'
fault values-unreadable-taken-for-absent objects/QDmisc.cc '|| !TableValue(alias, name, value)) return read;' '|| true) return read;'
fault classfile-line-number-off objects/class_file.cc 'std::to_string(number + 1)' 'std::to_string(number)'
fault qdadm-create-without-lock tools/qdadm/class_commands.cc 'if (QDlock(QDWRITE) != 0) {
      Say("cannot take the table' 'if (false) {
      Say("cannot take the table'
fault qdadm-method-no-room-written tools/qdadm/class_commands.cc 'if (made[0] != '"'"'\0'"'"' && !last_is_made(merged)) return 255;' ';'
}

faults
summary
