#!/usr/bin/env bash
# Runs a program under valgrind's memcheck and expects no invalid access and, as lost memory,
# exactly one instance block per cycle: the program prints "cycles N block B".
set -euo pipefail
program=$1
log=$(mktemp)
trap 'rm -f "$log"' EXIT
out=$(valgrind --leak-check=full --error-exitcode=3 --errors-for-leak-kinds=none \
      --log-file="$log" "$program")
read -r _ cycles _ block <<<"$out"
if grep -q "Invalid\|uninitialised" "$log"; then
  cat "$log"; echo "memcheck reported invalid accesses"; exit 1
fi
definite=$(grep "definitely lost:" "$log" | sed 's/,//g' | awk '{print $4, $7}')
indirect=$(grep "indirectly lost:" "$log" | sed 's/,//g' | awk '{print $4}')
expected="$((cycles * block)) $cycles"
echo "definitely lost (bytes blocks): ${definite:-0 0}, expected $expected; indirectly lost: ${indirect:-0}"
[[ "${definite:-0 0}" == "$expected" && "${indirect:-0}" == "0" ]]
