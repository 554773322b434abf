#!/bin/sh
# Runs each fuzzer of a QD_FUZZ build for a bounded time; builds nothing.
#   fuzz/run.sh BUILD_DIR [SECONDS_EACH]
# Exits nonzero when a fuzzer finds a crash (its input is kept under
# BUILD_DIR/fuzz-artifacts) or a fuzzer is missing.
set -u
build=${1:?usage: $0 BUILD_DIR [SECONDS_EACH]}
seconds=${2:-13}
here=$(cd "$(dirname "$0")" && pwd)
artifacts=$build/fuzz-artifacts
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM
mkdir -p "$artifacts"

status=0
for target in fuzz_table_reader:table fuzz_kwstream:kwstream fuzz_meta:meta; do
  name=${target%%:*}
  corpus=${target#*:}
  bin=$build/fuzz/$name
  if [ ! -x "$bin" ]; then
    echo "$name: missing $bin (configure with CXX=clang++ -DQD_FUZZ=ON)" >&2
    status=2
    continue
  fi
  # New inputs go to the scratch directory, not the checked-in corpus.
  mkdir -p "$work/$corpus"
  if "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$artifacts/$name-" "$work/$corpus" "$here/corpus/$corpus" \
      >"$work/$name.log" 2>&1; then
    echo "$name: ok ($(grep -o 'stat::number_of_executed_units: [0-9]*' "$work/$name.log" |
      cut -d' ' -f2) runs)"
  else
    echo "$name: FAILED" >&2
    tail -n 40 "$work/$name.log" >&2
    status=1
  fi
done
exit $status
