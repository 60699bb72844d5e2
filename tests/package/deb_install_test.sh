#!/usr/bin/env bash
# Installs the built .deb, checks what it put where, removes it and purges
# it. Needs root (dpkg); run by 'make test-package'.
set -euo pipefail

deb=$(ls "${1:-build-package}"/tsanomalydetect_*_amd64.deb | head -n 1)
data_existed=no
[ -e /var/lib/tsanomalydetect ] && data_existed=yes
fail() { echo "deb_install_test: FAIL: $*" >&2; exit 1; }
check() { "$@" || fail "$*"; }

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

# An administrator's edit survives removal; purge takes it away.
echo '; edited by the administrator' >> /etc/tsanomalydetect/tsanomalydetect.ini
dpkg -r tsanomalydetect >/dev/null
check test ! -e /usr/bin/tsanomalydetect
check test ! -e /usr/bin/tsanomalyctl
grep -q 'edited by the administrator' /etc/tsanomalydetect/tsanomalydetect.ini || fail "removal lost the edited conffile"
dpkg -P tsanomalydetect >/dev/null
check test ! -e /etc/tsanomalydetect/tsanomalydetect.ini
dpkg-query -W tsanomalydetect >/dev/null 2>&1 && fail "package still known after purge"

if [ "$data_existed" = no ]; then rm -rf /var/lib/tsanomalydetect; fi
echo "deb_install_test: 1 passed, 0 failed"
