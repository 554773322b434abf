#!/bin/sh
# Compares the dynamic symbols a library defines with the names its linker
# map lists: nothing missing, nothing extra.
set -eu
lib=$1 map=$2
want=$(sed -n '/global:/,/local:/p' "$map" | grep -v -e 'global:' -e 'local:' | tr ';' '\n' |
       tr -d ' \t' | grep -v '^$' | sort)
have=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | grep -v '^$' | sort)
if [ "$want" != "$have" ]; then
  echo "exported symbols of $lib differ from $map:"
  printf '%s\n' "$want" > /tmp/want.$$; printf '%s\n' "$have" > /tmp/have.$$
  diff /tmp/want.$$ /tmp/have.$$ || true
  rm -f /tmp/want.$$ /tmp/have.$$
  exit 1
fi
echo "$(printf '%s\n' "$have" | wc -l) symbols, as listed"
