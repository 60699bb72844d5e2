#!/bin/sh
# The lint must refuse a page with an escape neither formatter knows, and
# pass the same page without it.
# usage: lint_catches_a_bad_page.sh LINT_PAGE_SH
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf '.TH "X" "1" "2024-01-01"\n.SH NAME\nx \\- y\n.SH DESCRIPTION\nA \\[NOSUCHGLYPH] here.\n' > "$work/bad.1"
sed 's/\\\[NOSUCHGLYPH\] //' "$work/bad.1" > "$work/good.1"
status=0
sh "$1" "$work/good.1" >/dev/null || status=$?
[ "$status" -eq 77 ] && exit 77
[ "$status" -eq 0 ] || { echo "the lint refused a clean page"; sh "$1" "$work/good.1"; exit 1; }
if sh "$1" "$work/bad.1" >/dev/null; then
  echo "the lint passed a page with an unknown escape"; exit 1
fi
echo ok
