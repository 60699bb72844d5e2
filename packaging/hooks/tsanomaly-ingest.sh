# shellcheck shell=sh
# Sourced by the backup hooks in this folder. tsanomaly_ingest FORMAT FILE
# hands a backup tool's output to `tsanomalyctl ingest` for the anomaly
# detector. It never fails the backup and never holds it up for long: the
# ingest is cut off after TSANOMALY_INGEST_TIMEOUT seconds, and any failure is
# said on standard error while the hook keeps the backup's own exit status.
#
# TSANOMALY_DB               the detector's database
#                            (default /var/lib/tsanomalydetect/anomaly.db)
# TSANOMALY_INGEST_OPTIONS   more options for ingest, split at blanks
#                            (e.g. "--client web01 --schedule nightly")
# TSANOMALY_INGEST_TIMEOUT   seconds (default 30)
# TSANOMALYCTL               the program (default tsanomalyctl)

tsanomaly_ingest() {
    tsanomaly_format=$1
    tsanomaly_file=$2
    # The options are the administrator's words: split at blanks, never globbed.
    set -f
    # shellcheck disable=SC2086
    timeout --kill-after=5 "${TSANOMALY_INGEST_TIMEOUT:-30}" "${TSANOMALYCTL:-tsanomalyctl}" ingest \
        "${TSANOMALY_DB:-/var/lib/tsanomalydetect/anomaly.db}" --format "$tsanomaly_format" \
        ${TSANOMALY_INGEST_OPTIONS:-} "$tsanomaly_file" >&2
    tsanomaly_status=$?
    set +f
    if [ "$tsanomaly_status" -ne 0 ]; then
        echo "$(basename "$0"): the run was not queued for the anomaly detector (tsanomalyctl ingest exited $tsanomaly_status); the backup's own status is kept" >&2
    fi
}

# A private file for the tool's output (mktemp: unpredictable name, created
# exclusively, mode 0600), removed when the hook exits.
tsanomaly_output_file() {
    tsanomaly_output=$(mktemp "${TMPDIR:-/tmp}/tsanomaly-hook.XXXXXXXXXX") || return 1
    trap 'rm -f "$tsanomaly_output"' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
}
