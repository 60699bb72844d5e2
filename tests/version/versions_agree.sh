#!/bin/sh
# Both programs and the package's changelog name the release that
# project(VERSION) sets, and both programs the same database schema.
# usage: versions_agree.sh TSANOMALYCTL TSANOMALYDETECT CMAKE_VERSION CHANGELOG
set -eu
ctl=$("$1" --version)
detect=$("$2" --version)
fail() { echo "versions_agree: $*" >&2; exit 1; }
echo "$ctl" | grep -Eqx "tsanomalyctl $3 \(database schema [0-9]+\)" || fail "tsanomalyctl says '$ctl', not $3"
echo "$detect" | grep -Eqx "tsanomalydetect $3 \(database schema [0-9]+\)" || fail "tsanomalydetect says '$detect', not $3"
[ "${ctl#tsanomalyctl }" = "${detect#tsanomalydetect }" ] || fail "the programs disagree: '$ctl' and '$detect'"
head -n 1 "$4" | grep -q "^tsanomalydetect ($3) " || fail "the package's changelog names $(head -n 1 "$4")"
echo "ok: $ctl; $detect"
