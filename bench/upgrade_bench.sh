#!/usr/bin/env bash
# upgrade_bench: what `tsanomalyctl upgrade` gains a database made the backup
# product's way. Simulates a 1000-workload domain (365 days of history, 1000
# pending jobs, seed 1), copies it into tables made as
# tests/support/plain_product_db.sql makes them (plain indexes on the workload
# key, no triggers, rollback journal), and times one cold detection pass
# (`tsanomalyctl detect`, no calibrated models yet) on a fresh copy of:
#   plain      the database as the product made it
#   indexed    the same after `upgrade --apply` (rollback journal still)
#   wal        the same after `upgrade --apply --wal`
# Each pass's copy is written through to the disk before it starts; passes
# take turns; the median of RUNS is printed with the min and max. Every pass
# must leave the same history and anomalies as the plain one.
#
#   bench/upgrade_bench.sh [BUILD_DIR [RUNS]]      defaults: build 5
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build}
runs=${2:-5}
ctl="$build/tsanomalyctl"
work="$build/upgrade_bench.work"
variants=(plain indexed wal)

rm -rf "$work"
mkdir -p "$work/logs"

seconds_since() {
  local ms=$((($(date +%s%N) - $1) / 1000000))
  printf '%d.%03d' $((ms / 1000)) $((ms % 1000))
}

"$ctl" simulate "$work/detector.db" --workloads 1000 --days 365 --pending 1000 --anomalies 3 --seed 1
sqlite3 "$work/plain.db" "ATTACH '${work//\'/\'\'}/detector.db' AS src" ".read tests/support/plain_product_db.sql"
for variant in indexed wal; do
  cp "$work/plain.db" "$work/$variant.db"
  options=(--apply)
  [ "$variant" = wal ] && options+=(--wal)
  started=$(date +%s%N)
  "$ctl" upgrade "$work/$variant.db" "${options[@]}" >/dev/null
  echo "upgrade ${options[*]}: $(seconds_since "$started") s"
done

# One cold pass on a fresh copy of a variant; prints its wall time.
pass() {
  rm -f "$work"/run.db*
  cp "$work/$1.db" "$work/run.db"
  sync "$work/run.db"
  local started
  started=$(date +%s%N)
  "$ctl" detect -database_location "$work" -database_file_name run.db -log_path "$work/logs" >/dev/null
  seconds_since "$started"
}

outcome() {
  sqlite3 "$work/run.db" "SELECT (SELECT COUNT(*) FROM HIST_DATA) || ' history, ' || (SELECT COUNT(*) FROM ANOMALY_DATA) \
    || ' anomalies, ' || (SELECT COUNT(*) FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 0) || ' pending'"
}

declare -A times
expected=""
for ((run = 0; run < runs; ++run)); do
  for ((i = 0; i < ${#variants[@]}; ++i)); do
    variant=${variants[$(((i + run) % ${#variants[@]}))]}
    times[$variant]+="$(pass "$variant") "
    got=$(outcome)
    expected=${expected:-$got}
    if [ "$got" != "$expected" ]; then
      echo "upgrade_bench: the $variant pass left $got, another left $expected" >&2
      exit 1
    fi
  done
done

echo "every pass left: $expected"
printf '%-8s %s\n' variant "one cold pass, s: median (min-max) of $runs"
for variant in "${variants[@]}"; do
  read -r -a sorted <<<"$(tr ' ' '\n' <<<"${times[$variant]}" | sed '/^$/d' | sort -n | tr '\n' ' ')"
  printf '%-8s %s (%s-%s)\n' "$variant" "${sorted[$((runs / 2))]}" "${sorted[0]}" "${sorted[$((runs - 1))]}"
done
