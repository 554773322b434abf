#!/bin/sh
# Builds and runs every test: a warnings-as-errors build with g++, the same
# suite under AddressSanitizer and UndefinedBehaviorSanitizer with clang, and
# a bounded run of the fuzzers.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
jobs=${JOBS:-2}

echo "== g++ build, tests"
cmake -S "$top" -B "$top/build/check" -DQD_SANDBOX=ON -DQD_WERROR=ON \
  -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ >/dev/null
cmake --build "$top/build/check" -j"$jobs"
ctest --test-dir "$top/build/check" -j"$jobs" --output-on-failure

if command -v clang++ >/dev/null 2>&1; then
  echo "== clang build with ASan and UBSan, tests"
  cmake -S "$top" -B "$top/build/asan" -DQD_SANDBOX=ON -DQD_WERROR=ON -DQD_SANITIZE=ON \
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
  cmake --build "$top/build/asan" -j"$jobs"
  ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir "$top/build/asan" -j"$jobs" --output-on-failure

  echo "== fuzzers, bounded"
  cmake -S "$top" -B "$top/build/fuzz" -DQD_FUZZ=ON -DBUILD_TESTING=OFF \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
  cmake --build "$top/build/fuzz" -j"$jobs"
  sh "$top/fuzz/run.sh" "$top/build/fuzz"
else
  echo "clang++ not found: sanitizer build and fuzzers skipped" >&2
  exit 1
fi
