#!/bin/sh
# The size of the tests against the size of the code: non-blank lines of
# C and C++ sources (.c, .cc, .h), tests meaning tests/ and fuzz/, code
# meaning everything else but bench/. The project keeps the ratio at or
# under one third; with --check the script fails when it is over.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
count() {
  find "$@" -type f \( -name '*.c' -o -name '*.cc' -o -name '*.h' \) -print0 |
    xargs -0 cat | grep -cv '^[[:space:]]*$'
}
tests=$(count tests fuzz)
code=$(count . -path ./build -prune -o -path ./.git -prune -o -path ./tests -prune \
  -o -path ./fuzz -prune -o -path ./bench -prune -o -type f)
pct=$((tests * 100 / code))
echo "tests $tests lines, code $code lines: $pct% (at most 33%)"
if [ "${1:-}" = "--check" ] && [ $((tests * 3)) -gt "$code" ]; then
  echo "the tests are more than a third of the code" >&2
  exit 1
fi
