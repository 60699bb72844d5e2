#!/usr/bin/env bash
# How long `tsanomalyctl explain` takes for a job of a heavy multi-stream
# workload: 20 workloads of 4 streams each, 760 days of history (3040 rows
# per workload), MAX_OBSERVATIONS_FOR_TRAINING=3000 so every job trains on
# 3000 rows. Prints the median and the slowest of the 20 jobs.
#   bench/explain_bench.sh [BUILD_DIR]
set -euo pipefail
build=${1:-build}
ctl="$build/tsanomalyctl"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$ctl" simulate "$work/db" --workloads 20 --days 760 --pending 20 --anomalies 20 --streams --stream-share 100 \
  --seed 1 > /dev/null
printf '[ANOMALY_MODEL_SETTINGS]\nMAX_OBSERVATIONS_FOR_TRAINING=3000\n' > "$work/ini"
keys=$(sqlite3 "$work/db" "SELECT UNIQUE_KEY FROM DATA_TO_PROCESS WHERE PROCESSED_STATUS = 0")
times=()
while IFS= read -r key; do
  start=$(date +%s%N)
  "$ctl" explain "$work/db" "$key" -config_file "$work/ini" -eps 0.5 > /dev/null
  times+=($(( ($(date +%s%N) - start) / 1000000 )))
done <<< "$keys"
sorted=($(printf '%s\n' "${times[@]}" | sort -n))
echo "explain, 3000-row multi-stream training sets: ${#sorted[@]} jobs, median ${sorted[$(( ${#sorted[@]} / 2 ))]} ms," \
     "slowest ${sorted[-1]} ms"
