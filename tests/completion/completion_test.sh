#!/bin/bash
# Drives tsanomalyctl's bash completion as bash would: sources the script,
# then calls its function with COMP_WORDS / COMP_CWORD set, and compares what
# it offers with what the built tool declares in its --help.
# usage: completion_test.sh SCRIPT TSANOMALYCTL
set -u
script=$1 tool=$2
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# shellcheck source=/dev/null
source "$script"
complete -p tsanomalyctl | grep -q -- '-F _tsanomalyctl' || fail "no completion function for tsanomalyctl: $(complete -p tsanomalyctl 2>&1)"

# What the function offers for the words given, the last being the one under
# the cursor; sorted, one per line.
offered() {
  COMP_WORDS=(tsanomalyctl "$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _tsanomalyctl
  printf '%s\n' "${COMPREPLY[@]}" | sed '/^$/d' | sort
}
lines() { printf '%s\n' "$@" | sed '/^$/d' | sort; }
expect() {  # expect DESCRIPTION EXPECTED ACTUAL
  [ "$2" = "$3" ] || fail "$1: expected [$(echo $2)], offered [$(echo $3)]"
}

commands=$("$tool" --help | sed -n '/^commands:/,/^$/s/^  \([a-z-]*\) .*/\1/p')
[ -n "$commands" ] || fail "no commands in 'tsanomalyctl --help'"
expect "commands" "$(lines $commands --help --version)" "$(offered "")"
expect "commands starting al" "$(lines alert alert-test)" "$(offered al)"

# Every command's options, as its --help declares them (with aliases).
for command in $commands; do
  declared=$("$tool" "$command" --help | sed -nE 's/^  (--?[A-Za-z][A-Za-z0-9_-]*)(, (--?[A-Za-z][A-Za-z0-9_-]*))?( .*|$)/\1 \3/p')
  expect "options of $command" "$(lines $declared --help)" "$(offered "$command" -)"
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
mkdir subdir
touch anomaly.db tsanomalydetect.ini simple-file
expect "DB of status" "anomaly.db" "$(offered status ano)"
expect "DB after an option and its value" "anomaly.db" "$(offered anomalies --client web ano)"
expect "INI of alert --config" "tsanomalydetect.ini" "$(offered alert anomaly.db --config tsa)"
expect "INI of --config=" "$(lines anomaly.db simple-file subdir tsanomalydetect.ini)" "$(offered alert-test --config = "")"
expect "FILE of report -o" "$(lines simple-file subdir)" "$(offered report anomaly.db -o s)"
expect "FILE of report --output" "$(lines simple-file subdir)" "$(offered report anomaly.db --output s)"
expect "DIR of detect -database_location: folders only" "subdir" "$(offered detect -database_location s)"
expect "FILE of detect -database_file_name" "$(lines simple-file subdir)" "$(offered detect -database_file_name s)"
expect "no file for a number" "" "$(offered anomalies anomaly.db --limit "")"
expect "no file for ANOMALY_ID" "" "$(offered feedback anomaly.db "")"
expect "no file for an extra argument" "" "$(offered status anomaly.db "")"
expect "no option for an unknown command" "" "$(offered nosuch -)"

[ "$failures" -eq 0 ] || { echo "$failures failures"; exit 1; }
echo "ok: $(echo $commands | wc -w) commands and their options, file and folder names"
