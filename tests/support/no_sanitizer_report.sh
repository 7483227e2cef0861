#!/usr/bin/env bash
# For the shell tests that start leitch-routerd themselves: fails (exit status
# 1, the report printed) when the simulator's standard error, the file LOG,
# holds a sanitizer report, a line "==PID==ERROR: " (AddressSanitizer,
# LeakSanitizer) or "FILE:LINE:COLUMN: runtime error: " (UndefinedBehaviorSanitizer)
# and what follows it. The same rule as sanitizer_report() in routerd.h and routerd.py.
#
#   no_sanitizer_report.sh LOG
set -euo pipefail

log=$1
first=$(grep -m 1 -n -E '^(==[0-9]+==ERROR: |[^ ]+: runtime error: )' "$log" || true)
[ -z "$first" ] && exit 0
echo "leitch-routerd wrote a sanitizer report:"
tail -n "+${first%%:*}" "$log"
exit 1
