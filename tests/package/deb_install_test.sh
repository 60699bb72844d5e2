#!/usr/bin/env bash
# Runs lintian on the built .deb, installs it, checks what it put where,
# removes it and purges it. Needs root (dpkg); run by 'make test-package'.
set -euo pipefail

deb=$(ls "${1:-build-package}"/tsanomalydetect_*_amd64.deb | head -n 1)
data_existed=no
[ -e /var/lib/tsanomalydetect ] && data_existed=yes
logs_existed=no
[ -e /var/log/tsanomalydetect ] && logs_existed=yes
user_existed=no
getent passwd tsanomaly >/dev/null && user_existed=yes
ingest_group_existed=no
getent group tsanomaly-ingest >/dev/null && ingest_group_existed=yes
fail() { echo "deb_install_test: FAIL: $*" >&2; exit 1; }
check() { "$@" || fail "$*"; }

# lintian judges the package as Debian would: any error or warning fails.
command -v lintian >/dev/null || fail "lintian is not installed (run scripts/install-deps)"
echo "deb_install_test: lintian $(basename "$deb")"
lintian --fail-on error,warning --display-info "$deb" || fail "lintian"

dpkg -P tsanomalydetect >/dev/null 2>&1 || true
dpkg -i "$deb" >/dev/null

check dpkg-query -W -f='${Status}' tsanomalydetect | grep -q 'install ok installed'
for f in /usr/bin/tsanomalydetect /usr/bin/tsanomalyctl; do check test -x "$f"; done
for f in /usr/share/tsanomalydetect/anomaly_db.sql /etc/tsanomalydetect/tsanomalydetect.ini \
         /usr/lib/systemd/system/tsanomalydetect.service; do check test -f "$f"; done
dpkg-query -W -f='${Conffiles}\n' tsanomalydetect | grep -q '/etc/tsanomalydetect/tsanomalydetect.ini' \
  || fail "the configuration is not a conffile"
grep -q '^ExecStart=/usr/bin/tsanomalydetect' /usr/lib/systemd/system/tsanomalydetect.service \
  || fail "the unit does not start the installed binary"
/usr/bin/tsanomalyctl status /var/lib/tsanomalydetect/anomaly.db | grep -q '^Pending jobs  *0$' \
  || fail "postinst did not create an empty detector database"
/usr/bin/tsanomalyctl --help | grep -q 'usage: tsanomalyctl' || fail "installed tool does not run"
# The manual pages, gzipped in their sections, and the bash completion.
for page in man1/tsanomalyctl.1 man5/tsanomalydetect.ini.5 man8/tsanomalydetect.8; do
  check test -f "/usr/share/man/$page.gz"
  gzip -t "/usr/share/man/$page.gz" || fail "$page.gz is not gzip"
done
man -l /usr/share/man/man8/tsanomalydetect.8.gz 2>/dev/null | grep -q -- '-database_location' || fail "tsanomalydetect(8) does not render"
completion=/usr/share/bash-completion/completions/tsanomalyctl
check test -f "$completion"
bash -c "source $completion && complete -p tsanomalyctl" | grep -q _tsanomalyctl || fail "the completion defines no completion"
rules=/usr/share/tsanomalydetect/prometheus/tsanomalydetect.rules.yml
check test -f "$rules"
if command -v promtool >/dev/null; then promtool check rules "$rules" >/dev/null || fail "installed alerting rules"; fi

# The service's own system user owns its data and log folders and its
# database; the data folder (2770, setgid) and the database (0660) belong to
# the group of the queue's writers; nothing of it is readable by other users.
owner_mode() { stat -c '%U:%G %a' "$1"; }
getent passwd tsanomaly >/dev/null || fail "no system user tsanomaly"
[ "$(id -u tsanomaly)" -lt 1000 ] || fail "tsanomaly is not a system user"
case "$(getent passwd tsanomaly | cut -d: -f7)" in
  */nologin|*/false) ;;
  *) fail "tsanomaly has a login shell" ;;
esac
getent group tsanomaly-ingest >/dev/null || fail "no group tsanomaly-ingest"
check test "$(owner_mode /var/lib/tsanomalydetect)" = "tsanomaly:tsanomaly-ingest 2770"
check test "$(owner_mode /var/log/tsanomalydetect)" = "tsanomaly:tsanomaly 750"
check test "$(owner_mode /var/lib/tsanomalydetect/anomaly.db)" = "tsanomaly:tsanomaly-ingest 660"
# A member of the group queues a job; a user outside it is told who may.
hook=/usr/share/tsanomalydetect/hooks/restic-backup
check test -x "$hook"
adduser --system --quiet --no-create-home --ingroup tsanomaly-ingest tsanomaly-hook-test
job='{"id": "pkg-1", "files": 1, "size_kb": 1, "transferred_kb": 1, "seconds": 1}'
echo "$job" | runuser -u tsanomaly-hook-test -- tsanomalyctl ingest /var/lib/tsanomalydetect/anomaly.db --format jsonl \
  | grep -qx '1 jobs queued, 0 already queued, 0 skipped' || fail "a member of tsanomaly-ingest cannot queue a job"
refusal=$(echo "$job" | runuser -u nobody -- tsanomalyctl ingest /var/lib/tsanomalydetect/anomaly.db --format jsonl 2>&1) \
  && fail "a user outside tsanomaly-ingest queued a job"
case "$refusal" in
  *tsanomaly-ingest*) ;;
  *) fail "a user outside tsanomaly-ingest is not told who may queue: $refusal" ;;
esac
deluser --quiet tsanomaly-hook-test >/dev/null 2>&1
check test "$(owner_mode /var/lib/tsanomalydetect/anomaly.db)" = "tsanomaly:tsanomaly-ingest 660"
# An installed unit's sandbox as systemd rates it, within the CI limit.
check_exposure() {
  command -v systemd-analyze >/dev/null || return 0
  local exposure
  exposure=$(systemd-analyze security --offline=true --no-pager "$1" 2>&1 |
             sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p')
  awk -v e="${exposure:-99}" 'BEGIN { exit !(e <= 2.0) }' || fail "installed $(basename "$1") exposure ${exposure:-unknown}"
}
unit=/usr/lib/systemd/system/tsanomalydetect.service
for line in User=tsanomaly Type=notify Restart=always StateDirectory=tsanomalydetect LogsDirectory=tsanomalydetect \
            ConfigurationDirectory=tsanomalydetect; do
  grep -qx "$line" "$unit" || fail "the unit lacks $line"
done
check_exposure "$unit"
# The alert process's unit: the installed tool, the service user, the same
# sandbox limit; the package's database already has the alert tables.
alert_unit=/usr/lib/systemd/system/tsanomalyalert.service
check test -f "$alert_unit"
check test -f /usr/share/tsanomalydetect/alert_db.sql
grep -q '^ExecStart=/usr/bin/tsanomalyctl alert /var/lib/tsanomalydetect/anomaly.db' "$alert_unit" \
  || fail "the alert unit does not start the installed tool"
for line in User=tsanomaly Type=notify StateDirectory=tsanomalydetect; do
  grep -qx "$line" "$alert_unit" || fail "the alert unit lacks $line"
done
check_exposure "$alert_unit"
sqlite3 /var/lib/tsanomalydetect/anomaly.db "SELECT COUNT(*) FROM ALERT_DELIVERY" >/dev/null \
  || fail "postinst did not create the alert tables"

console=/usr/lib/systemd/system/tsanomalyconsole.service
for line in User=tsanomaly StateDirectory=tsanomalydetect IPAddressDeny=any IPAddressAllow=localhost \
            'RestrictAddressFamilies=AF_UNIX AF_INET AF_INET6'; do
  grep -qx "$line" "$console" || fail "the console's unit lacks $line"
done
grep -q -- '--token-file /etc/tsanomalydetect/console.token' "$console" || fail "the console's unit names no token file"
# The console's token: made on install, readable by the service user only.
check test "$(owner_mode /etc/tsanomalydetect/console.token)" = "tsanomaly:tsanomaly 600"
check test "$(wc -c < /etc/tsanomalydetect/console.token)" -eq 64
check_exposure "$console"
# A database left root-owned by an earlier version is handed over on upgrade.
chown root:root /var/lib/tsanomalydetect/anomaly.db
chmod 0644 /var/lib/tsanomalydetect/anomaly.db
dpkg -i "$deb" >/dev/null
check test "$(owner_mode /var/lib/tsanomalydetect/anomaly.db)" = "tsanomaly:tsanomaly-ingest 660"

# An administrator's edit survives removal; purge takes it away.
echo '; edited by the administrator' >> /etc/tsanomalydetect/tsanomalydetect.ini
dpkg -r tsanomalydetect >/dev/null
check test ! -e /usr/bin/tsanomalydetect
check test ! -e /usr/bin/tsanomalyctl
grep -q 'edited by the administrator' /etc/tsanomalydetect/tsanomalydetect.ini || fail "removal lost the edited conffile"
dpkg -P tsanomalydetect >/dev/null
check test ! -e /etc/tsanomalydetect/tsanomalydetect.ini
check test ! -e /etc/tsanomalydetect/console.token
dpkg-query -W tsanomalydetect >/dev/null 2>&1 && fail "package still known after purge"

if [ "$data_existed" = no ]; then rm -rf /var/lib/tsanomalydetect; fi
if [ "$logs_existed" = no ]; then rm -rf /var/log/tsanomalydetect; fi
if [ "$user_existed" = no ]; then
  deluser --system --quiet tsanomaly >/dev/null 2>&1 || true
  delgroup --system --quiet tsanomaly >/dev/null 2>&1 || true
fi
if [ "$ingest_group_existed" = no ]; then delgroup --system --quiet tsanomaly-ingest >/dev/null 2>&1 || true; fi
echo "deb_install_test: 1 passed, 0 failed"
