#!/bin/sh
# Builds everything and takes a short tour of the device table: reading it
# through the device commands and through libQD, then changing it.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
build=$top/build/release
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" -j2 >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$top/examples/units.tab" "$work/units.tab"
cp "$work/units.tab" "$work/before.tab"
export TAV_DEVTAB="$work/units.tab"
PATH="$build/commands:$build/examples:$PATH"

if [ -t 1 ]; then bold=$(printf '\033[1m') plain=$(printf '\033[0m'); else bold='' plain=''; fi
step() { printf '\n%s$ %s%s\n' "$bold" "$*" "$plain"; "$@"; }

echo "A copy of the sample table: $TAV_DEVTAB"
step unitlist
step unitlist -a class=serial state=enabled
step unitprop disk0 desc
step unitprop -v net0
step qdshow tape0
step qdshow net0 restartfunc
step unitmod -m tty07 state=enabled speed=57600
step unitmod -a net3 cdevice=/dev/net3 class=network address=10.1.2.3 'desc=Spare: port 4' 'upcmd=ifconfig net3 up'
step unitmod -d floppy0
step qdshow net3
printf '\n%sThe table, before and after:%s\n' "$bold" "$plain"
diff "$work/before.tab" "$work/units.tab" || true
