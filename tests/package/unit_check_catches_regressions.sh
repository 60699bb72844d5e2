#!/bin/sh
# Plants one regression at a time in a copy of the detector's unit; the
# restart check must refuse each and say why (so the check itself is checked).
#   unit_check_catches_regressions.sh CHECK UNIT_FILE PROGRAM
set -eu
check=$1 unit=$2 program=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
planted=$work/tsanomalydetect.service

expect_refused() {  # sed-expression expected-message
  sed "$1" "$unit" > "$planted"
  if out=$(python3 "$check" "$planted" "$program" 2>&1); then
    echo "the check passed a unit edited with '$1'"; exit 1
  fi
  echo "$out" | grep -q "$2" || { echo "'$1': expected '$2', got: $out"; exit 1; }
}

expect_refused 's/^Restart=always$/Restart=on-failure/' 'Restart=on-failure, not always'
expect_refused 's/^RestartSec=.*/RestartSec=0/' 'gives no back-off'
expect_refused 's/^StartLimitBurst=.*/StartLimitBurst=3/' "exhaust the start limit"
expect_refused 's/^Restart=always$/Restart=always\nRestartPreventExitStatus=1/' 'RestartPreventExitStatus= keeps'
expect_refused 's/^Restart=always$/Restart=always\nRestartEvery=5/' "Unknown key 'RestartEvery'"
echo "ok"
