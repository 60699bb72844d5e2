#!/bin/sh
# A generated manual page renders without a word from groff (as man and
# lintian run it) or from mandoc's linter. scdoc opens every section and
# ends every indented block with a paragraph macro that mandoc reports as
# "skipping paragraph macro" and both formatters drop; that one message is
# scdoc's, not the page's, and is the only one let through.
# usage: lint_page.sh PAGE   (exit 77 when mandoc is not installed)
set -eu
page=$1
command -v mandoc >/dev/null || { echo "mandoc is not installed (run scripts/install-deps)"; exit 77; }
groff_says=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
mandoc_says=$(mandoc -T lint -W warning "$page" 2>&1 | grep -v ': WARNING: skipping paragraph macro: ' || true)
[ -z "$groff_says" ] && [ -z "$mandoc_says" ] && { echo "ok: $page"; exit 0; }
printf '%s\n' "$groff_says" "$mandoc_says"
exit 1
