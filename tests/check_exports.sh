#!/usr/bin/env bash
# Checks the dynamic symbol table of the shared library: every defined symbol of ours is a C
# export declared in the public header, under its undecorated name.
set -euo pipefail
lib=$1
header=$2
declared=$(grep -o -E '\b(cu)?KESTOR[A-Za-z]+\(' "$header" | tr -d '(' | sort -u)
defined=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | sort -u)
status=0
for name in $defined; do
  if ! grep -qx "$name" <<<"$declared"; then
    echo "unexpected exported symbol: $name"
    status=1
  fi
done
count=$(wc -w <<<"$defined")
echo "exported: $count symbols"
# Every export the sources define must be in the table.
src=$(dirname "$header")/../src
implemented=$(grep -rhoE '^[A-Za-z_ *]*\b(cu)?KESTOR[A-Za-z]+\(' "$src" | grep -oE '(cu)?KESTOR[A-Za-z]+' | sort -u)
for name in $implemented; do
  if ! grep -qx "$name" <<<"$defined"; then
    echo "missing export: $name"
    status=1
  fi
done
exit $status
