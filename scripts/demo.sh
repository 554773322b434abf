#!/bin/sh
# Builds everything and takes a short tour of the device table: reading it
# through the device commands and through libQD, then changing it.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
build=$top/build/release
# A sandbox build: every fixed host path (archive, settings) lies below the
# build tree, so the tour touches nothing outside it.
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DQD_SANDBOX=ON >/dev/null
cmake --build "$build" -j2 >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$top/examples/units.tab" "$work/units.tab"
cp "$work/units.tab" "$work/before.tab"
export TAV_DEVTAB="$work/units.tab"
PATH="$build/commands:$build/examples:$PATH"

if [ -t 1 ]; then bold=$(printf '\033[1m') plain=$(printf '\033[0m'); else bold='' plain=''; fi
step() { printf '\n%s$ %s%s\n' "$bold" "$*" "$plain"; "$@"; }

PATH="$build/tools/qdadm:$PATH"
echo "A copy of the sample table: $TAV_DEVTAB"
step qdadm list
step qdadm list class=serial state=enabled
step qdadm get disk0 desc
step qdadm --json get tape0
step qdadm methods net0
step qdadm match class=network -- net0 disk1 net2
step qdadm next tape
step qdadm search --filter type,state class=serial --not state=enabled
step qdadm --json search --any --filter desc class=tape class=printer
step unitprop -v lp0
step qdadm put net3 cdevice=/dev/net3 class=network address=10.1.2.3 'desc=Spare: port 4' 'upcmd=ifconfig net3 up'
step qdadm get net3
step unitmod -m tty07 state=enabled speed=57600
step qdadm delete floppy0
step qdadm lock write -- cat "$work/.units.tab"
step qdadm --json cache stats
# Methods: serial1's command methods print keyword=value lines; checkfunc
# chains one with a function of the example library devcheck.so.
export SO_DIR="$build/examples/methods"
step qdadm methods serial1
step qdadm plan serial1 checkfunc
step qdadm perform serial1 checkfunc names=irq,ioaddr
step qdadm perform serial1 healthfunc
step qdadm --json perform serial1 reportcmd site=rack2 'note=a line
EOF
echo not run'
step qdadm perform serial1 nosuchfunc || echo "(exit status $?: the method is not there)"

# Containment: scsi0 holds three disks and a tape, each disk its three
# partitions (their ObjContains attributes). A destroy takes a tree depth
# first, everything an entry holds before the entry; a dry run prints what
# it would do and does nothing. The disks' QDdestroyfunc would run.
step qdadm contains scsi0
step qdadm contains --tree scsi0
step qdadm --json contains serial0
step qdadm destroy --tree --extended --delete --fallback --dry-run scsi0
step qdadm destroy --extended tape1 || echo "(exit status $?: tape1 has no QDdestroyfunc method)"
# Timestamping on (now): the deleted entries get their archive copies.
export QD_TIMESTAMP=
step qdadm destroy --tree --delete serial0
unset QD_TIMESTAMP

# Classes: a new disk takes the first free alias of its class and the
# class's defaults and methods; elements and items are edited in place.
classes="$top/examples/classes/units.classes"
step qdadm create --class-file "$classes" disk cdevice=/dev/rdsk/3s0 'desc=SCSI disk 3'
step qdadm get disk3
step qdadm method add net0 restartfunc checkcmd 5 '?m'
step qdadm method rm net0 restartfunc checkcmd
step qdadm value add disk0 capabilities eject
step qdadm value add disk0 capabilities 'eject,load' || echo "(exit status $?: one item at a time)"

# Stale entries. Two lines were last seen on 18 and 2 January 1999 (set
# with timestamping off, so that the stamps are taken as given); a run
# stamped 20 January 1999 archives the first and expires the second,
# last seen more than 7 days before it.
step qdadm put tty05 ObjTimestamp=0099,00,18,00,00,00,1,017,00
step qdadm put tty04 ObjTimestamp=0099,00,02,00,00,00,6,001,00
export QD_TIMESTAMP=0099,00,20,00,00,00,3,019,00
step qdadm touch tape1
step qdadm status tape1 tty05 tty04 disk0
step qdadm expire
step qdadm archive --all
step qdadm archive --list
unset QD_TIMESTAMP
printf '\n%sThe changed entries, before and after:%s\n' "$bold" "$plain"
grep -E '^(tty07|floppy0|net3|serial0|tty0[0-3]|disk3):' "$work/before.tab" | sed 's/^/before: /'
grep -E '^(tty07|floppy0|net3|serial0|tty0[0-3]|disk3):' "$work/units.tab" | sed 's/^/after:  /'
echo "(The library's direct flush rewrites the whole table from its cache: entries in reverse order,"
echo " attributes in descending order, comment lines dropped. unitmod changes one entry in place.)"
