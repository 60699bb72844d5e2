#!/bin/sh
# The option check must fail on a page that lost an option of a command and
# on one that names an option the command does not take.
# usage: option_check_catches_drift.sh CHECK_MAN_OPTIONS_PY TSANOMALYCTL PAGE
set -eu
check=$1 program=$2 page=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python3 "$check" tsanomalyctl "$program" "$page" >/dev/null || { echo "the real page fails"; exit 1; }
# Without --busy-timeout, the one place upgrade's subsection names it.
grep -q 'fB--busy-timeout' "$page" || { echo "the page never names --busy-timeout"; exit 1; }
sed 's/\\fB--busy-timeout\\fR/\\fBbusy\\fR/g' "$page" > "$work/lost.1"
out=$(python3 "$check" tsanomalyctl "$program" "$work/lost.1") && { echo "passed a page without --busy-timeout"; exit 1; }
echo "$out" | grep -q 'the subsection upgrade does not name --busy-timeout' || { echo "$out"; exit 1; }
# feedback takes no option: naming one there must fail.
sed '/^\.SS feedback$/a\
Also \\fB--json\\fR.' "$page" > "$work/extra.1"
out=$(python3 "$check" tsanomalyctl "$program" "$work/extra.1") && { echo "passed --json under feedback"; exit 1; }
echo "$out" | grep -q 'the subsection feedback names --json, which is not accepted' || { echo "$out"; exit 1; }
echo ok
