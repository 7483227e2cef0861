#!/usr/bin/env bash
# Instructions per command of every benchmark case, counted by callgrind, which
# gives the same figure on a busy machine as on an idle one.
#
#   bench/callgrind.sh [path/to/leitch_bench [WORDS]]
#
# WORDS, comma-separated, picks the cases whose name contains one of them.
set -euo pipefail
bench=${1:-build/default/bench/leitch_bench}
only=${2:-}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$out/cg.out" \
  "$bench" --callgrind "$only" >/dev/null 2>"$out/valgrind.log" || { cat "$out/valgrind.log"; exit 1; }

# Each dump is named "case commands iterations" and holds the iterations only.
printf '| %-40s | %14s |\n' "case" "instr/command"
printf '|%s|%s|\n' "$(printf -- '-%.0s' {1..42})" "$(printf -- '-%.0s' {1..16})"
for f in $(ls "$out"/cg.out.* | sort -V); do
  awk '/^desc: Trigger: Client Request: / { sub(/^desc: Trigger: Client Request: /, ""); name=$1; commands=$2; iterations=$3 }
       /^(summary|totals):/ { total=$2 }
       END { if (name != "") printf "| %-40s | %14.0f |\n", name, total / (commands * iterations) }' "$f"
done
