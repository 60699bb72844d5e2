#!/bin/sh
# Runs promtool with the arguments given; exits 77 (skipped) when it is not
# installed (package prometheus; scripts/install-deps installs it).
command -v promtool >/dev/null || { echo "run_promtool: SKIPPED: promtool is not installed"; exit 77; }
exec promtool "$@"
