#!/bin/sh
# A tree where storage reaches up into service, and a table with a circle:
# the include check must refuse both and name the breach.
set -eu
check=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/storage" "$work/service"
printf '#include "service/DetectionService.h"\n' > "$work/storage/Reach.h"
printf '#include "tests/support/TempDir.h"\n' > "$work/storage/Reach_test.cpp"
printf 'storage:\nservice:storage\n' > "$work/layers.txt"
if out=$(python3 "$check" "$work" "$work/layers.txt"); then
  echo "the check passed a tree where storage includes service/"; exit 1
fi
echo "$out" | grep -q 'storage/Reach.h:1: storage may not include service/' || { echo "$out"; exit 1; }
echo "$out" | grep -q 'Reach_test' && { echo "a unit test may include tests/: $out"; exit 1; }
printf 'storage:service\nservice:storage\n' > "$work/layers.txt"
rm "$work/storage/Reach.h"
if out=$(python3 "$check" "$work" "$work/layers.txt"); then
  echo "the check passed a circle"; exit 1
fi
echo "$out" | grep -q 'circle' || { echo "$out"; exit 1; }
echo "ok"
